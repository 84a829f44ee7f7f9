#include "remote/NtfyChannel.h"

#include <gtest/gtest.h>

#include <atomic>

#include "remote/RemoteTesting.h"
#include "support/FakeNtfy.h"

namespace tavra {
namespace {

using testing::eventually;
const std::string kTopic = "tavra-test", kControl = "tavra-test-ctl";

// Each command as "text key", and " tap" where a button sent it (its callback is the spent nonce).
std::vector<std::string> summary(testing::Inbox& inbox) {
    std::vector<std::string> out;
    for (const auto& command : inbox.seen())
        out.push_back(command.text + " " + command.origin.message.value_or("-") +
                      (command.origin.callback ? " tap" : ""));
    return out;
}

class NtfyChannelTest : public ::testing::Test {
protected:
    NtfyChannelTest() {
        auto now = [this] { return std::chrono::system_clock::now() + std::chrono::seconds(skew.load()); };
        NtfySettings settings{true, fake.url(), kTopic, "tk_daemon", "tk_phone"};
        channel = std::make_unique<NtfyChannel>(
            NtfyChannelOptions{settings, "studio", makeCurlHttpClient(), {}, 100, 0.2, 600, now});
        channel->start(inbox.sink());
        EXPECT_TRUE(eventually([&] { return fake.subscriptions() == 1; }));
    }

    Json show(const std::string& key, std::vector<AlertAction> actions) {
        const auto critical = Alert::Level::critical;
        channel->deliverAlert({key, "Claude wants to run rm", "rm -rf build", critical, {}, {}, actions, {}});
        EXPECT_TRUE(channel->flush(5));
        return fake.messages(kTopic).back();
    }

    // Control messages are read in order: once this tap is through, so is all before it.
    void marker(const std::string& key) {
        fake.tap(show(key, {{"☕️ Status", "status"}}), 0);
        EXPECT_TRUE(
            eventually([&] { return !inbox.seen().empty() && inbox.seen().back().origin.message == key; }));
    }

    testing::FakeNtfy fake{{"tk_daemon", "tk_phone"}};
    testing::Inbox inbox;
    std::atomic<int> skew{0};
    std::unique_ptr<NtfyChannel> channel;
};

TEST_F(NtfyChannelTest, AButtonWorksOnceAndOnlyWhileItsAlertLives) {
    auto shown = show("permission-1", {{"✅ Approve", "approve:t1"},
                                       {"⛔️ Deny", "deny:t1"},
                                       {"❓ Help", "help"},
                                       {"☕️ Status", "status"}});
    EXPECT_EQ(shown["actions"].size(), 3u);
    EXPECT_EQ(shown["actions"][1]["headers"]["Authorization"], "Bearer tk_phone");
    EXPECT_EQ(shown["actions"][1]["body"].get<std::string>().find("deny"), std::string::npos)
        << "the command stays home";

    EXPECT_EQ(fake.tap(shown, 0), 200);
    ASSERT_TRUE(eventually([&] { return inbox.seen().size() == 1; }));
    fake.tap(shown, 0);                            // a second use
    fake.publish(kControl, "sleep now");           // typed text
    fake.publish(kControl, std::string(26, 'a'));  // a guessed nonce
    fake.publish(kControl, "{\"body\":\"approve:t1\"}");
    skew = 601;
    fake.tap(shown, 1);  // after its alert expired
    marker("m1");
    EXPECT_EQ(summary(inbox), (std::vector<std::string>{"approve:t1 permission-1 tap", "status m1 tap"}));
}

TEST_F(NtfyChannelTest, AReconnectionGoesOnAfterTheLastMessageSeen) {
    auto shown = show("permission-4", {{"✅ Approve", "approve:t4"}, {"⛔️ Deny", "deny:t4"}});
    fake.tap(shown, 0);
    ASSERT_TRUE(eventually([&] { return inbox.seen().size() == 1; }));
    fake.server().setDown(true);
    fake.dropStreams();
    fake.tap(shown, 1);  // while the channel is away
    fake.server().setDown(false);
    marker("m4");
    EXPECT_EQ(summary(inbox), (std::vector<std::string>{"approve:t4 permission-4 tap",
                                                        "deny:t4 permission-4 tap", "status m4 tap"}));
}

TEST_F(NtfyChannelTest, AStampIsAQuietFollowUpAndEndsTheButtons) {
    auto shown = show("permission-2", {{"✅ Approve", "approve:t2"}});
    channel->stamp("permission-2", "⌛️ Expired");
    channel->stamp("permission-2", "⌛️ Expired");  // nothing left to stamp
    ASSERT_TRUE(channel->flush(5));
    auto messages = fake.messages(kTopic);
    ASSERT_EQ(messages.size(), 2u);
    EXPECT_EQ(messages[1]["message"], "⌛️ Expired");
    EXPECT_EQ(messages[1]["priority"], 2);
    fake.tap(shown, 0);
    marker("m2");
    EXPECT_EQ(summary(inbox), (std::vector<std::string>{"status m2 tap"}));
}

TEST_F(NtfyChannelTest, AForcedReplyTakesTypedTextOnlyWithItsCode) {
    RemoteReply ask;
    ask.html = "✍️ <b>Type your answer</b>\nColour?";
    ask.forceReply = true;
    channel->reply(ask, {"ntfy", "t3", std::nullopt});
    ASSERT_TRUE(channel->flush(5));
    auto text = fake.messages(kTopic).back()["message"].get<std::string>();
    const std::string lead = "✍️ Type your answer\nColour?\n\n↩️ ";
    ASSERT_EQ(text.substr(0, lead.size()), lead);
    auto code = text.substr(lead.size(), 8);
    fake.publish(kControl, "blue");
    fake.publish(kControl, code);
    fake.publish(kControl, code + " blue, please");
    fake.publish(kControl, code + " red");
    marker("m3");
    EXPECT_EQ(summary(inbox), (std::vector<std::string>{"blue, please -", "status m3 tap"}));
}

}  // namespace
}  // namespace tavra
