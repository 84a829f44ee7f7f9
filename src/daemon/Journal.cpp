#include "daemon/Journal.h"

#include <fcntl.h>
#include <unistd.h>

#include <exception>
#include <sstream>
#include <string>
#include <system_error>

#include "kit/AtomicFile.h"

namespace tavra {

namespace {

void readInto(const std::filesystem::path& file, std::vector<JournalEntry>& out) {
    auto bytes = readWholeFile(file);
    if (!bytes) return;
    std::istringstream lines(*bytes);
    for (std::string line; std::getline(lines, line);) {
        if (line.empty()) continue;
        try {
            out.push_back(TavraJSON::decode<JournalEntry>(line));
        } catch (const std::exception&) {
            // A torn or foreign line costs that line only.
        }
    }
}

}  // namespace

Journal::Journal(std::filesystem::path file, std::uintmax_t limit) : file_(std::move(file)), limit_(limit) {}

Journal::~Journal() {
    if (stream_) std::fclose(stream_);
}

std::filesystem::path Journal::rotated() const {
    auto name = file_.stem().string() + ".1" + file_.extension().string();
    return file_.parent_path() / name;
}

bool Journal::open() noexcept {
    if (stream_) return true;
    int fd = ::open(file_.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0) return false;
    stream_ = ::fdopen(fd, "a");
    if (!stream_) {
        ::close(fd);
        return false;
    }
    std::error_code error;
    auto size = std::filesystem::file_size(file_, error);
    size_ = error ? 0 : size;
    // A crash may have left half a line: start on a fresh one so that only
    // the torn line is lost, not the next entry too.
    if (size_ > 0) {
        auto bytes = readWholeFile(file_);
        if (bytes && !bytes->empty() && bytes->back() != '\n') {
            std::fputc('\n', stream_);
            ++size_;
        }
    }
    return true;
}

void Journal::rotateIfFull() noexcept {
    if (size_ < limit_) return;
    std::fclose(stream_);
    stream_ = nullptr;
    std::error_code ignored;
    std::filesystem::rename(file_, rotated(), ignored);
    size_ = 0;
}

bool Journal::append(const JournalEntry& entry) noexcept {
    try {
        if (!open()) return false;
        rotateIfFull();
        if (!open()) return false;
        std::string line = TavraJSON::encodeValue(entry) + "\n";
        bool written = std::fwrite(line.data(), 1, line.size(), stream_) == line.size();
        written = std::fflush(stream_) == 0 && written;
        size_ += line.size();
        return written;
    } catch (...) {
        return false;
    }
}

std::vector<JournalEntry> Journal::read() const {
    std::vector<JournalEntry> entries;
    readInto(rotated(), entries);
    readInto(file_, entries);
    return entries;
}

}  // namespace tavra
