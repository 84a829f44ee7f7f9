#include "core/ConfigCoding.h"

#include <gtest/gtest.h>

#include "core/Settings.h"
#include "support/ErrorText.h"

namespace tavra {
namespace {

using namespace std::chrono;

Date at(int y, unsigned mo, unsigned d, int h, int mi, int s) {
    return Date(sys_days{year{y} / month{mo} / day{d}} + hours{h} + minutes{mi} + seconds{s});
}

TEST(TavraJSONDates, ReadsOnlyWholeSecondIso8601) {
    const std::pair<const char*, std::optional<Date>> cases[] = {
        {"2025-03-01T09:30:00Z", at(2025, 3, 1, 9, 30, 0)},
        {"2025-03-01T11:30:00+02:00", at(2025, 3, 1, 9, 30, 0)},
        {"2025-03-01T09:30:00.5Z", std::nullopt},
        {"2025-03-01T09:30:00", std::nullopt},
        {"2025-03-01T24:00:00Z", std::nullopt},
        {"2825-03-01T09:30:00Z", std::nullopt},  // beyond what a Date holds
        {"1600-03-01T09:30:00Z", std::nullopt},
    };
    for (const auto& [text, expected] : cases) EXPECT_EQ(TavraJSON::parseDate(text), expected) << text;
    // Written back in UTC whole seconds, fractions dropped.
    EXPECT_EQ(TavraJSON::formatDate(at(2025, 3, 1, 9, 30, 0) + milliseconds{999}), "2025-03-01T09:30:00Z");
}

TEST(TavraJSONRead, IsStrictAboutTypesAndNamesAMissingKey) {
    EXPECT_THROW(TavraJSON::read<bool>(Json(1)), DecodingError);
    EXPECT_THROW(TavraJSON::read<int>(Json(3.5)), DecodingError);
    EXPECT_THROW(TavraJSON::read<std::uint32_t>(Json(-1)), DecodingError);
    EXPECT_THROW(TavraJSON::read<std::int32_t>(Json(4294967296LL)), DecodingError);
    EXPECT_THROW(TavraJSON::read<std::int64_t>(Json(9223372036854775808.0)), DecodingError);    // 2^63
    EXPECT_THROW(TavraJSON::read<std::uint64_t>(Json(18446744073709551616.0)), DecodingError);  // 2^64
    EXPECT_EQ(TavraJSON::read<std::int32_t>(Json(-2147483648.0)), INT32_MIN);
    EXPECT_EQ(TavraJSON::read<int>(Json(30.0)), 30);
    EXPECT_EQ((TavraJSON::read<std::vector<int>>(Json::array({1, 2}))), (std::vector<int>{1, 2}));
    EXPECT_THROW(TavraJSON::read<std::vector<int>>(Json::array({1, "2"})), DecodingError);
    EXPECT_EQ(testing::errorText<DecodingError>([] { TavraJSON::required<bool>(Json::object(), "missing"); }),
              "key \"missing\" not found");
}

// A settings tree shaped like the real ones: a nested record full of numbers,
// flags and an enum, beside an optional without a default and a date.
struct Root {
    PolicySettings policy;
    std::optional<std::int64_t> chat;
    Date since = dateFromEpochSeconds(1740821400);
    bool operator==(const Root&) const = default;
};

void to_json(Json& j, const Root& v) {
    j = Json{{"policy", v.policy}, {"since", v.since}};
    TavraJSON::setOptional(j, "chat", v.chat);
}
void from_json(const Json& j, Root& v) {
    v.policy = TavraJSON::required<PolicySettings>(j, "policy");
    v.chat = TavraJSON::optional<std::int64_t>(j, "chat");
    v.since = TavraJSON::required<Date>(j, "since");
}

TEST(DecodeOverDefaults, MissingKeysAtAnyDepthTakeTheirDefaults) {
    Root defaults;
    defaults.policy.batteryFloorPercent = 40;
    EXPECT_EQ(TavraJSON::decode("{}", defaults), defaults);

    Root expected = defaults;
    expected.policy.enabled = false;
    expected.policy.maxThermal = ThermalLevel::critical;
    EXPECT_EQ(
        TavraJSON::decode(R"({"policy":{"enabled":false,"maxThermal":3},"unknown":{"deep":1}})", defaults),
        expected);

    // An optional without a default stays absent unless the document names it.
    const std::pair<const char*, std::optional<std::int64_t>> chats[] = {
        {R"({"policy":{}})", std::nullopt}, {R"({"chat":42})", 42}, {R"({"chat":null})", {}}};
    for (const auto& [document, chat] : chats) {
        expected = defaults;
        expected.chat = chat;
        EXPECT_EQ(TavraJSON::decode(document, defaults), expected) << document;
    }
}

}  // namespace
}  // namespace tavra
