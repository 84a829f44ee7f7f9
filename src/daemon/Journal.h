#pragma once

// The journal: one JSON line per JournalEntry, appended and flushed at once,
// so a crash loses at most the line being written. Bounded: past a size the
// file moves to "{stem}.1.jsonl" (replacing the older one) and a fresh file
// begins; reading goes across both.

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <vector>

#include "core/Effects.h"

namespace tavra {

class Journal {
public:
    static constexpr std::uintmax_t kDefaultLimit = 4 * 1024 * 1024;  // bytes per file

    explicit Journal(std::filesystem::path file, std::uintmax_t limit = kDefaultLimit);
    ~Journal();
    Journal(const Journal&) = delete;
    Journal& operator=(const Journal&) = delete;

    // Appends one line and flushes it. Returns false when it could not be
    // written (the entry is lost; the daemon goes on). Never throws.
    bool append(const JournalEntry& entry) noexcept;

    // Every readable entry, oldest first: the rotated file, then the present
    // one. Lines that do not decode (a line torn by a crash) are skipped.
    std::vector<JournalEntry> read() const;

    const std::filesystem::path& file() const noexcept { return file_; }
    std::filesystem::path rotated() const;

private:
    void rotateIfFull() noexcept;
    bool open() noexcept;

    std::filesystem::path file_;
    std::uintmax_t limit_;
    std::FILE* stream_ = nullptr;
    std::uintmax_t size_ = 0;
};

}  // namespace tavra
