// getUpdates answers and message text come from the network: any bytes must
// give updates or nothing, and the splitter must keep every part within the
// limit whatever the markup.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "remote/TelegramProtocol.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string_view text(reinterpret_cast<const char*>(data), size);
    auto document = tavra::Json::parse(text, nullptr, false);
    if (!document.is_discarded()) {
        const auto& result =
            document.is_object() && document.contains("result") ? document["result"] : document;
        for (const auto& update : tavra::parseTelegramUpdates(result))
            if (update.callback && !update.message && !update.text.empty()) std::abort();
    }
    for (const auto& part : tavra::splitTelegramHtml(text, 64))
        if (part.empty() || tavra::telegramTextLength(part) > 64) std::abort();
    return 0;
}
