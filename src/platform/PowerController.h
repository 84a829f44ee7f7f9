#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

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

}  // namespace tavra
