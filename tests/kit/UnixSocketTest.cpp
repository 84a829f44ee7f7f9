#include "kit/UnixSocket.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <future>
#include <mutex>
#include <vector>

#include "support/ErrorText.h"
#include "support/RawSocket.h"
#include "support/TempDir.h"

namespace tavra {
namespace {

namespace fs = std::filesystem;

const auto socketErrorOf = [](auto&& call) { return testing::errorText<SocketError>(call); };

using testing::addressOf;
using testing::rawConnect;
using testing::readToEnd;

class UnixSocketTest : public ::testing::Test {
protected:
    testing::TempDir dir;
    std::string path = (dir / "s.sock").string();
    std::mutex mutex;
    std::vector<std::pair<std::string, std::uint32_t>> calls;
    std::vector<std::unique_ptr<UnixSocketServer>> servers;  // destroyed before `calls`

    // Records each call. Replies "echo:{line}", except: "empty" gets an empty
    // reply, "drop" none at all, and a long line gets its length.
    UnixSocketServer& serve(const std::string& at, std::uint16_t mode = 0600, double timeout = 10) {
        servers.push_back(std::make_unique<UnixSocketServer>(
            at, mode,
            [this](std::string line, std::uint32_t uid, UnixSocketServer::Reply reply) {
                std::lock_guard lock(mutex);
                calls.emplace_back(line, uid);
                if (line == "empty") reply("");
                if (line == "empty" || line == "drop") return;
                reply(line.size() > 100 ? std::to_string(line.size()) : "echo:" + line);
            },
            timeout));
        servers.back()->start();
        return *servers.back();
    }
};

TEST_F(UnixSocketTest, ConcurrentClientsEachGetTheirOwnReplyWithTheirUid) {
    const mode_t before = ::umask(077);  // the socket has its mode whatever the umask
    serve(path, 0666);
    EXPECT_EQ(::umask(before), 077u);
    EXPECT_EQ(fs::status(path).permissions(), fs::perms(0666));
    // Peers that connect and say nothing hold their connections for the
    // server's whole time-out; they must not keep the others waiting.
    std::vector<UniqueFd> silent;
    for (int i = 0; i < 16; ++i) silent.push_back(rawConnect(path));
    std::vector<std::future<std::string>> answers;
    for (int i = 0; i < 24; ++i)
        answers.push_back(std::async(
            std::launch::async, [&, i] { return UnixSocketClient::send("c" + std::to_string(i), path, 5); }));
    for (int i = 0; i < 24; ++i) EXPECT_EQ(answers[std::size_t(i)].get(), "echo:c" + std::to_string(i));
    ASSERT_EQ(calls.size(), 24u);
    for (const auto& call : calls) EXPECT_EQ(call.second, ::getuid());
}

TEST_F(UnixSocketTest, SilentOrEndlessPeersNeverReachTheHandlerAndEmptyRepliesAreNotNone) {
    serve(path);
    std::string quiet = (dir / "q.sock").string();
    serve(quiet, 0600, 0.3);
    EXPECT_EQ(readToEnd(rawConnect(quiet).get()), "");  // silent until the server's time-out
    // An endless line is given up and the connection closed under the
    // writer, which sees a failed write and no SIGPIPE.
    std::string endless(UnixSocketLimits::kLineLimit + (1 << 20), 'x');
    EXPECT_EQ(socketErrorOf([&] { UnixSocketClient::send(endless, path, 30); }), "write failed: Broken pipe");
    EXPECT_TRUE(calls.empty());

    // The one-shot client tells an empty reply from none.
    EXPECT_EQ(UnixSocketClient::send("empty", path, 30), "");
    EXPECT_EQ(socketErrorOf([&] { UnixSocketClient::send("drop", path, 30); }),
              "connection closed before a reply");
}

TEST_F(UnixSocketTest, PeerOfAnotherUserIsIdentified) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root to switch users";
    fs::permissions(dir.path(), fs::perms(0755));
    // The child is forked before the server's threads exist, so it never
    // inherits a lock held by another thread; it calls until the server is up.
    pid_t child = ::fork();
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
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].second, 65534u);
}

}  // namespace
}  // namespace tavra
