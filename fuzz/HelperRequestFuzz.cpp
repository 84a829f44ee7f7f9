// Feeds arbitrary bytes to the decoder of the helper's request line, the one
// parser a local peer of any user can reach. A line either decodes or throws
// DecodingError; a decoded request survives its own encoding unchanged, and
// the encoded form stays one line.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "core/ConfigCoding.h"
#include "kit/HelperProtocol.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string_view line(reinterpret_cast<const char*>(data), size);
    try {
        auto request = tavra::TavraJSON::decode<tavra::HelperRequest>(line);
        auto encoded = tavra::TavraJSON::encodeValue(request);
        if (encoded.find('\n') != std::string::npos) std::abort();
        if (!(tavra::TavraJSON::decode<tavra::HelperRequest>(encoded) == request)) std::abort();
    } catch (const tavra::DecodingError&) {
    }
    try {
        auto response = tavra::TavraJSON::decode<tavra::HelperResponse>(line);
        auto encoded = tavra::TavraJSON::encodeValue(response);
        if (encoded.find('\n') != std::string::npos) std::abort();
        if (!(tavra::TavraJSON::decode<tavra::HelperResponse>(encoded) == response)) std::abort();
    } catch (const tavra::DecodingError&) {
    }
    return 0;
}
