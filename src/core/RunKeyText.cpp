// RunKey's text operations that count characters, apart from Models.cpp:
// counting needs ICU, and the hook tool links the models without it.
#include "core/Models.h"
#include "core/Text.h"

namespace tavra {

std::string RunKey::shortSession() const {
    return Text::prefixCharacters(session, 8);
}

}  // namespace tavra
