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

}  // namespace
}  // namespace tavra
