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
    // e + combining acute is one character; so is a flag of two code points.
    const std::pair<const char*, const char*> sessions[] = {
        {"abcde", "abcde"}, {"0123456789", "01234567"}, {"e\u03011234567890", "e\u03011234567"}};
    for (const auto& [session, shortened] : sessions)
        EXPECT_EQ((RunKey{AgentKind::claude, session}).shortSession(), shortened);
    EXPECT_EQ(Text::characterCount("\U0001F1E9\U0001F1EAab"), 3u);
    EXPECT_EQ(Text::capitalizedWords("my AGENT-tool"), "My Agent-tool");
    EXPECT_EQ(Text::capitalizedWords("\u00e9lan"), "\u00c9lan");
}

TEST(ModelsJSON, AgentEventRoundTripsAndRefusesBadDocuments) {
    const Date t = dateFromEpochSeconds(1740821400);
    AgentEvent full{AgentKind{"aider"}, "s1", AgentEvent::Kind::toolStarted, t, "/w", 42, {}, "hi",
                    "/t.jsonl"};
    full.tool = ToolCall{"Bash", "Bash:ls", false, "ls"};
    EXPECT_EQ(roundTrip(full), full);
    Json j = full;
    EXPECT_EQ(j["agent"], "aider");
    EXPECT_EQ(j["timestamp"], "2025-03-01T09:30:00Z");
    AgentEvent bare{AgentKind::claude, "s2", AgentEvent::Kind::activity, {}, {}, {}, {}, {}, {}};
    EXPECT_EQ(Json(bare).size(), 4u);

    const auto damaged = [&](const char* key, Json value) {
        Json d = j;
        d[key] = std::move(value);
        return d;
    };
    EXPECT_THROW(TavraJSON::read<AgentEvent>(damaged("kind", "bogus")), DecodingError);
    EXPECT_THROW(TavraJSON::read<AgentEvent>(damaged("tool", {{"name", "x"}, {"signature", "y"}})),
                 DecodingError);
    j.erase("kind");
    EXPECT_THROW(TavraJSON::read<AgentEvent>(j), DecodingError);
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
    s.userIdleSeconds = 119;
    EXPECT_FALSE(s.userAway(120));
    s.screenLocked = true;
    EXPECT_TRUE(s.userAway(120));

    ApprovalTicket t{"t1", {AgentKind::codex, "s"}, "Ask", "pick", {}, std::vector<AgentQuestion>{}};
    EXPECT_FALSE(t.isQuestion());  // an empty list asks nothing
    t.questions->push_back(AgentQuestion{"Which?", "H", {{"A", "first"}, {"B", {}}}, true});
    EXPECT_EQ(roundTrip(t), t);
}

}  // namespace
}  // namespace tavra
