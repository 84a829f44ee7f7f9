#include <gtest/gtest.h>

#include "kit/RemoteReplies.h"
#include "support/SampleStatus.h"

namespace tavra {
namespace {

using namespace tavra::testing;

const AgentQuestion kPickOne{
    "Which <db> & why?", std::string("Storage"), {{"SQLite", "small & local"}, {"Postgres", ""}}, false};

TEST(QuestionReplyTest, SingleSelectInFullAndAnIndexPastTheEndIsTheExpiredReply) {
    auto ticket = sampleTicket("t1", "claude", {kPickOne});
    ticket.cwd = "/Users/a/my&proj";
    EXPECT_EQ(RemoteReplies::question(ticket, 0, {}),
              replyOf("\u2753 <b>Claude</b> \u00b7 my&amp;proj is asking\n\n"
                      "<b>Storage</b>\nWhich &lt;db&gt; &amp; why?\n\n"
                      "1. <b>SQLite</b>\n     small &amp; local\n"
                      "2. <b>Postgres</b>\n\n<i>Tap an answer.</i>",
                      {{{"1. SQLite", "answer t1 0 0"}},
                       {{"2. Postgres", "answer t1 0 1"}},
                       {{"\u270D\uFE0F Other", "answer t1 0 other"},
                        {"\U0001F4BB At the computer", "answer t1 0 mac"}}}));
    EXPECT_EQ(RemoteReplies::question(ticket, 1, {}), RemoteReplies::approvalGone());
    EXPECT_EQ(RemoteReplies::question(sampleTicket("t", "claude"), 0, {}), RemoteReplies::approvalGone());
}

TEST(QuestionReplyTest, MultiSelectMarksTheSelectionAndCutsLongLabelsOnTheButtonOnly) {
    std::string fortyOne = std::string(40, 'y') + "z", emoji = repeat("\U0001F600", 41);
    AgentQuestion many{"Pick", std::nullopt, {{"lint", {}}, {fortyOne, {}}, {emoji, {}}}, true};
    auto reply = RemoteReplies::question(sampleTicket("t2", "codex", {kPickOne, many}), 1, {1, 7});
    EXPECT_EQ(reply.buttons[0][0], (AlertAction{"\u25FB\uFE0F lint", "answer t2 1 0"}));
    EXPECT_EQ(reply.buttons[1][0].label, "\u2611\uFE0F " + std::string(39, 'y') + "\u2026");
    EXPECT_EQ(reply.buttons[2][0].label, "\u25FB\uFE0F " + repeat("\U0001F600", 39) + "\u2026");
    EXPECT_NE(reply.html.find("\n2. <b>" + fortyOne + "</b>\n"), std::string::npos);
    EXPECT_NE(reply.html.find("2 of 2"), std::string::npos);
}

}  // namespace
}  // namespace tavra
