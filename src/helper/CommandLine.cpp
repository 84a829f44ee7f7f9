#include "helper/CommandLine.h"

#include <limits>

namespace tavra::HelperCommandLine {

std::optional<std::uint32_t> parseUID(std::string_view text) {
    bool negative = false;
    if (!text.empty() && (text.front() == '+' || text.front() == '-')) {
        negative = text.front() == '-';
        text.remove_prefix(1);
    }
    if (text.empty()) return std::nullopt;
    std::uint64_t value = 0;
    for (char c : text) {
        if (c < '0' || c > '9') return std::nullopt;
        value = value * 10 + static_cast<std::uint64_t>(c - '0');
        if (value > std::numeric_limits<std::uint32_t>::max()) return std::nullopt;
    }
    if (negative && value != 0) return std::nullopt;
    return static_cast<std::uint32_t>(value);
}

std::set<std::uint32_t> allowedUIDs(const std::vector<std::string_view>& arguments) {
    std::set<std::uint32_t> allowed;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        if (arguments[i] != "--allow-uid" || i + 1 >= arguments.size()) continue;
        std::string_view value = arguments[++i];
        if (value.empty()) continue;
        if (auto uid = parseUID(value)) allowed.insert(*uid);
    }
    return allowed;
}

}  // namespace tavra::HelperCommandLine
