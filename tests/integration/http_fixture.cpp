#include "http_fixture.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <stdexcept>

http_fixture::http_fixture()
{
    lfd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof(sa);
    if (lfd_ < 0 || bind(lfd_, reinterpret_cast<sockaddr*>(&sa), sizeof(sa)) != 0 || listen(lfd_, 16) != 0 ||
        getsockname(lfd_, reinterpret_cast<sockaddr*>(&sa), &len) != 0 || pipe2(wake_, O_CLOEXEC) != 0) {
        if (lfd_ >= 0)
            close(lfd_);
        throw std::runtime_error("http fixture: cannot listen");
    }
    port_ = ntohs(sa.sin_port);
    th_ = std::thread([this] { run(); });
}

http_fixture::~http_fixture()
{
    char c = 0;
    (void)!write(wake_[1], &c, 1);
    th_.join();
    for (int fd : held_)
        close(fd);
    close(lfd_);
    close(wake_[0]);
    close(wake_[1]);
}

void http_fixture::add(route r)
{
    std::lock_guard<std::mutex> g(mu_);
    routes_.push_back(std::move(r));
}

void http_fixture::answer(const std::string& prefix, const std::string& body, int status)
{
    add({prefix, kind::answer, status, body});
}

void http_fixture::hang(const std::string& prefix)
{
    add({prefix, kind::hang, 0, ""});
}

void http_fixture::drop(const std::string& prefix)
{
    add({prefix, kind::drop, 0, ""});
}

std::vector<std::string> http_fixture::requests() const
{
    std::lock_guard<std::mutex> g(mu_);
    return requests_;
}

size_t http_fixture::count(const std::string& prefix) const
{
    std::lock_guard<std::mutex> g(mu_);
    size_t n = 0;
    for (const std::string& t : requests_)
        n += t.compare(0, prefix.size(), prefix) == 0;
    return n;
}

void http_fixture::run()
{
    for (;;) {
        pollfd p[2] = {{lfd_, POLLIN, 0}, {wake_[0], POLLIN, 0}};
        if (poll(p, 2, -1) < 0)
            continue;
        if (p[1].revents != 0)
            return;
        if (p[0].revents & POLLIN) {
            int fd = accept4(lfd_, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd >= 0)
                serve(fd);
        }
    }
}

// One request per connection: read the head, log the target, then answer,
// hold or drop by route.
void http_fixture::serve(int fd)
{
    std::string head;
    auto end = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    while (head.find("\r\n\r\n") == std::string::npos && head.size() < 8192) {
        int left = static_cast<int>(
            std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now()).count());
        pollfd p = {fd, POLLIN, 0};
        if (left <= 0 || poll(&p, 1, left) != 1)
            break;
        char buf[1024];
        ssize_t n = read(fd, buf, sizeof(buf));
        if (n <= 0)
            break;
        head.append(buf, static_cast<size_t>(n));
    }
    // "GET /target HTTP/1.x"
    size_t a = head.find(' ');
    size_t b = a == std::string::npos ? a : head.find(' ', a + 1);
    if (b == std::string::npos) {
        close(fd);
        return;
    }
    std::string target = head.substr(a + 1, b - a - 1);

    route r = {"", kind::answer, 404, "not found\n"};
    {
        std::lock_guard<std::mutex> g(mu_);
        requests_.push_back(target);
        size_t best = 0;
        for (const route& x : routes_)
            if (target.compare(0, x.prefix.size(), x.prefix) == 0 && x.prefix.size() >= best) {
                best = x.prefix.size();
                r = x;
            }
    }
    if (r.k == kind::hang) {
        held_.push_back(fd);
        return;
    }
    if (r.k == kind::answer) {
        std::string out = "HTTP/1.0 " + std::to_string(r.status) +
                          " X\r\nContent-Type: application/json\r\nContent-Length: " + std::to_string(r.body.size()) +
                          "\r\nConnection: close\r\n\r\n" + r.body;
        for (size_t off = 0; off < out.size();) {
            ssize_t n = send(fd, out.data() + off, out.size() - off, MSG_NOSIGNAL);
            if (n <= 0)
                break;
            off += static_cast<size_t>(n);
        }
    }
    close(fd);
}
