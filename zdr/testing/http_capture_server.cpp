#include "zdr/testing/http_capture_server.h"

#include <arpa/inet.h>
#include <httplib.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <stdexcept>

namespace zdr::testing {

std::vector<std::string> RecordedRequest::queryValues(const std::string& name) const {
    std::vector<std::string> out;
    for (const auto& [key, value] : query) {
        if (key == name) out.push_back(value);
    }
    return out;
}

namespace {

// httplib keeps query parameters in a multimap (sorted by name); the order
// the client wrote them in matters to these tests, so parse the raw target.
std::vector<std::pair<std::string, std::string>> parseQuery(const std::string& target) {
    std::vector<std::pair<std::string, std::string>> out;
    const auto q = target.find('?');
    if (q == std::string::npos) return out;
    std::string rest = target.substr(q + 1);
    std::size_t start = 0;
    while (start <= rest.size()) {
        std::size_t end = rest.find('&', start);
        if (end == std::string::npos) end = rest.size();
        const std::string item = rest.substr(start, end - start);
        if (!item.empty()) {
            const auto eq = item.find('=');
            const std::string key = item.substr(0, eq);
            const std::string value = eq == std::string::npos ? "" : item.substr(eq + 1);
            out.emplace_back(httplib::detail::decode_url(key, false),
                             httplib::detail::decode_url(value, false));
        }
        start = end + 1;
    }
    return out;
}

}  // namespace

struct HttpCaptureServer::Impl {
    httplib::Server server;
    std::thread thread;
    mutable std::mutex mutex;
    std::vector<RecordedRequest> requests;
};

HttpCaptureServer::HttpCaptureServer(int status) : impl_(std::make_unique<Impl>()) {
    auto record = [this, status](const httplib::Request& request, std::string body,
                                 httplib::Response& response) {
        const int now = ++active_;
        int peak = peak_.load();
        while (now > peak && !peak_.compare_exchange_weak(peak, now)) {
        }
        RecordedRequest recorded;
        recorded.method = request.method;
        recorded.path = request.path;
        recorded.query = parseQuery(request.target);
        recorded.body = std::move(body);
        for (const auto& [key, value] : request.headers) recorded.headers.emplace_back(key, value);
        {
            std::lock_guard lock(impl_->mutex);
            impl_->requests.push_back(std::move(recorded));
        }
        response.status = status;
        --active_;
    };
    // The body is read through a content reader: the plain handler makes
    // httplib parse a form-encoded body as parameters, which it refuses with
    // 413 above 8 KiB, and a recorder must take any body as it comes.
    impl_->server.set_payload_max_length(std::size_t{64} << 20);
    impl_->server.Post(".*", [record](const httplib::Request& request, httplib::Response& response,
                                      const httplib::ContentReader& reader) {
        std::string body;
        reader([&body](const char* data, std::size_t length) {
            body.append(data, length);
            return true;
        });
        record(request, std::move(body), response);
    });
    impl_->server.Get(".*", [record](const httplib::Request& request, httplib::Response& response) {
        record(request, std::string(), response);
    });
    port_ = impl_->server.bind_to_any_port("127.0.0.1");
    if (port_ <= 0) throw std::runtime_error("HttpCaptureServer: cannot bind 127.0.0.1");
    impl_->thread = std::thread([this] { impl_->server.listen_after_bind(); });
    // This httplib has no wait_until_ready(); the socket is already bound and
    // listening, so connections queue until the loop starts. Wait briefly so
    // that stop() in the destructor cannot race the loop's start.
    for (int i = 0; i < 5000 && !impl_->server.is_running(); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

HttpCaptureServer::~HttpCaptureServer() {
    impl_->server.stop();
    if (impl_->thread.joinable()) impl_->thread.join();
}

std::string HttpCaptureServer::baseURL() const {
    return "http://127.0.0.1:" + std::to_string(port_);
}

std::vector<RecordedRequest> HttpCaptureServer::requests() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->requests;
}

std::size_t HttpCaptureServer::requestCount() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->requests.size();
}

namespace {

int listenOnLoopback(int* port) {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) throw std::runtime_error("socket failed");
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = 0;
    if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(fd, 64) != 0) {
        ::close(fd);
        throw std::runtime_error("cannot listen on 127.0.0.1");
    }
    socklen_t length = sizeof address;
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    *port = ntohs(address.sin_port);
    return fd;
}

}  // namespace

FaultyTcpServer::FaultyTcpServer(Behaviour behaviour) : behaviour_(behaviour) {
    listenFd_ = listenOnLoopback(&port_);
    wakeFd_ = ::eventfd(0, EFD_CLOEXEC);
    thread_ = std::thread([this] { run(); });
}

FaultyTcpServer::~FaultyTcpServer() {
    const std::uint64_t one = 1;
    (void)!::write(wakeFd_, &one, sizeof one);
    if (thread_.joinable()) thread_.join();
    ::close(listenFd_);
    ::close(wakeFd_);
}

std::string FaultyTcpServer::baseURL() const { return "http://127.0.0.1:" + std::to_string(port_); }

void FaultyTcpServer::run() {
    std::vector<int> held;
    for (;;) {
        std::vector<pollfd> fds{{wakeFd_, POLLIN, 0}, {listenFd_, POLLIN, 0}};
        for (int fd : held) fds.push_back({fd, POLLIN, 0});
        if (::poll(fds.data(), fds.size(), -1) < 0) continue;
        if (fds[0].revents != 0) break;
        if (fds[1].revents & POLLIN) {
            const int client = ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
            if (client >= 0) {
                ++connections_;
                switch (behaviour_) {
                    case Behaviour::neverAnswers:
                        held.push_back(client);
                        break;
                    case Behaviour::closesAtOnce:
                        ::close(client);
                        break;
                    case Behaviour::notHttp: {
                        static const char kGarbage[] = "SSH-2.0-OpenSSH_9.2 not a web server\r\n";
                        (void)!::send(client, kGarbage, sizeof kGarbage - 1, MSG_NOSIGNAL);
                        ::shutdown(client, SHUT_RDWR);
                        ::close(client);
                        break;
                    }
                }
            }
        }
        // Drain what held connections send; drop the ones the client closed.
        for (std::size_t i = 2; i < fds.size(); ++i) {
            if (fds[i].revents == 0) continue;
            char buffer[4096];
            const ssize_t n = ::recv(fds[i].fd, buffer, sizeof buffer, MSG_DONTWAIT);
            if (n == 0 || (n < 0 && errno != EAGAIN)) {
                ::close(fds[i].fd);
                std::erase(held, fds[i].fd);
            }
        }
    }
    for (int fd : held) ::close(fd);
}

int unusedLocalPort() {
    int port = 0;
    const int fd = listenOnLoopback(&port);
    ::close(fd);
    return port;
}

}  // namespace zdr::testing
