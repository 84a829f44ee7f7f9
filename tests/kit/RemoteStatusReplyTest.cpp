#include <gtest/gtest.h>

#include "kit/RemoteReplies.h"
#include "support/SampleStatus.h"
#include "support/ScopedIcuDefaults.h"

namespace tavra {
namespace {

using testing::minutesFrom;
using testing::sampleNow;
using testing::sampleRun;
using testing::sampleStatus;
using testing::sampleTicket;
using Rows = std::vector<std::vector<AlertAction>>;

const AlertAction kAwake{"\u2600\uFE0F Awake 1h", "stayawake 60"};
const std::vector<AlertAction> kLastRow{{"\U0001F504 Refresh", "status"}, {"\U0001F4CA Report", "report"}};

class StatusReplyTest : public ::testing::Test {
protected:
    // Berlin is an hour ahead of UTC in March: 09:30Z reads 10:30.
    testing::ScopedIcuDefaults icu{"en_GB", "Europe/Berlin"};
    Date now = sampleNow();
};

TEST_F(StatusReplyTest, NoRunsIsAllQuietWithTheAwakeButton) {
    auto reply = RemoteReplies::status(sampleStatus(), std::nullopt, now);
    EXPECT_EQ(reply.html,
              "\u2615\uFE0F <b>All quiet</b>\n"
              "No agents running.\n"
              "\n"
              "\U0001F50C 80%  \U0001F321 Cool\n"
              "\U0001F319 The Mac can sleep\n"
              "<i>Updated 10:30:00</i>");
    EXPECT_EQ(reply.buttons, (Rows{{kAwake}, kLastRow}));
    EXPECT_EQ(reply.placement, RemoteReply::Placement::replace());
    EXPECT_EQ(reply.toast, std::nullopt);
    EXPECT_FALSE(reply.forceReply);
}

TEST_F(StatusReplyTest, OneWorkingRunHasAPauseButtonButNoRunRow) {
    auto run = sampleRun("claude", "s1", RunStatus::working, "/Users/a/proj", 754);
    run.toolCount = 1;
    auto status = sampleStatus({run});
    status.system.powerSource = PowerSource::battery;
    status.system.batteryPercent = 55;
    status.system.lidClosed = true;
    status.plan.preventIdleSleep = true;
    status.plan.disableLidSleep = true;

    auto reply = RemoteReplies::status(status, std::nullopt, now);
    EXPECT_EQ(reply.html,
              "\u2615\uFE0F <b>1 working</b>\n"
              "\n"
              "1. <b>Claude</b> \u00b7 proj\n"
              "     \U0001F7E2 Working \u00b7 12m so far \u00b7 1 tool calls\n"
              "\n"
              "\U0001F50B 55%  \U0001F321 Cool  \U0001F4BB Lid closed, running\n"
              "\u2600\uFE0F Keeping the Mac awake while agents work\n"
              "<i>Updated 10:30:00</i>");
    EXPECT_EQ(reply.buttons, (Rows{{{"\u23F8 Pause", "pause"}, kAwake}, kLastRow}));
}

TEST_F(StatusReplyTest, FourRunsWithApprovalsAndAHoldShowEverything) {
    auto first = sampleRun("claude", "s1", RunStatus::working, "/w/a&b", 3900);
    auto second = sampleRun("codex", "s2", RunStatus::waiting);
    second.waitingSince = minutesFrom(now, -5);
    auto third = sampleRun("grok", "s3", RunStatus::paused, "/Users/a/proj/", 300);
    third.pauseReason = PauseReason::remote;
    auto fourth = sampleRun("claude", "s4", RunStatus::idle, "/x/<tag>", 60);
    fourth.statusSince = minutesFrom(now, -2);

    auto status = sampleStatus({first, second, third, fourth});
    status.pendingApprovals.push_back(sampleTicket("t1", "codex"));
    status.pendingApprovals.push_back(
        sampleTicket("t2", "claude", {AgentQuestion{"Which?", {}, {{"a", {}}}, false}}));
    status.system.powerSource = PowerSource::unknown;
    status.system.batteryPercent.reset();
    status.system.thermal = ThermalLevel::serious;
    status.system.networkReachable = false;
    status.plan.preventIdleSleep = true;
    status.stayAwakeUntil = minutesFrom(now, 60);

    auto reply = RemoteReplies::status(status, std::nullopt, now);
    EXPECT_EQ(reply.html,
              "\u2615\uFE0F <b>1 working \u00b7 1 waiting \u00b7 1 paused</b>\n"
              "\n"
              "1. <b>Claude</b> \u00b7 a&amp;b\n"
              "     \U0001F7E2 Working \u00b7 1h 5m so far\n"
              "\n"
              "2. <b>Codex</b>\n"
              "     \U0001F7E1 Waiting for you \u00b7 5m\n"
              "\n"
              "3. <b>Grok</b> \u00b7 proj\n"
              "     \u23F8 Paused, paused from your phone \u00b7 5m worked\n"
              "\n"
              "4. <b>Claude</b> \u00b7 &lt;tag&gt;\n"
              "     \u2705 Done \u00b7 1m worked \u00b7 idle 2m\n"
              "\n"
              "\U0001F64B <b>Needs your OK:</b> Bash for Codex\n"
              "\n"
              "\u2753 <b>Claude is asking you something</b>\n"
              "\n"
              "\U0001F50C Plugged in  \U0001F975 Hot  \U0001F4F5 Offline\n"
              "\u2600\uFE0F Staying awake until 11:30\n"
              "<i>Updated 10:30:00</i>");
    EXPECT_EQ(reply.buttons, (Rows{{{"\u23F8 1", "pause claude:s1"},
                                    {"\u23F8 2", "pause codex:s2"},
                                    {"\u25B6\uFE0F 3", "resume grok:s3"}},
                                   {{"\u23F8 Pause all", "pause"},
                                    {"\u25B6\uFE0F Resume all", "resume"},
                                    {"\U0001F319 Release", "release"}},
                                   kLastRow}));
}

TEST_F(StatusReplyTest, SwitchedOffShowsOnlyTheNoteAndTheTurnOnButton) {
    auto status = sampleStatus({sampleRun("claude", "s1", RunStatus::working)});
    status.enabled = false;
    status.plan.preventIdleSleep = true;
    auto reply = RemoteReplies::status(status, std::string("<b>Paused all.</b>"), now);
    EXPECT_EQ(reply.html,
              "<b>Paused all.</b>\n\n"
              "\u2615\uFE0F <b>Tavra is off</b>\n"
              "The Mac sleeps normally and agents aren't watched.");
    EXPECT_EQ(reply.buttons, (Rows{{{"\u25B6\uFE0F Turn on", "on"}}}));
    EXPECT_EQ(reply.placement, RemoteReply::Placement::replace());
}

TEST_F(StatusReplyTest, AStayAwakeInThePastCountsAsNoHold) {
    auto status = sampleStatus();
    status.stayAwakeUntil = minutesFrom(now, -1);
    status.system.powerSource = PowerSource::battery;
    status.system.batteryPercent.reset();
    auto reply = RemoteReplies::status(status, std::nullopt, now);
    EXPECT_EQ(reply.html,
              "\u2615\uFE0F <b>All quiet</b>\n"
              "No agents running.\n"
              "\n"
              "\U0001F321 Cool\n"
              "\U0001F319 The Mac can sleep\n"
              "<i>Updated 10:30:00</i>");
    EXPECT_EQ(reply.buttons, (Rows{{kAwake}, kLastRow}));

    status.plan.disableLidSleep = true;
    EXPECT_NE(
        RemoteReplies::status(status, std::nullopt, now).html.find("Keeping the Mac awake while agents work"),
        std::string::npos);
}

TEST_F(StatusReplyTest, ANoteStandsInFrontUnescaped) {
    auto reply = RemoteReplies::status(sampleStatus(), std::string("\u23F8 Paused <b>2</b>"), now);
    EXPECT_EQ(reply.html.rfind("\u23F8 Paused <b>2</b>\n\n\u2615\uFE0F <b>All quiet</b>\n", 0), 0u);
}

TEST_F(StatusReplyTest, AgentSuppliedTextIsEscapedEverywhere) {
    auto run = sampleRun("r&d <bot>", "s1", RunStatus::working, "/tmp/a<b>&c", 60);
    auto status = sampleStatus({run});
    auto approval = sampleTicket("t1", "r&d <bot>");
    approval.toolName = "mcp<x>&y";
    auto asking = sampleTicket("t2", "<q>", {AgentQuestion{"?", std::nullopt, {{"a", std::nullopt}}, false}});
    status.pendingApprovals = {approval, asking};
    auto html = RemoteReplies::status(status, std::nullopt, now).html;
    EXPECT_NE(html.find("\n1. <b>R&amp;d &lt;bot&gt;</b> \u00b7 a&lt;b&gt;&amp;c\n"), std::string::npos)
        << html;
    EXPECT_NE(html.find("\n\U0001F64B <b>Needs your OK:</b> mcp&lt;x&gt;&amp;y for R&amp;d &lt;bot&gt;\n"),
              std::string::npos)
        << html;
    EXPECT_NE(html.find("\n\u2753 <b>&lt;q&gt; is asking you something</b>\n"), std::string::npos) << html;
}

TEST_F(StatusReplyTest, IdleRunsCountNowhereAndGetNoButton) {
    auto reply = RemoteReplies::status(
        sampleStatus({sampleRun("claude", "a", RunStatus::idle), sampleRun("codex", "b", RunStatus::idle)}),
        std::nullopt, now);
    EXPECT_EQ(reply.html.rfind("\u2615\uFE0F <b>All quiet</b>\n\n1. <b>Claude</b>\n", 0), 0u);
    EXPECT_NE(reply.html.find("\n2. <b>Codex</b>\n"), std::string::npos);
    EXPECT_EQ(reply.html.find("No agents running."), std::string::npos);
    EXPECT_EQ(reply.buttons, (Rows{{kAwake}, kLastRow}));
}

TEST_F(StatusReplyTest, RunRowOnlyForTwoToFourRuns) {
    for (std::size_t count : {1u, 2u, 4u, 5u}) {
        std::vector<tavra::Run> runs;
        for (std::size_t i = 0; i < count; ++i)
            runs.push_back(sampleRun("claude", "s" + std::to_string(i), RunStatus::working));
        auto reply = RemoteReplies::status(sampleStatus(runs), std::nullopt, now);
        bool hasRunRow = count >= 2 && count <= 4;
        ASSERT_EQ(reply.buttons.size(), hasRunRow ? 3u : 2u) << count;
        const auto& actions = reply.buttons[hasRunRow ? 1 : 0];
        EXPECT_EQ(actions.front().label, count == 1 ? "\u23F8 Pause" : "\u23F8 Pause all") << count;
        if (hasRunRow) {
            EXPECT_EQ(reply.buttons[0].size(), count);
        }
    }
}

TEST_F(StatusReplyTest, ALongRunKeyGivesTheNumberAsTarget) {
    std::string session56(56 - std::string("claude:").size(), 'x');
    std::string session57 = session56 + "y";
    auto reply = RemoteReplies::status(sampleStatus({sampleRun("claude", session56, RunStatus::working),
                                                     sampleRun("claude", session57, RunStatus::paused)}),
                                       std::nullopt, now);
    EXPECT_EQ(reply.buttons[0], (std::vector<AlertAction>{{"\u23F8 1", "pause claude:" + session56},
                                                          {"\u25B6\uFE0F 2", "resume 2"}}));
}

TEST_F(StatusReplyTest, ASinglePausedRunOffersResume) {
    auto run = sampleRun("codex", "s1", RunStatus::paused, std::nullopt, 30);
    auto reply = RemoteReplies::status(sampleStatus({run}), std::nullopt, now);
    EXPECT_NE(reply.html.find("     \u23F8 Paused, paused \u00b7 &lt;1m worked\n"), std::string::npos);
    EXPECT_EQ(reply.buttons, (Rows{{{"\u25B6\uFE0F Resume", "resume"}, kAwake}, kLastRow}));
}

TEST_F(StatusReplyTest, PauseReasonsReadAsSentences) {
    const std::pair<PauseReason, std::string> cases[] = {
        {PauseReason::thermal, "the Mac got too hot"},   {PauseReason::network, "the network dropped"},
        {PauseReason::stuck, "it looked stuck"},         {PauseReason::user, "paused by you"},
        {PauseReason::remote, "paused from your phone"},
    };
    for (const auto& [reason, text] : cases) {
        auto run = sampleRun("claude", "s1", RunStatus::paused, std::nullopt, 120);
        run.pauseReason = reason;
        auto html = RemoteReplies::status(sampleStatus({run}), std::nullopt, now).html;
        EXPECT_NE(html.find("\u23F8 Paused, " + text + " \u00b7 2m worked\n"), std::string::npos) << text;
    }
}

TEST_F(StatusReplyTest, WaitingFallsBackToTheStatusTime) {
    auto run = sampleRun("claude", "s1", RunStatus::waiting);
    run.statusSince = minutesFrom(now, -90);
    auto html = RemoteReplies::status(sampleStatus({run}), std::nullopt, now).html;
    EXPECT_NE(html.find("\U0001F7E1 Waiting for you \u00b7 1h 30m\n"), std::string::npos);
}

TEST_F(StatusReplyTest, MachineLineCoversThermalAndLid) {
    const std::pair<ThermalLevel, std::string> cases[] = {
        {ThermalLevel::nominal, "\U0001F321 Cool"},
        {ThermalLevel::fair, "\U0001F321 Warm"},
        {ThermalLevel::serious, "\U0001F975 Hot"},
        {ThermalLevel::critical, "\U0001F525 Critical"},
    };
    for (const auto& [level, text] : cases) {
        auto status = sampleStatus();
        status.system.thermal = level;
        status.system.lidClosed = true;
        auto html = RemoteReplies::status(status, std::nullopt, now).html;
        EXPECT_NE(html.find("\n\U0001F50C 80%  " + text + "  \U0001F4BB Lid closed\n"), std::string::npos)
            << text;
    }
}

TEST_F(StatusReplyTest, TimesFollowTheLocale) {
    testing::ScopedIcuDefaults us{"en_US", "UTC"};
    auto status = sampleStatus();
    status.stayAwakeUntil = minutesFrom(now, 30);
    auto html = RemoteReplies::status(status, std::nullopt, now).html;
    // CLDR puts a narrow no-break space before the day period.
    EXPECT_NE(html.find("Staying awake until 10:00\u202FAM\n<i>Updated 9:30:00\u202FAM</i>"),
              std::string::npos)
        << html;
}

}  // namespace
}  // namespace tavra
