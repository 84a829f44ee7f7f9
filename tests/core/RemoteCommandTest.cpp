#include "core/RemoteCommand.h"

#include <gtest/gtest.h>

namespace tavra {
namespace {

using C = RemoteCommand;

struct ParseCase {
    std::string text;
    std::optional<RemoteCommand> expected;
};

TEST(RemoteCommandParse, ReadsEveryFormOfTheLanguage) {
    const ParseCase cases[] = {
        // Command words, aliases, case, slash and bot name.
        {"status", C::status()},
        {"S", C::status()},
        {"  /STATUS@MyBot  ", C::status()},
        {"status@MyBot", C::status()},
        {"/status@", C::status()},
        {"\n\t status \r\n", C::status()},
        {"\u00a0status\u2028", C::status()},
        {"\u3000/help\u3000", C::help()},
        {"help", C::help()},
        {"/start", C::help()},
        {"Commands", C::help()},
        {"release", C::release()},
        {"cancel", C::cancel()},
        {"on", C::enable(true)},
        {"ENABLE", C::enable(true)},
        {"off", C::enable(false)},
        {"/disable@bot extra", C::enable(false)},
        // Reports: integer reading and its clamps.
        {"r", C::report(12)},
        {"report", C::report(12)},
        {"report 48", C::report(48)},
        {"report +48", C::report(48)},
        {"report 0", C::report(1)},
        {"report -3", C::report(1)},
        {"report 720", C::report(720)},
        {"report 721", C::report(720)},
        {"report 100000", C::report(720)},
        {"report soon", C::report(12)},
        {"report 99999999999999999999", C::report(12)},
        {"report 9223372036854775807", C::report(720)},
        {"report 9223372036854775808", C::report(12)},
        {"report -9223372036854775808", C::report(1)},
        {"report -9223372036854775809", C::report(12)},
        {"report 1.5", C::report(12)},
        {"report 90m", C::report(12)},
        {"report -", C::report(12)},
        {"report +", C::report(12)},
        {"report +-5", C::report(12)},
        {"report 0x10", C::report(12)},
        {"report \u0664\u0662", C::report(12)},  // Arabic-Indic digits are not ASCII
        {"report    24", C::report(24)},
        // Stay awake.
        {"wake", C::stayAwake(60)},
        {"awake 0", C::stayAwake(1)},
        {"stayawake 90", C::stayAwake(90)},
        {"StayAwake 2000", C::stayAwake(1440)},
        {"stayawake ninety", C::stayAwake(60)},
        // Sleep.
        {"sleep", C::sleep(false)},
        {"sleep later", C::sleep(false)},
        {"sleep now", C::sleep(true)},
        {"sleep NOW", C::sleep(true)},
        {"sleep now please", C::sleep(true)},
        // Pause and resume keep the target's case; further words are ignored.
        {"pause", C::pause()},
        {"pause 2", C::pause("2")},
        {"pause 2 3", C::pause("2")},
        {"Resume Claude:ABC", C::resume("Claude:ABC")},
        {"resume   claude:abc", C::resume("claude:abc")},
        {"pause\t2", std::nullopt},
        // Approvals: colon form and word form.
        {"approve:x", C::approve("x")},
        {"APPROVE:AbC", C::approve("AbC")},
        {"Deny:t-1:extra", C::deny("t-1:extra")},
        {"approve:", C::approve("")},
        {"\tapprove:abc\n", C::approve("abc")},
        {"approve:a\tb", C::approve("a\tb")},
        {"approve:a b", std::nullopt},
        {"/approve:x", std::nullopt},
        {"approve abc", C::approve("abc")},
        {"deny x y", C::deny("x")},
        {"approve", std::nullopt},
        {"deny", std::nullopt},
        {"foo:bar", std::nullopt},
        {"status:now", std::nullopt},
        // Answers.
        {"answer t1 0 2", C::answer("t1", 0, "2")},
        {"answer T1 3 Done extra", C::answer("T1", 3, "Done")},
        {"answer t1 -1 other", C::answer("t1", -1, "other")},
        {"answer q7 1 done", C::answer("q7", 1, "done")},
        {"answer q7 1 other", C::answer("q7", 1, "other")},
        {"answer q7 1 mac", C::answer("q7", 1, "mac")},
        {"answer t1 x 2", std::nullopt},
        {"answer t1 0", std::nullopt},
        {"answer", std::nullopt},
        {"answer t1 99999999999999999999 2", std::nullopt},
        // Nothing at all.
        {"", std::nullopt},
        {"    ", std::nullopt},
        {"\n\t", std::nullopt},
        {"/", std::nullopt},
        {"@bot", std::nullopt},
        {"statuses", std::nullopt},
        {"stat us", std::nullopt},
        {"\xff\xfe", std::nullopt},
        {"status\xff", std::nullopt},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(RemoteCommand::parse(c.text), c.expected) << "text: \"" << c.text << "\"";
    }
}

TEST(RemoteCommandParse, MenuCommandsAllParse) {
    ASSERT_EQ(RemoteCommand::menu.size(), 10u);
    EXPECT_EQ(RemoteCommand::menu.front().command, "status");
    EXPECT_EQ(RemoteCommand::menu.front().description, "What's running right now");
    EXPECT_EQ(RemoteCommand::menu.back().command, "help");
    for (const auto& entry : RemoteCommand::menu) {
        EXPECT_TRUE(
            RemoteCommand::parse(std::string("/") + std::string(entry.command) + "@TavraBot").has_value())
            << entry.command;
    }
}

Run runWith(const std::string& agent, const std::string& session) {
    return Run(RunKey{AgentKind{agent}, session}, Date{});
}

RunKey keyOf(const std::string& agent, const std::string& session) {
    return RunKey{AgentKind{agent}, session};
}

TEST(RemoteCommandResolve, KeepsAllRunsOneRunAndNoMatchApart) {
    using Resolution = std::optional<std::optional<RunKey>>;
    const Resolution all(std::in_place, std::nullopt);
    const auto one = [](RunKey k) { return Resolution(std::in_place, std::move(k)); };
    const Resolution none;

    const std::vector<tavra::Run> three = {runWith("claude", "7abc"), runWith("codex", "abc"),
                                           runWith("claude", "abd")};
    const std::vector<tavra::Run> single = {runWith("claude", "2abc")};
    const std::vector<tavra::Run> two = {runWith("claude", "zzz"), runWith("grok", "yyy")};
    const std::vector<tavra::Run> colons = {runWith("claude", "a:b"), runWith("claude:a", "b"),
                                            runWith("x", "claude:a:b")};

    struct Case {
        std::optional<std::string> target;
        const std::vector<tavra::Run>* runs;
        Resolution expected;
    };
    const std::vector<tavra::Run> empty;
    const Case cases[] = {
        {std::nullopt, &empty, all},
        {std::nullopt, &three, all},
        {"1", &three, one(keyOf("claude", "7abc"))},
        {"+3", &three, one(keyOf("claude", "abd"))},
        {"2", &single, one(keyOf("claude", "2abc"))},  // out of range: tried as a prefix
        {"2", &two, one(keyOf("grok", "yyy"))},        // in range: position wins
        {"0", &single, none},
        {"0", &two, none},
        {"-1", &two, none},
        {"7", &three, one(keyOf("claude", "7abc"))},
        {"99999999999999999999", &three, none},
        {"codex:abc", &three, one(keyOf("codex", "abc"))},
        {"claude:abc", &three, none},  // no exact key, and no session begins with it
        {"claude:abd", &three, one(keyOf("claude", "abd"))},
        {"ab", &three, one(keyOf("codex", "abc"))},
        {"abd", &three, one(keyOf("claude", "abd"))},
        {"AB", &three, none},
        {"", &three, one(keyOf("claude", "7abc"))},
        {"", &empty, none},
        {"1", &empty, none},
        {"claude:a:b", &colons, one(keyOf("claude", "a:b"))},  // split at the first colon
        {"claude:a", &colons, one(keyOf("x", "claude:a:b"))},  // no such key: session prefix
        {"1 ", &two, none},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(RemoteCommand::resolve(c.target, *c.runs), c.expected)
            << (c.target ? *c.target : "(absent)");
    }
}

}  // namespace
}  // namespace tavra
