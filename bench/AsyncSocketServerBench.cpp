// The daemon's transport under load: one exchange, a burst of a thousand
// hooks connecting at once, and two hundred approvals held open together,
// all on one serial context. The "threads" counter is read from
// /proc/self/task while the connections are held: it stays at the process's
// fixed few, never one per connection.

#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <asio/post.hpp>
#include <atomic>
#include <cstring>
#include <filesystem>
#include <future>
#include <thread>
#include <vector>

#include "kit/AsyncSocketServer.h"

namespace {

using tavra::AsyncSocketServer;
using tavra::UniqueFd;

// Each connection costs a descriptor on both ends.
void raiseDescriptorLimit() {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
}

std::size_t threadCount() {
    std::size_t count = 0;
    for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) ++count;
    return count;
}

UniqueFd connectTo(const std::string& path) {
    UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    if (::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) fd.reset();
    return fd;
}

bool sendLine(int fd, const std::string& line) {
    std::string data = line + "\n";
    return ::send(fd, data.data(), data.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(data.size());
}

std::string readToEnd(int fd) {
    std::string all;
    char buffer[256];
    for (ssize_t n; (n = ::read(fd, buffer, sizeof buffer)) > 0;)
        all.append(buffer, static_cast<std::size_t>(n));
    return all;
}

// A server on a context of its own thread. Lines "hold" are kept until
// answerHeld(); every other line is echoed at once.
class Fixture {
public:
    Fixture() {
        raiseDescriptorLimit();
        char pattern[] = "/tmp/tavra-bench-XXXXXX";
        if (::mkdtemp(pattern)) directory_ = pattern;
        server_ = std::make_unique<AsyncSocketServer>(
            context_, path(), 0600,
            [this](std::string line, std::uint32_t, std::shared_ptr<AsyncSocketServer::Connection> c) {
                if (std::string_view(line) == "hold") {
                    held_.push_back(std::move(c));
                    heldCount_.store(held_.size());
                    return;
                }
                c->reply(std::move(line));
            });
        server_->start();
        runner_ = std::thread([this] { context_.run(); });
    }
    ~Fixture() {
        onContext([this] {
            held_.clear();
            server_.reset();
        });
        guard_.reset();
        runner_.join();
        std::filesystem::remove_all(directory_);
    }

    std::string path() const { return directory_ + "/d.sock"; }
    std::size_t held() const { return heldCount_.load(); }
    void answerHeld() {
        onContext([this] {
            for (auto& connection : held_) connection->reply("decided");
            held_.clear();
            heldCount_.store(0);
        });
    }

private:
    template <class Body>
    void onContext(Body body) {
        std::promise<void> done;
        asio::post(context_, [&] {
            body();
            done.set_value();
        });
        done.get_future().wait();
    }

    std::string directory_;
    asio::io_context context_;
    asio::executor_work_guard<asio::io_context::executor_type> guard_ = asio::make_work_guard(context_);
    std::unique_ptr<AsyncSocketServer> server_;
    std::vector<std::shared_ptr<AsyncSocketServer::Connection>> held_;  // on the context only
    std::atomic<std::size_t> heldCount_{0};
    std::thread runner_;
};

void oneExchange(benchmark::State& state) {
    Fixture fixture;
    for (auto _ : state) {
        auto fd = connectTo(fixture.path());
        sendLine(fd.get(), "ping");
        benchmark::DoNotOptimize(readToEnd(fd.get()));
    }
}
BENCHMARK(oneExchange)->Unit(benchmark::kMicrosecond)->UseRealTime();

// All connect first, then all write, then all read: every connection is open
// at the same time, and each must get its own answer.
void concurrentConnections(benchmark::State& state) {
    Fixture fixture;
    const auto count = static_cast<std::size_t>(state.range(0));
    std::size_t lost = 0;
    for (auto _ : state) {
        std::vector<UniqueFd> clients;
        clients.reserve(count);
        for (std::size_t i = 0; i < count; ++i) clients.push_back(connectTo(fixture.path()));
        for (std::size_t i = 0; i < count; ++i)
            if (!clients[i] || !sendLine(clients[i].get(), std::to_string(i))) ++lost;
        for (std::size_t i = 0; i < count; ++i)
            if (!clients[i] || readToEnd(clients[i].get()) != std::to_string(i) + "\n") ++lost;
    }
    state.counters["lost"] = static_cast<double>(lost);
}
BENCHMARK(concurrentConnections)->Arg(1000)->Unit(benchmark::kMillisecond)->UseRealTime();

// Opens `count` held connections, reads the thread count while they wait, then
// answers them all and reads every answer.
void heldConnections(benchmark::State& state) {
    Fixture fixture;
    const auto count = static_cast<std::size_t>(state.range(0));
    std::size_t threadsWhileHeld = 0;
    std::size_t lost = 0;
    const std::size_t threadsBefore = threadCount();
    for (auto _ : state) {
        std::vector<UniqueFd> clients;
        for (std::size_t i = 0; i < count; ++i) {
            clients.push_back(connectTo(fixture.path()));
            if (!clients.back() || !sendLine(clients.back().get(), "hold")) ++lost;
        }
        while (fixture.held() + lost < count) std::this_thread::yield();
        threadsWhileHeld = std::max(threadsWhileHeld, threadCount());
        fixture.answerHeld();
        for (auto& client : clients)
            if (!client || readToEnd(client.get()) != "decided\n") ++lost;
    }
    state.counters["threadsBefore"] = static_cast<double>(threadsBefore);
    state.counters["threadsWhileHeld"] = static_cast<double>(threadsWhileHeld);
    state.counters["lost"] = static_cast<double>(lost);
}
BENCHMARK(heldConnections)->Arg(200)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
