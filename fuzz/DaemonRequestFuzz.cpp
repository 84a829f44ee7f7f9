// Decodes one daemon request line as the daemon's socket handler would, and
// checks that whatever decodes encodes and decodes back to the same request.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "core/Error.h"
#include "kit/DaemonProtocol.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string_view line(reinterpret_cast<const char*>(data), size);
    try {
        auto request = tavra::TavraJSON::decode<tavra::DaemonRequest>(line);
        auto again = tavra::TavraJSON::decode<tavra::DaemonRequest>(tavra::TavraJSON::encodeValue(request));
        if (!(again == request)) std::abort();
    } catch (const tavra::Error&) {
        // Refused input is the expected outcome for most lines.
    }
    return 0;
}
