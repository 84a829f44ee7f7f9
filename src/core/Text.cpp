#include "core/Text.h"

#include <memory>

#include <unicode/brkiter.h>
#include <unicode/locid.h>
#include <unicode/unistr.h>

namespace tavra::Text {

namespace {

// Plain ASCII without CR: every byte is one character (CR LF would be one).
bool isSimpleAscii(std::string_view text) noexcept {
    for (char c : text) {
        auto u = static_cast<unsigned char>(c);
        if (u >= 0x80 || c == '\r') return false;
    }
    return true;
}

bool isSeparator(char c) noexcept {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

char asciiUpper(char c) noexcept {
    return (c >= 'a' && c <= 'z') ? static_cast<char>(c - 'a' + 'A') : c;
}
char asciiLower(char c) noexcept {
    return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
}

// Walks grapheme boundaries; returns the UTF-16 index after `count`
// characters, or the text's length when it has fewer. `counted` receives
// how many were passed.
int32_t graphemeBoundary(const icu::UnicodeString& text, std::size_t count, std::size_t& counted) {
    UErrorCode status = U_ZERO_ERROR;
    std::unique_ptr<icu::BreakIterator> it(
        icu::BreakIterator::createCharacterInstance(icu::Locale::getRoot(), status));
    counted = 0;
    if (U_FAILURE(status) || !it) {
        // Without break data fall back to code points: still never splits one.
        int32_t index = 0;
        while (index < text.length() && counted < count) {
            index = text.moveIndex32(index, 1);
            ++counted;
        }
        return index;
    }
    it->setText(text);
    int32_t pos = it->first();
    while (counted < count) {
        int32_t next = it->next();
        if (next == icu::BreakIterator::DONE) break;
        pos = next;
        ++counted;
    }
    return pos;
}

std::string toUtf8(const icu::UnicodeString& s) {
    std::string out;
    s.toUTF8String(out);
    return out;
}

}  // namespace

std::string prefixCharacters(std::string_view text, std::size_t count) {
    if (isSimpleAscii(text)) return std::string(text.substr(0, count));
    auto u = icu::UnicodeString::fromUTF8(icu::StringPiece(text.data(), static_cast<int32_t>(text.size())));
    std::size_t counted = 0;
    int32_t end = graphemeBoundary(u, count, counted);
    if (end >= u.length()) return std::string(text);
    return toUtf8(u.tempSubString(0, end));
}

std::size_t characterCount(std::string_view text) {
    if (isSimpleAscii(text)) return text.size();
    auto u = icu::UnicodeString::fromUTF8(icu::StringPiece(text.data(), static_cast<int32_t>(text.size())));
    std::size_t counted = 0;
    graphemeBoundary(u, static_cast<std::size_t>(u.length()) + 1, counted);
    return counted;
}

std::string capitalizedWords(std::string_view text) {
    std::string out;
    appendCapitalizedWords(out, text);
    return out;
}

void appendCapitalizedWords(std::string& out, std::string_view text) {
    if (isSimpleAscii(text)) {
        bool atWordStart = true;
        for (char c : text) {
            if (isSeparator(c)) {
                atWordStart = true;
                out.push_back(c);
            } else {
                out.push_back(atWordStart ? asciiUpper(c) : asciiLower(c));
                atWordStart = false;
            }
        }
        return;
    }
    // Word by word: the first character (a whole grapheme, so a base letter
    // with its marks) is upper-cased, the rest lower-cased, with the full
    // case mappings of the root locale ("ß" -> "SS" stays possible).
    std::size_t i = 0;
    while (i < text.size()) {
        if (isSeparator(text[i])) {
            out.push_back(text[i++]);
            continue;
        }
        std::size_t j = i;
        while (j < text.size() && !isSeparator(text[j])) ++j;
        std::string_view word = text.substr(i, j - i);
        auto u =
            icu::UnicodeString::fromUTF8(icu::StringPiece(word.data(), static_cast<int32_t>(word.size())));
        std::size_t counted = 0;
        int32_t split = graphemeBoundary(u, 1, counted);
        icu::UnicodeString head = u.tempSubString(0, split);
        icu::UnicodeString tail = u.tempSubString(split);
        head.toUpper(icu::Locale::getRoot());
        tail.toLower(icu::Locale::getRoot());
        out += toUtf8(head);
        out += toUtf8(tail);
        i = j;
    }
}

std::string lastPathComponent(std::string_view path) {
    return std::string(lastPathComponentView(path));
}

std::string_view lastPathComponentView(std::string_view path) noexcept {
    if (path.empty()) return {};
    std::size_t end = path.find_last_not_of('/');
    if (end == std::string_view::npos) return "/";
    std::string_view trimmed = path.substr(0, end + 1);
    std::size_t slash = trimmed.rfind('/');
    return slash == std::string_view::npos ? trimmed : trimmed.substr(slash + 1);
}

std::string join(const std::vector<std::string>& parts, std::string_view separator) {
    std::size_t size = 0;
    for (const auto& part : parts) size += part.size() + separator.size();
    std::string out;
    out.reserve(size);
    for (std::size_t i = 0; i < parts.size(); ++i) {
        if (i > 0) out.append(separator);
        out.append(parts[i]);
    }
    return out;
}

std::string escapeMarkup(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (char c : text) {
        switch (c) {
            case '&':
                out += "&amp;";
                break;
            case '<':
                out += "&lt;";
                break;
            case '>':
                out += "&gt;";
                break;
            default:
                out.push_back(c);
        }
    }
    return out;
}

}  // namespace tavra::Text
