#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include <gtest/gtest.h>

#include "platform/Shell.h"
#include "support/TempDir.h"

namespace tavra {
namespace {

std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> result;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) result.push_back(line);
    return result;
}

// ---- Real tools -------------------------------------------------------------

TEST(ShellRun, ReturnsStatusAndBothStreamsOfATool) {
    const auto result = Shell::run("/bin/sh", {"-c", "echo out; echo err >&2; exit 3"});
    EXPECT_EQ(result, (ShellResult{3, "out\n", "err\n"}));
    EXPECT_FALSE(result.ok());
    EXPECT_EQ(result.trimmed(), "out");
}

TEST(ShellRun, ArgumentsReachTheToolUninterpreted) {
    const auto result = Shell::run("/bin/echo", {"$HOME", "a b", "'q'", "*"});
    EXPECT_TRUE(result.ok());
    EXPECT_EQ(result.stdout, "$HOME a b 'q' *\n");
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

TEST(ShellRun, StandardInputIsAtEndOfFileAtOnce) {
    const auto result = Shell::run("/bin/cat", {});
    EXPECT_EQ(result, (ShellResult{0, "", ""}));
}

TEST(ShellRun, TerminatesAToolAtTheTimeoutAndReturnsWhatItSaid) {
    const auto result = Shell::run("/bin/sh", {"-c", "echo started; exec sleep 60"}, 1.0);
    EXPECT_EQ(result.status, SIGTERM);
    EXPECT_FALSE(result.ok());
    EXPECT_EQ(result.stdout, "started\n");
}

TEST(ShellRun, TimeoutAlsoCoversAToolThatClosedItsOutput) {
    const auto result =
        Shell::run("/bin/sh", {"-c", "exec >&- 2>&-; exec sleep 60"}, std::nullopt, std::nullopt, 1.0);
    EXPECT_EQ(result.status, SIGTERM);
}

TEST(ShellRun, ReportsTheSignalThatEndedATool) {
    const auto result = Shell::run("/bin/sh", {"-c", "kill -KILL $$"});
    EXPECT_EQ(result.status, SIGKILL);
}

TEST(ShellRun, RepairsInvalidUTF8) {
    const auto result = Shell::run("/usr/bin/printf", {"\\377ok\\303\\251\\300"});
    EXPECT_TRUE(result.ok());
    EXPECT_EQ(result.stdout, "\xEF\xBF\xBDok\xC3\xA9\xEF\xBF\xBD");
}

TEST(ShellRun, EnvironmentReplacesOnlyTheGivenKeys) {
    ::setenv("TAVRA_SHELL_KEEP", "kept", 1);
    ::setenv("TAVRA_SHELL_CHANGE", "old", 1);
    const auto result = Shell::run(
        "/usr/bin/env", {}, Shell::Environment{{"TAVRA_SHELL_CHANGE", "new"}, {"TAVRA_SHELL_ADD", "added"}});
    ::unsetenv("TAVRA_SHELL_KEEP");
    ::unsetenv("TAVRA_SHELL_CHANGE");
    ASSERT_TRUE(result.ok());
    const auto entries = lines(result.stdout);
    auto count = [&](const std::string& entry) { return std::count(entries.begin(), entries.end(), entry); };
    EXPECT_EQ(count("TAVRA_SHELL_KEEP=kept"), 1);
    EXPECT_EQ(count("TAVRA_SHELL_CHANGE=new"), 1);
    EXPECT_EQ(count("TAVRA_SHELL_CHANGE=old"), 0);
    EXPECT_EQ(count("TAVRA_SHELL_ADD=added"), 1);
    if (const char* path = std::getenv("PATH")) {
        EXPECT_EQ(count(std::string("PATH=") + path), 1);
    }
}

TEST(ShellRun, WithoutEnvironmentTheToolInheritsOurs) {
    ::setenv("TAVRA_SHELL_INHERITED", "yes", 1);
    const auto result = Shell::run("/usr/bin/env", {});
    ::unsetenv("TAVRA_SHELL_INHERITED");
    const auto entries = lines(result.stdout);
    EXPECT_NE(std::find(entries.begin(), entries.end(), "TAVRA_SHELL_INHERITED=yes"), entries.end());
}

TEST(ShellRun, RunsInTheGivenWorkingDirectory) {
    testing::TempDir dir;
    const auto result = Shell::run("/bin/pwd", {}, std::nullopt, dir.path().string());
    EXPECT_EQ(result.trimmed(), std::filesystem::canonical(dir.path()).string());
}

TEST(ShellRun, ManyCallsAtOnceStayApart) {
    std::vector<std::thread> threads;
    std::vector<ShellResult> results(6);
    for (std::size_t i = 0; i < results.size(); ++i) {
        threads.emplace_back([&results, i] { results[i] = Shell::run("/bin/echo", {std::to_string(i)}); });
    }
    for (auto& thread : threads) thread.join();
    for (std::size_t i = 0; i < results.size(); ++i) EXPECT_EQ(results[i].stdout, std::to_string(i) + "\n");
}

TEST(ShellRun, ToolsThatCannotStartThrowANamedError) {
    testing::TempDir dir;
    const auto plain = dir / "plain";
    std::ofstream(plain) << "not a program\n";
    struct Case {
        std::string path;
        std::optional<std::string> cwd;
        std::string description;
    };
    const std::vector<Case> cases = {
        {"/nonexistent/tavra-tool", std::nullopt, "/nonexistent/tavra-tool: No such file or directory"},
        {"", std::nullopt, ": No such file or directory"},
        {"/bin/true", (dir / "missing").string(), (dir / "missing").string() + ": No such file or directory"},
        {"/bin/true", plain.string(), plain.string() + ": Not a directory"},
    };
    for (const auto& c : cases) {
        try {
            Shell::run(c.path, {}, std::nullopt, c.cwd);
            ADD_FAILURE() << c.path << " started";
        } catch (const SpawnError& error) {
            EXPECT_EQ(error.description(), c.description);
        }
    }
}

TEST(ShellRun, AFileWithoutExecutePermissionIsNotStarted) {
    testing::TempDir dir;
    const auto script = dir / "script";
    std::ofstream(script) << "#!/bin/sh\necho ran\n";
    std::filesystem::permissions(script,
                                 std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
    EXPECT_THROW(Shell::run(script.string(), {}), SpawnError);
}

// ---- check -----------------------------------------------------------------

TEST(ShellCheck, ReturnsTheResultOfASuccessfulTool) {
    EXPECT_EQ(Shell::check("/bin/echo", {"fine"}).stdout, "fine\n");
}

TEST(ShellCheck, FailureCarriesCommandResultAndTrimmedStandardError) {
    try {
        Shell::check("/bin/sh", {"-c", "echo partial; echo '  no such plan  ' >&2; exit 4"});
        FAIL() << "no error";
    } catch (const ShellError& error) {
        EXPECT_EQ(error.description(),
                  "/bin/sh -c echo partial; echo '  no such plan  ' >&2; exit 4 exited 4: no such plan");
        EXPECT_EQ(error.command(), "/bin/sh -c echo partial; echo '  no such plan  ' >&2; exit 4");
        EXPECT_EQ(error.result(), (ShellResult{4, "partial\n", "  no such plan  \n"}));
        EXPECT_STREQ(error.what(), error.description().c_str());
    }
}

TEST(ShellCheck, AMissingToolThrowsTheSpawnErrorNotAShellError) {
    EXPECT_THROW(Shell::check("/nonexistent/tavra-tool", {"x"}), SpawnError);
    try {
        Shell::check("/nonexistent/tavra-tool", {"x"});
    } catch (const ShellError&) {
        ADD_FAILURE() << "ShellError for a tool that never ran";
    } catch (const Error&) {
    }
}

// ---- Pure pieces -----------------------------------------------------------

TEST(ShellText, DecodeReplacesEachMaximalInvalidSubpart) {
    const std::string r = "\xEF\xBF\xBD";
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"plain ascii", "plain ascii"},
        {"caf\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80", "caf\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80"},
        {"\xFF", r},
        {"a\x80"
         "b",
         "a" + r + "b"},
        {"\xC0\x80", r + r},                  // overlong NUL
        {"\xE0\x80\x80", r + r + r},          // overlong three-byte form
        {"\xED\xA0\x80", r + r + r},          // a surrogate
        {"\xF4\x90\x80\x80", r + r + r + r},  // above U+10FFFF
        {"\xF0\x9F\x98"
         "A",
         r + "A"},        // truncated, then a new start
        {"\xE2\x82", r},  // truncated at the end
        {"\xC3", r},
        {std::string("nul\0ok", 6), std::string("nul\0ok", 6)},
    };
    for (const auto& [input, expected] : cases) EXPECT_EQ(Shell::decodeUTF8(input), expected) << input;
}

