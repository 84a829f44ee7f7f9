// Hook payloads as any agent might send them: the translation either throws
// PayloadError or gives events whose request line and decision documents are
// well-formed, whatever the daemon answers.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "hook/HookReply.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace tavra;
    const std::string text(reinterpret_cast<const char*>(data), size);
    (void)HookReply::readVerdict(text);
    const AgentKind agents[] = {AgentKind::claude, AgentKind::codex, AgentKind::grok};
    for (const auto& agent : agents) {
        HookTranslation t;
        try {
            t = translatePayload(agent, text, HookContext{{}, 7, [] { return std::string("id"); }});
        } catch (const PayloadError&) {
            continue;
        }
        std::string line = HookReply::encodeRequest(t);
        if (line.find('\n') != std::string::npos) std::abort();
        (void)Json::parse(line);
        const DaemonVerdict verdicts[] = {{DaemonVerdict::Kind::allow, {}},
                                          {DaemonVerdict::Kind::deny, {}},
                                          {DaemonVerdict::Kind::answers, {{"Q?", "A"}, {text, text}}}};
        for (const auto& verdict : verdicts) {
            HookOutput out = HookReply::outputFor(t, verdict);
            if (out.exitStatus != 0) std::abort();
            if (out.standardOutput.empty()) continue;
            // One JSON document and its newline, nothing else.
            if (out.standardOutput.back() != '\n' || !t.ticket) std::abort();
            (void)Json::parse(out.standardOutput);
        }
    }
    return 0;
}
