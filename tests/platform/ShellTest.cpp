#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <gtest/gtest.h>

#include "platform/Shell.h"
#include "support/ScopedEnv.h"
#include "support/TempDir.h"

namespace tavra {
namespace {

TEST(ShellRun, ReturnsStatusAndBothStreamsWithArgumentsUninterpreted) {
    EXPECT_EQ(Shell::run("/bin/sh", {"-c", "echo out; echo err >&2; exit 3"}),
              (ShellResult{3, "out\n", "err\n"}));
    EXPECT_EQ(Shell::run("/bin/echo", {"$HOME", "a b", "'q'", "*"}).stdout, "$HOME a b 'q' *\n");
    EXPECT_EQ(Shell::run("/bin/cat", {}), (ShellResult{0, "", ""}));  // standard input is at its end
    EXPECT_EQ(Shell::run("/bin/sh", {"-c", "kill -KILL $$"}).status, SIGKILL);
    EXPECT_EQ(Shell::run("/usr/bin/printf", {"\\377ok\\303\\251\\300"}).stdout,
              "\xEF\xBF\xBDok\xC3\xA9\xEF\xBF\xBD");  // invalid UTF-8 repaired
}

TEST(ShellRun, DrainsLargeOutputOnBothPipesWithoutDeadlock) {
    // Standard error is filled first: a reader that waits for the end of
    // standard output before touching standard error would hang here.
    const auto result = Shell::run(
        "/bin/sh",
        {"-c", "head -c 700000 /dev/zero | tr '\\0' e >&2; head -c 600000 /dev/zero | tr '\\0' o"});
    ASSERT_TRUE(result.ok()) << result.stderr.substr(0, 200);
    EXPECT_EQ(result.stderr, std::string(700000, 'e'));
    EXPECT_EQ(result.stdout, std::string(600000, 'o'));
}

TEST(ShellRun, TerminatesAToolAtTheTimeoutEvenWithItsOutputClosed) {
    const auto result = Shell::run("/bin/sh", {"-c", "echo started; exec sleep 60"}, 1.0);
    EXPECT_EQ(result.status, SIGTERM);
    EXPECT_FALSE(result.ok());
    EXPECT_EQ(result.stdout, "started\n");
    EXPECT_EQ(
        Shell::run("/bin/sh", {"-c", "exec >&- 2>&-; exec sleep 60"}, std::nullopt, std::nullopt, 1.0).status,
        SIGTERM);
}

TEST(ShellRun, EnvironmentReplacesOnlyTheGivenKeysInTheGivenDirectory) {
    testing::TempDir dir;
    testing::ScopedEnv keep("TAVRA_SHELL_KEEP", "kept");
    testing::ScopedEnv change("TAVRA_SHELL_CHANGE", "old");
    const auto result = Shell::run(
        "/bin/sh", {"-c", "env; pwd"},
        Shell::Environment{{"TAVRA_SHELL_CHANGE", "new"}, {"TAVRA_SHELL_ADD", "added"}}, dir.path().string());
    ASSERT_TRUE(result.ok());
    std::vector<std::string> lines;
    std::istringstream stream(result.stdout);
    for (std::string line; std::getline(stream, line);) lines.push_back(line);
    auto count = [&](const std::string& entry) { return std::count(lines.begin(), lines.end(), entry); };
    EXPECT_EQ(count("TAVRA_SHELL_KEEP=kept"), 1);
    EXPECT_EQ(count("TAVRA_SHELL_CHANGE=new"), 1);
    EXPECT_EQ(count("TAVRA_SHELL_CHANGE=old"), 0);
    EXPECT_EQ(count("TAVRA_SHELL_ADD=added"), 1);
    EXPECT_EQ(lines.back(), std::filesystem::canonical(dir.path()).string());
    EXPECT_NE(Shell::run("/usr/bin/env", {}).stdout.find("TAVRA_SHELL_KEEP=kept\n"), std::string::npos);
}

TEST(ShellRun, ToolsThatCannotStartThrowANamedError) {
    testing::TempDir dir;
    const auto plain = dir / "plain";
    std::ofstream(plain) << "#!/bin/sh\necho ran\n";  // and not executable
    struct Case {
        std::string path;
        std::optional<std::string> cwd;
        std::string description;
    };
    const std::vector<Case> cases = {
        {"/nonexistent/tavra-tool", std::nullopt, "/nonexistent/tavra-tool: No such file or directory"},
        {plain.string(), std::nullopt, plain.string() + ": Permission denied"},
        {"/bin/true", (dir / "missing").string(), (dir / "missing").string() + ": No such file or directory"},
    };
    for (const auto& c : cases) {
        try {
            Shell::check(c.path, {}, std::nullopt, c.cwd);
            ADD_FAILURE() << c.path << " started";
        } catch (const ShellError&) {
            ADD_FAILURE() << "ShellError for a tool that never ran: " << c.path;
        } catch (const SpawnError& error) {
            EXPECT_EQ(error.description(), c.description);
        }
    }
}

TEST(ShellCheck, FailureCarriesCommandResultAndTrimmedStandardError) {
    EXPECT_EQ(Shell::check("/bin/echo", {"fine"}).stdout, "fine\n");
    try {
        Shell::check("/bin/sh", {"-c", "echo partial; echo '  no such plan  ' >&2; exit 4"});
        FAIL() << "no error";
    } catch (const ShellError& error) {
        EXPECT_EQ(error.description(),
                  "/bin/sh -c echo partial; echo '  no such plan  ' >&2; exit 4 exited 4: no such plan");
        EXPECT_EQ(error.result(), (ShellResult{4, "partial\n", "  no such plan  \n"}));
        EXPECT_STREQ(error.what(), error.description().c_str());
    }
}

TEST(ShellText, DecodeReplacesEachMaximalInvalidSubpart) {
    const std::string r = "\xEF\xBF\xBD";
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"caf\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80", "caf\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80"},
        {"\xC0\x80", r + r},  // overlong NUL
        {"\xF0\x9F\x98"
         "A",
         r + "A"},  // truncated, then a new start
    };
    for (const auto& [input, expected] : cases) EXPECT_EQ(Shell::decodeUTF8(input), expected) << input;
}

}  // namespace
}  // namespace tavra
