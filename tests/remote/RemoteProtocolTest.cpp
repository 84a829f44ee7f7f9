#include <gtest/gtest.h>

#include "remote/HttpClient.h"
#include "remote/NtfyProtocol.h"
#include "remote/TelegramProtocol.h"

namespace tavra {
namespace {

TEST(TelegramProtocolTest, SplitsNeverCutATagOrAnEntity) {
    const struct {
        const char* html;
        std::size_t limit;
        std::vector<std::string> parts;
    } cases[] = {
        {"<b>aaaa\nbbbb</b>", 6, {"<b>aaaa</b>", "<b>bbbb</b>"}},
        {"<b>a<i>bcd</i></b>", 2, {"<b>a<i>b</i></b>", "<b><i>cd</i></b>"}},
        {"&amp;&amp;&amp;", 2, {"&amp;&amp;", "&amp;"}},
        {"😀😀", 3, {"😀", "😀"}},  // two UTF-16 units each
        {"ab\n\n\ncd", 3, {"ab", "cd"}},
        {"<b>ab\xcb", 2, {"<b>ab</b>", "<b>\xcb</b>"}},  // a broken sequence must not swallow the closing tag
    };
    for (const auto& c : cases) {
        EXPECT_EQ(splitTelegramHtml(c.html, c.limit), c.parts) << c.html;
        for (const auto& part : c.parts) EXPECT_LE(telegramTextLength(part), c.limit) << part;
    }
}

TEST(TelegramProtocolTest, DamagedUpdatesMoveTheOffsetButCarryNoCommand) {
    auto updates = parseTelegramUpdates(Json::parse(R"([
        {"update_id":"7","message":{"text":"status"}},
        {"update_id":8,"message":{"chat":{"id":"111"},"from":{"id":111},"text":"status","date":1}},
        {"update_id":9,"callback_query":{"id":"c","from":{"id":111},"data":"status"}},
        {"update_id":10,"edited_message":{"chat":{"id":111},"from":{"id":111},"text":"x"}},
        {"update_id":11,"message":{"chat":{"id":111},"from":{"id":111},"text":"status","date":5}},
        42])"));
    ASSERT_EQ(updates.size(), 4u);
    EXPECT_EQ(updates[0], (TelegramUpdate{8, std::nullopt, 111, "status", {}, {}, {}, 1}));
    EXPECT_EQ(updates[1].text, "") << "a tap without its message cannot be placed";
    EXPECT_EQ(updates[2].text, "");
    EXPECT_EQ(updates[3], (TelegramUpdate{11, 111, 111, "status", {}, {}, {}, 5}));
    EXPECT_TRUE(parseTelegramUpdates(Json::object()).empty());
}

TEST(NtfyProtocolTest, ControlMessagesAreReadStrictly) {
    const std::string nonce(26, 'a'), code = "abcd2345";
    const std::pair<std::string, std::optional<NtfyControl>> cases[] = {
        {nonce, NtfyControl{nonce, ""}},   {code + " blue, please\n", NtfyControl{code, "blue, please"}},
        {nonce + " extra", std::nullopt},  // a button's body never carries text
        {code + " ", std::nullopt},        {"ABCD2345 x", std::nullopt},
        {"abcd2341 x", std::nullopt},  // 1 is no base32 digit
        {" " + code + " x", std::nullopt}, {"approve:t1", std::nullopt},
    };
    for (const auto& [text, expected] : cases) EXPECT_EQ(parseNtfyControl(text), expected) << text;

    EXPECT_EQ(parseNtfyEvent(R"({"id":"aB3","event":"message","topic":"t","message":"m"})"),
              (NtfyEvent{"aB3", "message", "t", "m"}));
    for (const char* line :
         {R"({"id":"a b","event":"message","topic":"t","message":"m"})",
          R"({"id":"a","event":"message","topic":"t"})", R"({"id":"a","event":"open"})", "[1]", "{"})
        EXPECT_EQ(parseNtfyEvent(line), std::nullopt) << line;
}

TEST(HttpClientTest, TokensNeverReachALogLine) {
    EXPECT_EQ(redactSecrets("POST https://api.telegram.org/bot4242:secret/getUpdates failed"),
              "POST https://api.telegram.org/bot<redacted>/getUpdates failed");
    EXPECT_EQ(redactSecrets("http://h/bot4242:s?x /bot"), "http://h/bot<redacted>?x /bot");
}

}  // namespace
}  // namespace tavra
