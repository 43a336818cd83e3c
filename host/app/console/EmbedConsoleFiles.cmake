# Writes a C++ source that holds the console's files as byte arrays.
#   cmake -DSOURCE_DIR=<folder> -DFILES="a.html;b.js" -DOUTPUT=<file.cpp> -P EmbedConsoleFiles.cmake
# Run at build time, so an edited page is in the next build of the host.
set(body "")
set(table "")
set(index 0)
foreach(name IN LISTS FILES)
  file(READ "${SOURCE_DIR}/${name}" hex HEX)
  string(LENGTH "${hex}" hex_length)
  math(EXPR size "${hex_length} / 2")
  string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${hex}")
  # Sixteen bytes a line (CMake's expressions have no repeat counts).
  string(REPEAT "0x..," 16 line_pattern)
  string(REGEX REPLACE "(${line_pattern})" "\\1\n    " bytes "${bytes}")
  string(APPEND body "const unsigned char file${index}[] = {\n    ${bytes}0x00};\n")
  string(APPEND table "        {\"${name}\", file${index}, ${size}},\n")
  math(EXPR index "${index} + 1")
endforeach()

file(WRITE "${OUTPUT}" "// Generated from host/console/ by EmbedConsoleFiles.cmake; do not edit.
#include \"app/console/ConsoleAssets.h\"

namespace vlm::host {
namespace {
${body}} // namespace

const std::vector<ConsoleAsset>& consoleAssets()
{
    static const std::vector<ConsoleAsset> assets = {
${table}    };
    return assets;
}

} // namespace vlm::host
")
