#include "kit/UnixSocket.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <future>
#include <mutex>
#include <thread>
#include <vector>

#include "support/TempDir.h"

namespace tavra {
namespace {

using testing::TempDir;

// Records every handler call; replies with a function of the line.
struct Recorder {
    std::mutex mutex;
    std::vector<std::pair<std::string, std::uint32_t>> calls;

    UnixSocketServer::Handler echo() {
        return [this](std::string line, std::uint32_t uid, UnixSocketServer::Reply reply) {
            {
                std::lock_guard lock(mutex);
                calls.emplace_back(line, uid);
            }
            reply("echo:" + line);
        };
    }
    std::size_t count() {
        std::lock_guard lock(mutex);
        return calls.size();
    }
};

// A raw client for the framing cases the one-shot client cannot produce.
UniqueFd rawConnect(const std::string& path) {
    UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    EXPECT_EQ(::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0)
        << std::strerror(errno);
    timeval timeout{60, 0};
    ::setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    return fd;
}

void rawWrite(int fd, std::string_view data) {
    while (!data.empty()) {
        ssize_t n = ::send(fd, data.data(), data.size(), MSG_NOSIGNAL);
        if (n < 1) return;
        data.remove_prefix(static_cast<std::size_t>(n));
    }
}

// Everything the server sends until it closes the connection.
std::string readToEnd(int fd) {
    std::string all;
    char buffer[4096];
    for (;;) {
        ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n < 1) return all;
        all.append(buffer, static_cast<std::size_t>(n));
    }
}

class UnixSocketTest : public ::testing::Test {
protected:
    TempDir dir;
    std::string path = (dir / "s.sock").string();
    Recorder recorder;
};

TEST(SocketErrorTest, Descriptions) {
    EXPECT_EQ(SocketError::pathTooLong("/a/b").description(), "socket path too long: /a/b");
    EXPECT_EQ(SocketError::system("connect", ENOENT).description(),
              "connect failed: No such file or directory");
    EXPECT_EQ(SocketError::closed().description(), "connection closed before a reply");
    EXPECT_STREQ(SocketError::closed().what(), "connection closed before a reply");
    EXPECT_EQ(SocketError::system("bind", EACCES).value(),
              SocketError::Case(SocketError::System{"bind", EACCES}));
}

TEST_F(UnixSocketTest, RequestAndReplyCarryThePeersUid) {
    UnixSocketServer server(path, 0666, recorder.echo());
    server.start();
    EXPECT_EQ(UnixSocketClient::send("hello", path, 30), "echo:hello");
    ASSERT_EQ(recorder.count(), 1u);
    EXPECT_EQ(recorder.calls[0],
              std::make_pair(std::string("hello"), static_cast<std::uint32_t>(::getuid())));
    struct stat info {};
    ASSERT_EQ(::stat(path.c_str(), &info), 0);
    EXPECT_TRUE(S_ISSOCK(info.st_mode));
    EXPECT_EQ(info.st_mode & 07777, 0666u);
}

TEST_F(UnixSocketTest, HalfClosedLineWithoutNewlineIsStillARequest) {
    UnixSocketServer server(path, 0600, recorder.echo());
    server.start();
    auto fd = rawConnect(path);
    rawWrite(fd.get(), "abc");
    ::shutdown(fd.get(), SHUT_WR);
    EXPECT_EQ(readToEnd(fd.get()), "echo:abc\n");
}

TEST_F(UnixSocketTest, OnlyTheFirstLineOfAConnectionIsServed) {
    UnixSocketServer server(path, 0600, recorder.echo());
    server.start();
    auto fd = rawConnect(path);
    rawWrite(fd.get(), "one\ntwo\n");
    EXPECT_EQ(readToEnd(fd.get()), "echo:one\n");
    EXPECT_EQ(recorder.count(), 1u);
}

TEST_F(UnixSocketTest, PeersThatSendNoLineNeverReachTheHandler) {
    UnixSocketServer server(path, 0600, recorder.echo(), 0.3);
    server.start();
    {  // closes its writing side at once
        auto fd = rawConnect(path);
        ::shutdown(fd.get(), SHUT_WR);
        EXPECT_EQ(readToEnd(fd.get()), "");
    }
    {  // stays silent until the server's time-out
        auto fd = rawConnect(path);
        EXPECT_EQ(readToEnd(fd.get()), "");
    }
    {  // writes an endless line
        auto fd = rawConnect(path);
        std::thread writer(
            [&] { rawWrite(fd.get(), std::string(UnixSocketLimits::kLineLimit + 1024 * 1024, 'x')); });
        EXPECT_EQ(readToEnd(fd.get()), "");
        writer.join();
    }
    EXPECT_EQ(recorder.count(), 0u);
}

TEST_F(UnixSocketTest, ALineJustUnderTheLimitIsAccepted) {
    UnixSocketServer server(path, 0600, [](std::string line, std::uint32_t, UnixSocketServer::Reply reply) {
        reply(std::to_string(line.size()));
    });
    server.start();
    std::string big(UnixSocketLimits::kLineLimit - 1, 'y');
    EXPECT_EQ(UnixSocketClient::send(big, path, 60), std::to_string(big.size()));
}

TEST_F(UnixSocketTest, EmptyReplyIsAnEmptyLineAndNoReplyIsClosed) {
    UnixSocketServer server(path, 0600, [](std::string line, std::uint32_t, UnixSocketServer::Reply reply) {
        if (line == "empty") reply("");
        // any other line: the reply is dropped, which closes the connection
    });
    server.start();
    EXPECT_EQ(UnixSocketClient::send("empty", path, 30), "");
    try {
        UnixSocketClient::send("drop", path, 30);
        FAIL() << "expected closed";
    } catch (const SocketError& e) {
        EXPECT_EQ(e.value(), SocketError::Case(SocketError::Closed{}));
        EXPECT_EQ(e.description(), "connection closed before a reply");
    }
}

TEST_F(UnixSocketTest, ReplyMayComeLaterFromAnotherThread) {
    std::promise<UnixSocketServer::Reply> held;
    UnixSocketServer server(path, 0600, [&](std::string, std::uint32_t, UnixSocketServer::Reply reply) {
        held.set_value(std::move(reply));
    });
    server.start();
    auto answer = std::async(std::launch::async, [&] { return UnixSocketClient::send("q", path, 60); });
    auto reply = held.get_future().get();
    std::thread([reply] { reply("late"); }).join();
    reply("again");  // a second call finds the connection closed and does nothing
    EXPECT_EQ(answer.get(), "late");
}

TEST_F(UnixSocketTest, AHeldReplyOutlivesItsServer) {
    std::promise<UnixSocketServer::Reply> held;
    auto server = std::make_unique<UnixSocketServer>(
        path, 0600,
        [&](std::string, std::uint32_t, UnixSocketServer::Reply reply) { held.set_value(std::move(reply)); });
    server->start();
    auto answer = std::async(std::launch::async, [&] { return UnixSocketClient::send("q", path, 60); });
    auto reply = held.get_future().get();
    server.reset();  // stops listening and joins its threads; the connection stays with the reply
    EXPECT_FALSE(std::filesystem::exists(path));
    reply("after");
    EXPECT_EQ(answer.get(), "after");
}

TEST_F(UnixSocketTest, ConcurrentClientsEachGetTheirOwnReply) {
    UnixSocketServer server(path, 0600, recorder.echo());
    server.start();
    std::vector<std::future<std::string>> answers;
    for (int i = 0; i < 24; ++i) {
        answers.push_back(std::async(std::launch::async, [&, i] {
            return UnixSocketClient::send("client" + std::to_string(i), path, 60);
        }));
    }
    for (int i = 0; i < 24; ++i)
        EXPECT_EQ(answers[static_cast<std::size_t>(i)].get(), "echo:client" + std::to_string(i));
    EXPECT_EQ(recorder.count(), 24u);
}

TEST_F(UnixSocketTest, PathLimitIs103Bytes) {
    std::string prefix = dir.path().string() + "/";
    std::string ok = prefix + std::string(UnixSocketLimits::kLongestPath - prefix.size(), 'p');
    ASSERT_EQ(ok.size(), 103u);
    UnixSocketServer good(ok, 0600, recorder.echo());
    good.start();
    EXPECT_EQ(UnixSocketClient::send("x", ok, 30), "echo:x");

    std::string tooLong = ok + "q";
    UnixSocketServer bad(tooLong, 0600, recorder.echo());
    try {
        bad.start();
        FAIL() << "expected pathTooLong";
    } catch (const SocketError& e) {
        EXPECT_EQ(e.description(), "socket path too long: " + tooLong);
    }
    EXPECT_THROW(UnixSocketClient::send("x", tooLong, 30), SocketError);
}

TEST_F(UnixSocketTest, StaleFileAtThePathDoesNotStopAStart) {
    {  // the socket file of a dead predecessor: bound, never unlinked, nobody listening
        UniqueFd dead(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
        ASSERT_EQ(::bind(dead.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    }
    ASSERT_TRUE(std::filesystem::exists(path));
    UnixSocketServer first(path, 0600, recorder.echo());
    first.start();
    EXPECT_EQ(UnixSocketClient::send("fresh", path, 30), "echo:fresh");

    std::string plainFile = (dir / "plain").string();
    std::ofstream(plainFile) << "stale";
    UnixSocketServer second(plainFile, 0600, recorder.echo());
    second.start();
    EXPECT_EQ(UnixSocketClient::send("again", plainFile, 30), "echo:again");
}

TEST_F(UnixSocketTest, StopEndsIntakeAndRemovesThePath) {
    UnixSocketServer server(path, 0600, recorder.echo());
    server.start();
    EXPECT_TRUE(server.listening());
    server.stop();
    server.stop();
    EXPECT_FALSE(server.listening());
    EXPECT_FALSE(std::filesystem::exists(path));
    try {
        UnixSocketClient::send("x", path, 5);
        FAIL() << "expected connect to fail";
    } catch (const SocketError& e) {
        EXPECT_EQ(e.value(), SocketError::Case(SocketError::System{"connect", ENOENT}));
    }
    server.start();  // a stopped server can listen again
    EXPECT_EQ(UnixSocketClient::send("y", path, 30), "echo:y");
}

TEST_F(UnixSocketTest, BindFailureIsASystemError) {
    UnixSocketServer server((dir / "missing/dir.sock").string(), 0600, recorder.echo());
    try {
        server.start();
        FAIL() << "expected bind to fail";
    } catch (const SocketError& e) {
        EXPECT_EQ(e.description(), "bind failed: No such file or directory");
    }
}

TEST_F(UnixSocketTest, PeerOfAnotherUserIsIdentified) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root to switch users";
    std::filesystem::permissions(dir.path(), std::filesystem::perms(0755));
    UnixSocketServer server(path, 0666, [](std::string, std::uint32_t uid, UnixSocketServer::Reply reply) {
        reply(std::to_string(uid));
    });
    server.start();
    pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        int code = 2;
        if (::setgid(65534) == 0 && ::setuid(65534) == 0) {
            try {
                code = UnixSocketClient::send("who", path, 30) == "65534" ? 0 : 1;
            } catch (...) {
                code = 3;
            }
        }
        ::_exit(code);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

}  // namespace
}  // namespace tavra
