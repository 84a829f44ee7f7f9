// Decodes outside JSON as the engine's records (hook events, user commands,
// settings, runs) and feeds whatever decodes to a PolicyEngine. Decoding may
// only fail with DecodingError; the engine must take any decoded value.

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "core/PolicyEngine.h"

namespace {

template <class T>
std::optional<T> tryDecode(std::string_view text) {
    try {
        T value = tavra::TavraJSON::decode<T>(text);
        // What decodes must encode and decode back to itself.
        if (tavra::TavraJSON::decode<T>(tavra::TavraJSON::encode(tavra::Json(value))) != value)
            __builtin_trap();
        return value;
    } catch (const tavra::DecodingError&) {
        return std::nullopt;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace tavra;
    std::string_view text(reinterpret_cast<const char*>(data), size);
    static PolicyEngine engine(PolicySettings::defaults, SystemSnapshot::unknown, kComputerWord);
    static double t = 0;
    auto now = [] { return dateFromEpochSeconds(1740821400 + (t += 7)); };

    if (auto event = tryDecode<AgentEvent>(text)) engine.handle(PolicyInput::agent(*event), now());
    if (auto command = tryDecode<UserCommand>(text)) engine.handle(PolicyInput::command(*command), now());
    if (auto settings = tryDecode<PolicySettings>(text))
        engine.handle(PolicyInput::settings(*settings), now());
    if (auto snapshot = tryDecode<SystemSnapshot>(text)) engine.handle(PolicyInput::system(*snapshot), now());
    tryDecode<tavra::Run>(text);
    tryDecode<JournalEntry>(text);
    tryDecode<ApprovalTicket>(text);
    engine.handle(PolicyInput::tick(), now());
    return 0;
}
