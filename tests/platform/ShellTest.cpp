#include <csignal>
#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>

#include "platform/Shell.h"
#include "support/ErrorText.h"
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

TEST(ShellCheck, ToolsThatCannotStartAndToolsThatFailThrowTheirOwnErrors) {
    testing::TempDir dir;
    const auto plain = dir / "plain";
    std::ofstream(plain) << "#!/bin/sh\necho ran\n";  // and not executable
    const std::pair<std::string, std::string> cases[] = {
        {"/nonexistent/tavra-tool", "/nonexistent/tavra-tool: No such file or directory"},
        {plain.string(), plain.string() + ": Permission denied"},
    };
    for (const auto& [path, description] : cases)
        EXPECT_EQ(testing::errorText<SpawnError>([&] { Shell::check(path, {}); }), description);
    const auto missing = (dir / "missing").string();
    EXPECT_EQ(testing::errorText<SpawnError>([&] { Shell::check("/bin/true", {}, std::nullopt, missing); }),
              missing + ": No such file or directory");
    try {
        Shell::check("/bin/sh", {"-c", "echo partial; echo '  no such plan  ' >&2; exit 4"});
        FAIL() << "no error";
    } catch (const ShellError& error) {
        EXPECT_EQ(error.description(),
                  "/bin/sh -c echo partial; echo '  no such plan  ' >&2; exit 4 exited 4: no such plan");
        EXPECT_EQ(error.result(), (ShellResult{4, "partial\n", "  no such plan  \n"}));
    }
}

}  // namespace
}  // namespace tavra
