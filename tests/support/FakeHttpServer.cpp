#include "support/FakeHttpServer.h"

#include <cctype>
#include <sstream>

namespace tavra::testing {

using asio::ip::tcp;

namespace {

std::string decode(const std::string& text) {
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%' && i + 2 < text.size()) {
            out.push_back(static_cast<char>(std::stoi(text.substr(i + 1, 2), nullptr, 16)));
            i += 2;
        } else {
            out.push_back(text[i] == '+' ? ' ' : text[i]);
        }
    }
    return out;
}

}  // namespace

void FakeHttpServer::Exchange::respond(int status, const std::string& body, const std::string& extraHeaders) {
    std::string head = "HTTP/1.1 " + std::to_string(status) + " X\r\nContent-Type: application/json\r\n" +
                       extraHeaders + "Content-Length: " + std::to_string(body.size()) +
                       "\r\nConnection: close\r\n\r\n";
    asio::error_code ignored;
    asio::write(socket_, asio::buffer(head + body), ignored);
}

bool FakeHttpServer::Exchange::write(const std::string& data) {
    std::string out = data;
    if (!began_)
        out = "HTTP/1.1 200 OK\r\nContent-Type: application/x-ndjson\r\nConnection: close\r\n\r\n" + out;
    began_ = true;
    asio::error_code error;
    asio::write(socket_, asio::buffer(out), error);
    return !error;
}

FakeHttpServer::FakeHttpServer(Handler handler)
    : handler_(std::move(handler)), acceptor_(io_, tcp::endpoint(asio::ip::make_address("127.0.0.1"), 0)) {
    port_ = acceptor_.local_endpoint().port();
    acceptor_thread_ = std::thread([this] {
        while (true) {
            auto socket = std::make_shared<tcp::socket>(io_);
            asio::error_code error;
            acceptor_.accept(*socket, error);
            if (stopping_) break;
            ++connections_;
            if (error || down_) continue;  // the socket closes as it goes
            std::lock_guard lock(mutex_);
            open_.push_back(socket);
            threads_.emplace_back([this, socket] { serve(socket); });
        }
    });
}

FakeHttpServer::~FakeHttpServer() {
    stopping_ = true;
    asio::error_code ignored;
    tcp::socket wake(io_);
    wake.connect(acceptor_.local_endpoint(), ignored);
    acceptor_thread_.join();
    std::lock_guard lock(mutex_);
    for (auto& socket : open_) socket->shutdown(tcp::socket::shutdown_both, ignored);
    for (auto& thread : threads_) thread.join();
}

void FakeHttpServer::serve(std::shared_ptr<tcp::socket> socket) {
    asio::streambuf buffer;
    asio::error_code error;
    auto headEnd = asio::read_until(*socket, buffer, "\r\n\r\n", error);
    if (error) return;
    std::string data(asio::buffers_begin(buffer.data()), asio::buffers_end(buffer.data()));
    Request request;
    std::istringstream head(data.substr(0, headEnd));
    std::string target, line;
    head >> request.method >> target;
    std::getline(head, line);
    while (std::getline(head, line) && line != "\r") {
        auto colon = line.find(':');
        if (colon == std::string::npos) continue;
        std::string name = line.substr(0, colon);
        for (auto& c : name) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        auto value = line.substr(colon + 1);
        value.erase(0, value.find_first_not_of(' '));
        if (!value.empty() && value.back() == '\r') value.pop_back();
        request.headers[name] = value;
    }
    request.path = decode(target.substr(0, target.find('?')));
    if (auto mark = target.find('?'); mark != std::string::npos) {
        std::istringstream query(target.substr(mark + 1));
        for (std::string pair; std::getline(query, pair, '&');) {
            auto equals = pair.find('=');
            request.query[decode(pair.substr(0, equals))] =
                equals == std::string::npos ? "" : decode(pair.substr(equals + 1));
        }
    }
    std::size_t length =
        request.headers.count("content-length") ? std::stoul(request.headers["content-length"]) : 0;
    request.body = data.substr(headEnd);
    if (request.body.size() < length) {
        std::string rest(length - request.body.size(), '\0');
        asio::read(*socket, asio::buffer(rest), error);
        request.body += rest;
    }
    Exchange exchange(*socket);
    handler_(request, exchange);
    socket->shutdown(tcp::socket::shutdown_both, error);
}

}  // namespace tavra::testing
