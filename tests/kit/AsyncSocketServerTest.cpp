#include "kit/AsyncSocketServer.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <asio/post.hpp>
#include <cstring>
#include <fstream>
#include <future>
#include <mutex>
#include <thread>
#include <tuple>
#include <vector>

#include "support/ErrorText.h"
#include "support/TempDir.h"

namespace tavra {
namespace {

namespace fs = std::filesystem;

UniqueFd rawConnect(const std::string& path) {
    UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    EXPECT_EQ(::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    timeval timeout{60, 0};
    ::setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    return fd;
}

bool rawWrite(int fd, std::string_view data) {
    for (ssize_t n = 0; !data.empty(); data.remove_prefix(static_cast<std::size_t>(n)))
        if ((n = ::send(fd, data.data(), data.size(), MSG_NOSIGNAL)) < 1) return false;
    return true;
}

std::string readToEnd(int fd) {
    std::string all;
    char buffer[4096];
    for (ssize_t n; (n = ::read(fd, buffer, sizeof buffer)) > 0;)
        all.append(buffer, static_cast<std::size_t>(n));
    return all;
}

// Runs the server on a context of its own thread, as the daemon does. The
// handler records each call and replies "echo:{line}", except: "hold" keeps
// the connection for the test, "drop" lets its handle go, "throw" throws.
class AsyncSocketServerTest : public ::testing::Test {
protected:
    testing::TempDir dir;
    std::string path = (dir / "s.sock").string();
    asio::io_context context;
    asio::executor_work_guard<asio::io_context::executor_type> work = asio::make_work_guard(context);
    std::thread runner;
    std::mutex mutex;
    std::vector<std::pair<std::string, std::uint32_t>> calls;
    std::vector<std::shared_ptr<AsyncSocketServer::Connection>> held;  // touched on the context only
    std::vector<std::unique_ptr<AsyncSocketServer>> servers;

    // Runs `body` on the context and waits for it.
    template <class Body>
    auto onContext(Body body) -> decltype(body()) {
        if (!runner.joinable()) return body();
        std::packaged_task<decltype(body())()> task(std::move(body));
        auto result = task.get_future();
        asio::post(context, [&task] { task(); });
        return result.get();
    }

    ~AsyncSocketServerTest() override {
        onContext([&] {
            held.clear();
            servers.clear();
        });
        work.reset();
        if (runner.joinable()) runner.join();
    }

    AsyncSocketServer& serve(const std::string& at, std::uint16_t mode = 0600, double timeout = 10) {
        auto server = std::make_unique<AsyncSocketServer>(
            context, at, mode,
            [this](std::string line, std::uint32_t uid, std::shared_ptr<AsyncSocketServer::Connection> c) {
                {
                    std::lock_guard lock(mutex);
                    calls.emplace_back(line, uid);
                }
                if (line == "hold") held.push_back(c);
                if (line == "throw") throw std::runtime_error("handler failed");
                if (line == "hold" || line == "drop") return;
                c->reply(line.size() > 100 ? std::to_string(line.size()) : "echo:" + line);
            },
            timeout);
        onContext([&] {
            server->start();
            servers.push_back(std::move(server));
        });
        if (!runner.joinable()) runner = std::thread([this] { context.run(); });
        return *servers.back();
    }

    std::size_t callCount() {
        std::lock_guard lock(mutex);
        return calls.size();
    }
};

TEST_F(AsyncSocketServerTest, FramesOneLinePerConnectionLikeTheThreadedServer) {
    serve(path);
    const std::tuple<std::string, bool, std::string> cases[] = {
        {"abc", true, "echo:abc\n"},          // the end of the stream ends the line
        {"one\ntwo\n", false, "echo:one\n"},  // a second request is never read
        {"\n", false, "echo:\n"},             // an empty line is a line
        {"drop\n", false, ""},                // a dropped handle closes without an answer
        {"throw\n", false, ""},               // so does a handler that throws
        {"", true, ""},                       // no line at all never reaches the handler
    };
    for (const auto& [sent, halfClose, received] : cases) {
        auto fd = rawConnect(path);
        rawWrite(fd.get(), sent);
        if (halfClose) ::shutdown(fd.get(), SHUT_WR);
        EXPECT_EQ(readToEnd(fd.get()), received) << sent;
    }
    EXPECT_EQ(callCount(), 5u);
    for (const auto& call : calls) EXPECT_EQ(call.second, ::getuid());
    std::string big(UnixSocketLimits::kLineLimit - 1, 'y');
    EXPECT_EQ(UnixSocketClient::send(big, path, 60), std::to_string(big.size()));
}

TEST_F(AsyncSocketServerTest, HostilePeersAreCutOffWithoutHoldingUpOthers) {
    serve(path);
    std::string quick = (dir / "q.sock").string();
    serve(quick, 0600, 0.5);
    auto silent = rawConnect(quick);
    auto partial = rawConnect(quick);
    rawWrite(partial.get(), "abc");  // and then nothing, not even an end of file
    auto endless = rawConnect(path);
    std::string chunk(1 << 20, 'x');
    auto writer = std::async(std::launch::async, [&] {
        bool ok = true;
        for (std::size_t sent = 0; ok && sent < 2 * UnixSocketLimits::kLineLimit; sent += chunk.size())
            ok = rawWrite(endless.get(), chunk);
        return ok;
    });
    // While all three are pending the others are served at once.
    for (int i = 0; i < 20; ++i) EXPECT_EQ(UnixSocketClient::send("c", i % 2 ? path : quick, 5), "echo:c");
    EXPECT_FALSE(writer.get()) << "the endless line was read to the end";
    EXPECT_EQ(readToEnd(endless.get()), "");
    EXPECT_EQ(readToEnd(silent.get()), "");
    EXPECT_EQ(readToEnd(partial.get()), "echo:abc\n");  // delivered as it stood at the time-out
    EXPECT_EQ(callCount(), 21u);
}

TEST_F(AsyncSocketServerTest, HeldConnectionIsAnsweredLaterAndOnlyOnce) {
    serve(path, 0600, 0.2);
    auto answer = std::async(std::launch::async, [&] { return UnixSocketClient::send("hold", path, 30); });
    while (onContext([&] { return held.size(); }) == 0)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    // Well past the read time-out: a held connection has no time-out of the server's.
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    bool closedFired = false;
    onContext([&] {
        held[0]->onClosed([&] { closedFired = true; });
        EXPECT_TRUE(held[0]->open());
    });
    std::thread([&] { held[0]->reply("later"); }).join();  // from another thread, posted to the context
    EXPECT_EQ(answer.get(), "later");
    onContext([&] {
        held[0]->reply("again");
        EXPECT_FALSE(held[0]->open());
    });
    EXPECT_FALSE(onContext([&] { return closedFired; }));
}

TEST_F(AsyncSocketServerTest, HangUpOfAHeldPeerIsReportedOnce) {
    auto& server = serve(path);
    auto leaving = rawConnect(path);
    auto staying = rawConnect(path);
    rawWrite(leaving.get(), "hold\n");
    rawWrite(staying.get(), "hold\n");
    while (onContext([&] { return held.size(); }) < 2)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    std::promise<void> fired;
    int count = 0;
    onContext([&] {
        for (auto& connection : held)
            connection->onClosed([&] {
                if (++count == 1) fired.set_value();
            });
    });
    leaving.reset();
    fired.get_future().wait();
    onContext([&] {
        EXPECT_EQ(server.openConnections(), 1u);
        std::size_t stillOpen = 0;
        for (auto& connection : held) stillOpen += connection->open() ? 1u : 0u;
        EXPECT_EQ(stillOpen, 1u);
        for (auto& connection : held) connection->reply("to whom it may concern");
    });
    EXPECT_EQ(readToEnd(staying.get()), "to whom it may concern\n");

    // A callback given after the hang-up still learns of it.
    auto late = rawConnect(path);
    rawWrite(late.get(), "hold\n");
    while (onContext([&] { return held.size(); }) < 3)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    late.reset();
    while (onContext([&] { return held[2]->open(); }))
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    std::promise<void> lateFired;
    onContext([&] { held[2]->onClosed([&] { lateFired.set_value(); }); });
    lateFired.get_future().wait();
    EXPECT_EQ(onContext([&] { return count; }), 1);
}

TEST_F(AsyncSocketServerTest, DestructionClosesHeldConnectionsWithoutCallbacks) {
    serve(path);
    auto peer = rawConnect(path);
    rawWrite(peer.get(), "hold\n");
    while (onContext([&] { return held.size(); }) == 0)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    bool fired = false;
    onContext([&] {
        held[0]->onClosed([&] { fired = true; });
        servers.clear();
        EXPECT_FALSE(held[0]->open());
        held[0]->reply("too late");
    });
    EXPECT_EQ(readToEnd(peer.get()), "");
    EXPECT_FALSE(fs::exists(path));
    EXPECT_FALSE(onContext([&] { return fired; }));
}

TEST_F(AsyncSocketServerTest, FiveHundredConcurrentClientsAreAllAnswered) {
    auto& server = serve(path);
    std::vector<UniqueFd> clients;
    for (int i = 0; i < 500; ++i) clients.push_back(rawConnect(path));
    for (std::size_t i = 0; i < clients.size(); ++i)
        ASSERT_TRUE(rawWrite(clients[i].get(), "c" + std::to_string(i) + "\n"));
    for (std::size_t i = 0; i < clients.size(); ++i)
        EXPECT_EQ(readToEnd(clients[i].get()), "echo:c" + std::to_string(i) + "\n");
    EXPECT_EQ(callCount(), 500u);
    EXPECT_EQ(onContext([&] { return server.openConnections(); }), 0u);
}

TEST_F(AsyncSocketServerTest, BindsExactlyTheModeAtAnyPathLengthAndReplacesStaleFiles) {
    std::string prefix = dir.path().string() + "/";
    // At the longest path the private scratch directory does not fit, so the
    // socket is made in place under a narrowed umask, which is then restored.
    std::string longest = prefix + std::string(UnixSocketLimits::kLongestPath - prefix.size(), 'p');
    std::string plainFile = (dir / "plain").string();
    std::ofstream(plainFile) << "stale";
    mode_t umaskBefore = ::umask(022);
    for (const auto& [at, mode] :
         std::vector<std::pair<std::string, int>>{{path, 0600}, {longest, 0660}, {plainFile, 0666}}) {
        auto& server = serve(at, static_cast<std::uint16_t>(mode));
        EXPECT_EQ(fs::status(at).permissions(), fs::perms(mode)) << at;
        EXPECT_EQ(UnixSocketClient::send("x", at, 30), "echo:x");
        onContext([&] { server.stop(); });
        EXPECT_FALSE(fs::exists(at));
    }
    EXPECT_EQ(::umask(umaskBefore), 022u);
    for (const auto& entry : fs::directory_iterator(dir.path()))
        EXPECT_EQ(entry.path().filename().string().rfind(".tavra-", 0), std::string::npos) << entry.path();
    std::string tooLong = longest + "q";
    EXPECT_EQ(testing::errorText<SocketError>([&] { serve(tooLong); }), "socket path too long: " + tooLong);
}

TEST_F(AsyncSocketServerTest, PeerOfAnotherUserIsIdentified) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root to switch users";
    fs::permissions(dir.path(), fs::perms(0755));
    pid_t child = ::fork();  // before the context's thread exists
    ASSERT_GE(child, 0);
    if (child == 0) {
        int code = ::setgid(65534) == 0 && ::setuid(65534) == 0 ? 2 : 3;
        for (int i = 0; i < 600 && code == 2; ++i) {
            try {
                code = UnixSocketClient::send("who", path, 30) == "echo:who" ? 0 : 1;
            } catch (const SocketError&) {
                ::usleep(100000);
            }
        }
        ::_exit(code);
    }
    serve(path, 0666);
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    ASSERT_EQ(callCount(), 1u);
    EXPECT_EQ(calls[0].second, 65534u);
}

}  // namespace
}  // namespace tavra
