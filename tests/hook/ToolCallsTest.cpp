#include "hook/ToolCalls.h"

#include <gtest/gtest.h>

namespace tavra {
namespace {

TEST(ToolCallSignature, SameCallSameSignatureAcrossKeyOrderSpacingAndRuns) {
    auto a = Json::parse(R"({"command":"ls","opts":{"b":1,"a":[1,2]}})");
    auto b = Json::parse(R"({ "opts" : { "a" : [1, 2], "b" : 1 }, "command" : "ls" })");
    EXPECT_EQ(ToolCalls::signature("Bash", a), ToolCalls::signature("Bash", b));
    EXPECT_NE(ToolCalls::signature("Bash", a), ToolCalls::signature("Shell", a));
    EXPECT_NE(ToolCalls::signature("Bash", a),
              ToolCalls::signature("Bash", Json::parse(R"({"command":"ls "})")));
    // The name and the input are kept apart: ("ab", "c") is not ("a", "bc").
    EXPECT_NE(ToolCalls::signature("ab", "c"), ToolCalls::signature("a", "bc"));

    // Pinned (computed apart from this code), so a change of hash or of
    // canonical form shows up here and not as loops the stuck detector
    // silently stops seeing.
    EXPECT_EQ(ToolCalls::fnv1a64(""), 0xcbf29ce484222325ULL);
    EXPECT_EQ(ToolCalls::fnv1a64("a"), 0xaf63dc4c8601ec8cULL);
    EXPECT_EQ(ToolCalls::canonicalJson(b), R"({"command":"ls","opts":{"a":[1,2],"b":1}})");
    EXPECT_EQ(ToolCalls::signature("Bash", a).size(), 16u);
    EXPECT_EQ(ToolCalls::signature("Bash", Json::parse(R"({"command":"npm test"})")), "174c9fe86d36f737");
}

TEST(ToolCallSummary, OneLineForPeople) {
    const std::string longWord(200, 'x');
    struct Case {
        std::string name;
        std::string input;
        std::optional<std::string> summary;
    };
    const std::vector<Case> cases{
        {"Bash", R"({"command":"  cd /p\nnpm test\n","description":"x"})", "cd /p"},
        {"Bash", R"({"command":["bash","-lc","make"]})", "bash -lc make"},
        {"Write", R"({"file_path":"/p/f.txt","content":"a\nb"})", "/p/f.txt"},
        {"NotebookEdit", R"({"notebook_path":"/p/n.ipynb"})", "/p/n.ipynb"},
        {"apply_patch",
         R"({"command":"*** Begin Patch\n*** Update File: a.c\n@@\n-x\n+y\n*** Add File: b.c\n+z\n*** End Patch\n"})",
         "a.c, b.c"},
        {"WebFetch", R"({"url":"https://x.org","prompt":"sum up"})", "https://x.org"},
        {"AskUserQuestion", R"({"questions":[{"question":"Which?","options":[]}]})", "Which?"},
        {"mcp__db__query", R"({"limit":3})", std::nullopt},
        {"Bash", R"({"command":"   "})", std::nullopt},
        {"Bash", R"({"command":")" + longWord + R"("})", std::string(119, 'x') + "…"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(ToolCalls::summary(c.name, Json::parse(c.input)), c.summary) << c.input;
    }
}

TEST(ToolCallSummary, CutsOnCodePointBoundaries) {
    std::string text;
    for (int i = 0; i < 10; ++i) text += "ä€😀";  // 2, 3 and 4 bytes
    auto cut = ToolCalls::oneLine(text, 5);
    EXPECT_EQ(cut, "ä€😀ä…");
    EXPECT_EQ(ToolCalls::oneLine("ä€😀", 3), "ä€😀");
}

TEST(ToolCallFileWrite, EachAgentsWritingTools) {
    struct Case {
        AgentKind agent;
        std::string name;
        bool writes;
    };
    const std::vector<Case> cases{
        {AgentKind::claude, "Write", true},      {AgentKind::claude, "Edit", true},
        {AgentKind::claude, "MultiEdit", true},  {AgentKind::claude, "NotebookEdit", true},
        {AgentKind::claude, "Bash", false},      {AgentKind::claude, "Read", false},
        {AgentKind::codex, "apply_patch", true}, {AgentKind::codex, "Bash", false},
        {AgentKind::grok, "edit", true},         {AgentKind::grok, "Write", true},
        {AgentKind::grok, "bash", false},        {AgentKind::grok, "read_file", false},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(ToolCalls::isFileWrite(c.agent, c.name), c.writes) << c.agent.rawValue << " " << c.name;
    }
}

}  // namespace
}  // namespace tavra
