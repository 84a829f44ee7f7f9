#include <gtest/gtest.h>

#include "kit/RemoteReplies.h"
#include "support/SampleStatus.h"
#include "support/ScopedIcuDefaults.h"

namespace tavra {
namespace {

using namespace tavra::testing;
using Outcome = Report::RunSummary::Outcome;
using Placement = RemoteReply::Placement;

const AlertAction kStatus{"\u2615\uFE0F Status", "status"};

TEST(RemoteReplyTest, EscapeAndPlainUndoEachOther) {
    EXPECT_EQ(RemoteReply::escape("a<b> & \"c\" &lt;"), "a&lt;b&gt; &amp; \"c\" &amp;lt;");
    EXPECT_EQ(replyOf("<b>x</b> &lt;y&gt; &quot;z&quot; a&amp;lt;b 1 <> 2 < 3", {}).plain(),
              "x <y> \"z\" a&lt;b 1 <> 2 < 3");  // &amp; goes last; "<>" and a lone "<" are no tags
}

TEST(RemoteRepliesTest, RepliesWithOutsideTextAreEscapedAndCut) {
    testing::ScopedIcuDefaults icu{"en_GB", "UTC"};
    const std::pair<RemoteReply, RemoteReply> cases[] = {
        {RemoteReplies::unknown("<b>hi"),
         replyOf("\U0001F914 I don't know \u201C&lt;b&gt;hi\u201D.\nTap a button or send /help.",
                 {{kStatus, {"\u2753 Help", "help"}}}, Placement::newMessage())},
        // Acknowledging a tap stamps the request's message with the unescaped text.
        {RemoteReplies::approval(true, "Bash <rm>"),
         replyOf("\u2705 Approved Bash &lt;rm&gt;", {}, Placement::stamp("\u2705 Approved Bash <rm>"),
                 "Approved")},
    };
    for (const auto& [reply, expected] : cases) EXPECT_EQ(reply, expected) << expected.html;
    const std::string flag = "\U0001F1E9\U0001F1EA";  // one character
    const std::pair<std::string, std::string> parts[] = {
        // Unknown text is cut at 40 characters, then escaped: "&" counts once and is never split.
        {RemoteReplies::unknown(repeat(flag, 41)).html, "\u201C" + repeat(flag, 40) + "\u2026\u201D"},
        {RemoteReplies::unknown(std::string(39, 'a') + "&&").html,
         "\u201C" + std::string(39, 'a') + "&amp;\u2026\u201D"},
    };
    for (const auto& [html, part] : parts) EXPECT_NE(html.find(part), std::string::npos) << html;
}

// ---- Report ------------------------------------------------------------------

// Finished Codex runs; run i worked i minutes and was seen from 07:50+i to 08:00+i.
Report codexRuns(int count) {
    Report report;
    for (int i = 1; i <= count; ++i) {
        Report::RunSummary& s = report.runs.emplace_back();
        s.run = RunKey{AgentKind::codex, "s" + std::to_string(i)};
        s.firstSeen = minutesFrom(sampleNow(), -100 + i);
        s.lastSeen = minutesFrom(sampleNow(), -90 + i);
        s.workingSeconds = 60.0 * i;
        s.outcome = Outcome::finished;
    }
    return report;
}

TEST(ReportReplyTest, OneRunInFull) {
    testing::ScopedIcuDefaults icu{"en_GB", "UTC"};
    Report report = codexRuns(1);
    auto& run = report.runs[0];
    run.outcome = Outcome::paused;
    run.run.agent = AgentKind::claude;
    run.project = "a<b";
    run.workingSeconds = 3900;
    run.turnsFinished = 2;
    run.pauses = {"09:05 thermal", "09:10 user", "09:15 <odd>", "09:20 stuck", "09:25 remote"};
    report.guards = {"g1", "g2", "g3", "g4", "g5", "g6 & more"};
    report.sleeps = {"09:40 lid closed"};
    EXPECT_EQ(RemoteReplies::report(report, 24).html,
              "\U0001F4CA <b>Last 24 hours</b>\n"
              "1 run \u00b7 1h 5m of work \u00b7 2 turns done\n\n"
              "\u23F8 <b>Claude</b> \u00b7 a&lt;b\n"
              "     1h 5m \u00b7 2 turns \u00b7 07:51\u201308:01\n"
              "     \u23F8 09:05 thermal\n     \u23F8 09:10 user\n     \u23F8 09:15 &lt;odd&gt;\n\n"
              "\U0001F6E1 <b>Guards</b>\n\u2022 g2\n\u2022 g3\n\u2022 g4\n\u2022 g5\n\u2022 g6 &amp; more\n\n"
              "\U0001F634 <b>Sleeps</b>\n\u2022 09:40 lid closed");
}

}  // namespace
}  // namespace tavra
