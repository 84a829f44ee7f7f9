#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "core/Models.h"
#include "kit/HelperClient.h"

namespace tavra {

// The one platform operation behind IdleSleepAssertion: take and drop a hold
// that keeps the machine from sleeping while the user is idle. Implementations
// never throw and are used from one thread at a time.
class IdleSleepBackend {
public:
    virtual ~IdleSleepBackend() = default;

    // Takes a hold under `name` (as people will see it). Returns its
    // identifier, or absent when the OS refused; a refusal leaves nothing held.
    virtual std::optional<std::uint32_t> take(const std::string& name) = 0;
    // Drops a hold that take() returned.
    virtual void drop(std::uint32_t assertionID) = 0;
};

// The OS's own hold: IOKit's PreventUserIdleSystemSleep assertion on macOS;
// on Linux a logind "idle:sleep" inhibitor plus, where the desktop session
// offers one, a session inhibitor for suspend.
std::unique_ptr<IdleSleepBackend> makeIdleSleepBackend();

// Puts the machine to sleep at once through the OS's own tool, without the
// helper: `pmset sleepnow` on macOS, logind's Suspend on Linux. Never throws;
// its outcome is not reported.
void systemSleepNow() noexcept;

// Holds the idle-sleep assertion of this process, named "Tavra: " + reason.
// Taking and dropping are idempotent; a hold is released when the object is
// destroyed. Not thread-safe: one thread at a time.
class IdleSleepAssertion {
public:
    explicit IdleSleepAssertion(std::unique_ptr<IdleSleepBackend> backend = makeIdleSleepBackend());
    ~IdleSleepAssertion();
    IdleSleepAssertion(const IdleSleepAssertion&) = delete;
    IdleSleepAssertion& operator=(const IdleSleepAssertion&) = delete;

    // Takes or drops the assertion. Nothing happens when it is already in
    // the state asked for, so a new reason does not rename a held assertion.
    // A refused take is silent and leaves isHeld() false, so the next call
    // tries again.
    void set(bool on, const std::string& reason) noexcept;

    std::uint32_t assertionID() const noexcept { return assertionID_; }
    bool isHeld() const noexcept { return isHeld_; }

private:
    std::unique_ptr<IdleSleepBackend> backend_;
    std::uint32_t assertionID_ = 0;
    bool isHeld_ = false;
};

// Makes a PowerPlan real: holds the idle-sleep half itself and sends the
// lid-sleep and update halves to the root helper. Never throws; a helper
// that cannot be reached shows only in helperReachable() and
// lastHelperError(). Not thread-safe: one thread at a time. Calls to the
// helper block for up to kHelperTimeout seconds, the sleepNow fallback up to
// 30 seconds.
class PowerController {
public:
    static constexpr double kHelperTimeout = 3.0;  // seconds, every request to the helper

    // The machine behind the controller, replaceable in tests.
    struct Seams {
        std::unique_ptr<IdleSleepBackend> assertion;  // null: makeIdleSleepBackend()
        std::function<bool()> helperInstalled;        // empty: HelperClient::isInstalled()
        std::function<void()> sleepFallback;          // empty: systemSleepNow()
    };

    // Creates the controller and its assertion; nothing is sent or taken.
    explicit PowerController(HelperClient helper);
    PowerController(HelperClient helper, Seams seams);
    PowerController(const PowerController&) = delete;
    PowerController& operator=(const PowerController&) = delete;

    // Takes or drops the assertion (named after the plan's first reason, or
    // "agent running"), then, if the helper is installed, sends it the plan's
    // lid-sleep and update halves. The plan is not retried here.
    void apply(const PowerPlan& plan) noexcept;

    // Drops the assertion and asks the helper to undo all it holds.
    void restoreDefaults() noexcept;

    // Asks the helper to put the machine to sleep; when it is not installed
    // or fails, falls back to the OS's own tool.
    void sleepNow() noexcept;

    bool helperReachable() const noexcept { return helperReachable_; }
    const std::optional<std::string>& lastHelperError() const noexcept { return lastHelperError_; }
    bool holdsIdleAssertion() const noexcept { return assertion_.isHeld(); }
    const IdleSleepAssertion& assertion() const noexcept { return assertion_; }
    const HelperClient& helper() const noexcept { return helper_; }

private:
    bool helperInstalled() const;

    IdleSleepAssertion assertion_;
    HelperClient helper_;
    bool helperReachable_ = false;
    std::optional<std::string> lastHelperError_;
    std::function<bool()> helperInstalled_;
    std::function<void()> sleepFallback_;
};

}  // namespace tavra
