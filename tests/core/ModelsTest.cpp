#include "core/Models.h"

#include <gtest/gtest.h>

#include "support/CorePrinters.h"

#include "core/Text.h"

namespace tavra {
namespace {

Date at(double seconds) {
    return dateFromEpochSeconds(1740821400 + seconds);
}  // 2025-03-01T09:30:00Z

template <class T>
T roundTrip(const T& value) {
    return TavraJSON::decode<T>(TavraJSON::encode(Json(value)));
}

TEST(RunKeyParsing, SplitsAtTheFirstColonOnly) {
    struct Case {
        const char* text;
        std::optional<RunKey> expected;
    };
    const Case cases[] = {
        {"claude:abc123", RunKey{AgentKind::claude, "abc123"}},
        {"claude:abc:def", RunKey{AgentKind::claude, "abc:def"}},
        {":x", RunKey{AgentKind{""}, "x"}},
        {"claude:", RunKey{AgentKind::claude, ""}},
        {"aider:s", RunKey{AgentKind{"aider"}, "s"}},
        {"claude", std::nullopt},
        {"", std::nullopt},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(RunKey::parsing(c.text), c.expected) << c.text;
        if (c.expected) {
            EXPECT_EQ(c.expected->description(), c.text);
        }
    }
}

TEST(RunKeyOrder, FollowsTheJoinedTextNotTheFields) {
    // Field by field "a" < "a-b", but as text "a:z" > "a-b:c" because ':' > '-'.
    RunKey shortAgent{AgentKind{"a"}, "z"};
    RunKey longAgent{AgentKind{"a-b"}, "c"};
    EXPECT_TRUE(longAgent < shortAgent);
    EXPECT_EQ(shortAgent <=> longAgent, shortAgent.description() <=> longAgent.description());

    std::vector<RunKey> keys{{AgentKind::codex, "1"},
                             {AgentKind::claude, "b"},
                             {AgentKind::claude, "a"},
                             {AgentKind::claude, "a:"},
                             {AgentKind{"claude:"}, ""}};
    for (const auto& x : keys)
        for (const auto& y : keys)
            EXPECT_EQ(x <=> y, x.description() <=> y.description())
                << x.description() << " " << y.description();
    EXPECT_FALSE(keys[0] < keys[0]);
}

TEST(RunKeyShortSession, TakesEightCharactersNotBytes) {
    EXPECT_EQ((RunKey{AgentKind::claude, "abcde"}).shortSession(), "abcde");
    EXPECT_EQ((RunKey{AgentKind::claude, "0123456789abcdef"}).shortSession(), "01234567");
    // "é" written as e + combining acute is one character of two code points.
    EXPECT_EQ((RunKey{AgentKind::claude,
                      "e\xCC\x81"
                      "1234567890"})
                  .shortSession(),
              "e\xCC\x81"
              "1234567");
}

TEST(TextHelpers, CapitalizeWordsAndFindTheLastPathComponent) {
    EXPECT_EQ(Text::capitalizedWords("claude"), "Claude");
    EXPECT_EQ(Text::capitalizedWords("CODEX"), "Codex");
    EXPECT_EQ(Text::capitalizedWords("my agent-tool"), "My Agent-tool");
    EXPECT_EQ(Text::capitalizedWords("\xC3\xA9lan"), "\xC3\x89lan");  // élan -> Élan
    EXPECT_EQ(Text::lastPathComponent("/Users/me/proj"), "proj");
    EXPECT_EQ(Text::lastPathComponent("/Users/me/proj//"), "proj");
    EXPECT_EQ(Text::lastPathComponent("/"), "/");
    EXPECT_EQ(Text::lastPathComponent("proj"), "proj");
    EXPECT_EQ(Text::characterCount("\xF0\x9F\x87\xA9\xF0\x9F\x87\xAA"
                                   "ab"),
              3u);  // flag + 2
}

TEST(ModelsJSON, AgentEventRoundTripsWithAndWithoutOptionals) {
    AgentEvent full{AgentKind{"aider"},
                    "s1",
                    AgentEvent::Kind::toolStarted,
                    at(0),
                    "/w",
                    42,
                    ToolCall{"Bash", "Bash:ls", false, "ls"},
                    "hi",
                    "/t.jsonl"};
    EXPECT_EQ(roundTrip(full), full);
    Json j = full;
    EXPECT_EQ(j["agent"], "aider");
    EXPECT_EQ(j["kind"], "toolStarted");
    EXPECT_EQ(j["timestamp"], "2025-03-01T09:30:00Z");

    AgentEvent bare{AgentKind::claude, "s2", AgentEvent::Kind::activity, at(0), {}, {}, {}, {}, {}};
    EXPECT_EQ(roundTrip(bare), bare);
    EXPECT_EQ(Json(bare).size(), 4u);
}

TEST(ModelsJSON, RefusesMissingRequiredKeysAndUnknownEnumValues) {
    const char* bad[] = {
        R"({"agent":"claude","sessionID":"s","kind":"bogus","timestamp":"2025-03-01T09:30:00Z"})",
        R"({"agent":"claude","sessionID":"s","timestamp":"2025-03-01T09:30:00Z"})",
        R"({"agent":"claude","sessionID":"s","kind":"activity","timestamp":"2025-03-01T09:30:00.5Z"})",
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

    j.erase("osUpdatePending");
    EXPECT_THROW(TavraJSON::read<SystemSnapshot>(j), DecodingError);
    Json hot = s;
    hot["thermal"] = 4;
    EXPECT_THROW(TavraJSON::read<SystemSnapshot>(hot), DecodingError);
}

TEST(ModelsDerived, UserAwayAndPlanHolding) {
    SystemSnapshot s = SystemSnapshot::unknown;
    EXPECT_FALSE(s.userAway(120));
    s.userIdleSeconds = 120;
    EXPECT_TRUE(s.userAway(120));
    s.userIdleSeconds = 0;
    s.screenLocked = true;
    EXPECT_TRUE(s.userAway(120));
    EXPECT_FALSE(s.onBattery());

    PowerPlan onlyWords{false, false, false, {"x"}};
    EXPECT_FALSE(onlyWords.holdsAnything());
    EXPECT_NE(onlyWords, PowerPlan::released);
    EXPECT_EQ(roundTrip(onlyWords), onlyWords);
}

TEST(ModelsJSON, ApprovalTicketWithQuestions) {
    ApprovalTicket t{"t1", {AgentKind::codex, "s"},     "AskUserQuestion", "pick",
                     {},   std::vector<AgentQuestion>{}};
    EXPECT_FALSE(t.isQuestion());
    t.questions->push_back(AgentQuestion{"Which?", "H", {{"A", "first"}, {"B", {}}}, true});
    EXPECT_TRUE(t.isQuestion());
    EXPECT_EQ(roundTrip(t), t);
    EXPECT_EQ(Json(t)["run"], (Json{{"agent", "codex"}, {"session", "s"}}));
    EXPECT_EQ(roundTrip(ApprovalDecision::noDecision), ApprovalDecision::noDecision);
}

}  // namespace
}  // namespace tavra
