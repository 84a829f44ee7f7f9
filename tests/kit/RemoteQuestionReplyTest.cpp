#include <gtest/gtest.h>

#include "kit/RemoteReplies.h"
#include "support/SampleStatus.h"

namespace tavra {
namespace {

using testing::sampleTicket;
using Rows = std::vector<std::vector<AlertAction>>;
using Option = AgentQuestion::Option;

const Rows kNoRows{};

AgentQuestion pickOne() {
    return AgentQuestion{
        "Which <db> & why?", std::string("Storage"), {{"SQLite", "small & local"}, {"Postgres", ""}}, false};
}

AgentQuestion pickMany() {
    return AgentQuestion{
        "Which checks?", std::nullopt, {{"lint", std::nullopt}, {"tests", std::nullopt}}, true};
}

TEST(ApprovalReplyTest, StampsTheRequestWithTheUnescapedText) {
    auto yes = RemoteReplies::approval(true, "Bash <rm>");
    EXPECT_EQ(yes,
              (RemoteReply{"\u2705 Approved Bash &lt;rm&gt;", kNoRows,
                           RemoteReply::Placement::stamp("\u2705 Approved Bash <rm>"), "Approved", false}));
    auto no = RemoteReplies::approval(false, "Edit");
    EXPECT_EQ(no, (RemoteReply{"\u26D4\uFE0F Denied Edit", kNoRows,
                               RemoteReply::Placement::stamp("\u26D4\uFE0F Denied Edit"), "Denied", false}));
}

TEST(QuestionReplyTest, SingleSelectInFull) {
    auto ticket = sampleTicket("t1", "claude", {pickOne()});
    ticket.cwd = "/Users/a/my&proj";
    auto reply = RemoteReplies::question(ticket, 0, {});
    EXPECT_EQ(reply.html,
              "\u2753 <b>Claude</b> \u00b7 my&amp;proj is asking\n"
              "\n"
              "<b>Storage</b>\n"
              "Which &lt;db&gt; &amp; why?\n"
              "\n"
              "1. <b>SQLite</b>\n     small &amp; local\n"
              "2. <b>Postgres</b>\n"
              "\n"
              "<i>Tap an answer.</i>");
    EXPECT_EQ(
        reply.buttons,
        (Rows{{{"1. SQLite", "answer t1 0 0"}},
              {{"2. Postgres", "answer t1 0 1"}},
              {{"\u270D\uFE0F Other", "answer t1 0 other"}, {"\U0001F4BB At the Mac", "answer t1 0 mac"}}}));
    EXPECT_EQ(reply.placement, RemoteReply::Placement::replace());
    EXPECT_EQ(reply.toast, std::nullopt);
    EXPECT_FALSE(reply.forceReply);
}

TEST(QuestionReplyTest, MultiSelectShowsTheSelectionAndDone) {
    auto ticket = sampleTicket("t2", "codex", {pickOne(), pickMany(), pickOne()});
    auto reply = RemoteReplies::question(ticket, 1, {1, 7});
    EXPECT_EQ(reply.html,
              "\u2753 <b>Codex</b> is asking \u00b7 2 of 3\n"
              "\n"
              "Which checks?\n"
              "\n"
              "1. <b>lint</b>\n"
              "2. <b>tests</b>\n"
              "\n"
              "<i>Pick any, then tap Done.</i>");
    EXPECT_EQ(
        reply.buttons,
        (Rows{{{"\u25FB\uFE0F lint", "answer t2 1 0"}},
              {{"\u2611\uFE0F tests", "answer t2 1 1"}},
              {{"\u2705 Done", "answer t2 1 done"}},
              {{"\u270D\uFE0F Other", "answer t2 1 other"}, {"\U0001F4BB At the Mac", "answer t2 1 mac"}}}));
    // A tap toggles: the command of an option does not depend on the selection.
    EXPECT_EQ(RemoteReplies::question(ticket, 1, {}).buttons[1][0].command, "answer t2 1 1");
}

TEST(QuestionReplyTest, AnEmptyHeaderIsLeftOut) {
    auto q = pickMany();
    q.header = "";
    auto html = RemoteReplies::question(sampleTicket("t", "claude", {q}), 0, {}).html;
    EXPECT_EQ(html.rfind("\u2753 <b>Claude</b> is asking\n\nWhich checks?\n\n", 0), 0u) << html;
}

TEST(QuestionReplyTest, AnIndexPastTheEndIsTheExpiredReply) {
    auto ticket = sampleTicket("t", "claude", {pickOne()});
    auto gone = RemoteReplies::approvalGone();
    EXPECT_EQ(gone, (RemoteReply{"\u231B\uFE0F That request was already answered or timed out.", kNoRows,
                                 RemoteReply::Placement::stamp("\u231B\uFE0F Expired"),
                                 "Already answered or expired", false}));
    EXPECT_EQ(RemoteReplies::question(ticket, 1, {}), gone);
    EXPECT_EQ(RemoteReplies::question(ticket, 99, {0}), gone);
    EXPECT_EQ(RemoteReplies::question(sampleTicket("t", "claude"), 0, {}), gone);  // no questions at all
}

TEST(QuestionReplyTest, LongLabelsAreCutOnTheButtonOnly) {
    std::string forty(40, 'x');
    std::string fortyOne = std::string(40, 'y') + "z";
    std::string emoji;  // 41 characters of 4 bytes each
    for (int i = 0; i < 41; ++i) emoji += "\U0001F600";
    AgentQuestion q{"Pick", std::nullopt, {{forty, {}}, {fortyOne, {}}, {emoji, {}}, {"a<b", {}}}, false};
    auto reply = RemoteReplies::question(sampleTicket("t", "claude", {q}), 0, {});
    EXPECT_EQ(reply.buttons[0][0].label, "1. " + forty);
    EXPECT_EQ(reply.buttons[1][0].label, "2. " + std::string(39, 'y') + "\u2026");
    std::string cut;
    for (int i = 0; i < 39; ++i) cut += "\U0001F600";
    EXPECT_EQ(reply.buttons[2][0].label, "3. " + cut + "\u2026");
    EXPECT_EQ(reply.buttons[3][0].label, "4. a<b");
    EXPECT_NE(reply.html.find("\n2. <b>" + fortyOne + "</b>\n"), std::string::npos);
    EXPECT_NE(reply.html.find("\n4. <b>a&lt;b</b>\n"), std::string::npos);
}

TEST(QuestionReplyTest, AskForTextOpensAReplyBox) {
    auto ticket = sampleTicket("t", "claude", {pickOne(), pickMany()});
    EXPECT_EQ(RemoteReplies::askForText(ticket, 0),
              (RemoteReply{"\u270D\uFE0F <b>Type your answer</b>\nWhich &lt;db&gt; &amp; why?", kNoRows,
                           RemoteReply::Placement::newMessage(), std::nullopt, true}));
    for (std::int64_t outside : {-1, 2, 40}) {
        auto reply = RemoteReplies::askForText(ticket, outside);
        EXPECT_EQ(reply.html, "\u270D\uFE0F <b>Type your answer</b>\n") << outside;
        EXPECT_TRUE(reply.forceReply);
    }
}

TEST(QuestionReplyTest, AnsweredListsEveryQuestionInOrder) {
    auto noHeader = pickMany();
    auto emptyHeader = AgentQuestion{"Really?", std::string(""), {{"yes", {}}}, false};
    auto ticket = sampleTicket("t", "grok", {pickOne(), noHeader, emptyHeader});
    auto reply = RemoteReplies::answered(
        ticket, {{"Which <db> & why?", "SQLite & co"}, {"Really?", "yes"}, {"unrelated", "x"}});
    EXPECT_EQ(reply, (RemoteReply{"\u2705 <b>Sent to Grok</b>\n"
                                  "\n"
                                  "<b>Storage</b>: SQLite &amp; co\n"
                                  "<b>Which checks?</b>: \u2013\n"
                                  "<b></b>: yes",
                                  kNoRows, RemoteReply::Placement::replace(), "Sent", false}));
}

TEST(QuestionReplyTest, AnswerAtMac) {
    EXPECT_EQ(RemoteReplies::answerAtMac(),
              (RemoteReply{"\U0001F4BB Okay, the question is waiting at the Mac.", kNoRows,
                           RemoteReply::Placement::replace(), "Left for the Mac", false}));
}

}  // namespace
}  // namespace tavra
