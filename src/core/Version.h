#pragma once

#include <string_view>

namespace tavra {

struct TavraVersion {
    // Shared by the helper, the daemon and every client; compiled in from
    // the project's version in the top CMakeLists.txt.
    static constexpr std::string_view current = TAVRA_VERSION;
};

}  // namespace tavra
