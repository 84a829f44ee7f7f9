#include "cli/CommandLine.h"

#include <ctime>
#include <optional>

#include <gtest/gtest.h>

#include "core/ConfigCoding.h"
#include "support/ScopedEnv.h"

namespace tavra::cli {
namespace {

using C = Request::Command;

std::vector<std::string> words(const std::string& line) {
    std::vector<std::string> out;
    std::string word;
    for (char c : line) {
        if (c == ' ') {
            if (!word.empty()) out.push_back(word);
            word.clear();
        } else {
            word += c;
        }
    }
    if (!word.empty()) out.push_back(word);
    return out;
}

Request make(C command, void (*edit)(Request&) = nullptr) {
    Request request;
    request.command = command;
    if (edit) edit(request);
    return request;
}

TimeWord duration(double seconds) {
    return {TimeWord::Kind::duration, seconds, 0, 0, {}};
}

TEST(CommandLine, ReadsEachCommandIntoItsRequest) {
    struct Case {
        std::string line;
        Request expected;
    };
    const std::vector<Case> cases = {
        {"", make(C::status)},
        {"status --json", make(C::status, [](Request& r) { r.json = true; })},
        {"report", make(C::report)},
        {"report --since 2h", make(C::report, [](Request& r) { r.time = duration(7200); })},
        {"report --since today",
         make(C::report, [](Request& r) { r.time = TimeWord{TimeWord::Kind::today}; })},
        {"report --since 2025-03-01T09:00:00Z", make(C::report,
                                                     [](Request& r) {
                                                         r.time = TimeWord{
                                                             TimeWord::Kind::instant, 0, 0, 0,
                                                             *TavraJSON::parseDate("2025-03-01T09:00:00Z")};
                                                     })},
        {"pause", make(C::pause)},
        {"pause 2", make(C::pause, [](Request& r) { r.target = "2"; })},
        {"resume claude:abc --terminal", make(C::resume,
                                              [](Request& r) {
                                                  r.target = "claude:abc";
                                                  r.terminal = true;
                                              })},
        {"forget 1", make(C::forget, [](Request& r) { r.target = "1"; })},
        {"stay-awake", make(C::stayAwake, [](Request& r) { r.time = duration(3600); })},
        {"stay-awake for 1h30m", make(C::stayAwake, [](Request& r) { r.time = duration(5400); })},
        {"stay-awake 90", make(C::stayAwake, [](Request& r) { r.time = duration(5400); })},
        {"stay-awake until 18:00", make(C::stayAwake,
                                        [](Request& r) {
                                            r.time = TimeWord{TimeWord::Kind::clock, 0, 18, 0, {}};
                                        })},
        {"stay-awake off", make(C::stayAwake, [](Request& r) { r.time = TimeWord{TimeWord::Kind::off}; })},
        {"hold", make(C::hold, [](Request& r) { r.time = duration(86400); })},
        {"hold build for 45m", make(C::hold,
                                    [](Request& r) {
                                        r.target = "build";
                                        r.time = duration(2700);
                                    })},
        {"hold until 7:05", make(C::hold,
                                 [](Request& r) {
                                     r.time = TimeWord{TimeWord::Kind::clock, 0, 7, 5, {}};
                                 })},
        {"release", make(C::release)},
        {"release build", make(C::release, [](Request& r) { r.target = "build"; })},
        {"on", make(C::enable)},
        {"off", make(C::enable, [](Request& r) { r.on = false; })},
        {"approve AbC-12", make(C::approve, [](Request& r) { r.target = "AbC-12"; })},
        {"deny x", make(C::deny, [](Request& r) { r.target = "x"; })},
        {"config show --json", make(C::configShow, [](Request& r) { r.json = true; })},
        {"config get remote.approvalTimeout",
         make(C::configGet, [](Request& r) { r.target = "remote.approvalTimeout"; })},
        {"config set policy.batteryFloorPercent 30", make(C::configSet,
                                                          [](Request& r) {
                                                              r.target = "policy.batteryFloorPercent";
                                                              r.value = "30";
                                                          })},
        {"test-notification", make(C::testNotification)},
        {"logs -f", make(C::logs, [](Request& r) { r.follow = true; })},
        {"version", make(C::version)},
        // The command's own options are its own, before or after "--".
        {"run -- make -j4 --keep-going", make(C::run,
                                              [](Request& r) {
                                                  r.commandLine = {"make", "-j4", "--keep-going"};
                                              })},
        {"run --reason nightly build ./ci.sh --fast", make(C::run,
                                                           [](Request& r) {
                                                               r.reason = "nightly";
                                                               r.commandLine = {"build", "./ci.sh", "--fast"};
                                                           })},
        {"run -- run -- x", make(C::run,
                                 [](Request& r) {
                                     r.commandLine = {"run", "--", "x"};
                                 })},
        {"setup --no-helper", make(C::setup, [](Request& r) { r.withoutHelper = true; })},
        {"uninstall", make(C::uninstall)},
        {"doctor", make(C::doctor)},
    };
    for (const auto& c : cases) {
        Parsed parsed = parseArguments(words(c.line));
        ASSERT_TRUE(parsed.request) << c.line << ": " << parsed.text;
        EXPECT_EQ(*parsed.request, c.expected) << c.line;
    }
}

TEST(CommandLine, UsageErrorsExitWithTwoAndSayWhy) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"frobnicate", "frobnicate"},
        {"pause 1 2", "2"},
        {"forget", "target"},
        {"approve", "ticket"},
        {"stay-awake for soon", "not a duration: soon"},
        {"stay-awake for 0m", "not a duration: 0m"},
        {"stay-awake until 24:00", "not a time of day: 24:00"},
        {"stay-awake at 18:00", "expected `for` or `until`"},
        {"hold build for 2h extra", "too many words"},
        {"report --since yesterday", "--since takes"},
        {"report --since 2025-03-01T09:00:00.5Z", "--since takes"},
        {"run", "run needs a command"},
        {"run --reason x --", "run needs a command"},
        {"config set policy.enabled", "needs a value"},
        {"config", "subcommand"},
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

TEST(CommandLine, DurationsAndTimesOfDay) {
    EXPECT_EQ(parseDuration("2h"), 7200);
    EXPECT_EQ(parseDuration("1d2h3m4s"), 93784);
    EXPECT_EQ(parseDuration("15"), 900);
    for (const char* bad : {"", "h", "-5", "0", "0h", "2x", "1.5h", "2h-", "99999999h"})
        EXPECT_EQ(parseDuration(bad), std::nullopt) << bad;
    EXPECT_EQ(parseClock("0:00"), (TimeWord{TimeWord::Kind::clock, 0, 0, 0, {}}));
    for (const char* bad : {"18", "18:0", "18:000", "-1:00", "12:60", "1a:00", ":30"})
        EXPECT_EQ(parseClock(bad), std::nullopt) << bad;
}

// Berlin's clock, for one test.
class BerlinTime : public ::testing::Test {
protected:
    void SetUp() override { tzset(); }
    void TearDown() override {
        zone_.reset();
        tzset();
    }

private:
    std::optional<testing::ScopedEnv> zone_{std::in_place, "TZ", "Europe/Berlin"};
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
