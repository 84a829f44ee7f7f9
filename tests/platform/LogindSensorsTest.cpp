// The logind-backed sensors against a private bus daemon with a fake logind
// on it, and against no bus at all. The machine's own system bus is never
// used: every test points DBUS_SYSTEM_BUS_ADDRESS elsewhere.
#if defined(__linux__)

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <optional>
#include <thread>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include "platform/LinuxSystemFiles.h"
#include "platform/Sensors.h"
#include "support/TempDir.h"

extern char** environ;

namespace tavra {
namespace {

using namespace std::chrono_literals;

// Points the system bus of this process somewhere else for one test.
class SystemBusAddress {
public:
    explicit SystemBusAddress(const std::string& address) {
        if (const char* old = std::getenv("DBUS_SYSTEM_BUS_ADDRESS")) previous_ = old;
        ::setenv("DBUS_SYSTEM_BUS_ADDRESS", address.c_str(), 1);
    }
    ~SystemBusAddress() {
        if (previous_) {
            ::setenv("DBUS_SYSTEM_BUS_ADDRESS", previous_->c_str(), 1);
        } else {
            ::unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
        }
    }

private:
    std::optional<std::string> previous_;
};

// A dbus-daemon of our own, listening on a socket in a temporary directory.
class PrivateBus {
public:
    PrivateBus() {
        socket_ = dir_ / "bus";
        const auto config = dir_ / "bus.conf";
        std::ofstream(config)
            << R"(<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <listen>unix:path=)"
            << socket_.string() << R"(</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow send_destination="*"/>
    <allow receive_sender="*"/>
    <allow own="*"/>
  </policy>
</busconfig>
)";
        std::string configArg = "--config-file=" + config.string();
        std::vector<char*> argv = {const_cast<char*>("dbus-daemon"), const_cast<char*>("--nofork"),
                                   const_cast<char*>("--nosyslog"), configArg.data(), nullptr};
        // Its complaints (it cannot raise its descriptor limit here) are noise.
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
        posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
        if (::posix_spawn(&pid_, "/usr/bin/dbus-daemon", &actions, nullptr, argv.data(), environ) != 0) {
            pid_ = -1;
        }
        posix_spawn_file_actions_destroy(&actions);
        const auto deadline = std::chrono::steady_clock::now() + 30s;
        while (pid_ > 0 && !std::filesystem::exists(socket_) && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(10ms);
        }
    }
    ~PrivateBus() {
        if (pid_ > 0) {
            ::kill(pid_, SIGTERM);
            int status = 0;
            ::waitpid(pid_, &status, 0);
        }
    }

    bool running() const { return pid_ > 0 && std::filesystem::exists(socket_); }
    std::string address() const { return "unix:path=" + socket_.string(); }

private:
    testing::TempDir dir_;
    std::filesystem::path socket_;
    pid_t pid_ = -1;
};

std::uint64_t nowMicros(clockid_t clock) {
    timespec ts{};
    ::clock_gettime(clock, &ts);
    return static_cast<std::uint64_t>(ts.tv_sec) * 1'000'000u +
           static_cast<std::uint64_t>(ts.tv_nsec) / 1'000u;
}

// The parts of logind the sensors talk to (the lid, users, sessions and their
// hints), with values the test sets.
class FakeLoginSessions {
public:
    struct Session {
        std::atomic<bool> locked = false;
        std::atomic<bool> idle = false;
        std::atomic<std::uint64_t> idleSince = 0;  // realtime µs
        std::atomic<std::uint64_t> idleSinceMonotonic = 0;
    };

    std::atomic<bool> lidClosed = false;
    std::atomic<bool> hasDisplaySession = true;  // the user's graphical session
    std::atomic<bool> inSession = false;         // this process runs in a session of its own
    std::atomic<bool> answering = true;          // false: owns the name but stops answering
    Session manager;                             // the machine-wide idle hint
    Session display;
    Session own;

    static constexpr const char* kDisplayPath = "/org/freedesktop/login1/session/c1";
    static constexpr const char* kOwnPath = "/org/freedesktop/login1/session/_34";
    static constexpr const char* kUserPath = "/org/freedesktop/login1/user/_1000";

