#pragma once

// Name tables of the string-valued enumerations: one array of (value, name)
// pairs per enumeration gives both directions of the mapping.

#include <array>
#include <optional>
#include <string_view>
#include <utility>

namespace tavra::EnumTable {

template <class E, std::size_t N>
using Table = std::array<std::pair<E, std::string_view>, N>;

template <class E, std::size_t N>
constexpr std::optional<E> lookup(const Table<E, N>& table, std::string_view text) noexcept {
    for (const auto& [value, name] : table)
        if (name == text) return value;
    return std::nullopt;
}

template <class E, std::size_t N>
constexpr std::string_view nameOf(const Table<E, N>& table, E value) noexcept {
    for (const auto& [v, name] : table)
        if (v == value) return name;
    return {};
}

}  // namespace tavra::EnumTable
