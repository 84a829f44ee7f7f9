#include "core/Effects.h"
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

const Date kAt = dateFromEpochSeconds(1740821400);  // 2025-03-01T09:30:00Z
const RunKey kKey{AgentKind::claude, "s1"};

TEST(UserCommandJSON, EveryCaseHasItsDocumentedForm) {
    const std::pair<UserCommand, const char*> cases[] = {
        {UserCommand::pause(kKey), R"({"pause":{"_0":{"agent":"claude","session":"s1"}}})"},
        {UserCommand::stayAwake(std::nullopt), R"({"stayAwake":{}})"},
        {UserCommand::hold("build", kAt), R"({"hold":{"id":"build","until":"2025-03-01T09:30:00Z"}})"},
    };
    for (const auto& [command, json] : cases) {
        EXPECT_EQ(Json(command), Json::parse(json)) << json;
        EXPECT_EQ(TavraJSON::decode<UserCommand>(json), command) << json;
    }
    // Unknown keys beside the case are ignored; a null optional is absent.
    EXPECT_EQ(TavraJSON::decode<UserCommand>(R"({"x":1,"pause":{"_0":null}})"), UserCommand::pause());
}

}  // namespace
}  // namespace tavra
