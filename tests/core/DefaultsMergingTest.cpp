#include <gtest/gtest.h>

#include "core/ConfigCoding.h"

namespace tavra {
namespace {

// A small settings tree shaped like the real ones: nested records, an array,
// an optional without a default and a date.
struct Leaf {
    std::string topic;
    bool enabled = false;
    std::optional<std::int64_t> chat;
    bool operator==(const Leaf&) const = default;
};
struct Branch {
    Leaf leaf;
    double seconds = 15;
    std::vector<std::string> words{"a", "b", "c"};
    bool operator==(const Branch&) const = default;
};
struct Root {
    Branch branch;
    bool flag = true;
    Date since = dateFromEpochSeconds(1740821400);
    bool operator==(const Root&) const = default;
};

void to_json(Json& j, const Leaf& v) {
    j = Json{{"topic", v.topic}, {"enabled", v.enabled}};
    TavraJSON::setOptional(j, "chat", v.chat);
}
void from_json(const Json& j, Leaf& v) {
    v.topic = TavraJSON::required<std::string>(j, "topic");
    v.enabled = TavraJSON::required<bool>(j, "enabled");
    v.chat = TavraJSON::optional<std::int64_t>(j, "chat");
}
void to_json(Json& j, const Branch& v) {
    j = Json{{"leaf", v.leaf}, {"seconds", v.seconds}, {"words", v.words}};
}
void from_json(const Json& j, Branch& v) {
    v.leaf = TavraJSON::required<Leaf>(j, "leaf");
    v.seconds = TavraJSON::required<double>(j, "seconds");
    v.words = TavraJSON::required<std::vector<std::string>>(j, "words");
}
void to_json(Json& j, const Root& v) {
    j = Json{{"branch", v.branch}, {"flag", v.flag}, {"since", v.since}};
}
void from_json(const Json& j, Root& v) {
    v.branch = TavraJSON::required<Branch>(j, "branch");
    v.flag = TavraJSON::required<bool>(j, "flag");
    v.since = TavraJSON::required<Date>(j, "since");
}

TEST(DeepMerge, ObjectsMergeAndEverythingElseReplaces) {
    struct Case {
        const char* base;
        const char* overlay;
        const char* expected;
    };
    const Case cases[] = {
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
    for (const auto& c : cases) {
        EXPECT_EQ(TavraJSON::deepMerge(Json::parse(c.base), Json::parse(c.overlay)), Json::parse(c.expected))
            << c.base << " <- " << c.overlay;
    }
}

TEST(DecodeOverDefaults, MissingKeysAtAnyDepthTakeTheirDefaults) {
    Root defaults;
    defaults.branch.leaf.topic = "t";
    EXPECT_EQ(TavraJSON::decode("{}", defaults), defaults);

    Root expected = defaults;
    expected.branch.leaf.topic = "x";
    EXPECT_EQ(TavraJSON::decode(R"({"branch":{"leaf":{"topic":"x"}}})", defaults), expected);

    expected = defaults;
    expected.branch.words = {"z"};
    expected.flag = false;
    EXPECT_EQ(TavraJSON::decode(R"({"flag":false,"branch":{"words":["z"]},"unknown":{"deep":1}})", defaults),
              expected);

    // An optional without a default stays absent unless the document names it.
    EXPECT_EQ(TavraJSON::decode(R"({"branch":{"leaf":{}}})", defaults).branch.leaf.chat, std::nullopt);
    EXPECT_EQ(TavraJSON::decode(R"({"branch":{"leaf":{"chat":42}}})", defaults).branch.leaf.chat, 42);
    EXPECT_EQ(TavraJSON::decode(R"({"branch":{"leaf":{"chat":null}}})", defaults).branch.leaf.chat,
              std::nullopt);
}

TEST(DecodeOverDefaults, DamagedDocumentsThrowInsteadOfGivingAPartialValue) {
    const Root defaults;
    const char* documents[] = {
        "",
        "   ",
        "{",
        "[1,2]",
        "null",
        "42",
        R"({"flag":null})",
        R"({"flag":"yes"})",
        R"({"flag":1})",
        R"({"branch":{"seconds":"15"}})",
        R"({"branch":{"leaf":{"chat":1.5}}})",
        R"({"branch":{"words":"a"}})",
        R"({"branch":[]})",
        R"({"since":"2025-03-01T09:30:00.5Z"})",
    };
    for (const char* document : documents) {
        EXPECT_THROW(TavraJSON::decode(document, defaults), DecodingError) << document;
    }
}

}  // namespace
}  // namespace tavra
