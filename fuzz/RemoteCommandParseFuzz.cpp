// Chat text reaches the parser straight from the network: any bytes must
// give a command or nothing, and a command must survive the clamps.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "core/RemoteCommand.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string_view text(reinterpret_cast<const char*>(data), size);
    auto command = tavra::RemoteCommand::parse(text);
    if (!command) return 0;
    if (auto report = command->as<tavra::RemoteCommand::ReportHours>()) {
        if (report->hours < 1 || report->hours > 720) std::abort();
    }
    if (auto awake = command->as<tavra::RemoteCommand::StayAwake>()) {
        if (awake->minutes < 1 || awake->minutes > 1440) std::abort();
    }
    // Parsing is a pure function of the text.
    if (tavra::RemoteCommand::parse(text) != command) std::abort();
    return 0;
}
