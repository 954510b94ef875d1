// Test helpers: an HTTP server on 127.0.0.1 (cpp-httplib) that records every
// request it receives and answers with a chosen status, and raw TCP servers
// that misbehave in the ways a real collector can (never answer, close the
// connection, answer with something that is not HTTP), plus a port where
// nothing listens. Every server runs on threads of this process and stops
// when its object is destroyed, so none outlives the test process.
//
// Threads: requests() and the counters may be read from any thread while the
// server runs.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace zdr::testing {

struct RecordedRequest {
    std::string method;
    std::string path;
    /// Query items in the order they appear, percent-decoded.
    std::vector<std::pair<std::string, std::string>> query;
    std::string body;
    std::vector<std::pair<std::string, std::string>> headers;

    /// The values of every query item called `name`, in order.
    std::vector<std::string> queryValues(const std::string& name) const;
};

class HttpCaptureServer {
 public:
    /// Starts listening on 127.0.0.1 at a free port; answers every request
    /// with `status`.
    explicit HttpCaptureServer(int status = 204);
    ~HttpCaptureServer();
    HttpCaptureServer(const HttpCaptureServer&) = delete;
    HttpCaptureServer& operator=(const HttpCaptureServer&) = delete;

    int port() const { return port_; }
    /// "http://127.0.0.1:<port>"
    std::string baseURL() const;
    std::vector<RecordedRequest> requests() const;
    std::size_t requestCount() const;
    /// The most requests that were being handled at one time.
    int peakConcurrentRequests() const { return peak_.load(); }

 private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
    int port_ = 0;
    std::atomic<int> active_{0};
    std::atomic<int> peak_{0};
};

/// A TCP listener on 127.0.0.1 that misbehaves with every connection.
class FaultyTcpServer {
 public:
    enum class Behaviour {
        neverAnswers,  // reads and holds the connection open until stopped
        closesAtOnce,  // accepts and closes without a byte
        notHttp,       // answers with a line that is not HTTP, then closes
    };
    explicit FaultyTcpServer(Behaviour behaviour);
    ~FaultyTcpServer();
    FaultyTcpServer(const FaultyTcpServer&) = delete;
    FaultyTcpServer& operator=(const FaultyTcpServer&) = delete;

    int port() const { return port_; }
    std::string baseURL() const;
    int connectionCount() const { return connections_.load(); }

 private:
    void run();
    Behaviour behaviour_;
    int listenFd_ = -1;
    int wakeFd_ = -1;
    int port_ = 0;
    std::atomic<int> connections_{0};
    std::thread thread_;
};

/// A 127.0.0.1 port on which nothing listens (bound, then released).
int unusedLocalPort();

}  // namespace zdr::testing
