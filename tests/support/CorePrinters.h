#pragma once

// Readable forms of the engine's records in gtest failure messages. Include
// this in every test file that compares these types: gtest picks one printer
// per type for the whole executable, so a file without it would bring back
// raw bytes for all.

#include <ostream>

#include "core/Effects.h"

namespace tavra {

inline void PrintTo(const Effect& effect, std::ostream* os) {
    *os << describe(effect);
}
inline void PrintTo(const PowerPlan& plan, std::ostream* os) {
    *os << TavraJSON::encode(Json(plan));
}
inline void PrintTo(const Alert& alert, std::ostream* os) {
    *os << TavraJSON::encode(Json(alert));
}
inline void PrintTo(const JournalEntry& entry, std::ostream* os) {
    *os << TavraJSON::encode(Json(entry));
}
inline void PrintTo(const Decision& decision, std::ostream* os) {
    *os << "plan " << TavraJSON::encode(Json(decision.plan)) << ", effects [";
    for (std::size_t i = 0; i < decision.effects.size(); ++i)
        *os << (i ? ", " : "") << describe(decision.effects[i]);
    *os << "]";
}

}  // namespace tavra
