#include "core/Models.h"

#include <gtest/gtest.h>

#include "core/Text.h"
#include "support/CorePrinters.h"

namespace tavra {
namespace {

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
    for (auto [path, last] : {std::pair{"/a b/c d", "c d"}, {"//x//", "x"}, {"b", "b"}, {"/", "/"}, {"", ""}})
        EXPECT_EQ(Text::lastPathComponent(path), last) << path;
}

TEST(ModelsJSON, AgentEventRoundTripsAndRefusesBadDocuments) {
    const Date t = dateFromEpochSeconds(1740821400);
    AgentEvent full{AgentKind{"aider"}, "s1", AgentEvent::Kind::toolStarted, t, "/w", 42, {}, "hi",
                    "/t.jsonl"};
    full.tool = ToolCall{"Bash", "Bash:ls", false, "ls"};
    EXPECT_EQ(TavraJSON::decode<AgentEvent>(TavraJSON::encode(Json(full))), full);
    Json j = full;
    AgentEvent bare{AgentKind::claude, "s2", AgentEvent::Kind::activity, {}, {}, {}, {}, {}, {}};
    EXPECT_EQ(Json(bare).size(), 4u);

    j["tool"] = {{"name", "x"}, {"signature", "y"}};  // writes missing
    EXPECT_THROW(TavraJSON::read<AgentEvent>(j), DecodingError);
    j = full;
    j["kind"] = "bogus";
    EXPECT_THROW(TavraJSON::read<AgentEvent>(j), DecodingError);
}

TEST(ModelsJSON, SnapshotThermalIsANumberAndEveryFlagIsRequired) {
    SystemSnapshot s = SystemSnapshot::unknown;
    s.thermal = ThermalLevel::serious;
    Json j = s;
    EXPECT_EQ(j["thermal"], 2);
    j["thermal"] = 4;
    EXPECT_THROW(TavraJSON::read<SystemSnapshot>(j), DecodingError);
    j = s;
    j.erase("osUpdatePending");
    EXPECT_THROW(TavraJSON::read<SystemSnapshot>(j), DecodingError);
}

TEST(Models, DerivedValues) {
    SystemSnapshot s = SystemSnapshot::unknown;
    for (auto [idle, locked, away] :
         {std::tuple{120.0, false, true}, {119.0, false, false}, {119.0, true, true}}) {
        s.userIdleSeconds = idle, s.screenLocked = locked;
        EXPECT_EQ(s.userAway(120), away) << idle << locked;
    }

    ApprovalTicket t{"t1", {AgentKind::codex, "s"}, "Ask", "pick", {}, std::vector<AgentQuestion>{}};
    EXPECT_FALSE(t.isQuestion());  // an empty list asks nothing
}

}  // namespace
}  // namespace tavra
