#include <gtest/gtest.h>

#include "kit/RemoteReplies.h"
#include "support/SampleStatus.h"
#include "support/ScopedIcuDefaults.h"

namespace tavra {
namespace {

using namespace tavra::testing;

const AlertAction kAwake{"\u2600\uFE0F Awake 1h", "stayawake 60"};
const std::vector<AlertAction> kLastRow{{"\U0001F504 Refresh", "status"}, {"\U0001F4CA Report", "report"}};

class StatusReplyTest : public ::testing::Test {
protected:
    // Berlin is an hour ahead of UTC in March: 09:30Z reads 10:30.
    testing::ScopedIcuDefaults icu{"en_GB", "Europe/Berlin"};
    Date now = sampleNow();
};

TEST_F(StatusReplyTest, NoRunsIsAllQuietAlsoAfterAStayAwakeRanOut) {
    auto expired = sampleStatus();
    expired.stayAwakeUntil = minutesFrom(now, -1);
    expired.system.powerSource = PowerSource::battery;
    expired.system.batteryPercent.reset();
    expired.system.thermal = ThermalLevel::critical;
    expired.system.lidClosed = true;
    const std::pair<DaemonStatus, std::string> cases[] = {
        {sampleStatus(), "\U0001F50C 80%  \U0001F321 Cool"},
        {expired, "\U0001F525 Critical  \U0001F4BB Lid closed"}};
    for (const auto& [status, machine] : cases)
        EXPECT_EQ(RemoteReplies::status(status, std::nullopt, now),
                  replyOf("\u2615\uFE0F <b>All quiet</b>\nNo agents running.\n\n" + machine +
                              "\n\U0001F319 The computer can sleep\n<i>Updated 10:30:00</i>",
                          {{kAwake}, kLastRow}));
}

TEST_F(StatusReplyTest, OneWorkingRunHasAPauseButtonButNoRunRow) {
    auto run = sampleRun("claude", "s1", RunStatus::working, "/Users/a/proj", 754);
    run.toolCount = 1;
    auto status = sampleStatus({run});
    status.system.powerSource = PowerSource::battery;
    status.system.batteryPercent = 55;
    status.system.lidClosed = true;
    status.plan.disableLidSleep = true;
    EXPECT_EQ(
        RemoteReplies::status(status, std::nullopt, now),
        replyOf(
            "\u2615\uFE0F <b>1 working</b>\n\n"
            "1. <b>Claude</b> \u00b7 proj\n     \U0001F7E2 Working \u00b7 12m so far \u00b7 1 tool calls\n\n"
            "\U0001F50B 55%  \U0001F321 Cool  \U0001F4BB Lid closed, running\n"
            "\u2600\uFE0F Keeping the computer awake while agents work\n<i>Updated 10:30:00</i>",
            {{{"\u23F8 Pause", "pause"}, kAwake}, kLastRow}));
    // Only two to four runs get a row of their own buttons.
    std::vector<tavra::Run> five(5, sampleRun("claude", "s", RunStatus::working));
    EXPECT_EQ(RemoteReplies::status(sampleStatus(five), std::nullopt, now).buttons.size(), 2u);
}

// Four runs in every state, an approval and a question, a stay-awake hold,
// and agent-supplied text that must come out escaped.
TEST_F(StatusReplyTest, FourRunsWithApprovalsAndAHoldShowEverything) {
    auto first = sampleRun("claude", "s1", RunStatus::working, "/w/a&b", 3900);
    auto second = sampleRun("codex", "s2", RunStatus::waiting);
    second.waitingSince = minutesFrom(now, -5);
    second.statusSince = minutesFrom(now, -90);
    auto third = sampleRun("grok", "s3", RunStatus::paused, "/Users/a/proj/", 300);
    third.pauseReason = PauseReason::remote;
    auto fourth = sampleRun("r&d <bot>", "s4", RunStatus::idle, "/x/<tag>", 60);
    fourth.statusSince = minutesFrom(now, -2);

    auto status = sampleStatus({first, second, third, fourth});
    auto approval = sampleTicket("t1", "codex");
    approval.toolName = "mcp<x>&y";
    status.pendingApprovals = {approval,
                               sampleTicket("t2", "<q>", {AgentQuestion{"?", {}, {{"a", {}}}, false}})};
    status.system.powerSource = PowerSource::unknown;
    status.system.batteryPercent.reset();
    status.system.thermal = ThermalLevel::serious;
    status.system.networkReachable = false;
    status.plan.preventIdleSleep = true;
    status.stayAwakeUntil = minutesFrom(now, 60);

    EXPECT_EQ(
        RemoteReplies::status(status, std::nullopt, now),
        replyOf("\u2615\uFE0F <b>1 working \u00b7 1 waiting \u00b7 1 paused</b>\n\n"
                "1. <b>Claude</b> \u00b7 a&amp;b\n     \U0001F7E2 Working \u00b7 1h 5m so far\n\n"
                "2. <b>Codex</b>\n     \U0001F7E1 Waiting for you \u00b7 5m\n\n"
                "3. <b>Grok</b> \u00b7 proj\n     \u23F8 Paused, paused from your phone \u00b7 5m worked\n\n"
                "4. <b>R&amp;d &lt;bot&gt;</b> \u00b7 &lt;tag&gt;\n"
                "     \u2705 Done \u00b7 1m worked \u00b7 idle 2m\n\n"
                "\U0001F64B <b>Needs your OK:</b> mcp&lt;x&gt;&amp;y for Codex\n\n"
                "\u2753 <b>&lt;q&gt; is asking you something</b>\n\n"
                "\U0001F50C Plugged in  \U0001F975 Hot  \U0001F4F5 Offline\n"
                "\u2600\uFE0F Staying awake until 11:30\n<i>Updated 10:30:00</i>",
                {{{"\u23F8 1", "pause claude:s1"},
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
    // The note is the caller's own html and goes in front as it is.
    EXPECT_EQ(RemoteReplies::status(status, std::string("<b>Paused all.</b>"), now),
              replyOf("<b>Paused all.</b>\n\n\u2615\uFE0F <b>Tavra is off</b>\n"
                      "The computer sleeps normally and agents aren't watched.",
                      {{{"\u25B6\uFE0F Turn on", "on"}}}));
}

}  // namespace
}  // namespace tavra
