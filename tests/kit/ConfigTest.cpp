#include "kit/Config.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>

#include "kit/AtomicFile.h"
#include "kit/Paths.h"
#include "support/ScopedEnv.h"
#include "support/TempDir.h"

namespace tavra {
namespace {

namespace fs = std::filesystem;
using NotifyWhen = RemoteSettings::NotifyWhen;

void writeRaw(const fs::path& path, const std::string& text) {
    std::ofstream(path, std::ios::binary) << text;
}

class ConfigStoreTest : public ::testing::Test {
protected:
    testing::TempDir dir;
    fs::path file = dir / "config.json";
};

TEST_F(ConfigStoreTest, AnyDamageCostsTheWholeFileAndLeavesItUntouched) {
    const char* documents[] = {
        "",
        R"({"localNotifications":false} trailing)",
        R"({"localNotifications":true,"remote":{"ntfy":{"topic":"t"},"notifyWhen":"some"}})",
        R"({"remote":{"telegram":{"chatID":99999999999999999999}}})",
        R"({"remote":{"telegram":null}})",
        "{\"remote\":{\"ntfy\":{\"topic\":\"\xff\"}}}"};
    for (const char* document : documents) {
        writeRaw(file, document);
        EXPECT_EQ(ConfigStore::load(file), TavraConfig{}) << document;
        EXPECT_EQ(readWholeFile(file), std::string(document)) << "the damaged file stays as it was";
    }
}

TEST(ConfigStoreRoundTrip, FirstStartThenPrettySortedPrivateSavesThatDropUnknownKeys) {
    testing::TempDir home;
    testing::ScopedEnv homeVar("HOME", home.path().string());
    testing::ScopedEnv data("XDG_DATA_HOME", std::nullopt);
    const fs::path file = TavraPaths::config();
    const fs::path fifo = home / "fifo.json";  // no writer: a blocking open would hang
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    for (const auto& unreadable : {file, home.path(), home / "no/such/dir/config.json", fifo})
        EXPECT_EQ(ConfigStore::load(unreadable), TavraConfig{}) << unreadable;
    EXPECT_FALSE(fs::exists(file)) << "loading never creates the file";

    writeRaw(file, R"({"unknownKey":true})");
    fs::permissions(file, fs::perms(0644));
    TavraConfig config;
    config.localNotifications = false;
    config.remote.notifyWhen = NotifyWhen::always;
    config.remote.finishMinSeconds = 0.25;
    config.remote.telegram = {true, "t", -5, "bot", 7, "http://127.0.0.1:8081"};
    config.remote.ntfy = {true, "https://ntfy.example.org", "room", "tk_a", std::nullopt};
    ConfigStore::save(config, file);

    EXPECT_EQ(fs::status(file).permissions(), fs::perms(0600));
    const std::string text = readWholeFile(file).value();
    const Json written = TavraJSON::parse(text);
    EXPECT_EQ(text, TavraJSON::encode(written, true)) << "the whole file is the pretty form";
    EXPECT_EQ(text.find("unknownKey"), std::string::npos);
    EXPECT_EQ(
        TavraJSON::encode(written["remote"], false),
        R"({"approvalTimeout":600,"deliverBeforeSleep":15,"finishMinSeconds":0.25,"notifyOnFinish":true,"notifyWhen":"always","ntfy":{"enabled":true,"server":"https://ntfy.example.org","token":"tk_a","topic":"room"},"remoteApprovals":true,"telegram":{"apiBase":"http://127.0.0.1:8081","botToken":"t","botUsername":"bot","chatID":-5,"enabled":true,"userID":7}})");
    EXPECT_EQ(ConfigStore::load(file), config);
    ConfigStore::save(TavraConfig{}, file);  // a second save replaces the first completely
    EXPECT_EQ(ConfigStore::load(file), TavraConfig{});
    EXPECT_THROW(ConfigStore::save(config, home / "missing/config.json"), FileError);
}

}  // namespace
}  // namespace tavra