    explicit FakeLoginSessions(const std::string& address) {
        sd_bus* bus = nullptr;
        if (sd_bus_new(&bus) < 0) return;
        bus_ = bus;
        if (sd_bus_set_address(bus, address.c_str()) < 0 || sd_bus_set_bus_client(bus, 1) < 0 ||
            sd_bus_start(bus) < 0 || sd_bus_request_name(bus, "org.freedesktop.login1", 0) < 0) {
            return;
        }
        const char* root = "/org/freedesktop/login1";
        ready_ = sd_bus_add_object_vtable(bus, nullptr, root, "org.freedesktop.login1.Manager", kManagerTable,
                                          this) >= 0 &&
                 sd_bus_add_object_vtable(bus, nullptr, kUserPath, "org.freedesktop.login1.User", kUserTable,
                                          this) >= 0 &&
                 sd_bus_add_object_vtable(bus, nullptr, kDisplayPath, "org.freedesktop.login1.Session",
                                          kSessionTable, &display) >= 0 &&
                 sd_bus_add_object_vtable(bus, nullptr, kOwnPath, "org.freedesktop.login1.Session",
                                          kSessionTable, &own) >= 0;
        if (ready_) thread_ = std::thread([this] { serve(); });
    }
    ~FakeLoginSessions() {
        stop_ = true;
        if (thread_.joinable()) thread_.join();
        if (bus_) sd_bus_flush_close_unref(bus_);
    }
    bool ready() const { return ready_; }

private:
    void serve() {
        while (!stop_) {
            if (!answering) {
                std::this_thread::sleep_for(20ms);
                continue;
            }
            const int r = sd_bus_process(bus_, nullptr);
            if (r < 0) return;
            if (r == 0) sd_bus_wait(bus_, 50'000);
        }
    }

    static FakeLoginSessions& self(void* userdata) { return *static_cast<FakeLoginSessions*>(userdata); }

    static int boolean(sd_bus_message* reply, bool value) {
        return sd_bus_message_append(reply, "b", value ? 1 : 0);
    }

    static int lidClosedProperty(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply,
                                 void* userdata, sd_bus_error*) {
        return boolean(reply, self(userdata).lidClosed);
    }
    static Session& sessionOf(const char* interface, void* userdata) {
        return std::string_view(interface) == "org.freedesktop.login1.Manager"
                   ? self(userdata).manager
                   : *static_cast<Session*>(userdata);
    }
    static int idleHint(sd_bus*, const char*, const char* interface, const char*, sd_bus_message* reply,
                        void* userdata, sd_bus_error*) {
        return boolean(reply, sessionOf(interface, userdata).idle);
    }
    static int idleSince(sd_bus*, const char*, const char* interface, const char*, sd_bus_message* reply,
                         void* userdata, sd_bus_error*) {
        return sd_bus_message_append(reply, "t", std::uint64_t{sessionOf(interface, userdata).idleSince});
    }
    static int idleSinceMonotonic(sd_bus*, const char*, const char* interface, const char*,
                                  sd_bus_message* reply, void* userdata, sd_bus_error*) {
        return sd_bus_message_append(reply, "t",
                                     std::uint64_t{sessionOf(interface, userdata).idleSinceMonotonic});
    }
    static int lockedHint(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply,
                          void* userdata, sd_bus_error*) {
        return boolean(reply, static_cast<Session*>(userdata)->locked);
    }
    static int displayProperty(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply,
                               void* userdata, sd_bus_error*) {
        if (self(userdata).hasDisplaySession) return sd_bus_message_append(reply, "(so)", "c1", kDisplayPath);
        return sd_bus_message_append(reply, "(so)", "", "/");
    }
    static int getUser(sd_bus_message* message, void*, sd_bus_error*) {
        std::uint32_t uid = 0;
        if (const int r = sd_bus_message_read(message, "u", &uid); r < 0) return r;
        return sd_bus_reply_method_return(message, "o", kUserPath);
    }
    static int getSessionByPID(sd_bus_message* message, void* userdata, sd_bus_error* error) {
        std::uint32_t pid = 0;
        if (const int r = sd_bus_message_read(message, "u", &pid); r < 0) return r;
        if (!self(userdata).inSession) {
            return sd_bus_error_set(error, "org.freedesktop.login1.NoSessionForPID",
                                    "PID does not belong to any session");
        }
        return sd_bus_reply_method_return(message, "o", kOwnPath);
    }

    static constexpr sd_bus_vtable kManagerTable[] = {
        SD_BUS_VTABLE_START(0),
        SD_BUS_PROPERTY("LidClosed", "b", lidClosedProperty, 0, 0),
        SD_BUS_PROPERTY("IdleHint", "b", idleHint, 0, 0),
        SD_BUS_PROPERTY("IdleSinceHint", "t", idleSince, 0, 0),
        SD_BUS_PROPERTY("IdleSinceHintMonotonic", "t", idleSinceMonotonic, 0, 0),
        SD_BUS_METHOD("GetUser", "u", "o", getUser, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_METHOD("GetSessionByPID", "u", "o", getSessionByPID, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_VTABLE_END,
    };
    static constexpr sd_bus_vtable kUserTable[] = {
        SD_BUS_VTABLE_START(0),
        SD_BUS_PROPERTY("Display", "(so)", displayProperty, 0, 0),
        SD_BUS_VTABLE_END,
    };
    static constexpr sd_bus_vtable kSessionTable[] = {
        SD_BUS_VTABLE_START(0),
        SD_BUS_PROPERTY("LockedHint", "b", lockedHint, 0, 0),
        SD_BUS_PROPERTY("IdleHint", "b", idleHint, 0, 0),
        SD_BUS_PROPERTY("IdleSinceHint", "t", idleSince, 0, 0),
        SD_BUS_PROPERTY("IdleSinceHintMonotonic", "t", idleSinceMonotonic, 0, 0),
        SD_BUS_VTABLE_END,
    };

    sd_bus* bus_ = nullptr;
    bool ready_ = false;
    std::atomic<bool> stop_ = false;
    std::thread thread_;
};

class LogindSensors : public ::testing::Test {
protected:
    void SetUp() override {
        if (!std::filesystem::exists("/usr/bin/dbus-daemon")) GTEST_SKIP() << "dbus-daemon is not installed";
        bus_.emplace();
        ASSERT_TRUE(bus_->running()) << "the private bus did not start";
        address_.emplace(bus_->address());
        logind_.emplace(bus_->address());
        ASSERT_TRUE(logind_->ready()) << "the fake logind did not register";
    }
    void TearDown() override {
        logind_.reset();
        address_.reset();
        bus_.reset();
    }

    std::optional<PrivateBus> bus_;
    std::optional<SystemBusAddress> address_;
    std::optional<FakeLoginSessions> logind_;
};

TEST_F(LogindSensors, LidFollowsLogind) {
    EXPECT_FALSE(LidSensor::isClosed());
    logind_->lidClosed = true;
    EXPECT_TRUE(LidSensor::isClosed());
}

TEST_F(LogindSensors, LockStateIsThatOfTheUsersDisplaySession) {
    EXPECT_FALSE(LockSensor::isLocked());
    logind_->display.locked = true;
    logind_->inSession = true;  // the display session still wins
    EXPECT_TRUE(LockSensor::isLocked());
    logind_->display.locked = false;
    logind_->own.locked = true;
    EXPECT_FALSE(LockSensor::isLocked());
}

TEST_F(LogindSensors, WithoutADisplaySessionTheProcesssOwnSessionCounts) {
    logind_->hasDisplaySession = false;
    logind_->display.locked = true;
    EXPECT_FALSE(LockSensor::isLocked());  // no session at all: the harmless value
    logind_->inSession = true;
    logind_->own.locked = true;
    EXPECT_TRUE(LockSensor::isLocked());
}

TEST_F(LogindSensors, IdleSecondsCountFromTheSessionsIdleHint) {
    EXPECT_EQ(IdleSensor::seconds(), 0.0);  // active session

    logind_->display.idle = true;
    logind_->display.idleSinceMonotonic = nowMicros(CLOCK_MONOTONIC) - 300'000'000;
    logind_->display.idleSince = nowMicros(CLOCK_REALTIME) - 5'000'000;  // the monotonic time is preferred
    const double idle = IdleSensor::seconds();
    EXPECT_GE(idle, 300.0);
    EXPECT_LT(idle, 400.0);
}

TEST_F(LogindSensors, IdleSecondsFallBackToTheMachineWideHintWithoutSession) {
    logind_->hasDisplaySession = false;
    logind_->manager.idle = true;
    logind_->manager.idleSince = nowMicros(CLOCK_REALTIME) - 120'000'000;
    const double idle = IdleSensor::seconds();
    EXPECT_GE(idle, 120.0);
    EXPECT_LT(idle, 220.0);
}

TEST_F(LogindSensors, ABusThatStopsAnsweringGivesTheFallbacks) {
    logind_->lidClosed = true;
    logind_->display.locked = true;
    logind_->display.idle = true;
    logind_->display.idleSinceMonotonic = 1;
    logind_->answering = false;
    EXPECT_FALSE(LockSensor::isLocked());
    EXPECT_EQ(IdleSensor::seconds(), 0.0);
    EXPECT_EQ(LidSensor::isClosed(), LinuxSystemFiles::lidClosed("/").value_or(false));
}

TEST(LogindSensorsWithoutBus, GiveTheirFallbacks) {
    testing::TempDir dir;
    SystemBusAddress address("unix:path=" + (dir / "no-bus-here").string());
    EXPECT_FALSE(LockSensor::isLocked());
    EXPECT_EQ(IdleSensor::seconds(), 0.0);
    // The lid falls back to the ACPI button, whatever this machine has.
    EXPECT_EQ(LidSensor::isClosed(), LinuxSystemFiles::lidClosed("/").value_or(false));
}

}  // namespace
}  // namespace tavra

#endif  // defined(__linux__)
