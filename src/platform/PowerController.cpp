#include "platform/PowerController.h"

#include <exception>

#include "core/Error.h"

namespace tavra {

IdleSleepAssertion::IdleSleepAssertion(std::unique_ptr<IdleSleepBackend> backend)
    : backend_(std::move(backend)) {}

IdleSleepAssertion::~IdleSleepAssertion() {
    set(false, {});
}

void IdleSleepAssertion::set(bool on, const std::string& reason) noexcept {
    if (on == isHeld_ || !backend_) return;
    if (on) {
        try {
            if (auto id = backend_->take("Tavra: " + reason)) {
                assertionID_ = *id;
                isHeld_ = true;
            }
        } catch (...) {
            // A refused assertion is retried by the next set(true, ...).
        }
        return;
    }
    try {
        backend_->drop(assertionID_);
    } catch (...) {
        // Nothing left to do: the hold is forgotten either way.
    }
    assertionID_ = 0;
    isHeld_ = false;
}

namespace {

constexpr char kDefaultReason[] = "agent running";

// The words people see for whatever went wrong on the way to the helper.
std::string describe(std::exception_ptr failure) {
    try {
        std::rethrow_exception(failure);
    } catch (const Error& error) {
        return error.description();
    } catch (const std::exception& error) {
        return error.what();
    } catch (...) {
        return "unknown error";
    }
}

}  // namespace

PowerController::PowerController(HelperClient helper) : PowerController(std::move(helper), Seams{}) {}

PowerController::PowerController(HelperClient helper, Seams seams)
    : assertion_(seams.assertion ? std::move(seams.assertion) : makeIdleSleepBackend()),
      helper_(std::move(helper)),
      helperInstalled_(std::move(seams.helperInstalled)),
      sleepFallback_(std::move(seams.sleepFallback)) {}

bool PowerController::helperInstalled() const {
    try {
        return helperInstalled_ ? helperInstalled_() : HelperClient::isInstalled();
    } catch (...) {
        return false;
    }
}

void PowerController::apply(const PowerPlan& plan) noexcept {
    const std::string reason = plan.reasons.empty() ? std::string(kDefaultReason) : plan.reasons.front();
    // The local half needs no privilege and goes first, whatever the helper does.
    assertion_.set(plan.preventIdleSleep, reason);

    if (!helperInstalled()) {
        helperReachable_ = false;
        return;
    }
    try {
        helper_.send(HelperRequest::apply(HelperPlan{plan.disableLidSleep, plan.deferOSUpdates}),
                     kHelperTimeout);
        helperReachable_ = true;
        lastHelperError_.reset();
    } catch (...) {
        helperReachable_ = false;
        lastHelperError_ = describe(std::current_exception());
    }
}

void PowerController::restoreDefaults() noexcept {
    assertion_.set(false, {});
    if (!helperInstalled()) return;
    try {
        helper_.send(HelperRequest::restoreDefaults(), kHelperTimeout);
        helperReachable_ = true;
    } catch (...) {
        // Only reachability is kept here; the error itself is dropped.
        helperReachable_ = false;
    }
}

void PowerController::sleepNow() noexcept {
    if (helperInstalled()) {
        try {
            helper_.send(HelperRequest::sleepNow(), kHelperTimeout);
            return;
        } catch (...) {
            // Fall back to the OS's own tool below.
        }
    }
    try {
        if (sleepFallback_) {
            sleepFallback_();
        } else {
            systemSleepNow();
        }
    } catch (...) {
        // Nobody is waiting for an answer.
    }
}

}  // namespace tavra
