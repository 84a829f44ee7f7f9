#include "core/RemoteCommand.h"

#include <unicode/locid.h>
#include <unicode/uchar.h>
#include <unicode/unistr.h>
#include <unicode/utf8.h>

#include <algorithm>
#include <limits>

namespace tavra {

namespace {

// White space and newlines in the Unicode sense: every space, line and
// paragraph separator, the ASCII controls TAB...CR, and NEXT LINE.
bool isWhiteSpaceOrNewline(UChar32 c) {
    if (c >= 0x09 && c <= 0x0D) return true;
    if (c == 0x85) return true;
    switch (u_charType(c)) {
        case U_SPACE_SEPARATOR:
        case U_LINE_SEPARATOR:
        case U_PARAGRAPH_SEPARATOR:
            return true;
        default:
            return false;
    }
}

// ICU's UTF-8 macros are written in C and cast the old way.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wold-style-cast"
#pragma GCC diagnostic ignored "-Wsign-conversion"
#pragma GCC diagnostic ignored "-Wconversion"
std::string_view trim(std::string_view text) {
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(text.data());
    const auto length = static_cast<std::int32_t>(std::min<std::size_t>(text.size(), INT32_MAX));
    std::int32_t begin = 0;
    while (begin < length) {
        std::int32_t next = begin;
        UChar32 c;
        U8_NEXT(bytes, next, length, c);
        if (c < 0 || !isWhiteSpaceOrNewline(c)) break;
        begin = next;
    }
    std::int32_t end = length;
    while (end > begin) {
        std::int32_t previous = end;
        UChar32 c;
        U8_PREV(bytes, begin, previous, c);
        if (c < 0 || !isWhiteSpaceOrNewline(c)) break;
        end = previous;
    }
    return text.substr(static_cast<std::size_t>(begin), static_cast<std::size_t>(end - begin));
}
#pragma GCC diagnostic pop

// Full Unicode lower-casing, independent of the user's locale, so that
// "STATUS" and "Status" read alike everywhere.
std::string lowercased(std::string_view text) {
    auto unicode = icu::UnicodeString::fromUTF8(icu::StringPiece(
        text.data(), static_cast<std::int32_t>(std::min<std::size_t>(text.size(), INT32_MAX))));
    unicode.toLower(icu::Locale::getRoot());
    std::string out;
    unicode.toUTF8String(out);
    return out;
}

// Blanks (U+0020) separate words; runs of blanks count as one. Tabs and
// newlines are part of a word.
std::vector<std::string_view> words(std::string_view text) {
    std::vector<std::string_view> out;
    std::size_t pos = 0;
    while (pos < text.size()) {
        std::size_t blank = text.find(' ', pos);
        if (blank == std::string_view::npos) blank = text.size();
        if (blank > pos) out.push_back(text.substr(pos, blank - pos));
        pos = blank + 1;
    }
    return out;
}

std::int64_t clamp(std::optional<std::int64_t> value, std::int64_t fallback, std::int64_t low,
                   std::int64_t high) {
    return std::max(low, std::min(high, value.value_or(fallback)));
}

std::optional<RemoteCommand> parseColonForm(std::string_view text) {
    if (text.find(':') == std::string_view::npos || text.find(' ') != std::string_view::npos)
        return std::nullopt;
    std::size_t colon = text.find(':');
    std::string prefix = lowercased(text.substr(0, colon));
    std::string rest(text.substr(colon + 1));
    if (prefix == "approve") return RemoteCommand::approve(std::move(rest));
    if (prefix == "deny") return RemoteCommand::deny(std::move(rest));
    return std::nullopt;
}

}  // namespace

std::optional<std::int64_t> RemoteCommand::readInteger(std::string_view word) noexcept {
    bool negative = false;
    if (!word.empty() && (word.front() == '+' || word.front() == '-')) {
        negative = word.front() == '-';
        word.remove_prefix(1);
    }
    if (word.empty()) return std::nullopt;
    // Accumulate towards the negative side, which holds one more value, so
    // that INT64_MIN reads and anything beyond either end is refused.
    constexpr std::int64_t kMin = std::numeric_limits<std::int64_t>::min();
    std::int64_t value = 0;
    for (char c : word) {
        if (c < '0' || c > '9') return std::nullopt;
        const int digit = c - '0';
        if (value < (kMin + digit) / 10) return std::nullopt;
        value = value * 10 - digit;
    }
    if (!negative) {
        if (value == kMin) return std::nullopt;
        return -value;
    }
    return value;
}

std::optional<RemoteCommand> RemoteCommand::parse(std::string_view text) {
    const std::string_view trimmed = trim(text);

    if (auto command = parseColonForm(trimmed)) return command;

    auto list = words(trimmed);
    if (list.empty()) return std::nullopt;

    std::string word = lowercased(list.front());
    if (!word.empty() && word.front() == '/') word.erase(0, 1);
    if (auto at = word.find('@'); at != std::string::npos) word.erase(at);

    const std::optional<std::string_view> arg =
        list.size() > 1 ? std::optional<std::string_view>(list[1]) : std::nullopt;
    const auto argInteger = [&]() -> std::optional<std::int64_t> {
        return arg ? readInteger(*arg) : std::nullopt;
    };
    const auto argString = [&]() -> std::optional<std::string> {
        return arg ? std::optional<std::string>(std::string(*arg)) : std::nullopt;
    };

    if (word == "help" || word == "start" || word == "commands") return help();
    if (word == "status" || word == "s") return status();
    if (word == "report" || word == "r") return report(clamp(argInteger(), 12, 1, 720));
    if (word == "pause") return pause(argString());
    if (word == "resume") return resume(argString());
    if (word == "stayawake" || word == "awake" || word == "wake")
        return stayAwake(clamp(argInteger(), 60, 1, 1440));
    if (word == "release") return release();
    if (word == "sleep") return sleep(arg.has_value() && lowercased(*arg) == "now");
    if (word == "approve") return arg ? std::optional(approve(std::string(*arg))) : std::nullopt;
    if (word == "deny") return arg ? std::optional(deny(std::string(*arg))) : std::nullopt;
    if (word == "on" || word == "enable") return enable(true);
    if (word == "off" || word == "disable") return enable(false);
    if (word == "cancel") return cancel();
    if (word == "answer") {
        if (list.size() < 4) return std::nullopt;
        auto question = readInteger(list[2]);
        if (!question) return std::nullopt;
        return answer(std::string(list[1]), *question, std::string(list[3]));
    }
    return std::nullopt;
}

std::string_view RemoteCommand::caseName() const noexcept {
    static constexpr std::string_view kNames[] = {"report",  "pause",   "resume", "stayAwake", "sleep",
                                                  "approve", "deny",    "enable", "answer",    "help",
                                                  "status",  "release", "cancel"};
    static_assert(std::size(kNames) == std::variant_size_v<Value>);
    return kNames[value.index()];
}

std::array<RemoteCommand::MenuEntry, 10> RemoteCommand::menu(const MachineWord& machine) {
    return {{
        {"status", "What's running right now"},
        {"report", "What happened while you were away"},
        {"pause", "Pause all agents, or one: /pause 2"},
        {"resume", "Resume all agents, or one: /resume 2"},
        {"stayawake", "Keep " + machine.the() + " awake: /stayawake 90"},
        {"release", "End the stay-awake hold"},
        {"sleep", "Put " + machine.the() + " to sleep now"},
        {"off", "Turn Tavra off"},
        {"on", "Turn Tavra on"},
        {"help", "All commands"},
    }};
}

RemoteCommand::Resolution RemoteCommand::resolve(const std::optional<std::string>& target,
                                                 const std::vector<Run>& runs) {
    const auto one = [](const RunKey& key) { return Resolution(key); };

    if (!target) return EveryRun{};
    const std::string& text = *target;

    // A position in the list the user sees, from 1. A number outside the list
    // is still tried as text: "7" may begin a session identifier.
    if (auto n = readInteger(text); n && *n >= 1 && static_cast<std::uint64_t>(*n) <= runs.size()) {
        return one(runs[static_cast<std::size_t>(*n - 1)].key);
    }

    // "agent:session", as the status reply's buttons write a run's key.
    if (auto colon = text.find(':'); colon != std::string::npos) {
        const std::string_view agent = std::string_view(text).substr(0, colon);
        const std::string_view session = std::string_view(text).substr(colon + 1);
        for (const auto& run : runs) {
            if (run.key.agent.rawValue == agent && run.key.session == session) return one(run.key);
        }
    }

    // The beginning of a session identifier, case-sensitive; the empty text
    // is the beginning of every one.
    for (const auto& run : runs) {
        if (run.key.session.starts_with(text)) return one(run.key);
    }
    return NoRun{};
}

}  // namespace tavra
