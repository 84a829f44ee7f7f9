// Tool output is whatever bytes a tool chose to write. Decoding must never
// fail and must give valid UTF-8 (decoding it again changes nothing), and
// trimming must give a part of the text.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "platform/SensorDecisions.h"
#include "platform/Shell.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    const std::string text = tavra::Shell::decodeUTF8(bytes);
    if (tavra::Shell::decodeUTF8(text) != text) std::abort();
    const std::string trimmed = tavra::Shell::trimmingWhitespace(text);
    if (trimmed.size() > text.size() || text.find(trimmed) == std::string::npos) std::abort();
    (void)tavra::SensorDecisions::lidClosedFromStateText(bytes);
    return 0;
}
