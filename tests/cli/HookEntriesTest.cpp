#include "cli/HookEntries.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace tavra::cli {
namespace {

using Ordered = nlohmann::ordered_json;

// A user's Claude Code settings as the client writes them: two-space
// indentation, keys in the user's order, hooks of their own.
const std::string kClaudeSettings = R"json({
  "model": "sonnet",
  "hooks": {
    "PreToolUse": [
      {
        "matcher": "Bash",
        "hooks": [
          {
            "type": "command",
            "command": "/home/jo/bin/audit-bash.sh",
            "timeout": 30
          }
        ]
      }
    ]
  },
  "env": {
    "CLAUDE_CODE_ENABLE_TELEMETRY": "0"
  }
}
)json";

const std::string kCommand = "/home/jo/.local/bin/tavra-hook claude";

int countOurs(const Ordered& groups) {
    int count = 0;
    for (const auto& group : groups)
        for (const auto& handler : group["hooks"])
            if (handler["command"].get<std::string>().find("tavra-hook") != std::string::npos) ++count;
    return count;
}

TEST(HookEntries, ClaudeSettingsKeepTheUsersHooksAndComeBackWhole) {
    const auto entries = HookEntries::entriesFor("claude", 630);
    const std::string merged = HookEntries::merge(kClaudeSettings, kCommand, entries);
    Ordered document = Ordered::parse(merged);

    // The user's keys keep their order; their hooks stay first in each list.
    std::vector<std::string> keys;
    for (const auto& [key, value] : document.items()) keys.push_back(key);
    EXPECT_EQ(keys, (std::vector<std::string>{"model", "hooks", "env"}));
    EXPECT_EQ(document["hooks"]["PreToolUse"][0], Ordered::parse(kClaudeSettings)["hooks"]["PreToolUse"][0]);
    EXPECT_EQ(
        document["hooks"]["PreToolUse"][1],
        Ordered::parse(R"({"hooks":[{"type":"command","command":")" + kCommand + R"(","timeout":630}]})"));
    for (const auto& entry : entries) EXPECT_EQ(countOurs(document["hooks"][entry.event]), 1) << entry.event;
    EXPECT_EQ(document["hooks"]["Stop"][0]["hooks"][0]["timeout"], HookEntries::kPlainTimeout);
    EXPECT_TRUE(HookEntries::present(merged, entries));
    EXPECT_FALSE(HookEntries::present(kClaudeSettings, entries));

    EXPECT_EQ(HookEntries::merge(merged, kCommand, entries), merged);  // a second setup changes nothing
    EXPECT_EQ(HookEntries::remove(merged), kClaudeSettings);
}

TEST(HookEntries, AnEarlierInstallIsUpdatedInPlaceNotDoubled) {
    // Codex's file with our handler from another install folder, sharing a
    // group with a hook of the user's, and one under an event we no longer use.
    const std::string codex = R"({"hooks":{
        "PermissionRequest":[{"hooks":[{"type":"command","command":"/usr/bin/logger codex-asks"},
                                       {"type":"command","command":"'/old place/tavra-hook' codex","timeout":99}]}],
        "Retired":[{"hooks":[{"type":"command","command":"/opt/tavra-hook codex"}]}]}})";
    const auto entries = HookEntries::entriesFor("codex", 630);
    Ordered document = Ordered::parse(HookEntries::merge(codex, "/new/tavra-hook codex", entries));

    const auto& permission = document["hooks"]["PermissionRequest"];
    ASSERT_EQ(permission.size(), 1u);
    EXPECT_EQ(permission[0]["hooks"][0]["command"], "/usr/bin/logger codex-asks");
    EXPECT_EQ(permission[0]["hooks"][1]["command"], "/new/tavra-hook codex");
    EXPECT_EQ(permission[0]["hooks"][1]["timeout"], 630);
    EXPECT_FALSE(document["hooks"].contains("Retired"));
    EXPECT_EQ(document["hooks"]["SessionEnd"][0]["hooks"][0]["timeout"], HookEntries::kCodexEndTimeout);

    // Uninstall keeps the user's handler and the group it shares.
    Ordered removed = Ordered::parse(*HookEntries::remove(document.dump()));
    EXPECT_EQ(removed, Ordered::parse(R"({"hooks":{"PermissionRequest":[{"hooks":[
        {"type":"command","command":"/usr/bin/logger codex-asks"}]}]}})"));
}

TEST(HookEntries, FilesOfAnotherShapeAreRefused) {
    for (const std::string text : {"[1,2]", "{\"hooks\":[]}", "{\"hooks\":{\"Stop\":{}}}", "{oops"}) {
        EXPECT_THROW(HookEntries::merge(text, kCommand, HookEntries::entriesFor("claude", 630)),
                     HookFileError)
            << text;
        EXPECT_THROW(HookEntries::remove(text), HookFileError) << text;
    }
    EXPECT_EQ(HookEntries::remove("{}"), "{}");  // nothing of ours: the file stays
}

TEST(HookEntries, ProgramPathsWithBlanksAreQuotedAndStillRecognised) {
    EXPECT_EQ(HookEntries::hookCommand("/home/jo/.local/bin/tavra-hook", "grok"),
              "/home/jo/.local/bin/tavra-hook grok");
    const std::string quoted = HookEntries::hookCommand("/home/Jo's Mac/bin/tavra-hook", "grok");
    EXPECT_EQ(quoted, R"('/home/Jo'\''s Mac/bin/tavra-hook' grok)");
    const auto entries = HookEntries::entriesFor("grok", 630);
    EXPECT_TRUE(HookEntries::present(HookEntries::merge("", quoted, entries), entries));
    EXPECT_EQ(HookEntries::remove(HookEntries::merge("", quoted, entries)), std::nullopt);
}

}  // namespace
}  // namespace tavra::cli
