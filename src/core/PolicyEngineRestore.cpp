#include "core/PolicyEngine.h"

namespace tavra {

void PolicyEngine::restore(std::vector<Run> runs, std::optional<Date> stayAwakeUntil,
                           std::map<std::string, Date> holds) {
    runs_.clear();
    for (auto& run : runs) {
        RunKey key = run.key;
        runs_.insert_or_assign(std::move(key), std::move(run));
    }
    orderDirty_ = true;
    stayAwakeUntil_ = stayAwakeUntil;
    holds_ = std::move(holds);
}

}  // namespace tavra
