#include "kit/AsyncSocketServer.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <asio/post.hpp>
#include <fstream>
#include <future>
#include <thread>
#include <tuple>
#include <vector>

#include "support/ErrorText.h"
#include "support/RawSocket.h"
#include "support/TempDir.h"

namespace tavra {
namespace {

namespace fs = std::filesystem;

using testing::rawConnect;
using testing::rawWrite;
using testing::readToEnd;

// Runs the server on a context of its own thread, as the daemon does. The
// handler records "{line}@{uid}" and replies "echo:{line}", except: "hold"
// keeps the connection for the test, "drop" lets its handle go, "throw" throws.
class AsyncSocketServerTest : public ::testing::Test {
protected:
    using Connection = AsyncSocketServer::Connection;
    testing::TempDir dir;
    std::string path = (dir / "s.sock").string();
    asio::io_context context;
    asio::executor_work_guard<asio::io_context::executor_type> work = asio::make_work_guard(context);
    std::thread runner{[this] { context.run(); }};
    std::vector<std::string> calls;                 // on the context only
    std::vector<std::shared_ptr<Connection>> held;  // on the context only
    std::vector<std::unique_ptr<AsyncSocketServer>> servers;

    ~AsyncSocketServerTest() override {
        onContext([&] {
            held.clear();
            servers.clear();
        });
        work.reset();
        runner.join();
    }

    // Runs `body` on the context and waits for it.
    template <class Body>
    auto onContext(Body body) -> decltype(body()) {
        std::packaged_task<decltype(body())()> task(std::move(body));
        auto result = task.get_future();
        asio::post(context, [&task] { task(); });
        return result.get();
    }

    AsyncSocketServer& serve(const std::string& at, std::uint16_t mode = 0600, double timeout = 10) {
        auto handler = [this](std::string line, std::uint32_t uid, std::shared_ptr<Connection> c) {
            calls.push_back(line.substr(0, 100) + "@" + std::to_string(uid));
            if (line == "hold") held.push_back(c);
            if (line == "throw") throw std::runtime_error("handler failed");
            if (line != "hold" && line != "drop")
                c->reply(line.size() > 100 ? std::to_string(line.size()) : "echo:" + line);
        };
        return *onContext([&] {
            servers.push_back(std::make_unique<AsyncSocketServer>(context, at, mode, handler, timeout));
            servers.back()->start();
            return servers.back().get();
        });
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
    std::string big(UnixSocketLimits::kLineLimit - 1, 'y');
    EXPECT_EQ(UnixSocketClient::send(big, path, 60), std::to_string(big.size()));
    const auto uid = "@" + std::to_string(::getuid());
    EXPECT_EQ(onContext([&] { return calls; }),
              (std::vector<std::string>{"abc" + uid, "one" + uid, uid, "drop" + uid, "throw" + uid,
                                        big.substr(0, 100) + uid}));
}

TEST_F(AsyncSocketServerTest, HostilePeersAreCutOffWithoutHoldingUpOthers) {
    serve(path);
    std::string quick = (dir / "q.sock").string();
    serve(quick, 0600, 0.5);
    auto silent = rawConnect(quick);
    auto partial = rawConnect(quick);
    rawWrite(partial.get(), "abc");  // and then nothing, not even an end of file
    for (int i = 0; i < 20; ++i) EXPECT_EQ(UnixSocketClient::send("c", i % 2 ? path : quick, 5), "echo:c");
    // An endless line is given up and the connection closed under the writer.
    std::string endless(UnixSocketLimits::kLineLimit + (1 << 20), 'x');
    EXPECT_EQ(testing::errorText<SocketError>([&] { UnixSocketClient::send(endless, path, 30); }),
              "write failed: Broken pipe");
    EXPECT_EQ(readToEnd(silent.get()), "");
    EXPECT_EQ(readToEnd(partial.get()), "echo:abc\n");  // delivered as it stood at the time-out
}

TEST_F(AsyncSocketServerTest, HeldConnectionsOutliveTheReadTimeOutAndLearnOfHangUps) {
    serve(path, 0600, 0.2);
    std::vector<UniqueFd> peers;
    for (int i = 0; i < 4; ++i) {
        peers.push_back(rawConnect(path));
        rawWrite(peers.back().get(), "hold\n");
        while (onContext([&] { return held.size(); }) < peers.size())  // keeps `held` in the order of `peers`
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(400));  // twice the read time-out
    std::vector<int> closed(4, 0);
    onContext([&] {
        for (std::size_t i = 0; i < 3; ++i) held[i]->onClosed([&closed, i] { ++closed[i]; });
    });
    peers[0].reset();  // hangs up while held
    peers[3].reset();  // hangs up before anyone listens
    while (onContext([&] { return held[0]->open() || held[3]->open(); }))
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    std::thread([&] { held[1]->reply("later"); }).join();  // from another thread: posted
    EXPECT_EQ(readToEnd(peers[1].get()), "later\n");
    std::promise<void> lateCall;
    onContext([&] {
        held[1]->reply("again");
        held[3]->onClosed([&] { lateCall.set_value(); });
    });
    lateCall.get_future().wait();
    onContext([&] {
        servers.clear();  // closes the last one without an answer or a call
        held[2]->reply("too late");
    });
    EXPECT_EQ(readToEnd(peers[2].get()), "");
    EXPECT_EQ(onContext([&] { return closed; }), (std::vector<int>{1, 0, 0, 0}));
    EXPECT_FALSE(fs::exists(path));
}

TEST_F(AsyncSocketServerTest, BindsExactlyTheModeAtAnyPathLengthOverAStaleFile) {
    std::string prefix = dir.path().string() + "/";
    // At the longest path the private scratch directory does not fit, so the
    // socket is made in place under a narrowed umask, which is then restored.
    std::string longest = prefix + std::string(UnixSocketLimits::kLongestPath - prefix.size(), 'p');
    std::ofstream(path) << "stale";
    mode_t umaskBefore = ::umask(022);
    for (const auto& [at, mode] : std::vector<std::pair<std::string, int>>{{path, 0666}, {longest, 0660}}) {
        auto& server = serve(at, static_cast<std::uint16_t>(mode));
        EXPECT_EQ(fs::status(at).permissions(), fs::perms(mode)) << at;
        EXPECT_EQ(UnixSocketClient::send("x", at, 30), "echo:x");
        onContext([&] { server.stop(); });
        EXPECT_FALSE(fs::exists(at));
    }
    EXPECT_EQ(::umask(umaskBefore), 022u);
    EXPECT_EQ(std::distance(fs::directory_iterator(dir.path()), fs::directory_iterator()),
              0);  // no scratch left
    std::string tooLong = longest + "q";
    EXPECT_EQ(testing::errorText<SocketError>([&] { serve(tooLong); }), "socket path too long: " + tooLong);
}

}  // namespace
}  // namespace tavra
