// Every line of the control topic's stream is untrusted: any bytes must give
// an event or nothing, and a control message must be a nonce of the two
// lengths handed out, with text only behind an answer code.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "remote/NtfyProtocol.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string_view text(reinterpret_cast<const char*>(data), size);
    if (auto event = tavra::parseNtfyEvent(text)) {
        if (event->id.empty() || event->id.size() > 64) std::abort();
    }
    if (auto control = tavra::parseNtfyControl(text)) {
        auto length = control->nonce.size();
        if (length != tavra::kNtfyButtonNonce && length != tavra::kNtfyAnswerCode) std::abort();
        if (!control->text.empty() && length != tavra::kNtfyAnswerCode) std::abort();
    }
    if (tavra::cutUtf8(text, 7).size() > 7) std::abort();
    return 0;
}
