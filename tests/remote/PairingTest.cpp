#include "remote/Pairing.h"

#include <gtest/gtest.h>

#include <regex>
#include <sstream>

#include "remote/RemoteTesting.h"
#include "remote/TelegramChannel.h"
#include "support/ErrorText.h"
#include "support/FakeNtfy.h"
#include "support/FakeTelegram.h"
#include "support/TempDir.h"

namespace tavra {
namespace {

using namespace std::chrono_literals;
using testing::errorText;

Date now() {
    return std::chrono::system_clock::now();
}

TEST(PairingTest, TelegramPinsWhoSentTheCodeAndLeavesNothingForTheChannel) {
    testing::FakeTelegram fake;
    auto http = makeCurlHttpClient();
    TelegramSettings settings;
    settings.botToken = testing::FakeTelegram::kToken;
    settings.apiBase = fake.apiBase();
    fake.userSends(222, 222, "/start wrongcod");
    fake.userSends(444, 555, "/start@tavra_bot abcd2345");
    std::ostringstream out;
    auto paired = pairTelegram(*http, settings, "abcd2345", out, now, now() + 10s);
    EXPECT_EQ(paired.chatID, 444);
    EXPECT_EQ(paired.userID, 555);
    EXPECT_EQ(paired.botUsername, "tavra_bot");
    EXPECT_TRUE(paired.isConfigured());
    EXPECT_NE(out.str().find("/start abcd2345"), std::string::npos);

    testing::TempDir dir;
    testing::Inbox inbox;
    TelegramChannel channel({paired, dir / "offset.json", "", http, {}, 1, 0.2});
    channel.start(inbox.sink());
    fake.userSends(444, 555, "help");
    ASSERT_TRUE(testing::eventually([&] { return !inbox.seen().empty(); }));
    EXPECT_EQ(inbox.seen().front().text, "help");

    EXPECT_EQ(
        errorText([&] { pairTelegram(*http, settings, "code2345", out, now, now() + 5s); }),
        "Another program is reading this bot's updates. If another machine uses this bot, create a bot for "
        "each machine.");
    channel.stop();
    EXPECT_EQ(errorText([&] { pairTelegram(*http, settings, "nobody12", out, now, now() + 1s); }),
              "No \"/start nobody12\" reached @tavra_bot in time");
    settings.botToken = "4242:wrong";
    EXPECT_EQ(errorText([&] { pairTelegram(*http, settings, "x", out, now, now() + 1s); }),
              "Telegram refused the bot token");
}

TEST(PairingTest, NtfyTopicsAreUnguessableAndProvedByAFirstMessage) {
    testing::FakeNtfy fake{{"tk"}};
    auto http = makeCurlHttpClient();
    NtfySettings settings;
    settings.server = fake.url() + "/";
    settings.token = "tk";
    std::ostringstream out;
    auto first = pairNtfy(*http, settings, out), second = pairNtfy(*http, settings, out);
    EXPECT_TRUE(std::regex_match(first.topic, std::regex("tavra-[a-z2-7]{26}")));  // 130 bits
    EXPECT_NE(first.topic, second.topic);
    EXPECT_EQ(first.server, fake.url());
    EXPECT_EQ(fake.messages(first.topic).size(), 1u);
    settings.token = "stolen";
    EXPECT_EQ(errorText([&] { pairNtfy(*http, settings, out); }), fake.url() + " refused the access token");
}

}  // namespace
}  // namespace tavra
