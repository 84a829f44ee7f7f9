#include "platform/Desktop.h"

#include <gtest/gtest.h>
#include <systemd/sd-bus.h>

#include <atomic>
#include <csignal>
#include <fstream>
#include <mutex>
#include <sstream>
#include <thread>

#include "kit/AtomicFile.h"
#include "kit/Paths.h"
#include "support/PrivateDBus.h"
#include "support/ScopedEnv.h"
#include "support/TempDir.h"

namespace tavra {
namespace {

namespace fs = std::filesystem;
using testing::ScopedEnv;

// The desktop's notification service on a private bus, recording each Notify
// call's arguments as one line.
class FakeNotifications {
public:
    explicit FakeNotifications(bool named = true) {
        static const sd_bus_vtable table[] = {
            SD_BUS_VTABLE_START(0),
            SD_BUS_METHOD("Notify", "susssasa{sv}i", "u", onNotify, SD_BUS_VTABLE_UNPRIVILEGED),
            SD_BUS_VTABLE_END,
        };
        bool ok = sd_bus_new(&connection_) >= 0 &&
                  sd_bus_set_address(connection_, bus_.address().c_str()) >= 0 &&
                  sd_bus_set_bus_client(connection_, 1) >= 0 && sd_bus_start(connection_) >= 0 &&
                  sd_bus_add_object_vtable(connection_, nullptr, "/org/freedesktop/Notifications",
                                           "org.freedesktop.Notifications", table, this) >= 0 &&
                  (!named || sd_bus_request_name(connection_, "org.freedesktop.Notifications", 0) >= 0);
        if (!ok) ADD_FAILURE() << "the fake notification service could not start";
        thread_ = std::thread([this] {
            while (!stop_) {
                int result = sd_bus_process(connection_, nullptr);
                if (result < 0) return;
                if (result == 0) sd_bus_wait(connection_, 20'000);
            }
        });
    }
    ~FakeNotifications() {
        stop_ = true;
        thread_.join();
        sd_bus_flush_close_unref(connection_);
    }

    const std::string& address() const { return bus_.address(); }
    std::vector<std::string> calls() {
        std::lock_guard lock(mutex_);
        return calls_;
    }

private:
    static int onNotify(sd_bus_message* message, void* self, sd_bus_error*) {
        const char *app = nullptr, *icon = nullptr, *summary = nullptr, *body = nullptr;
        std::uint32_t replaces = 0;
        int result = sd_bus_message_read(message, "susss", &app, &replaces, &icon, &summary, &body);
        std::string line =
            std::string(app) + "|" + std::to_string(replaces) + "|" + icon + "|" + summary + "|" + body;
        if (result >= 0) result = sd_bus_message_enter_container(message, 'a', "s");
        for (const char* action = nullptr; result >= 0 && sd_bus_message_read(message, "s", &action) > 0;)
            line += "|action=" + std::string(action);
        if (result >= 0) result = sd_bus_message_exit_container(message);
        if (result >= 0) result = sd_bus_message_enter_container(message, 'a', "{sv}");
        while (result >= 0 && sd_bus_message_enter_container(message, 'e', "sv") > 0) {
            const char* key = nullptr;
            const char* type = nullptr;
            sd_bus_message_read(message, "s", &key);
            sd_bus_message_peek_type(message, nullptr, &type);
            std::uint8_t value = 0;
            if (std::string_view(type) == "y")
                sd_bus_message_read(message, "v", "y", &value);
            else
                sd_bus_message_skip(message, "v");
            line += "|" + std::string(key) + ":" + type + "=" + std::to_string(value);
            sd_bus_message_exit_container(message);
        }
        if (result >= 0) result = sd_bus_message_exit_container(message);
        std::int32_t timeout = 0;
        if (result >= 0) result = sd_bus_message_read(message, "i", &timeout);
        if (result < 0) return result;
        line += "|" + std::to_string(timeout);
        auto& fake = *static_cast<FakeNotifications*>(self);
        std::lock_guard lock(fake.mutex_);
        fake.calls_.push_back(line);
        return sd_bus_reply_method_return(message, "u", std::uint32_t{7});
    }

    testing::PrivateDBus bus_;
    sd_bus* connection_ = nullptr;
    std::atomic<bool> stop_ = false;
    std::mutex mutex_;
    std::vector<std::string> calls_;
    std::thread thread_;
};

Alert alertOf(Alert::Level level, std::string title, std::string body) {
    Alert alert;
    alert.title = std::move(title);
    alert.body = std::move(body);
    alert.level = level;
    return alert;
}

TEST(LocalNotifierTest, ShowsEachAlertOnTheSessionBusWithUrgencyByLevel) {
    FakeNotifications service;
    ScopedEnv session("DBUS_SESSION_BUS_ADDRESS", service.address());
    LocalNotifier::show(alertOf(Alert::Level::info, "claude finished", "api: 12m of work"));
    LocalNotifier::show(alertOf(Alert::Level::warning, "Paused \"x\"", "battery at 9%"));
    LocalNotifier::show(alertOf(Alert::Level::critical, "Too hot", ""));
    EXPECT_EQ(service.calls(), (std::vector<std::string>{
                                   "Tavra|0||claude finished|api: 12m of work|urgency:y=0|-1",
                                   "Tavra|0||Paused \"x\"|battery at 9%|urgency:y=1|-1",
                                   "Tavra|0||Too hot||urgency:y=2|-1",
                               }));
}

TEST(LocalNotifierTest, IsSilentWithoutAServiceOrABus) {
    FakeNotifications unnamed(false);  // a bus on which nobody owns the name
    {
        ScopedEnv session("DBUS_SESSION_BUS_ADDRESS", unnamed.address());
        LocalNotifier::show(alertOf(Alert::Level::info, "t", "b"));
    }
    testing::TempDir empty;
    ScopedEnv session("DBUS_SESSION_BUS_ADDRESS", "unix:path=" + (empty / "none").string());
    ScopedEnv runtime("XDG_RUNTIME_DIR", std::nullopt);
    LocalNotifier::show(alertOf(Alert::Level::critical, "t", "b"));
    EXPECT_TRUE(unnamed.calls().empty());
}

TEST(TerminalLauncherTest, WritesTheScriptAndOpensItWithoutWaitingForTheWindow) {
    testing::TempDir home;
    ScopedEnv homeVariable("HOME", home.path().string());
    ScopedEnv data("XDG_DATA_HOME", std::nullopt);
    // A terminal that records its process ID and how it was asked, and then
    // stays open as a window would.
    auto record = home / "asked";
    auto terminal = home / "term";
    std::ofstream(terminal) << "#!/bin/sh\necho \"$$ $*\" > " << record.string() << ".tmp\nmv "
                            << record.string() << ".tmp " << record.string() << "\nexec sleep 60\n";
    fs::permissions(terminal, fs::perms(0755));
    ScopedEnv terminalVariable("TERMINAL", terminal.string());

    TerminalLauncher::open("cd '/p' && claude --resume s1", "claude:s1");
    auto script = TavraPaths::resumeScripts() / "claude_s1.sh";
    EXPECT_EQ(readWholeFile(script),
              "#!/bin/sh\ncd '/p' && claude --resume s1\nexec \"${SHELL:-/bin/sh}\" -l\n");
    EXPECT_EQ(fs::status(script).permissions(), fs::perms(0700));
    for (int i = 0; i < 1000 && !fs::exists(record); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    std::istringstream asked(readWholeFile(record).value_or(""));
    pid_t window = 0;
    std::string rest;
    asked >> window;
    std::getline(asked, rest);
    EXPECT_EQ(rest, " -e " + script.string());
    ASSERT_GT(window, 0);
    EXPECT_EQ(::kill(window, SIGTERM), 0) << "the window was gone before open() returned";
}

}  // namespace
}  // namespace tavra
