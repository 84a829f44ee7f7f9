#include "core/ConfigCoding.h"

#include <charconv>
#include <ctime>

namespace tavra::TavraJSON {

namespace {

// Whole-valued doubles are written as integers so that 30.0 reads "30"; the
// encoder of the other side of every socket does the same.
void normalizeNumbers(Json& j) {
    switch (j.type()) {
        case Json::value_t::number_float: {
            double d = j.get<double>();
            if (std::isfinite(d) && std::trunc(d) == d && std::fabs(d) < 9.0e15) {
                j = static_cast<std::int64_t>(d);
            }
            break;
        }
        case Json::value_t::array:
        case Json::value_t::object:
            for (auto& e : j) normalizeNumbers(e);
            break;
        default:
            break;
    }
}

bool digits(std::string_view s, std::size_t pos, std::size_t count, int& out) {
    if (pos + count > s.size()) return false;
    int v = 0;
    for (std::size_t i = pos; i < pos + count; ++i) {
        char c = s[i];
        if (c < '0' || c > '9') return false;
        v = v * 10 + (c - '0');
    }
    out = v;
    return true;
}

std::string_view typeName(const Json& j) {
    switch (j.type()) {
        case Json::value_t::null:
            return "null";
        case Json::value_t::boolean:
            return "a boolean";
        case Json::value_t::number_integer:
        case Json::value_t::number_unsigned:
            return "a whole number";
        case Json::value_t::number_float:
            return "a number";
        case Json::value_t::string:
            return "a string";
        case Json::value_t::array:
            return "an array";
        case Json::value_t::object:
            return "an object";
        default:
            return "an unsupported value";
    }
}

}  // namespace

std::string formatDate(Date date) {
    auto secs = std::chrono::floor<std::chrono::seconds>(date);
    std::time_t t = std::chrono::system_clock::to_time_t(secs);
    std::tm tm{};
    gmtime_r(&t, &tm);
    char buf[32];
    std::size_t n = std::strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%SZ", &tm);
    return std::string(buf, n);
}

std::optional<Date> parseDate(std::string_view s) {
    // YYYY-MM-DDTHH:MM:SS then Z or ±HH:MM
    int year, month, day, hour, minute, second;
    if (s.size() < 20) return std::nullopt;
    if (!digits(s, 0, 4, year) || s[4] != '-' || !digits(s, 5, 2, month) || s[7] != '-' ||
        !digits(s, 8, 2, day) || s[10] != 'T' || !digits(s, 11, 2, hour) || s[13] != ':' ||
        !digits(s, 14, 2, minute) || s[16] != ':' || !digits(s, 17, 2, second))
        return std::nullopt;
    int offsetSeconds = 0;
    std::string_view zone = s.substr(19);
    if (zone == "Z") {
        offsetSeconds = 0;
    } else if (zone.size() == 6 && (zone[0] == '+' || zone[0] == '-') && zone[3] == ':') {
        int oh, om;
        if (!digits(zone, 1, 2, oh) || !digits(zone, 4, 2, om) || oh > 23 || om > 59) return std::nullopt;
        offsetSeconds = (oh * 3600 + om * 60) * (zone[0] == '-' ? -1 : 1);
    } else {
        return std::nullopt;
    }
    using namespace std::chrono;
    year_month_day ymd{std::chrono::year{year}, std::chrono::month{static_cast<unsigned>(month)},
                       std::chrono::day{static_cast<unsigned>(day)}};
    if (!ymd.ok() || hour > 23 || minute > 59 || second > 60) return std::nullopt;
    auto tp = sys_days{ymd} + hours{hour} + minutes{minute} + seconds{second} - seconds{offsetSeconds};
    // Date counts nanoseconds, which covers about 1678 to 2262; a year
    // outside that would overflow, so it is refused like any bad date.
    constexpr auto kEarliest = duration_cast<seconds>(Date::duration::min()).count();
    constexpr auto kLatest = duration_cast<seconds>(Date::duration::max()).count();
    auto since1970 = duration_cast<seconds>(tp.time_since_epoch()).count();
    if (since1970 <= kEarliest || since1970 >= kLatest) return std::nullopt;
    return Date(duration_cast<Date::duration>(tp.time_since_epoch()));
}

Date readDate(const Json& j) {
    if (!j.is_string()) detail::typeMismatch("a date string", j);
    const auto& s = j.get_ref<const std::string&>();
    if (auto d = parseDate(s)) return *d;
    throw DecodingError("Expected date string to be ISO8601-formatted: \"" + s + "\"");
}

std::string encode(const Json& document, bool pretty) {
    Json copy = document;
    normalizeNumbers(copy);
    // std::map-backed objects already keep keys sorted, which the pretty form
    // promises; the compact form makes no promise about order.
    return copy.dump(pretty ? 2 : -1, ' ', false, Json::error_handler_t::replace);
}

Json parse(std::string_view text) {
    try {
        return Json::parse(text.begin(), text.end());
    } catch (const Json::parse_error& e) {
        throw DecodingError(std::string("The given data was not valid JSON: ") + e.what());
    } catch (const Json::exception& e) {
        // A number too large for any type ("1e999999") is out_of_range, not
        // a parse_error, but it is just as much invalid input.
        throw DecodingError(std::string("The given data was not valid JSON: ") + e.what());
    }
}

Json deepMerge(const Json& base, const Json& overlay) {
    if (!base.is_object() || !overlay.is_object()) return overlay;
    Json result = base;
    for (auto it = overlay.begin(); it != overlay.end(); ++it) {
        auto existing = result.find(it.key());
        if (existing != result.end()) {
            *existing = deepMerge(*existing, it.value());
        } else {
            result[it.key()] = it.value();
        }
    }
    return result;
}

void requireObject(const Json& j, std::string_view what) {
    if (!j.is_object())
        throw DecodingError(std::string(what) + ": expected an object but found " + std::string(typeName(j)));
}

namespace detail {
UnionCase findUnionCase(const Json& j, std::span<const std::string_view> cases) {
    if (!j.is_object()) detail::typeMismatch("an object", j);
    const Json* payload = nullptr;
    std::size_t found = 0;
    std::size_t index = 0;
    std::size_t i = 0;
    for (auto name : cases) {
        auto it = j.find(name);
        if (it != j.end()) {
            ++found;
            index = i;
            payload = &*it;
        }
        ++i;
    }
    if (found != 1) throw DecodingError(std::string(kUnionKeyError));
    if (!payload->is_object()) detail::typeMismatch("an object", *payload);
    return UnionCase{index, *payload};
}
}  // namespace detail

namespace detail {
void typeMismatch(std::string_view expected, const Json& found) {
    throw DecodingError("Expected " + std::string(expected) + " but found " + std::string(typeName(found)) +
                        " instead.");
}
}  // namespace detail

}  // namespace tavra::TavraJSON
