// The pure half of Shell: how output bytes become text, how a command is
// named in errors and how the child's environment is put together.

#include <cstring>
#include <set>

#include "platform/Shell.h"

namespace tavra {

namespace {

constexpr std::string_view kReplacement = "\xEF\xBF\xBD";  // U+FFFD

bool isContinuation(unsigned char byte) {
    return (byte & 0xC0) == 0x80;
}

// White space and line breaks: Unicode's Zs category, TAB, LF..CR, NEL and
// the line and paragraph separators.
bool isWhitespace(char32_t c) {
    switch (c) {
        case 0x09:
        case 0x0A:
        case 0x0B:
        case 0x0C:
        case 0x0D:
        case 0x20:
        case 0x85:
        case 0xA0:
        case 0x1680:
        case 0x2028:
        case 0x2029:
        case 0x202F:
        case 0x205F:
        case 0x3000:
            return true;
        default:
            return c >= 0x2000 && c <= 0x200A;
    }
}

// Decodes the code point of valid UTF-8 starting at `text[at]`; sets `length`.
char32_t codePointAt(std::string_view text, std::size_t at, std::size_t& length) {
    const auto lead = static_cast<unsigned char>(text[at]);
    std::size_t count = 1;
    char32_t value = lead;
    if (lead >= 0xF0) {
        count = 4;
        value = lead & 0x07u;
    } else if (lead >= 0xE0) {
        count = 3;
        value = lead & 0x0Fu;
    } else if (lead >= 0xC0) {
        count = 2;
        value = lead & 0x1Fu;
    }
    if (at + count > text.size()) count = 1;
    for (std::size_t k = 1; k < count; ++k) {
        value = (value << 6) | (static_cast<unsigned char>(text[at + k]) & 0x3Fu);
    }
    length = count;
    return value;
}

}  // namespace

std::string ShellResult::trimmed() const {
    return Shell::trimmingWhitespace(stdout);
}

ShellError::ShellError(std::string description, Kind kind)
    : Error(std::move(description)), kind_(std::move(kind)) {}

ShellError ShellError::failed(std::string command, ShellResult result) {
    std::string description = command + " exited " + std::to_string(result.status) + ": " +
                              Shell::trimmingWhitespace(result.stderr);
    return ShellError(std::move(description), Failed{std::move(command), std::move(result)});
}

SpawnError::SpawnError(std::string path, int code)
    : Error(path + ": " + std::strerror(code)), path_(std::move(path)), code_(code) {}

namespace Shell {

std::string decodeUTF8(std::string_view bytes) {
    std::string out;
    out.reserve(bytes.size());
    std::size_t i = 0;
    const std::size_t n = bytes.size();
    while (i < n) {
        const auto lead = static_cast<unsigned char>(bytes[i]);
        if (lead < 0x80) {
            out.push_back(bytes[i]);
            ++i;
            continue;
        }
        // Length of the sequence and the range its second byte must fall in;
        // the narrow ranges rule out overlong forms, surrogates and values
        // above U+10FFFF.
        std::size_t length = 0;
        unsigned char low = 0x80, high = 0xBF;
        if (lead >= 0xC2 && lead <= 0xDF) {
            length = 2;
        } else if (lead >= 0xE0 && lead <= 0xEF) {
            length = 3;
            if (lead == 0xE0) low = 0xA0;
            if (lead == 0xED) high = 0x9F;
        } else if (lead >= 0xF0 && lead <= 0xF4) {
            length = 4;
            if (lead == 0xF0) low = 0x90;
            if (lead == 0xF4) high = 0x8F;
        }
        if (length == 0) {
            out += kReplacement;
            ++i;
            continue;
        }
        std::size_t j = i + 1;
        bool valid = true;
        for (std::size_t k = 1; k < length; ++k, ++j) {
            if (j >= n) {
                valid = false;
                break;
            }
            const auto byte = static_cast<unsigned char>(bytes[j]);
            const bool inRange = k == 1 ? (byte >= low && byte <= high) : isContinuation(byte);
            if (!inRange) {
                valid = false;
                break;
            }
        }
        if (valid) {
            out.append(bytes.substr(i, length));
            i += length;
        } else {
            // One replacement for the maximal subpart that was a valid start;
            // decoding resumes at the byte that broke it.
            out += kReplacement;
            i = j;
        }
    }
    return out;
}

std::string trimmingWhitespace(std::string_view text) {
    std::size_t begin = 0;
    while (begin < text.size()) {
        std::size_t length = 1;
        if (!isWhitespace(codePointAt(text, begin, length))) break;
        begin += length;
    }
    std::size_t end = text.size();
    while (end > begin) {
        std::size_t start = end - 1;
        while (start > begin && isContinuation(static_cast<unsigned char>(text[start]))) --start;
        std::size_t length = 1;
        if (!isWhitespace(codePointAt(text, start, length)) || start + length != end) break;
        end = start;
    }
    return std::string(text.substr(begin, end - begin));
}

std::vector<std::string> mergedEnvironment(const std::vector<std::string>& base,
                                           const Environment& overrides) {
    std::vector<std::string> merged;
    merged.reserve(base.size() + overrides.size());
    std::set<std::string> replaced;
    for (const auto& entry : base) {
        const auto equals = entry.find('=');
        if (equals == std::string::npos) {
            merged.push_back(entry);
            continue;
        }
        std::string key = entry.substr(0, equals);
        const auto override = overrides.find(key);
        if (override == overrides.end()) {
            merged.push_back(entry);
        } else if (replaced.insert(key).second) {
            merged.push_back(key + "=" + override->second);
        }
        // A second entry for a replaced key would shadow nothing useful and
        // could win in some tools' lookup, so it is dropped.
    }
    for (const auto& [key, value] : overrides) {
        if (!replaced.contains(key)) merged.push_back(key + "=" + value);
    }
    return merged;
}

std::string commandLine(const std::string& path, const std::vector<std::string>& args) {
    std::string line = path;
    for (const auto& arg : args) {
        line += ' ';
        line += arg;
    }
    return line;
}

}  // namespace Shell
}  // namespace tavra