TEST(ShellText, TrimmingRemovesUnicodeWhitespaceAtBothEndsOnly) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"", ""},
        {" \t\r\n", ""},
        {"  two words \n", "two words"},
        {"\xC2\xA0\xE3\x80\x80text\xE2\x80\xA8\n", "text"},  // NBSP, ideographic space, line separator
        {"\xC3\xA9", "\xC3\xA9"},
        {"x\n\ny", "x\n\ny"},
    };
    for (const auto& [input, expected] : cases)
        EXPECT_EQ(Shell::trimmingWhitespace(input), expected) << input;
}

TEST(ShellText, MergedEnvironmentOverridesInPlaceAndAppendsNewKeys) {
    const std::vector<std::string> base = {"PATH=/bin", "HOME=/root", "EMPTY=", "ODD", "HOME=/second"};
    const auto merged = Shell::mergedEnvironment(base, {{"HOME", "/tmp"}, {"B", "2"}, {"A", "x=y"}});
    EXPECT_EQ(merged, (std::vector<std::string>{"PATH=/bin", "HOME=/tmp", "EMPTY=", "ODD", "A=x=y", "B=2"}));
    EXPECT_EQ(Shell::mergedEnvironment(base, {}), base);
}

TEST(ShellText, CommandLineJoinsWithSingleBlanks) {
    EXPECT_EQ(Shell::commandLine("/usr/bin/pmset", {"-a", "disablesleep", "1"}),
              "/usr/bin/pmset -a disablesleep 1");
    EXPECT_EQ(Shell::commandLine("/bin/true", {}), "/bin/true");
}

TEST(ShellText, ShellErrorDescriptionWithEmptyStandardError) {
    EXPECT_EQ(ShellError::failed("/bin/false", ShellResult{1, "", ""}).description(),
              "/bin/false exited 1: ");
}

}  // namespace
}  // namespace tavra
