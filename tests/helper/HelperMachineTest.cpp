#include "HelperFixture.h"

namespace tavra {
namespace {

using Strings = std::vector<std::string>;

TEST_F(HelperFixture, ApplyHoldsThePlanAndSavesTheSettingBeforeChangingIt) {
    startHelper();
    runner->answer(kRead, {0, " 1\n", ""});
    std::optional<std::string> stateAtWrite;
    runner->onRun = [&](const std::string& line) {
        if (line == kWriteFalse) stateAtWrite = readState();
    };
    auto status = okStatus(request(HelperRequest::apply({true, true})));
    EXPECT_EQ(stateAtWrite, R"({"originalAutoInstall":"1"})");
    EXPECT_EQ(runner->commands(), (Strings{kPmsetOn, kRead, kWriteFalse}));
    EXPECT_EQ(logs.messages(), (Strings{"disablesleep → true", "deferred automatic macOS updates"}));

    // Repeating a plan is free.
    forget();
    request(HelperRequest::apply({true, true}));
    EXPECT_TRUE(runner->commands().empty());
    EXPECT_TRUE(logs.lines().empty());

    request(HelperRequest::apply(HelperPlan::released));
    EXPECT_EQ(runner->commands(), (Strings{kPmsetOff, kWriteTrue}));
    EXPECT_EQ(logs.messages(), (Strings{"disablesleep → false", "restored automatic macOS updates setting"}));
    EXPECT_EQ(readState(), "{}");
}

TEST_F(HelperFixture, HardLimitsRefuseLidSleepOnlyWhenTheyHold) {
    const std::tuple<const char*, bool, PowerReading, std::optional<std::string>> cases[] = {
        {"battery at the floor", false, {true, 7}, "battery at 7%"},
        {"battery above the floor", false, {true, 8}, std::nullopt},
        {"critical heat on mains", true, {false, 100}, "thermal pressure critical"},
    };
    for (const auto& [name, critical, power, refusal] : cases) {
        SCOPED_TRACE(name);
        startHelper();
        sensors->critical = critical;
        sensors->reading = power;
        auto status = okStatus(request(HelperRequest::apply({true, false})));
        if (refusal) {
            EXPECT_EQ(status.plan, HelperPlan::released);
            EXPECT_EQ(logs.messages(), (Strings{"refusing to disable sleep: " + *refusal}));
            EXPECT_TRUE(runner->commands().empty());
        } else {
            EXPECT_EQ(status.plan, (HelperPlan{true, false}));
            EXPECT_EQ(runner->commands(), (Strings{kPmsetOn}));
        }
    }
}

TEST_F(HelperFixture, WatchdogDropsAPlanAfterThirtySecondsOfSilenceAndSleepsOnlyWithTheLidClosed) {
    for (bool closed : {true, false}) {
        startHelper();
        sensors->closed = closed;
        request(HelperRequest::apply({true, false}));
        clock.advance(25);
        request(HelperRequest::heartbeat());  // the silence counts from here
        forget();
        clock.advance(30);
        helper->tick();  // exactly 30 s is still fine
        EXPECT_TRUE(logs.lines().empty());
        clock.advance(4.9);
        helper->tick();
        EXPECT_EQ(logs.messages(),
                  (Strings{"WATCHDOG: no heartbeat for 34s", "restored defaults (watchdog)"}));
        EXPECT_EQ(runner->commands(), closed ? (Strings{kPmsetOff, kSleepNow}) : (Strings{kPmsetOff}));
        EXPECT_EQ(helper->plan(), HelperPlan::released);
    }
}

TEST_F(HelperFixture, HardReasonOverridesALiveClientButNotADeferralHeldAlone) {
    startHelper();
    sensors->closed = true;
    request(HelperRequest::apply({true, false}));
    forget();
    sensors->reading = {true, 6};  // refused on a repeat: lid sleep goes back on
    EXPECT_EQ(okStatus(request(HelperRequest::apply({true, false}))).plan, HelperPlan::released);
    EXPECT_EQ(runner->commands(), (Strings{kPmsetOff}));
    sensors->reading = {true, 8};
    request(HelperRequest::apply({true, false}));
    forget();
    sensors->reading = {true, 5};
    helper->tick();
    EXPECT_EQ(logs.messages(), (Strings{"HARD KILL: battery at 5%", "restored defaults (battery at 5%)"}));
    EXPECT_EQ(runner->commands(), (Strings{kPmsetOff, kSleepNow}));
    EXPECT_EQ(helper->plan(), HelperPlan::released);

    request(HelperRequest::apply({false, true}));
    forget();
    sensors->critical = true;
    helper->tick();
    EXPECT_EQ(helper->plan(), (HelperPlan{false, true}));
    EXPECT_TRUE(logs.lines().empty());
}

TEST_F(HelperFixture, ASecondDeferralKeepsTheFirstValueAndADamagedFileIsNeitherUsedNorRepaired) {
    startHelper();
    writeState(R"({"originalAutoInstall":"1"})");
    request(HelperRequest::apply({false, true}));
    EXPECT_EQ(readState(), R"({"originalAutoInstall":"1"})");
    EXPECT_EQ(helper->plan(), (HelperPlan{false, true}));
    writeState("{not json");
    request(HelperRequest::apply({false, false}));
    EXPECT_TRUE(runner->commands().empty());
    EXPECT_TRUE(logs.lines().empty());
    EXPECT_EQ(readState(), "{not json");
}

}  // namespace
}  // namespace tavra
