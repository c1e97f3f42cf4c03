// A tiny HTTP/1.0 server on 127.0.0.1 for the tests: canned answers chosen
// by the longest matching prefix of the request target, a log of every
// target asked for, and routes that never answer or close at once.
#pragma once

#include <mutex>
#include <string>
#include <thread>
#include <vector>

class http_fixture {
public:
    // Binds an ephemeral port and starts serving at once.
    http_fixture();
    ~http_fixture();
    http_fixture(const http_fixture&) = delete;
    http_fixture& operator=(const http_fixture&) = delete;

    int port() const { return port_; }
    std::string host() const { return "127.0.0.1:" + std::to_string(port_); }

    // Targets starting with PREFIX get STATUS and BODY. Targets without a
    // route get 404.
    void answer(const std::string& prefix, const std::string& body, int status = 200);
    // Targets starting with PREFIX are read and never answered; the
    // connection stays open until the client gives up.
    void hang(const std::string& prefix);
    // Targets starting with PREFIX are read and the connection is closed
    // without a reply.
    void drop(const std::string& prefix);

    // Every request target received, in order of arrival.
    std::vector<std::string> requests() const;
    // How many received targets start with PREFIX.
    size_t count(const std::string& prefix) const;

private:
    enum class kind { answer, hang, drop };
    struct route {
        std::string prefix;
        kind k;
        int status;
        std::string body;
    };
    void add(route r);
    void run();
    void serve(int fd);

    mutable std::mutex mu_;
    std::vector<route> routes_;
    std::vector<std::string> requests_;
    std::vector<int> held_;
    int lfd_ = -1;
    int wake_[2] = {-1, -1};
    int port_ = 0;
    std::thread th_;
};
