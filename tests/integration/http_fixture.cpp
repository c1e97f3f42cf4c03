#include "http_fixture.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <stdexcept>

http_fixture::http_fixture()
{
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof(sa);
    lfd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (lfd_ < 0 || bind(lfd_, reinterpret_cast<sockaddr*>(&sa), len) != 0 || listen(lfd_, 16) != 0 ||
        getsockname(lfd_, reinterpret_cast<sockaddr*>(&sa), &len) != 0) {
        if (lfd_ >= 0)
            close(lfd_);
        throw std::runtime_error("http fixture: cannot listen");
    }
    port_ = ntohs(sa.sin_port);
    th_ = std::thread([this] {
        while (!stop_) {
            int fd = accept4(lfd_, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd >= 0)
                serve(fd);
        }
    });
}

http_fixture::~http_fixture()
{
    stop_ = true;
    shutdown(lfd_, SHUT_RDWR);  // wakes the accept
    th_.join();
    for (int fd : held_)
        close(fd);
    close(lfd_);
}

void http_fixture::answer(const std::string& target, const std::string& body, int status)
{
    std::lock_guard<std::mutex> g(mu_);
    routes_[target] = {status, body};
}

std::vector<std::string> http_fixture::requests() const
{
    std::lock_guard<std::mutex> g(mu_);
    return requests_;
}

size_t http_fixture::count(const std::string& target) const
{
    std::lock_guard<std::mutex> g(mu_);
    return std::count(requests_.begin(), requests_.end(), target);
}

// One request per connection: read the head (2 s at most), log the target
// of "GET /target HTTP/1.x", then answer, drop or hold the connection.
void http_fixture::serve(int fd)
{
    timeval tv = {2, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
    std::string head;
    char buf[1024];
    ssize_t n;
    while (head.find("\r\n\r\n") == std::string::npos && head.size() < 8192 && (n = read(fd, buf, sizeof(buf))) > 0)
        head.append(buf, static_cast<size_t>(n));
    size_t a = head.find(' ');
    size_t b = a == std::string::npos ? a : head.find(' ', a + 1);
    if (b == std::string::npos) {
        close(fd);
        return;
    }
    std::string target = head.substr(a + 1, b - a - 1);
    std::pair<int, std::string> r = {404, "not found\n"};
    {
        std::lock_guard<std::mutex> g(mu_);
        requests_.push_back(target);
        if (auto it = routes_.find(target); it != routes_.end())
            r = it->second;
    }
    if (r.first == HANG) {
        held_.push_back(fd);
        return;
    }
    if (r.first != DROP) {
        std::string out = "HTTP/1.0 " + std::to_string(r.first) + " X\r\nContent-Type: application/json\r\n" +
                          "Content-Length: " + std::to_string(r.second.size()) + "\r\nConnection: close\r\n\r\n" +
                          r.second;
        for (size_t off = 0; off < out.size();) {
            ssize_t k = send(fd, out.data() + off, out.size() - off, MSG_NOSIGNAL);
            if (k <= 0)
                break;
            off += static_cast<size_t>(k);
        }
    }
    close(fd);
}
