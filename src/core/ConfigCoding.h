#pragma once

// TavraJSON: the one place that says how the system's JSON looks.
//
//  * Dates are ISO 8601 UTC strings with whole seconds ("2025-03-01T09:30:00Z");
//    a fraction is dropped on writing and refused on reading.
//  * Keys are the field names unchanged; absent optionals are left out; a
//    missing or null optional reads as absent; unknown keys are ignored;
//    every non-optional key is required, with no lenient type conversion.
//  * Tagged unions are an object with exactly one case key whose value is
//    always an object; unlabelled payloads are keyed "_0", "_1", ...
//  * A double with a whole value is written without a decimal part; slashes
//    are never escaped.
//
// Each record declares to_json/from_json next to itself (found by ADL) and
// builds them from required()/optional()/setOptional() and the union helpers
// below, so the rules are written once.

#include <array>
#include <cmath>
#include <cstdint>
#include <limits>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#include <nlohmann/json.hpp>

#include "core/Date.h"
#include "core/Error.h"

namespace tavra {

using Json = nlohmann::json;

namespace TavraJSON {

// ---- Dates -----------------------------------------------------------------

// "2025-03-01T09:30:00Z"; any fraction of a second is truncated.
std::string formatDate(Date date);

// Accepts "YYYY-MM-DDTHH:MM:SSZ" and the same with a numeric offset
// ("+02:00"). Refuses fractions of a second and anything else.
std::optional<Date> parseDate(std::string_view text);

// ---- Documents -------------------------------------------------------------

// Compact: one line, for sockets (a newline inside a string stays escaped).
// Pretty: indented by two blanks with keys sorted, for files people read.
// Never throws for text: invalid UTF-8 in strings is replaced.
std::string encode(const Json& document, bool pretty = false);

// Parses text into a document. Throws DecodingError on malformed JSON.
Json parse(std::string_view text);

// ---- Strict reading --------------------------------------------------------

namespace detail {
template <class T>
struct IsOptional : std::false_type {};
template <class T>
struct IsOptional<std::optional<T>> : std::true_type {};
template <class T>
struct IsVector : std::false_type {};
template <class T, class A>
struct IsVector<std::vector<T, A>> : std::true_type {};
template <class T>
struct IsStringMap : std::false_type {};
template <class T, class C, class A>
struct IsStringMap<std::map<std::string, T, C, A>> : std::true_type {};

[[noreturn]] void typeMismatch(std::string_view expected, const Json& found);
}  // namespace detail

// A date node: a string as parseDate accepts. Throws DecodingError.
Date readDate(const Json& j);

// Reads a value of type T from a document node without the lenient
// conversions nlohmann allows (a bool from a number, an int from 3.5, ...).
// Records are read through their ADL from_json. Throws DecodingError.
template <class T>
T read(const Json& j) {
    if constexpr (std::is_same_v<T, Date>) {
        return readDate(j);
    } else if constexpr (std::is_same_v<T, bool>) {
        if (!j.is_boolean()) detail::typeMismatch("a boolean", j);
        return j.get<bool>();
    } else if constexpr (std::is_integral_v<T>) {
        if (j.is_number_unsigned()) {
            auto v = j.get<std::uint64_t>();
            if (v > static_cast<std::uint64_t>(std::numeric_limits<T>::max()))
                detail::typeMismatch("a smaller whole number", j);
            return static_cast<T>(v);
        }
        if (j.is_number_integer()) {
            auto v = j.get<std::int64_t>();
            if constexpr (std::is_unsigned_v<T>) {
                if (v < 0) detail::typeMismatch("a non-negative whole number", j);
                if (static_cast<std::uint64_t>(v) > static_cast<std::uint64_t>(std::numeric_limits<T>::max()))
                    detail::typeMismatch("a smaller whole number", j);
            } else {
                if (v < static_cast<std::int64_t>(std::numeric_limits<T>::min()) ||
                    v > static_cast<std::int64_t>(std::numeric_limits<T>::max()))
                    detail::typeMismatch("a smaller whole number", j);
            }
            return static_cast<T>(v);
        }
        if (j.is_number_float()) {
            // A whole-valued float ("30.0") is the same number and is accepted.
            // The upper bound is 2^digits, which a double holds exactly; the
            // type's max() would round up to it, and converting that is UB.
            double d = j.get<double>();
            const double upper = static_cast<double>(std::numeric_limits<T>::max() / 2 + 1) * 2.0;
            if (std::isfinite(d) && std::trunc(d) == d &&
                d >= static_cast<double>(std::numeric_limits<T>::min()) && d < upper)
                return static_cast<T>(d);
        }
        detail::typeMismatch("a whole number", j);
    } else if constexpr (std::is_floating_point_v<T>) {
        if (!j.is_number()) detail::typeMismatch("a number", j);
        return j.get<T>();
    } else if constexpr (std::is_same_v<T, std::string>) {
        if (!j.is_string()) detail::typeMismatch("a string", j);
        return j.get_ref<const std::string&>();
    } else if constexpr (detail::IsOptional<T>::value) {
        if (j.is_null()) return T{};
        return T{read<typename T::value_type>(j)};
    } else if constexpr (detail::IsVector<T>::value) {
        if (!j.is_array()) detail::typeMismatch("an array", j);
        T out;
        out.reserve(j.size());
        for (const auto& e : j) out.push_back(read<typename T::value_type>(e));
        return out;
    } else if constexpr (detail::IsStringMap<T>::value) {
        if (!j.is_object()) detail::typeMismatch("an object", j);
        T out;
        for (auto it = j.begin(); it != j.end(); ++it)
            out.emplace(it.key(), read<typename T::mapped_type>(it.value()));
        return out;
    } else {
        T value{};
        from_json(j, value);  // ADL: the record's own decoder
        return value;
    }
}

// Throws DecodingError unless j is an object; `what` names the record.
void requireObject(const Json& j, std::string_view what);

// A required field. Missing key or a value of the wrong type throws
// DecodingError naming the key.
template <class T>
T required(const Json& object, std::string_view key) {
    if (!object.is_object()) detail::typeMismatch("an object", object);
    auto it = object.find(key);
    if (it == object.end()) throw DecodingError("key \"" + std::string(key) + "\" not found");
    try {
        return read<T>(*it);
    } catch (const DecodingError& e) {
        throw DecodingError("key \"" + std::string(key) + "\": " + e.description());
    }
}

// An optional field: a missing key or null reads as absent.
template <class T>
std::optional<T> optional(const Json& object, std::string_view key) {
    if (!object.is_object()) detail::typeMismatch("an object", object);
    auto it = object.find(key);
    if (it == object.end() || it->is_null()) return std::nullopt;
    try {
        return read<T>(*it);
    } catch (const DecodingError& e) {
        throw DecodingError("key \"" + std::string(key) + "\": " + e.description());
    }
}

// Writes the key only when the value is present.
template <class T>
void setOptional(Json& object, std::string_view key, const std::optional<T>& value) {
    if (value) object[std::string(key)] = *value;
}

// Parses text and reads a T from it. Every failure is a DecodingError.
template <class T>
T decode(std::string_view text) {
    Json document = parse(text);
    try {
        return read<T>(document);
    } catch (const DecodingError&) {
        throw;
    } catch (const std::exception& e) {
        throw DecodingError(std::string("invalid document: ") + e.what());
    }
}

// ---- Defaults merging ------------------------------------------------------

// Lays `overlay` over `base`: objects merge key by key, recursively; anything
// else in the overlay (arrays, null, scalars) replaces the base's value whole.
// Keys only `base` has stay. A non-object on either side gives `overlay`.
Json deepMerge(const Json& base, const Json& overlay);

// Reads a T from `text` laid over the encoded `defaults`, so a document may
// leave out any key at any depth and the record's decoder can stay strict.
// Throws DecodingError for malformed or empty text and for any value of the
// wrong type (a null for a required field included); never a partial value.
template <class T>
T decode(std::string_view text, const T& overDefaults) {
    Json defaults = parse(encode(Json(overDefaults)));
    Json document = parse(text);
    Json merged = deepMerge(defaults, document);
    try {
        return read<T>(merged);
    } catch (const DecodingError&) {
        throw;
    } catch (const std::exception& e) {
        throw DecodingError(std::string("invalid document: ") + e.what());
    }
}

// Encodes any value with an ADL to_json.
template <class T>
std::string encodeValue(const T& value, bool pretty = false) {
    return encode(Json(value), pretty);
}

// ---- Tagged unions ---------------------------------------------------------

inline constexpr std::string_view kUnionKeyError = "Invalid number of keys found, expected one.";

// The wire names of a union's cases, in the order of the variant's
// alternatives. Made by unionNames(), which refuses a list of the wrong length
// at compile time.
template <class Variant>
struct UnionNames {
    std::array<std::string_view, std::variant_size_v<Variant>> names;
};

template <class Variant, class... Names>
constexpr UnionNames<Variant> unionNames(Names... names) {
    static_assert(sizeof...(Names) == std::variant_size_v<Variant>, "one wire name per case of the union");
    return {{std::string_view(names)...}};
}

// {"name": payload}. A case without fields has the empty object as payload;
// any other case writes its payload object with its own to_json.
template <class Variant>
Json encodeUnion(const Variant& value, const UnionNames<Variant>& names);

// The case named by the one case key of `j` (other keys are ignored), read
// by the case's own from_json, or default-made for a case without fields.
// Zero or several case keys throw DecodingError(kUnionKeyError); a payload
// that is not an object throws as well.
template <class Variant>
Variant decodeUnion(const Json& j, const UnionNames<Variant>& names);

// {"_0": value}: the payload of a case with one unlabelled value.
template <class T>
Json unlabelled(const T& value) {
    Json payload = Json::object();
    payload["_0"] = value;
    return payload;
}

namespace detail {

struct UnionCase {
    std::size_t index;    // position of the name in `names`
    const Json& payload;  // always an object
};
UnionCase findUnionCase(const Json& j, std::span<const std::string_view> names);

template <class Variant, std::size_t... I>
Variant decodeCase(std::size_t index, const Json& payload, std::index_sequence<I...>) {
    using Decode = Variant (*)(const Json&);
    static constexpr Decode kDecoders[] = {+[](const Json& p) -> Variant {
        using Case = std::variant_alternative_t<I, Variant>;
        if constexpr (std::is_empty_v<Case>)
            return Variant(std::in_place_index<I>);
        else
            return Variant(std::in_place_index<I>, p.get<Case>());
    }...};
    return kDecoders[index](payload);
}

}  // namespace detail

template <class Variant>
Json encodeUnion(const Variant& value, const UnionNames<Variant>& names) {
    Json payload = std::visit(
        [](const auto& c) -> Json {
            if constexpr (std::is_empty_v<std::decay_t<decltype(c)>>)
                return Json::object();
            else
                return Json(c);
        },
        value);
    Json j = Json::object();
    j[std::string(names.names[value.index()])] = std::move(payload);
    return j;
}

template <class Variant>
Variant decodeUnion(const Json& j, const UnionNames<Variant>& names) {
    auto found = detail::findUnionCase(j, names.names);
    return detail::decodeCase<Variant>(found.index, found.payload,
                                       std::make_index_sequence<std::variant_size_v<Variant>>{});
}

// ---- String-valued enumerations -------------------------------------------

// Reads a string enumeration through its parse function.
template <class E, class Parse>
E readEnum(const Json& j, Parse parse, std::string_view typeName) {
    if (!j.is_string()) detail::typeMismatch("a string", j);
    const auto& s = j.get_ref<const std::string&>();
    if (auto v = parse(s)) return *v;
    throw DecodingError("cannot initialize " + std::string(typeName) + " from invalid value \"" + s + "\"");
}

}  // namespace TavraJSON
}  // namespace tavra

// Dates travel as ISO 8601 strings wherever they appear in a document.
namespace nlohmann {
template <>
struct adl_serializer<tavra::Date> {
    static void to_json(json& j, const tavra::Date& date) { j = tavra::TavraJSON::formatDate(date); }
    static void from_json(const json& j, tavra::Date& date) { date = tavra::TavraJSON::readDate(j); }
};
}  // namespace nlohmann
