#include "kit/LogLine.h"

#include <cstdio>

#include "core/ConfigCoding.h"

namespace tavra::LogLine {

std::string format(Date now, std::string_view message) {
    std::string line = TavraJSON::formatDate(now);
    line += ' ';
    line += message;
    return line;
}

void write(const std::string& line) noexcept {
    try {
        std::string withNewline = line + "\n";
        std::fwrite(withNewline.data(), 1, withNewline.size(), stdout);
        std::fflush(stdout);
    } catch (...) {
        // Out of memory for one line of log: nothing better to do.
    }
}

}  // namespace tavra::LogLine
