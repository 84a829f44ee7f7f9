#include "hook/ToolCalls.h"

#include <algorithm>
#include <array>
#include <cctype>

namespace tavra::ToolCalls {

namespace {

std::string lowered(std::string_view text) {
    std::string out(text);
    std::transform(out.begin(), out.end(), out.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return out;
}

bool isContinuationByte(char c) {
    return (static_cast<unsigned char>(c) & 0xC0) == 0x80;
}

const std::string* stringAt(const Json& object, std::string_view key) {
    if (!object.is_object()) return nullptr;
    auto it = object.find(key);
    if (it == object.end() || !it->is_string()) return nullptr;
    return &it->get_ref<const std::string&>();
}

// The files a patch in the agents' "*** Begin Patch" format touches.
std::optional<std::string> patchFiles(std::string_view patch) {
    static constexpr std::array<std::string_view, 3> kMarkers{
        "*** Add File: ", "*** Update File: ", "*** Delete File: "};
    std::string files;
    std::size_t start = 0;
    while (start < patch.size()) {
        std::size_t end = patch.find('\n', start);
        if (end == std::string_view::npos) end = patch.size();
        std::string_view line = patch.substr(start, end - start);
        for (auto marker : kMarkers) {
            if (line.starts_with(marker)) {
                if (!files.empty()) files += ", ";
                files += line.substr(marker.size());
            }
        }
        start = end + 1;
    }
    if (files.empty()) return std::nullopt;
    return files;
}

// A command given as an argument vector reads as the words joined by blanks.
std::optional<std::string> commandText(const Json& command) {
    if (command.is_string()) return command.get<std::string>();
    if (!command.is_array()) return std::nullopt;
    std::string text;
    for (const auto& word : command) {
        if (!word.is_string()) continue;
        if (!text.empty()) text += ' ';
        text += word.get_ref<const std::string&>();
    }
    return text;
}

}  // namespace

std::uint64_t fnv1a64(std::string_view bytes) noexcept {
    std::uint64_t hash = 0xcbf29ce484222325ULL;
    for (char c : bytes) {
        hash ^= static_cast<unsigned char>(c);
        hash *= 0x100000001b3ULL;
    }
    return hash;
}

std::string canonicalJson(const Json& input) {
    // nlohmann keeps object members in a std::map, so dump() already writes
    // keys in byte order at every depth.
    return input.dump(-1, ' ', false, Json::error_handler_t::replace);
}

std::string signature(std::string_view name, const Json& input) {
    std::string bytes(name);
    bytes.push_back('\0');
    bytes += canonicalJson(input);
    static constexpr char kHex[] = "0123456789abcdef";
    std::uint64_t hash = fnv1a64(bytes);
    std::string out(16, '0');
    for (int i = 15; i >= 0; --i) {
        out[static_cast<std::size_t>(i)] = kHex[hash & 0xF];
        hash >>= 4;
    }
    return out;
}

bool isFileWrite(const AgentKind& agent, std::string_view name) {
    if (agent == AgentKind::claude) {
        return name == "Write" || name == "Edit" || name == "MultiEdit" || name == "NotebookEdit";
    }
    if (agent == AgentKind::codex) return name == "apply_patch";
    // Grok maps Claude's names in its own spelling; its community CLI has
    // tools of its own. The same guess serves agents we do not know yet.
    static constexpr std::array<std::string_view, 9> kWriters{
        "write",      "edit",      "multiedit",          "notebookedit", "apply_patch",
        "write_file", "edit_file", "str_replace_editor", "create_file"};
    const std::string lower = lowered(name);
    return std::find(kWriters.begin(), kWriters.end(), lower) != kWriters.end();
}

std::string oneLine(std::string_view text, std::size_t maxCodePoints) {
    auto first = text.find_first_not_of(" \t\r\n");
    if (first == std::string_view::npos) return {};
    text.remove_prefix(first);
    text = text.substr(0, text.find_first_of("\r\n"));
    while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) text.remove_suffix(1);

    // Where the code point after the first `keep` ones begins, or npos.
    auto boundaryAfter = [&](std::size_t keep) {
        std::size_t seen = 0;
        for (std::size_t i = 0; i < text.size(); ++i) {
            if (isContinuationByte(text[i])) continue;
            if (seen == keep) return i;
            ++seen;
        }
        return std::string_view::npos;
    };
    if (maxCodePoints == 0 || boundaryAfter(maxCodePoints) == std::string_view::npos)
        return std::string(text);
    std::string out(text.substr(0, boundaryAfter(maxCodePoints - 1)));
    out += "…";
    return out;
}

std::optional<std::string> summary(std::string_view name, const Json& input) {
    auto cut = [](const std::string& text) -> std::optional<std::string> {
        std::string line = oneLine(text);
        if (line.empty()) return std::nullopt;
        return line;
    };
    if (input.is_string()) return cut(input.get<std::string>());
    if (!input.is_object()) return std::nullopt;

    if (auto it = input.find("command"); it != input.end()) {
        if (auto text = commandText(*it)) {
            if (name == "apply_patch" || text->starts_with("*** Begin Patch")) {
                if (auto files = patchFiles(*text)) return cut(*files);
            }
            return cut(*text);
        }
    }
    if (auto it = input.find("questions"); it != input.end() && it->is_array() && !it->empty()) {
        if (const auto* question = stringAt(it->front(), "question")) return cut(*question);
    }
    static constexpr std::array<std::string_view, 9> kKeys{
        "file_path", "notebook_path", "path", "url", "query", "pattern", "description", "prompt", "filePath"};
    for (auto key : kKeys) {
        if (const auto* value = stringAt(input, key)) {
            if (auto line = cut(*value)) return line;
        }
    }
    return std::nullopt;
}

ToolCall describe(const AgentKind& agent, std::string_view name, const Json& input) {
    return ToolCall{std::string(name), signature(name, input), isFileWrite(agent, name),
                    summary(name, input)};
}

}  // namespace tavra::ToolCalls
