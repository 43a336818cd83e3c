#pragma once

#include <fstream>
#include <string>

#include <Poco/File.h>
#include <Poco/Path.h>
#include <Poco/TemporaryFile.h>

namespace vlm::test {

/// A fresh directory removed with everything in it when the test ends.
class TempDir {
public:
    TempDir() : path(Poco::TemporaryFile::tempName()) { Poco::File(path).createDirectories(); }
    ~TempDir()
    {
        try {
            Poco::File(path).remove(true);
        } catch (...) {
        }
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    std::string file(const std::string& name) const { return Poco::Path(Poco::Path::forDirectory(path), name).toString(); }

    std::string write(const std::string& name, const std::string& content) const
    {
        std::ofstream(file(name), std::ios::trunc) << content;
        return file(name);
    }

    static std::string read(const std::string& p)
    {
        std::ifstream in(p);
        return std::string(std::istreambuf_iterator<char>(in), {});
    }

    const std::string path;
};

} // namespace vlm::test
