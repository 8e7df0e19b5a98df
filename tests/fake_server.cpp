// fake_server.cpp -- the scripted server's listener thread, its command reader and the reply builders.
#include "fake_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>

#include "redis_server.h"

namespace kelvane_test {
namespace {

// Reads "<prefix><number>\r\n" at pos; false while the line is not complete.
bool read_line_number(const std::string& buf, std::size_t* pos, char prefix, long long* out) {
    const std::size_t end = buf.find("\r\n", *pos);
    if (end == std::string::npos) return false;
    if (buf[*pos] != prefix) throw std::runtime_error("fake server: not a command the client would send");
    *out = std::stoll(buf.substr(*pos + 1, end - *pos - 1));
    *pos = end + 2;
    return true;
}

// Takes one whole command (an array of bulk strings) off the front of buf; false while it has not all arrived.
bool take_command(std::string& buf, Command* out) {
    std::size_t pos = 0;
    long long argc = 0;
    if (buf.empty() || !read_line_number(buf, &pos, '*', &argc)) return false;
    Command c;
    for (long long i = 0; i < argc; ++i) {
        long long len = 0;
        if (pos >= buf.size() || !read_line_number(buf, &pos, '$', &len)) return false;
        if (buf.size() < pos + static_cast<std::size_t>(len) + 2) return false;
        c.push_back(buf.substr(pos, static_cast<std::size_t>(len)));
        pos += static_cast<std::size_t>(len) + 2;
    }
    buf.erase(0, pos);
    *out = std::move(c);
    return true;
}

}  // namespace

std::string bulk(std::string_view text) {
    return "$" + std::to_string(text.size()) + "\r\n" + std::string(text) + "\r\n";
}

std::string integer(long long value) { return ":" + std::to_string(value) + "\r\n"; }

std::string nil() { return "$-1\r\n"; }

std::string array(const std::vector<std::string>& elements) {
    std::string out = "*" + std::to_string(elements.size()) + "\r\n";
    for (const std::string& e : elements) out += e;
    return out;
}

std::string routine_answer(const Command& c) {
    if (c.empty()) return "";
    if (c[0] == "HELLO") return array({bulk("server"), bulk("redis"), bulk("mode"), bulk("standalone")});
    if (c[0] == "PING") return c.size() > 1 ? bulk(c[1]) : "+PONG\r\n";
    if (c[0] == "FUNCTION" && c.size() > 1 && c[1] == "LIST") return array({});
    if (c[0] == "FUNCTION" && c.size() > 2 && c[1] == "LOAD") {
        // "#!lua name=<library>\n..."
        const std::size_t from = c[2].find("name=") + 5, to = c[2].find('\n');
        return bulk(c[2].substr(from, to - from));
    }
    return "";
}

std::string operation(const Command& c) {
    if (c.size() < 2 || c[0] != "FCALL") return "";
    return c[1].substr(c[1].rfind('_') + 1);
}

std::string function_reply(const Command& fcall, const std::vector<std::string>& fields) {
    std::vector<std::string> elements = fields;
    elements.push_back(bulk(fcall.back()));
    return array(elements);
}

FakeServer::FakeServer(Script script)
    : script_(std::move(script)), listener_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in addr = loopback(0);
    socklen_t len = sizeof addr;
    if (listener_ < 0 || ::bind(listener_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
        ::listen(listener_, 16) != 0 || ::getsockname(listener_, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
        throw std::runtime_error("fake server cannot listen");
    }
    port_ = ntohs(addr.sin_port);
    thread_ = std::thread([this] { serve(); });
}

FakeServer::~FakeServer() {
    stopping_ = true;
    thread_.join();
    for (const Connection& c : connections_) ::close(c.fd);
    ::close(listener_);
}

std::string FakeServer::last_answer() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return last_answer_;
}

void FakeServer::push(const std::string& bytes) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!connections_.empty()) ::send(connections_.back().fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
}

bool FakeServer::answer(Connection& c) {
    char buf[65536];
    const ssize_t n = ::recv(c.fd, buf, sizeof buf, 0);
    if (n <= 0) return false;
    c.pending.append(buf, static_cast<std::size_t>(n));
    Command command;
    while (take_command(c.pending, &command)) {
        const std::string bytes = script_(command);
        std::lock_guard<std::mutex> lock(mutex_);
        last_answer_ = bytes;
        if (!bytes.empty() && ::send(c.fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) < 0) return false;
    }
    return true;
}

void FakeServer::serve() {
    while (!stopping_) {
        std::vector<pollfd> fds{{listener_, POLLIN, 0}};
        for (const Connection& c : connections_) fds.push_back({c.fd, POLLIN, 0});
        if (::poll(fds.data(), fds.size(), 10) <= 0) continue;
        if (fds[0].revents & POLLIN) {
            const int fd = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd >= 0) {
                // Like a real server: bytes go out when written, not held back for the client's acknowledgement.
                const int on = 1;
                ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
                std::lock_guard<std::mutex> lock(mutex_);
                connections_.push_back(Connection{fd, ""});
                ++accepted_;
            }
        }
        // Newest last; a connection the client closed (or that broke) goes.
        for (std::size_t i = fds.size() - 1; i >= 1; --i) {
            if ((fds[i].revents & (POLLIN | POLLHUP | POLLERR)) == 0 || answer(connections_[i - 1])) continue;
            std::lock_guard<std::mutex> lock(mutex_);
            ::close(connections_[i - 1].fd);
            connections_.erase(connections_.begin() + static_cast<std::ptrdiff_t>(i - 1));
        }
    }
}

}  // namespace kelvane_test
