#pragma once

// Small text operations that count what people see. "Characters" are
// user-perceived characters (grapheme clusters), so a flag emoji or an accented
// letter built from two code points counts once. All functions are pure, never
// throw for text, and take a fast path for plain ASCII.

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace tavra::Text {

// The first `count` characters of `text`, all of it when it is shorter.
std::string prefixCharacters(std::string_view text, std::size_t count);

// Number of characters in `text`.
std::size_t characterCount(std::string_view text);

// Each word separated by blanks, tabs or line breaks gets its first letter
// in upper case and the rest in lower case: "claude" -> "Claude",
// "my agent" -> "My Agent". Separators are kept as they are.
std::string capitalizedWords(std::string_view text);
// The same, appended to `out` (no temporary for plain ASCII).
void appendCapitalizedWords(std::string& out, std::string_view text);

// The parts with `separator` between each two: {"a", "b"}, ", " -> "a, b".
std::string join(const std::vector<std::string>& parts, std::string_view separator);

// Text for HTML or XML element content: "&" -> "&amp;", "<" -> "&lt;",
// ">" -> "&gt;"; double quotes stay.
std::string escapeMarkup(std::string_view text);

// Last component of a path, ignoring trailing slashes: "/Users/me/proj/" ->
// "proj"; "/" (or only slashes) -> "/"; "" -> "".
std::string lastPathComponent(std::string_view path);
// The same as a view into `path`.
std::string_view lastPathComponentView(std::string_view path) noexcept;

}  // namespace tavra::Text
