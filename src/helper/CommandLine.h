#pragma once

// The helper's command line: `tavra-helper [--allow-uid UID]...`. It never
// fails: a bad value is dropped and anything else is skipped without a word.

#include <cstdint>
#include <optional>
#include <set>
#include <string_view>
#include <vector>

namespace tavra::HelperCommandLine {

// A decimal unsigned 32-bit user ID: digits with one optional leading "+",
// a leading "-" only for zero, no white space, at most 4294967295.
std::optional<std::uint32_t> parseUID(std::string_view text);

// The user IDs of every "--allow-uid" among the arguments behind the
// program's name. The word after "--allow-uid" is always its value, even
// when it looks like an option; a trailing "--allow-uid" is ignored.
std::set<std::uint32_t> allowedUIDs(const std::vector<std::string_view>& arguments);

}  // namespace tavra::HelperCommandLine
