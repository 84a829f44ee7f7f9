#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include <asio.hpp>

namespace tavra::testing {

// What `read` returns, read under `mutex`: the fakes' accessors in one line.
template <class Read>
auto underLock(std::mutex& mutex, Read read) {
    std::lock_guard lock(mutex);
    return read();
}

inline std::int64_t unixNow() {
    return std::chrono::duration_cast<std::chrono::seconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

// A small HTTP/1.1 server on 127.0.0.1 for the chat services' fakes: one
// thread per connection, one request per connection, the handler answering
// on that thread (it may wait, as a long poll does, or stream lines).
class FakeHttpServer {
public:
    struct Request {
        std::string method, path;
        std::map<std::string, std::string> query, headers;  // header names lower-cased
        std::string body;
    };
    class Exchange {
    public:
        explicit Exchange(asio::ip::tcp::socket& socket) : socket_(socket) {}
        void respond(int status, const std::string& body, const std::string& extraHeaders = {});
        // A 200 whose body runs until the connection closes; false once the peer is gone.
        bool write(const std::string& data);

    private:
        asio::ip::tcp::socket& socket_;
        bool began_ = false;
    };
    using Handler = std::function<void(const Request&, Exchange&)>;

    explicit FakeHttpServer(Handler handler);
    ~FakeHttpServer();
    FakeHttpServer(const FakeHttpServer&) = delete;
    FakeHttpServer& operator=(const FakeHttpServer&) = delete;

    std::string url() const { return "http://127.0.0.1:" + std::to_string(port_); }
    // Connections so far, refused ones included.
    int connections() const { return connections_; }
    // Down: every connection is closed at once, as on a lost network.
    void setDown(bool down) { down_ = down; }

private:
    void serve(std::shared_ptr<asio::ip::tcp::socket> socket);

    Handler handler_;
    asio::io_context io_;
    asio::ip::tcp::acceptor acceptor_;
    unsigned short port_;
    std::atomic<bool> stopping_{false}, down_{false};
    std::atomic<int> connections_{0};
    std::mutex mutex_;
    std::list<std::shared_ptr<asio::ip::tcp::socket>> open_;
    std::list<std::thread> threads_;
    std::thread acceptor_thread_;
};

}  // namespace tavra::testing
