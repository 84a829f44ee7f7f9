#pragma once

#include <string_view>

namespace tavra {

struct TavraVersion {
    // Shared by the helper, the daemon and every client; compiled in.
    static constexpr std::string_view current = "0.5.0";
};

}  // namespace tavra
