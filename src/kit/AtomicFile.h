#pragma once

// Whole-file reads and crash-safe whole-file writes for the small files that
// matter (settings, daemon state).

#include <sys/types.h>

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "core/Error.h"

namespace tavra {

// A file that could not be written; description() names the file and the
// cause, as in "cannot write /x/config.json: Permission denied".
class FileError : public Error {
public:
    FileError(const std::filesystem::path& path, std::string cause)
        : FileError("write", path, std::move(cause)) {}
    // Another step on the file: "cannot create /x/resume: ...".
    FileError(std::string_view operation, const std::filesystem::path& path, std::string cause)
        : Error("cannot " + std::string(operation) + " " + path.string() + ": " + cause),
          cause_(std::move(cause)) {}

    // The system's text alone: "Permission denied".
    const std::string& cause() const noexcept { return cause_; }

private:
    std::string cause_;
};

// The whole content of a regular file, or nullopt when it cannot be read
// (missing, a directory, a FIFO or device, no permission, ...). Never blocks
// on a FIFO and never throws.
std::optional<std::string> readWholeFile(const std::filesystem::path& path) noexcept;

// Replaces `path` with `bytes` so that a reader sees the old or the new file,
// never a mix: a temporary file in the same directory is written, given
// `mode`, flushed to disk and renamed over `path`. The directory must exist.
// Throws FileError; on failure `path` keeps its old content and no temporary
// file is left behind.
void writeFileAtomically(const std::filesystem::path& path, std::string_view bytes, mode_t mode);

}  // namespace tavra
