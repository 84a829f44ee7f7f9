#pragma once

#include <gtest/gtest.h>

#include <asio/io_context.hpp>
#include <fstream>
#include <memory>

#include "helper/CommandMachine.h"
#include "helper/Helper.h"
#include "kit/AtomicFile.h"
#include "support/FakeHelperMachine.h"
#include "support/TempDir.h"

namespace tavra {

inline constexpr const char* kPmsetOn = "/usr/bin/pmset -a disablesleep 1";
inline constexpr const char* kPmsetOff = "/usr/bin/pmset -a disablesleep 0";
inline constexpr const char* kSleepNow = "/usr/bin/pmset sleepnow";
// The one preference the helper saves, changes and restores.
inline const std::string kUpdatePref =
    " /Library/Preferences/com.apple.SoftwareUpdate AutomaticallyInstallMacOSUpdates";
inline const std::string kRead = "/usr/bin/defaults read" + kUpdatePref;
inline const std::string kWriteFalse = "/usr/bin/defaults write" + kUpdatePref + " -bool false";
inline const std::string kWriteTrue = "/usr/bin/defaults write" + kUpdatePref + " -bool true";

// A helper in-process on the macOS command machine with a recording runner,
// fake sensors, a manual clock and a temporary socket. Driven step by step
// through respond() and tick() on the test's own thread.
class HelperFixture : public ::testing::Test {
protected:
    testing::TempDir dir;
    std::shared_ptr<testing::RecordingCommandRunner> runner =
        std::make_shared<testing::RecordingCommandRunner>();
    std::shared_ptr<testing::FakeHelperSensors> sensors = std::make_shared<testing::FakeHelperSensors>();
    testing::ManualClock clock;
    testing::LogCapture logs;
    asio::io_context context;
    std::shared_ptr<Helper> helper;

    HelperEnvironment environment() {
        HelperEnvironment env;
        env.socketPath = (dir / "helper.sock").string();
        env.stateDir = dir / "state";
        env.machine = std::make_shared<CommandMachine>(runner);
        env.sensors = sensors;
        env.clock = clock.function();
        env.output = logs.sink();
        return env;
    }

    // Creates and starts the helper, then forgets what the start did.
    void startHelper(std::set<std::uint32_t> allowed = {501}) {
        helper = Helper::create(context, std::move(allowed), environment());
        helper->start();
        forget();
    }
    void forget() {
        runner->clear();
        logs.clear();
    }

    std::string request(const std::string& line, std::uint32_t uid = 501) {
        return helper->respond(line, uid);
    }
    std::string request(const HelperRequest& r, std::uint32_t uid = 501) {
        return request(TavraJSON::encodeValue(r), uid);
    }
    HelperStatus okStatus(const std::string& reply) {
        auto response = TavraJSON::decode<HelperResponse>(reply);
        auto* ok = std::get_if<HelperResponse::Ok>(&response.value);
        if (!ok) ADD_FAILURE() << "not ok: " << reply;
        return ok ? ok->status : HelperStatus{};
    }

    void writeState(const std::string& text) {
        std::filesystem::create_directories(dir / "state");
        std::ofstream(dir / "state" / "helper-state.json") << text;
    }
    std::optional<std::string> readState() { return readWholeFile(dir / "state" / "helper-state.json"); }
};

}  // namespace tavra
