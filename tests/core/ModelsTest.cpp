#include "core/Models.h"

#include <gtest/gtest.h>

#include "support/CorePrinters.h"

namespace tavra {
namespace {

TEST(RunKey, ParsingSplitsAtTheFirstColonOnlyAndOrderingFollowsTheJoinedText) {
    const std::pair<const char*, std::optional<RunKey>> cases[] = {
        {"claude:abc:def", RunKey{AgentKind::claude, "abc:def"}},
        {":x", RunKey{AgentKind{""}, "x"}},
        {"aider:s", RunKey{AgentKind{"aider"}, "s"}},
        {"claude", std::nullopt},
    };
    for (const auto& [text, expected] : cases) EXPECT_EQ(RunKey::parsing(text), expected) << text;
    // Field by field "a" < "a-b", but as text "a:z" > "a-b:c" because ':' > '-'; keys that
    // read alike must still differ, or a map would merge two runs.
    std::vector<RunKey> keys{{AgentKind{"a"}, "z"},     {AgentKind{"a-b"}, "c"},    {AgentKind::claude, "b"},
                             {AgentKind::claude, "a:"}, {AgentKind{"claude:"}, ""}, {AgentKind::codex, "1"}};
    for (const auto& x : keys)
        for (const auto& y : keys) EXPECT_EQ(x <=> y, x.description() <=> y.description());
    RunKey colonAgent{AgentKind{"a:b"}, "c"}, colonSession{AgentKind{"a"}, "b:c"};
    EXPECT_TRUE(colonSession < colonAgent);
    EXPECT_FALSE(colonAgent < colonSession);
}

TEST(ModelsJSON, AgentEventsAndSnapshotsRefuseBadDocuments) {
    Json j = AgentEvent{AgentKind::claude, "s1", AgentEvent::Kind::toolStarted, {}, {}, {}, {}, {}, {}};
    j["tool"] = {{"name", "x"}, {"signature", "y"}};  // writes missing
    EXPECT_THROW(TavraJSON::read<AgentEvent>(j), DecodingError);

    SystemSnapshot s = SystemSnapshot::unknown;
    s.thermal = ThermalLevel::serious;
    j = s;
    EXPECT_EQ(j["thermal"], 2);  // a number on the wire, not a name
    j["thermal"] = 4;
    EXPECT_THROW(TavraJSON::read<SystemSnapshot>(j), DecodingError);
}

}  // namespace
}  // namespace tavra
