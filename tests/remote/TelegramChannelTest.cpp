#include "remote/TelegramChannel.h"

#include <gtest/gtest.h>

#include "core/RemoteCommand.h"
#include "kit/LocalMachine.h"
#include "remote/RemoteTesting.h"
#include "support/FakeTelegram.h"
#include "support/TempDir.h"

namespace tavra {
namespace {

using testing::eventually;
using testing::FakeTelegram;
constexpr std::int64_t kChat = 111, kUser = 111;

IncomingCommand typed(std::string text) {
    return {std::move(text), {"telegram", std::nullopt, std::nullopt}};
}

RemoteReply message(std::string html, std::vector<std::vector<AlertAction>> buttons = {}) {
    RemoteReply reply;
    reply.html = std::move(html);
    reply.buttons = std::move(buttons);
    return reply;
}

class TelegramChannelTest : public ::testing::Test {
protected:
    std::unique_ptr<TelegramChannel> make() {
        TelegramSettings settings{true, FakeTelegram::kToken, kChat, {}, kUser, fake.apiBase()};
        auto now = [] { return std::chrono::system_clock::now(); };
        auto made = std::make_unique<TelegramChannel>(TelegramChannelOptions{
            settings, dir / "telegram-offset.json", "studio", makeCurlHttpClient(), {}, 1, 0.2, 600, now});
        made->start(inbox.sink());
        return made;
    }

    FakeTelegram fake;
    testing::TempDir dir;
    testing::Inbox inbox;
    std::unique_ptr<TelegramChannel> channel = make();
};

TEST_F(TelegramChannelTest, OnlyTheOwnersFreshCommandsForThisMachineGetThrough) {
    fake.userSends(999, 999, "sleep now");              // another chat
    fake.userSends(kChat, 555, "sleep now");            // someone else in the chat
    fake.userTaps(999, kUser, 1, "sleep now");          // the owner, but from another chat
    fake.userSends(kChat, kUser, "sleep now", 3600);    // an order an hour old
    fake.userSends(kChat, kUser, "@laptop sleep now");  // for another machine
    fake.userSends(kChat, kUser, "@Studio report");
    fake.userSends(kChat, kUser, "help");
    ASSERT_TRUE(eventually([&] { return inbox.seen().size() >= 2; }));
    EXPECT_EQ(inbox.seen(), (std::vector{typed("report"), typed("help")}));
    EXPECT_TRUE(fake.botMessages(999).empty());
    EXPECT_EQ(fake.menu().size(), RemoteCommand::menu(LocalMachine::word()).size());
}

TEST_F(TelegramChannelTest, ARestartReplaysNothing) {
    fake.ignoreOffsets(true);  // the server never heard the confirmation
    fake.userSends(kChat, kUser, "status");
    ASSERT_TRUE(eventually([&] { return inbox.seen().size() == 1; }));
    channel->stop();
    fake.ignoreOffsets(false);
    channel = make();
    fake.userSends(kChat, kUser, "help");
    ASSERT_TRUE(eventually([&] { return inbox.seen().size() >= 2; }));
    EXPECT_EQ(inbox.seen(), (std::vector{typed("status"), typed("help")}));
}

TEST_F(TelegramChannelTest, ATapComesBackWithItsOriginAndItsStampEditsThatMessage) {
    const std::vector<AlertAction> actions{
        {"✅ Approve", "approve:t1"}, {"⛔️ Deny", "deny:t1"}, {"Too long", std::string(65, 'x')}};
    const Alert alert{
        "permission-1", "Claude wants to run <rm>", "rm -rf build & more", {}, {}, {}, actions, {}};
    channel->deliverAlert(alert);
    ASSERT_TRUE(channel->flush(5));
    auto shown = fake.botMessages(kChat).at(0);
    EXPECT_EQ(shown.text, "<i>studio</i>\n<b>Claude wants to run &lt;rm&gt;</b>\nrm -rf build &amp; more");
    EXPECT_EQ(shown.markup,
              Json::parse(R"({"inline_keyboard":[[{"text":"✅ Approve","callback_data":"approve:t1"},
                                                                  {"text":"⛔️ Deny","callback_data":"deny:t1"}]]})"));

    // A reply that replaces puts its text and buttons into the tapped message.
    auto first = fake.userTaps(kChat, kUser, shown.id, "status");
    ASSERT_TRUE(eventually([&] { return inbox.seen().size() == 1; }));
    auto replacement = message("<b>All quiet</b>", {{{"✅ Approve", "approve:t1"}}});
    replacement.placement = RemoteReply::Placement::replace();
    channel->reply(replacement, inbox.seen().at(0).origin);
    ASSERT_TRUE(channel->flush(5));
    EXPECT_EQ(fake.answer(first), "");
    shown = {shown.id, "<i>studio</i>\n<b>All quiet</b>",
             Json::parse(R"({"inline_keyboard":[[{"text":"✅ Approve","callback_data":"approve:t1"}]]})")};
    EXPECT_EQ(fake.botMessages(kChat), std::vector{shown});

    auto callback = fake.userTaps(kChat, kUser, shown.id, "approve:t1");
    ASSERT_TRUE(eventually([&] { return inbox.seen().size() == 2; }));
    const IncomingCommand tap{"approve:t1", {"telegram", std::to_string(shown.id), callback}};
    EXPECT_EQ(inbox.seen().at(1), tap);
    channel->reply(RemoteReplies::approval(true, "Bash"), tap.origin);
    channel->stamp(alert.id, "✅ Approved Bash");  // the desk stamps every channel too
    ASSERT_TRUE(channel->flush(5));
    EXPECT_EQ(fake.answer(callback), "Approved");
    EXPECT_EQ(fake.botMessages(kChat),
              (std::vector<FakeTelegram::Message>{{shown.id, shown.text + "\n\n✅ Approved Bash", nullptr}}));

    // A forced reply opens the reply box; the typed answer comes back as text.
    auto ask = message("✍️ <b>Type your answer</b>");
    ask.forceReply = true;
    channel->reply(ask, tap.origin);
    ASSERT_TRUE(channel->flush(5));
    EXPECT_EQ(fake.botMessages(kChat).back().markup, Json::parse(R"({"force_reply":true})"));
    fake.userSends(kChat, kUser, "blue, please");
    ASSERT_TRUE(eventually([&] { return inbox.seen().size() == 3; }));
    EXPECT_EQ(inbox.seen().back(), typed("blue, please"));
}

TEST_F(TelegramChannelTest, RateLimitsAndConflictsAreWaitedOut) {
    fake.failNext("getUpdates", 409, "Conflict: terminated by other getUpdates request");
    fake.failNext("sendMessage", 429, "Too Many Requests: retry after 1", 1);
    auto began = std::chrono::steady_clock::now();
    channel->deliver(message("hi"), "k");
    ASSERT_TRUE(channel->flush(5));
    EXPECT_GE(std::chrono::steady_clock::now() - began, std::chrono::seconds(1));
    EXPECT_EQ(fake.calls("sendMessage"), 2);
    EXPECT_EQ(fake.botMessages(kChat).size(), 1u);
    fake.userSends(kChat, kUser, "status");
    EXPECT_TRUE(eventually([&] { return inbox.seen().size() == 1; })) << "polling goes on after the 409";
}

}  // namespace
}  // namespace tavra
