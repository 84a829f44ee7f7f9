// A settings file is whatever the user (or a broken editor) left on disk:
// decoding it over the defaults must give a value or throw DecodingError,
// and any value it gives must come back unchanged from its pretty form.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "kit/Config.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string_view text(reinterpret_cast<const char*>(data), size);
    const tavra::TavraConfig defaults;
    try {
        auto config = tavra::TavraJSON::decode(text, defaults);
        auto again = tavra::TavraJSON::decode(tavra::TavraJSON::encode(tavra::Json(config), true), defaults);
        if (again != config) std::abort();
    } catch (const tavra::DecodingError&) {
    }
    return 0;
}
