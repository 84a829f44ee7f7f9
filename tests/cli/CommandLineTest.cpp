#include "cli/CommandLine.h"

#include <ctime>
#include <iterator>
#include <optional>
#include <sstream>

#include <gtest/gtest.h>

#include "core/ConfigCoding.h"
#include "support/ScopedEnv.h"

namespace tavra::cli {
namespace {

using C = Request::Command;

std::vector<std::string> words(const std::string& line) {
    std::istringstream in(line);
    return {std::istream_iterator<std::string>(in), std::istream_iterator<std::string>()};
}

TimeWord duration(double seconds) {
    return {TimeWord::Kind::duration, seconds, 0, 0, {}};
}
TimeWord clock(int hour, int minute) {
    return {TimeWord::Kind::clock, 0, hour, minute, {}};
}

Request parsed(const std::string& line) {
    Parsed result = parseArguments(words(line));
    EXPECT_TRUE(result.request) << line << ": " << result.text;
    return result.request.value_or(Request{});
}

TEST(CommandLine, ReadsEachCommandIntoItsRequest) {
    struct Case {
        std::string line;
        C command;
        std::optional<std::string> target = {};
        std::optional<TimeWord> time = {};
    };
    const std::vector<Case> cases = {
        {"", C::status},
        {"report --since today", C::report, {}, TimeWord{TimeWord::Kind::today}},
        {"stay-awake", C::stayAwake, {}, duration(3600)},
        {"stay-awake for 1h30m", C::stayAwake, {}, duration(5400)},
        {"stay-awake until 18:00", C::stayAwake, {}, clock(18, 0)},
        {"hold", C::hold, {}, duration(86400)},
        {"release build", C::release, "build"},
        {"config get remote.approvalTimeout", C::configGet, "remote.approvalTimeout"},
    };
    for (const auto& c : cases) {
        Request request = parsed(c.line);
        EXPECT_EQ(request.command, c.command) << c.line;
        EXPECT_EQ(request.target, c.target) << c.line;
        EXPECT_EQ(request.time, c.time) << c.line;
    }
    EXPECT_EQ(parsed("report --since 2025-03-01T09:00:00Z").time->instant,
              TavraJSON::parseDate("2025-03-01T09:00:00Z"));
    EXPECT_TRUE(parsed("status --json").json);
    EXPECT_FALSE(parsed("off").on);
    EXPECT_EQ(parsed("config set remote.telegram.chatID -100").value, "-100");
    // The command's own words are its own, options included, before or after "--".
    EXPECT_EQ(parsed("run -- make -j4 --keep-going").commandLine,
              (std::vector<std::string>{"make", "-j4", "--keep-going"}));
    EXPECT_EQ(parsed("run -- run -- x").commandLine, (std::vector<std::string>{"run", "--", "x"}));
    Request withReason = parsed("run --reason nightly ./ci.sh --fast");
    EXPECT_EQ(withReason.reason, "nightly");
    EXPECT_EQ(withReason.commandLine, (std::vector<std::string>{"./ci.sh", "--fast"}));
}

TEST(CommandLine, UsageErrorsExitWithTwoAndSayWhy) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"frobnicate", "frobnicate"},
        {"approve", "ticket"},
        {"stay-awake for soon", "not a duration: soon"},
        {"stay-awake for 0m", "not a duration: 0m"},
        {"hold for 99999999h", "not a duration: 99999999h"},
        {"stay-awake until 24:00", "not a time of day: 24:00"},
        {"stay-awake at 18:00", "expected `for` or `until`"},
        {"hold build for 2h extra", "too many words"},
        {"report --since yesterday", "--since takes"},
        {"run", "run needs a command"},
        {"config set policy.enabled", "needs a value"},
    };
    for (const auto& [line, says] : cases) {
        Parsed parsed = parseArguments(words(line));
        EXPECT_FALSE(parsed.request) << line;
        EXPECT_EQ(parsed.exitStatus, 2) << line;
        EXPECT_NE(parsed.text.find(says), std::string::npos) << line << " -> " << parsed.text;
    }
    Parsed help = parseArguments({"--help"});
    EXPECT_EQ(help.exitStatus, 0);
    EXPECT_NE(help.text.find("stay-awake"), std::string::npos);
}

// Berlin's clock, for one test.
class BerlinTime : public ::testing::Test {
    std::optional<testing::ScopedEnv> zone_{std::in_place, "TZ", "Europe/Berlin"};
    void SetUp() override { tzset(); }
    void TearDown() override { zone_.reset(), tzset(); }
};

TEST_F(BerlinTime, TimesResolveAgainstTheLocalClock) {
    // 16:30 in Berlin, winter time (UTC+1).
    const Date now = *TavraJSON::parseDate("2025-01-15T15:30:00Z");
    auto at = [](const char* text) { return *TavraJSON::parseDate(text); };
    EXPECT_EQ(resolveForward(*parseClock("18:00"), now), at("2025-01-15T17:00:00Z"));
    EXPECT_EQ(resolveForward(*parseClock("16:30"), now), at("2025-01-16T15:30:00Z"));  // now is not ahead
    EXPECT_EQ(resolveForward(*parseClock("07:00"), now), at("2025-01-16T06:00:00Z"));
    EXPECT_EQ(resolveForward(TimeWord{TimeWord::Kind::off}, now), std::nullopt);
    EXPECT_EQ(resolveSince(TimeWord{TimeWord::Kind::today}, now), at("2025-01-14T23:00:00Z"));
    EXPECT_EQ(resolveSince(duration(7200), now), at("2025-01-15T13:30:00Z"));
    // Across the switch to summer time: 02:00 does not exist on that day.
    const Date beforeSwitch = at("2025-03-30T00:30:00Z");  // 01:30 local
    EXPECT_EQ(resolveForward(*parseClock("12:00"), beforeSwitch), at("2025-03-30T10:00:00Z"));
}

}  // namespace
}  // namespace tavra::cli
