#include <gtest/gtest.h>

#include "core/ConfigCoding.h"
#include "core/Settings.h"

namespace tavra {
namespace {

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

TEST(DeepMerge, ObjectsMergeAndEverythingElseReplaces) {
    const std::tuple<const char*, const char*, const char*> cases[] = {
        // base, overlay, expected
        {R"({"a":1,"b":{"c":2,"d":3}})", R"({"b":{"d":4,"e":5}})", R"({"a":1,"b":{"c":2,"d":4,"e":5}})"},
        {R"({"a":[1,2,3]})", R"({"a":[]})", R"({"a":[]})"},
        {R"({"a":{"x":1}})", R"({"a":null})", R"({"a":null})"},
        {R"({"a":{"x":1}})", R"({"a":7})", R"({"a":7})"},
        {R"({"a":7})", R"({"a":{"x":1}})", R"({"a":{"x":1}})"},
        {R"({"a":1})", R"([1,2])", R"([1,2])"},
        {R"([1,2])", R"({"a":1})", R"({"a":1})"},
        {R"(3)", R"("x")", R"("x")"},
        {R"({"a":1})", R"({})", R"({"a":1})"},
        {R"({"a":{"b":{"c":{"d":1,"e":2}}}})", R"({"a":{"b":{"c":{"e":3}}}})",
         R"({"a":{"b":{"c":{"d":1,"e":3}}}})"},
    };
    for (const auto& [base, overlay, expected] : cases)
        EXPECT_EQ(TavraJSON::deepMerge(Json::parse(base), Json::parse(overlay)), Json::parse(expected))
            << base << " <- " << overlay;
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

TEST(DecodeOverDefaults, DamagedDocumentsThrowInsteadOfGivingAPartialValue) {
    const auto damaged = [](const char* document) {
        EXPECT_THROW(TavraJSON::decode(document, Root{}), DecodingError) << document;
    };
    for (const char* document : {"", "   ", "{", R"({"a":})", "nul", "[1,]", "[1,2]", "null", "42"})
        damaged(document);
    for (const char* document :
         {R"({"policy":{"enabled":null}})", R"({"policy":{"enabled":"yes"}})", R"({"policy":{"enabled":1}})",
          R"({"policy":{"stuckAfter":"15"}})", R"({"policy":{"maxThermal":7}})", R"({"policy":[]})",
          R"({"chat":1.5})", R"({"since":"2025-03-01T09:30:00.5Z"})"})
        damaged(document);
}

}  // namespace
}  // namespace tavra
