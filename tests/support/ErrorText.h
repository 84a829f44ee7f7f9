#pragma once

#include <string>

#include "core/Error.h"

namespace tavra::testing {

// The description of the `E` that `call` throws, or "no error" when it
// returns; any other exception goes through and fails the test.
template <class E = Error, class Call>
std::string errorText(Call&& call) {
    try {
        call();
    } catch (const E& error) {
        return error.description();
    }
    return "no error";
}

}  // namespace tavra::testing
