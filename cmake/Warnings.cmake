# Project-wide warning set; third-party headers come in as SYSTEM so they stay quiet.
add_library(velmora_warnings INTERFACE)
target_compile_options(velmora_warnings INTERFACE -Wall -Wextra -Wno-unused-parameter)
