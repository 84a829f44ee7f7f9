#include "core/RemoteCommand.h"

#include <gtest/gtest.h>

namespace tavra {
namespace {

using C = RemoteCommand;

TEST(RemoteCommandParse, ReadsEveryFormOfTheLanguage) {
    // Each expected command with every text that must read as it.
    const std::pair<std::optional<RemoteCommand>, std::vector<std::string>> cases[] = {
        // Command words, aliases, case, slash, bot name and any kind of white space.
        {C::status(),
         {"status", "S", "  /STATUS@MyBot  ", "/status@", "\n\t status \r\n", "\u00a0status\u2028"}},
        {C::help(), {"\u3000/help\u3000", "/start", "Commands"}},
        {C::enable(false), {"off", "/disable@bot extra"}},
        {C::report(48), {"report +48"}},
        // Reports: integer reading and its clamps; anything not a plain integer is the default.
        {C::report(12),
         {"r", "report", "report soon", "report 99999999999999999999", "report 9223372036854775808",
          "report -9223372036854775809", "report 1.5", "report 90m", "report -", "report +", "report +-5",
          "report 0x10", "report \u0664\u0662"}},  // Arabic-Indic digits are not ASCII
        {C::report(1), {"report 0", "report -3", "report -9223372036854775808"}},
        {C::report(720), {"report 720", "report 721", "report 9223372036854775807"}},
        {C::stayAwake(60), {"wake", "stayawake ninety"}},
        {C::sleep(false), {"sleep", "sleep later"}},
        {C::sleep(true), {"sleep now", "sleep NOW", "sleep now please"}},
        // Pause and resume keep the target's case; further words are ignored.
        {C::pause("2"), {"pause 2", "pause 2 3"}},
        {C::resume("Claude:ABC"), {"Resume Claude:ABC"}},
        // Approvals: colon form and word form.
        {C::approve("AbC"), {"APPROVE:AbC", "approve AbC"}},
        {C::deny("t-1:extra"), {"Deny:t-1:extra"}},
        {C::answer("T1", 3, "Done"), {"answer T1 3 Done extra"}},
        // Nothing a command can be read from.
        {std::nullopt, {"pause\t2", "approve:a b", "/approve:x", "approve", "deny", "foo:bar", "status:now"}},
        {std::nullopt, {"answer t1 x 2", "answer t1 0", "answer", "answer t1 99999999999999999999 2"}},
        {std::nullopt, {"", "    ", "\n\t", "/", "@bot", "statuses", "stat us", "\xff\xfe", "status\xff"}},
    };
    for (const auto& [expected, texts] : cases)
        for (const auto& text : texts) EXPECT_EQ(C::parse(text), expected) << "text: \"" << text << "\"";
    for (const auto& entry : C::menu(kComputerWord))  // the chat's command menu offers only what parses
        EXPECT_TRUE(C::parse("/" + std::string(entry.command) + "@TavraBot")) << entry.command;
}

TEST(RemoteCommandResolve, KeepsAllRunsOneRunAndNoMatchApart) {
    using Resolution = C::Resolution;
    const Resolution all = C::EveryRun{}, none = C::NoRun{};
    const auto one = [](const char* agent, const char* session) {
        return Resolution(RunKey{AgentKind{agent}, session});
    };
    const auto runs = [](std::vector<std::pair<const char*, const char*>> keys) {
        std::vector<tavra::Run> out;
        for (const auto& [agent, session] : keys) out.emplace_back(RunKey{AgentKind{agent}, session}, Date{});
        return out;
    };
    const auto empty = runs({});
    const auto three = runs({{"claude", "7abc"}, {"codex", "abc"}, {"claude", "abd"}});
    const auto single = runs({{"claude", "2abc"}});
    const auto two = runs({{"claude", "zzz"}, {"grok", "yyy"}});
    const auto colons = runs({{"claude", "a:b"}, {"claude:a", "b"}, {"x", "claude:a:b"}});
    const std::tuple<std::optional<std::string>, const std::vector<tavra::Run>&, Resolution> cases[] = {
        {std::nullopt, empty, all},
        {std::nullopt, three, all},
        {"1", three, one("claude", "7abc")},
        {"2", single, one("claude", "2abc")},  // out of range: tried as a prefix
        {"2", two, one("grok", "yyy")},        // in range: position wins
        {"0", three, none},                    // never a position
        {"codex:abc", three, one("codex", "abc")},
        {"claude:abc", three, none},  // no exact key, and no session begins with it
        {"ab", three, one("codex", "abc")},
        {"claude:a:b", colons, one("claude", "a:b")},  // split at the first colon
        {"claude:a", colons, one("x", "claude:a:b")},  // no such key: session prefix
    };
    for (const auto& [target, live, expected] : cases)
        EXPECT_EQ(C::resolve(target, live), expected) << target.value_or("(absent)");
}

}  // namespace
}  // namespace tavra
