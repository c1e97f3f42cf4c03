// A tiny HTTP/1.0 server on 127.0.0.1 for the tests: one canned reply per
// exact request target (404 for the rest) and a log of every target asked for.
#pragma once

#include <atomic>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

class http_fixture {
public:
    // Special statuses: read the request, then close without a reply, or
    // never answer (the connection stays open until the client gives up).
    static constexpr int DROP = 0, HANG = -1;

    http_fixture();  // binds an ephemeral port and serves at once
    ~http_fixture();
    http_fixture(const http_fixture&) = delete;
    http_fixture& operator=(const http_fixture&) = delete;

    std::string host() const { return "127.0.0.1:" + std::to_string(port_); }
    void answer(const std::string& target, const std::string& body, int status = 200);
    std::vector<std::string> requests() const;
    size_t count(const std::string& target) const;

private:
    void serve(int fd);

    mutable std::mutex mu_;
    std::map<std::string, std::pair<int, std::string>> routes_;
    std::vector<std::string> requests_;
    std::vector<int> held_;
    std::atomic<bool> stop_{false};
    int lfd_ = -1, port_ = 0;
    std::thread th_;
};
