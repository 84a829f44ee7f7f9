// `tavra run -- COMMAND...`: the machine stays awake while a command runs.
//
// The hold is a lease: it names a time two minutes ahead and is renewed
// every thirty seconds, so a `tavra` that is killed outright stops holding
// the machine within two minutes. When the command ends, however it ends,
// the hold is released and its exit status becomes ours.

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "cli/Commands.h"
#include "kit/UniqueFd.h"
#include "kit/UnixSocket.h"

extern char** environ;

namespace tavra::cli {

namespace {

constexpr double kLeaseSeconds = 120;
constexpr int kRenewMilliseconds = 30'000;
constexpr std::array kForwarded = {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGUSR1, SIGUSR2};

// The signal handlers only write to this pipe; the loop reads it.
int gSignalPipe = -1;

void onSignal(int number, siginfo_t* info, void*) {
    int saved = errno;
    // A signal typed at the terminal reached the child too, as it shares our
    // process group; only one sent to us alone is passed on.
    unsigned char message[2] = {static_cast<unsigned char>(number),
                                static_cast<unsigned char>(info != nullptr && (info->si_code == SI_USER ||
                                                                               info->si_code == SI_QUEUE))};
    if (gSignalPipe >= 0) {
        // A full pipe already holds a wake-up for the loop; nothing to add.
        ssize_t written = ::write(gSignalPipe, message, sizeof message);
        (void)written;
    }
    errno = saved;
}

// Handlers installed for the lifetime of one run, the old ones put back.
class SignalRoute {
public:
    explicit SignalRoute(int writeEnd) {
        gSignalPipe = writeEnd;
        struct sigaction action {};
        action.sa_sigaction = onSignal;
        action.sa_flags = SA_SIGINFO | SA_RESTART;
        sigemptyset(&action.sa_mask);
        for (std::size_t i = 0; i < kForwarded.size(); ++i) ::sigaction(kForwarded[i], &action, &saved_[i]);
        ::sigaction(SIGCHLD, &action, &savedChild_);
    }
    ~SignalRoute() {
        for (std::size_t i = 0; i < kForwarded.size(); ++i) ::sigaction(kForwarded[i], &saved_[i], nullptr);
        ::sigaction(SIGCHLD, &savedChild_, nullptr);
        gSignalPipe = -1;
    }
    SignalRoute(const SignalRoute&) = delete;
    SignalRoute& operator=(const SignalRoute&) = delete;

private:
    std::array<struct sigaction, kForwarded.size()> saved_{};
    struct sigaction savedChild_ {};
};

std::string describeCommand(const std::vector<std::string>& words) {
    std::string text;
    for (const auto& word : words) {
        if (!text.empty()) text += ' ';
        text += word;
    }
    if (text.size() > 40) text = text.substr(0, 39) + "…";
    return text;
}

pid_t spawnChild(const std::vector<std::string>& words) {
    std::vector<std::string> copies = words;
    std::vector<char*> argv;
    for (auto& word : copies) argv.push_back(word.data());
    argv.push_back(nullptr);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t none, defaults;
    sigemptyset(&none);
    sigemptyset(&defaults);
    for (int number : kForwarded) sigaddset(&defaults, number);
    sigaddset(&defaults, SIGCHLD);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setsigdefault(&attributes, &defaults);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    pid_t pid = 0;
    int error = ::posix_spawnp(&pid, argv[0], nullptr, &attributes, argv.data(), environ);
    posix_spawnattr_destroy(&attributes);
    if (error != 0) {
        int status = error == ENOENT ? 127 : 126;
        throw Failure(words[0] + ": " + std::strerror(error), status);
    }
    return pid;
}

std::optional<int> reap(pid_t child) {
    int status = 0;
    pid_t done = ::waitpid(child, &status, WNOHANG);
    if (done != child) return std::nullopt;
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
    return std::nullopt;
}

}  // namespace

int runHolding(const Request& request, Services& services) {
    const std::string reason = request.reason.empty() ? describeCommand(request.commandLine) : request.reason;
    const std::string id = reason + " (pid " + std::to_string(::getpid()) + ")";
    // Empty when the daemon took the hold; otherwise what the user should hear.
    auto renew = [&]() -> std::string {
        try {
            Date until = addSeconds(services.now(), kLeaseSeconds);
            DaemonResponse response =
                services.send(DaemonRequest::command(UserCommand::hold(id, until)), 5.0);
            if (auto* error = std::get_if<DaemonResponse::Failure>(&response.value)) return error->message;
            return {};
        } catch (const SocketError&) {
            return notRunningSentence(services);
        } catch (const std::exception& error) {
            return error.what();
        }
    };
    if (std::string trouble = renew(); !trouble.empty())
        *services.err << trouble << " Running without keeping the machine awake.\n";

    int fds[2];
    if (::pipe(fds) != 0) throw Failure(std::string("pipe: ") + std::strerror(errno));
    UniqueFd readEnd(fds[0]), writeEnd(fds[1]);
    for (int fd : fds) {
        ::fcntl(fd, F_SETFD, FD_CLOEXEC);
        ::fcntl(fd, F_SETFL, O_NONBLOCK);
    }

    std::optional<int> exitStatus;
    {
        SignalRoute route(writeEnd.get());
        pid_t child = 0;
        try {
            child = spawnChild(request.commandLine);
        } catch (...) {
            try {
                services.send(DaemonRequest::command(UserCommand::hold(id, std::nullopt)), 5.0);
            } catch (...) {
                // The lease runs out on its own.
            }
            throw;
        }
        while (!(exitStatus = reap(child))) {
            pollfd wait{readEnd.get(), POLLIN, 0};
            int ready = ::poll(&wait, 1, kRenewMilliseconds);
            if (ready == 0) {
                renew();
                continue;
            }
            unsigned char message[2];
            while (::read(readEnd.get(), message, sizeof message) == sizeof message) {
                if (message[0] != SIGCHLD && message[1] != 0) ::kill(child, message[0]);
            }
        }
    }
    try {
        services.send(DaemonRequest::command(UserCommand::hold(id, std::nullopt)), 5.0);
    } catch (...) {
        // Nothing was held, or the lease runs out on its own.
    }
    return *exitStatus;
}

}  // namespace tavra::cli
