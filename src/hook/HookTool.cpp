#include "hook/HookTool.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cmath>

#include "hook/AgentProcess.h"
#include "kit/Paths.h"
#include "kit/UnixSocket.h"

namespace tavra::HookTool {

namespace {

// Agents write the payload and close the pipe at once; a terminal or a
// stuck writer must not hold the agent's next step.
constexpr int kStdinWaitMs = 2000;
// Payloads carry whole file contents (Write, apply_patch), but not more.
constexpr std::size_t kPayloadLimit = 64 * 1024 * 1024;

std::optional<std::string> readStandardInput() {
    std::string text;
    std::array<char, 65536> buffer{};
    for (;;) {
        pollfd in{STDIN_FILENO, POLLIN, 0};
        int ready = ::poll(&in, 1, kStdinWaitMs);
        if (ready < 0 && errno == EINTR) continue;
        if (ready <= 0) return std::nullopt;
        ssize_t n = ::read(STDIN_FILENO, buffer.data(), buffer.size());
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return std::nullopt;
        if (n == 0) return text;
        text.append(buffer.data(), static_cast<std::size_t>(n));
        if (text.size() > kPayloadLimit) return std::nullopt;
    }
}

void writeStandardOutput(std::string_view bytes) {
    while (!bytes.empty()) {
        ssize_t n = ::write(STDOUT_FILENO, bytes.data(), bytes.size());
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return;
        bytes.remove_prefix(static_cast<std::size_t>(n));
    }
}

std::optional<std::string> readSmallFile(const std::filesystem::path& file) {
    int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return std::nullopt;
    std::string text;
    std::array<char, 16384> buffer{};
    for (;;) {
        ssize_t n = ::read(fd, buffer.data(), buffer.size());
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        text.append(buffer.data(), static_cast<std::size_t>(n));
        if (text.size() > 1024 * 1024) break;
    }
    ::close(fd);
    return text;
}

}  // namespace

double approvalTimeout(const std::filesystem::path& configFile) noexcept {
    try {
        auto text = readSmallFile(configFile);
        if (!text) return kDefaultApprovalTimeout;
        Json config = Json::parse(*text, nullptr, false);
        if (config.is_discarded() || !config.is_object()) return kDefaultApprovalTimeout;
        auto remote = config.find("remote");
        if (remote == config.end() || !remote->is_object()) return kDefaultApprovalTimeout;
        auto value = remote->find("approvalTimeout");
        if (value == remote->end() || !value->is_number()) return kDefaultApprovalTimeout;
        double seconds = value->get<double>();
        if (!std::isfinite(seconds) || seconds <= 0) return kDefaultApprovalTimeout;
        return seconds;
    } catch (const std::exception&) {
        return kDefaultApprovalTimeout;
    }
}

std::string newTicketId() {
    std::array<unsigned char, 16> bytes{};
    if (::getentropy(bytes.data(), bytes.size()) != 0) throw Error("no random bytes for a ticket id");
    static constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
    std::string id;
    std::uint32_t bits = 0;
    int count = 0;
    for (unsigned char byte : bytes) {
        bits = (bits << 8) | byte;
        count += 8;
        while (count >= 6) {
            count -= 6;
            id += kAlphabet[(bits >> count) & 0x3F];
        }
    }
    if (count > 0) id += kAlphabet[(bits << (6 - count)) & 0x3F];
    return id;
}

HookOutput run(const Inputs& inputs, const Exchange& exchange) noexcept {
    try {
        HookTranslation translation = translatePayload(inputs.agent, inputs.payload, inputs.context);
        const double timeout = translation.ticket ? inputs.approvalTimeout + kApprovalMargin : kEventTimeout;
        std::string reply = exchange(HookReply::encodeRequest(translation), timeout);
        return HookReply::outputFor(translation, HookReply::readVerdict(reply));
    } catch (...) {
        // No daemon, a bad payload, a time-out: the agent carries on as if
        // no hook were installed.
        return {};
    }
}

int main(int argc, char** argv) noexcept {
    try {
        if (argc < 2 || argv[1][0] == '\0') return 0;
        const bool notice = argc >= 3 && argv[argc - 1][0] == '{';
        auto payload = notice ? std::optional<std::string>(argv[argc - 1]) : readStandardInput();
        if (!payload) return 0;

        Inputs inputs;
        inputs.agent = AgentKind{argv[1]};
        inputs.payload = std::move(*payload);
        inputs.context.now = std::chrono::system_clock::now();
        inputs.context.pid = AgentProcess::findAgentPid(systemProcessTable(), inputs.agent, ::getppid());
        inputs.context.newTicketId = newTicketId;
        const std::string socket = TavraPaths::daemonSocket();
        inputs.approvalTimeout = approvalTimeout(TavraPaths::config());

        HookOutput output = run(inputs, [&](const std::string& line, double timeout) {
            return UnixSocketClient::send(line, socket, timeout);
        });
        writeStandardOutput(output.standardOutput);
        return output.exitStatus;
    } catch (...) {
        return 0;
    }
}

}  // namespace tavra::HookTool
