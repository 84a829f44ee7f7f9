#include "platform/PowerController.h"

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

}  // namespace tavra
