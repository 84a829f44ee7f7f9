#pragma once

#include <stdlib.h>

#include <filesystem>
#include <stdexcept>
#include <string>
#include <system_error>

namespace tavra::testing {

// A fresh directory under /tmp, removed with everything in it on destruction.
// Short paths on purpose: socket paths must stay within 103 bytes.
class TempDir {
public:
    TempDir() {
        char name[] = "/tmp/tavra-XXXXXX";
        if (!::mkdtemp(name)) throw std::runtime_error("mkdtemp failed");
        path_ = name;
    }
    ~TempDir() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::filesystem::path& path() const { return path_; }
    std::filesystem::path operator/(const std::string& name) const { return path_ / name; }

private:
    std::filesystem::path path_;
};

}  // namespace tavra::testing
