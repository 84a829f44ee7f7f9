#pragma once

#include <filesystem>
#include <string>

namespace tavra::testing {

// A fresh directory under /tmp, removed with everything in it on destruction.
// Short paths on purpose: socket paths must stay within 103 bytes.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::filesystem::path& path() const { return path_; }
    std::filesystem::path operator/(const std::string& name) const { return path_ / name; }

private:
    std::filesystem::path path_;
};

}  // namespace tavra::testing
