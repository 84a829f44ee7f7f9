// The whole road of a permission request: the real hook waits, the real
// daemon shows the request on a local Telegram, a tap from anyone but the
// paired owner changes nothing, the owner's tap lets the agent go on and
// stamps the message.

#include <gtest/gtest.h>

#include <fstream>
#include <future>

#include "kit/Config.h"
#include "kit/DaemonClient.h"
#include "support/Children.h"
#include "support/FakeTelegram.h"
#include "support/TempDir.h"

namespace tavra {
namespace {

TEST(PhoneApproval, TheOwnersTapAnswersTheWaitingHookAndNobodyElsesDoes) {
    const auto build = testing::buildTree();
    const std::string tavrad = build / "src/daemon/tavrad", hook = build / "src/hook/tavra-hook";
    testing::FakeTelegram telegram;
    testing::TempDir home;
    const std::string data = (home / "data").string();
    std::filesystem::create_directories(data + "/tavra");
    constexpr std::int64_t kOwner = 7, kStranger = 8;
    TavraConfig config;
    config.remote.notifyWhen = RemoteSettings::NotifyWhen::always;
    config.remote.telegram.enabled = true;
    config.remote.telegram.botToken = testing::FakeTelegram::kToken;
    config.remote.telegram.chatID = kOwner;
    config.remote.telegram.userID = kOwner;
    config.remote.telegram.apiBase = telegram.apiBase();
    ConfigStore::save(config, data + "/tavra/config.json");

    testing::Children children(
        home / "log", {{"HOME", home.path().string()}, {"XDG_DATA_HOME", data}, {"TAVRA_NO_HELPER", "1"}});
    pid_t daemon = children.start({tavrad});
    DaemonClient client{data + "/tavra/tavrad.sock"};
    ASSERT_TRUE(testing::eventually([&] { return client.isRunning(); })) << children.output();

    std::ofstream(home / "in") << R"({"session_id":"p1","hook_event_name":"PermissionRequest",)"
                               << R"("tool_name":"Bash","tool_input":{"command":"make deploy"}})";
    auto waiting = std::async(std::launch::async, [&] {
        return Shell::run("/bin/sh", {"-c", "exec \"$0\" claude < \"$1\"", hook, (home / "in").string()},
                          Shell::Environment{{"XDG_DATA_HOME", data}}, std::nullopt, 60.0)
            .stdout;
    });
    // The request arrives with its two buttons.
    std::int64_t message = 0;
    std::string approve;
    ASSERT_TRUE(testing::eventually([&] {
        for (const auto& m : telegram.botMessages(kOwner))
            for (const auto& row : m.markup.is_object() ? m.markup["inline_keyboard"] : Json::array())
                for (const auto& button : row)
                    if (button.value("callback_data", "").rfind("approve", 0) == 0) {
                        message = m.id;
                        approve = button["callback_data"];
                        EXPECT_NE(m.text.find("make deploy"), std::string::npos) << m.text;
                    }
        return message != 0;
    })) << children.output();

    telegram.userTaps(kOwner, kStranger, message, approve);  // someone else in the chat
    EXPECT_EQ(waiting.wait_for(std::chrono::seconds(2)), std::future_status::timeout);

    telegram.userTaps(kOwner, kOwner, message, approve);
    EXPECT_EQ(
        waiting.get(),
        R"({"hookSpecificOutput":{"hookEventName":"PermissionRequest","decision":{"behavior":"allow"}}})"
        "\n");
    EXPECT_TRUE(testing::eventually([&] {
        for (const auto& m : telegram.botMessages(kOwner))
            if (m.id == message)
                return m.markup.is_null() && m.text.find("Approved Bash") != std::string::npos;
        return false;
    })) << children.output();
    EXPECT_TRUE(client.status().pendingApprovals.empty());

    // A hook that goes away (killed at its own time-out) takes its request
    // off the phone as well.
    auto gone = std::async(std::launch::async, [&] {
        return Shell::run("/bin/sh", {"-c", "exec \"$0\" claude < \"$1\"", hook, (home / "in").string()},
                          Shell::Environment{{"XDG_DATA_HOME", data}}, std::nullopt, 1.5)
            .stdout;
    });
    ASSERT_TRUE(testing::eventually([&] { return !client.status().pendingApprovals.empty(); }));
    EXPECT_EQ(gone.get(), "");
    EXPECT_TRUE(testing::eventually([&] {
        return client.status().pendingApprovals.empty() &&
               telegram.botMessages(kOwner).back().text.find("Expired") != std::string::npos;
    })) << children.output();
    ::kill(daemon, SIGTERM);
    EXPECT_EQ(children.exitCode(daemon), 0);
}

}  // namespace
}  // namespace tavra
