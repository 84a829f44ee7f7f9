#include "kit/Config.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <functional>

#include "kit/AtomicFile.h"
#include "kit/Paths.h"
#include "support/ScopedEnv.h"
#include "support/TempDir.h"

namespace tavra {
namespace {

namespace fs = std::filesystem;
using NotifyWhen = RemoteSettings::NotifyWhen;

mode_t modeOf(const fs::path& path) {
    struct stat st {};
    EXPECT_EQ(::stat(path.c_str(), &st), 0) << path;
    return st.st_mode & 07777;
}

void writeRaw(const fs::path& path, const std::string& text) {
    std::ofstream(path, std::ios::binary) << text;
}

TEST(ConfigDefaults, AFreshConfigurationHasBothChannelsOff) {
    const TavraConfig config;
    EXPECT_EQ(config.policy, PolicySettings::defaults);
    EXPECT_TRUE(config.localNotifications);
    EXPECT_EQ(config.remote.notifyWhen, NotifyWhen::away);
    EXPECT_EQ(config.remote.deliverBeforeSleep, 15.0);
    EXPECT_TRUE(config.remote.notifyOnFinish);
    EXPECT_EQ(config.remote.finishMinSeconds, 60.0);
    EXPECT_TRUE(config.remote.remoteApprovals);
    EXPECT_EQ(config.remote.approvalTimeout, 600.0);
    EXPECT_EQ(config.remote.telegram, (TelegramSettings{false, "", std::nullopt, std::nullopt}));
    EXPECT_EQ(config.remote.ntfy, (NtfySettings{false, "https://ntfy.sh", ""}));
    EXPECT_FALSE(config.remote.anyConfigured());
}

TEST(ConfigDerivedValues, ChannelsNeedEverythingTheyTalkWith) {
    struct Case {
        TelegramSettings telegram;
        NtfySettings ntfy;
        bool telegramReady;
        bool ntfyReady;
    };
    const Case cases[] = {
        {{true, "tok", 42, std::nullopt}, {}, true, false},
        {{true, "tok", std::nullopt, "bot"}, {}, false, false},
        {{true, "", 42, std::nullopt}, {}, false, false},
        {{false, "tok", 42, std::nullopt}, {}, false, false},
        {{}, {true, "https://ntfy.sh", "abc"}, false, true},
        {{}, {true, "", "abc"}, false, true},
        {{}, {true, "https://ntfy.sh", ""}, false, false},
        {{}, {false, "https://ntfy.sh", "abc"}, false, false},
        {{true, "tok", 0, std::nullopt}, {true, "x", "t"}, true, true},
    };
    for (const auto& c : cases) {
        RemoteSettings remote;
        remote.telegram = c.telegram;
        remote.ntfy = c.ntfy;
        EXPECT_EQ(remote.telegram.isConfigured(), c.telegramReady);
        EXPECT_EQ(remote.ntfy.isConfigured(), c.ntfyReady);
        EXPECT_EQ(remote.anyConfigured(), c.telegramReady || c.ntfyReady);
    }
    EXPECT_EQ((NtfySettings{true, "s", "abc"}).controlTopic(), "abc-ctl");
    EXPECT_EQ(NtfySettings{}.controlTopic(), "-ctl");
}

class ConfigStoreTest : public ::testing::Test {
protected:
    testing::TempDir dir;
    fs::path file = dir / "config.json";
};

TEST_F(ConfigStoreTest, MissingOrUnreadableFilesGiveDefaults) {
    EXPECT_EQ(ConfigStore::load(file), TavraConfig{});
    EXPECT_EQ(ConfigStore::load(dir.path()), TavraConfig{});  // a directory
    EXPECT_EQ(ConfigStore::load(dir / "no/such/dir/config.json"), TavraConfig{});
    EXPECT_FALSE(fs::exists(file)) << "loading never creates the file";
}

TEST_F(ConfigStoreTest, PartialFilesTakeDefaultsForEveryMissingKey) {
    struct Case {
        const char* document;
        std::function<void(TavraConfig&)> change;
    };
    const Case cases[] = {
        {"{}", [](TavraConfig&) {}},
        {R"({"localNotifications":false})", [](TavraConfig& c) { c.localNotifications = false; }},
        {R"({"remote":{}})", [](TavraConfig&) {}},
        {R"({"remote":{"ntfy":{"topic":"x"}}})", [](TavraConfig& c) { c.remote.ntfy.topic = "x"; }},
        {R"({"remote":{"notifyWhen":"never","approvalTimeout":30.5}})",
         [](TavraConfig& c) {
             c.remote.notifyWhen = NotifyWhen::never;
             c.remote.approvalTimeout = 30.5;
         }},
        {R"({"remote":{"telegram":{"enabled":true,"botToken":"x"}}})",
         [](TavraConfig& c) {
             c.remote.telegram.enabled = true;
             c.remote.telegram.botToken = "x";
         }},
        {R"({"remote":{"telegram":{"chatID":-1001234567890,"botUsername":"tavra_bot"}}})",
         [](TavraConfig& c) {
             c.remote.telegram.chatID = -1001234567890;
             c.remote.telegram.botUsername = "tavra_bot";
         }},
        {R"({"remote":{"telegram":{"chatID":null}}})", [](TavraConfig&) {}},
        {R"({"policy":{"batteryFloorPercent":40}})",
         [](TavraConfig& c) { c.policy.batteryFloorPercent = 40; }},
        {R"({"policy":{"maxThermal":3,"awayAfterIdle":300}})",
         [](TavraConfig& c) {
             c.policy.maxThermal = ThermalLevel::critical;
             c.policy.awayAfterIdle = 300;
         }},
        {R"({"futureFeature":{"x":1},"remote":{"ntfy":{"priority":5},"slack":{}}})", [](TavraConfig&) {}},
    };
    for (const auto& c : cases) {
        writeRaw(file, c.document);
        TavraConfig expected;
        c.change(expected);
        EXPECT_EQ(ConfigStore::load(file), expected) << c.document;
    }

    writeRaw(file, R"({"remote":{"telegram":{"enabled":true,"botToken":"x"}}})");
    EXPECT_FALSE(ConfigStore::load(file).remote.telegram.isConfigured()) << "no chat yet";
}

TEST_F(ConfigStoreTest, AnyDamageCostsTheWholeFileAndLeavesItUntouched) {
    const char* documents[] = {
        "",
        "\n",
        "{",
        "not json",
        "[]",
        "null",
        "\"config\"",
        R"({"localNotifications":true,"remote":{"ntfy":{"topic":"kept?"},"notifyWhen":"sometimes"}})",
        R"({"remote":{"notifyWhen":"Away"}})",
        R"({"remote":{"notifyWhen":null}})",
        R"({"remote":{"ntfy":{"enabled":"true","topic":"x"}}})",
        R"({"remote":{"ntfy":{"enabled":true,"topic":7}}})",
        R"({"remote":{"telegram":{"chatID":"42"}}})",
        R"({"remote":{"telegram":{"chatID":1.5}}})",
        R"({"remote":{"telegram":{"chatID":99999999999999999999}}})",
        R"({"remote":{"telegram":null}})",
        R"({"remote":[]})",
        R"({"remote":{"deliverBeforeSleep":"15"}})",
        R"({"localNotifications":null,"remote":{"ntfy":{"topic":"x"}}})",
        R"({"policy":{"maxThermal":"serious"}})",
        R"({"policy":{"enabled":1}})",
        R"({"localNotifications":false} trailing)",
        "{\"remote\":{\"ntfy\":{\"topic\":\"\xff\"}}}",
    };
    for (const char* document : documents) {
        writeRaw(file, document);
        EXPECT_EQ(ConfigStore::load(file), TavraConfig{}) << document;
        EXPECT_EQ(readWholeFile(file), std::string(document)) << "the damaged file stays as it was";
    }
}

TEST_F(ConfigStoreTest, SaveWritesPrettySortedJsonWithModeSixHundred) {
    writeRaw(file, R"({"unknownKey":true})");
    fs::permissions(file, fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read |
                              fs::perms::others_read);

    TavraConfig config;
    config.remote.telegram = {true, "123:secret", 42, std::nullopt};
    config.remote.ntfy.topic = "desk";
    ConfigStore::save(config, file);

    EXPECT_EQ(modeOf(file), 0600u);
    const std::string text = readWholeFile(file).value();
    EXPECT_EQ(text.find("unknownKey"), std::string::npos) << "unknown keys are lost at the next save";
    const Json written = TavraJSON::parse(text);
    EXPECT_EQ(TavraJSON::encode(written["remote"], true),
              "{\n"
              "  \"approvalTimeout\": 600,\n"
              "  \"deliverBeforeSleep\": 15,\n"
              "  \"finishMinSeconds\": 60,\n"
              "  \"notifyOnFinish\": true,\n"
              "  \"notifyWhen\": \"away\",\n"
              "  \"ntfy\": {\n"
              "    \"enabled\": false,\n"
              "    \"server\": \"https://ntfy.sh\",\n"
              "    \"topic\": \"desk\"\n"
              "  },\n"
              "  \"remoteApprovals\": true,\n"
              "  \"telegram\": {\n"
              "    \"botToken\": \"123:secret\",\n"
              "    \"chatID\": 42,\n"
              "    \"enabled\": true\n"
              "  }\n"
              "}");
    EXPECT_EQ(text, TavraJSON::encode(written, true)) << "the whole file is the pretty form";
    EXPECT_EQ(text.rfind("{\n  \"localNotifications\": true,\n  \"policy\": {", 0), 0u);
    EXPECT_EQ(ConfigStore::load(file), config);
}

TEST_F(ConfigStoreTest, SaveIntoAMissingDirectoryThrows) {
    EXPECT_THROW(ConfigStore::save(TavraConfig{}, dir / "missing/config.json"), FileError);
}

TEST(ConfigStoreRoundTrip, ThroughTheUsersSupportDirectory) {
    testing::TempDir home;
    testing::ScopedEnv homeVar("HOME", home.path().string());
    testing::ScopedEnv data("XDG_DATA_HOME", std::nullopt);

    const fs::path file = TavraPaths::config();
    EXPECT_EQ(file, home / ".local/share/tavra/config.json");
    EXPECT_EQ(ConfigStore::load(file), TavraConfig{}) << "first start";

    TavraConfig config;
    config.localNotifications = false;
    config.policy.batteryFloorPercent = 10;
    config.remote.notifyWhen = NotifyWhen::always;
    config.remote.finishMinSeconds = 0.25;
    config.remote.telegram = {true, "t", -5, "bot"};
    config.remote.ntfy = {true, "https://ntfy.example.org", "room"};
    ConfigStore::save(config, TavraPaths::config());
    EXPECT_EQ(modeOf(file), 0600u);
    EXPECT_EQ(modeOf(file.parent_path()), 0700u);
    EXPECT_EQ(ConfigStore::load(TavraPaths::config()), config);

    // A second save replaces the first completely.
    ConfigStore::save(TavraConfig{}, file);
    EXPECT_EQ(ConfigStore::load(file), TavraConfig{});
}

}  // namespace
}  // namespace tavra
