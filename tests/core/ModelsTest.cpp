#include "core/Models.h"

#include <gtest/gtest.h>

#include "core/Text.h"
#include "support/CorePrinters.h"

namespace tavra {
namespace {

template <class T>
T roundTrip(const T& value) {
    return TavraJSON::decode<T>(TavraJSON::encode(Json(value)));
}

TEST(RunKey, ParsingSplitsAtTheFirstColonOnly) {
    const std::pair<const char*, std::optional<RunKey>> cases[] = {
        {"claude:abc:def", RunKey{AgentKind::claude, "abc:def"}},
        {":x", RunKey{AgentKind{""}, "x"}},
        {"claude:", RunKey{AgentKind::claude, ""}},
        {"aider:s", RunKey{AgentKind{"aider"}, "s"}},
        {"claude", std::nullopt},
    };
    for (const auto& [text, expected] : cases) {
        EXPECT_EQ(RunKey::parsing(text), expected) << text;
        if (expected) {
            EXPECT_EQ(expected->description(), text);
        }
    }
}

TEST(RunKey, OrdersByTheJoinedTextNotFieldByField) {
    // Field by field "a" < "a-b", but as text "a:z" > "a-b:c" because ':' > '-'.
    std::vector<RunKey> keys{{AgentKind{"a"}, "z"},     {AgentKind{"a-b"}, "c"},    {AgentKind::claude, "b"},
                             {AgentKind::claude, "a:"}, {AgentKind{"claude:"}, ""}, {AgentKind::codex, "1"}};
    for (const auto& x : keys)
        for (const auto& y : keys) EXPECT_EQ(x <=> y, x.description() <=> y.description());
    RunKey colonAgent{AgentKind{"a:b"}, "c"}, colonSession{AgentKind{"a"}, "b:c"};
    EXPECT_TRUE(colonSession < colonAgent);
    EXPECT_FALSE(colonAgent < colonSession);
}

TEST(Text, CountsCharactersNotBytes) {
    EXPECT_EQ((RunKey{AgentKind::claude, "abcde"}).shortSession(), "abcde");
    EXPECT_EQ((RunKey{AgentKind::claude, "0123456789"}).shortSession(), "01234567");
    // e + combining acute is one character; so is a flag of two code points.
    EXPECT_EQ((RunKey{AgentKind::claude,
                      "e\xCC\x81"
                      "1234567890"})
                  .shortSession(),
              "e\xCC\x81"
              "1234567");
    EXPECT_EQ(Text::characterCount("\xF0\x9F\x87\xA9\xF0\x9F\x87\xAA"
                                   "ab"),
              3u);
    EXPECT_EQ(Text::capitalizedWords("my AGENT-tool"), "My Agent-tool");
    EXPECT_EQ(Text::capitalizedWords("\xC3\xA9lan"), "\xC3\x89lan");
}

TEST(ModelsJSON, AgentEventRoundTripsAndRefusesBadDocuments) {
    AgentEvent full{AgentKind{"aider"},
                    "s1",
                    AgentEvent::Kind::toolStarted,
                    dateFromEpochSeconds(1740821400),
                    "/w",
                    42,
                    ToolCall{"Bash", "Bash:ls", false, "ls"},
                    "hi",
                    "/t.jsonl"};
    EXPECT_EQ(roundTrip(full), full);
    Json j = full;
    EXPECT_EQ(j["agent"], "aider");
    EXPECT_EQ(j["timestamp"], "2025-03-01T09:30:00Z");
    AgentEvent bare{AgentKind::claude, "s2", AgentEvent::Kind::activity, {}, {}, {}, {}, {}, {}};
    EXPECT_EQ(Json(bare).size(), 4u);

    const char* bad[] = {
        R"({"agent":"claude","sessionID":"s","kind":"bogus","timestamp":"2025-03-01T09:30:00Z"})",
        R"({"agent":"claude","sessionID":"s","timestamp":"2025-03-01T09:30:00Z"})",
        R"({"agent":"claude","sessionID":"s","kind":"activity","timestamp":"2025-03-01T09:30:00Z",
            "tool":{"name":"x","signature":"y"}})",
    };
    for (const char* text : bad) EXPECT_THROW(TavraJSON::decode<AgentEvent>(text), DecodingError) << text;
}

TEST(ModelsJSON, SnapshotThermalIsANumberAndEveryFlagIsRequired) {
    SystemSnapshot s = SystemSnapshot::unknown;
    s.thermal = ThermalLevel::serious;
    s.batteryPercent = 40;
    Json j = s;
    EXPECT_EQ(j["thermal"], 2);
    EXPECT_EQ(roundTrip(s), s);
    j["thermal"] = 4;
    EXPECT_THROW(TavraJSON::read<SystemSnapshot>(j), DecodingError);
    j = s;
    j.erase("osUpdatePending");
    EXPECT_THROW(TavraJSON::read<SystemSnapshot>(j), DecodingError);
}

TEST(Models, DerivedValues) {
    SystemSnapshot s = SystemSnapshot::unknown;
    s.userIdleSeconds = 120;
    EXPECT_TRUE(s.userAway(120));
    s.userIdleSeconds = 0;
    s.screenLocked = true;
    EXPECT_TRUE(s.userAway(120));
    EXPECT_FALSE((PowerPlan{false, false, false, {"x"}}).holdsAnything());

    ApprovalTicket t{"t1", {AgentKind::codex, "s"}, "Ask", "pick", {}, std::vector<AgentQuestion>{}};
    EXPECT_FALSE(t.isQuestion());
    t.questions->push_back(AgentQuestion{"Which?", "H", {{"A", "first"}, {"B", {}}}, true});
    EXPECT_TRUE(t.isQuestion());
    EXPECT_EQ(roundTrip(t), t);
}

}  // namespace
}  // namespace tavra
