// Socket helpers that take an address as one string. Diagnostics go to
// standard output, named after the public function that failed.
#include "ipe_socket.h"

#include "ipe_string.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

// Largest piece handed to one send or recv: one Ethernet payload's worth.
constexpr int IPE_CHUNK = 1400;
// Each readability wait in socket_receive.
constexpr int IPE_WAIT_MS = 200;
// Queue of a stream listener. Local clients come in bursts (a console page
// may fire dozens of commands at once); the kernel caps it at somaxconn.
constexpr int IPE_BACKLOG = SOMAXCONN;

struct ipe_sockaddr {
    union {
        sockaddr sa;
        sockaddr_in sin;
        sockaddr_un sun;
    } u;
    socklen_t len;
    bool unix_path;
    const char* path;  // the Unix path (for the unlink before bind)
};

bool ipe_parse_port(const char* text, int* port)
{
    if (*text == '\0')
        return false;
    long val = 0;
    for (const char* p = text; *p; p++) {
        if (*p < '0' || *p > '9')
            return false;
        val = val * 10 + (*p - '0');
        if (val > 65535)
            return false;
    }
    if (val < 1)
        return false;
    *port = static_cast<int>(val);
    return true;
}

// Fills out from "a.b.c.d:port" or a Unix path (the text has no "udp:" any
// more). The ':' is overwritten with a terminator. Prints the invalid-path
// message under func's name and returns false on a bad address.
bool ipe_parse_addr(const char* func, char* addr, ipe_sockaddr& out)
{
    out = {};
    char* colon = std::strchr(addr, ':');
    if (colon != nullptr) {
        *colon = '\0';
        int port = 0;
        uint32_t ip = 0;
        bool ok = ipe_parse_port(colon + 1, &port);
        if (ok && std::strcmp(addr, "0.0.0.0") != 0) {
            ip = ipe_str2ip(addr);
            ok = ip != 0;
        }
        if (!ok) {
            std::printf("%s: invalid path\n", func);
            return false;
        }
        out.u.sin.sin_family = AF_INET;
        out.u.sin.sin_port = htons(static_cast<uint16_t>(port));
        out.u.sin.sin_addr.s_addr = htonl(ip);
        out.len = sizeof(sockaddr_in);
        return true;
    }

    // sun_path is a fixed array; a path that does not fit with its
    // terminator is refused rather than cut.
    const size_t n = std::strlen(addr);
    if (n == 0 || n >= sizeof(out.u.sun.sun_path)) {
        std::printf("%s: invalid path\n", func);
        return false;
    }
    out.u.sun.sun_family = AF_UNIX;
    std::memcpy(out.u.sun.sun_path, addr, n + 1);
    out.len = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + n + 1);
    out.unix_path = true;
    out.path = addr;
    return true;
}

bool ipe_set_nonblock(int fd)
{
    const int fl = fcntl(fd, F_GETFL);
    return fl >= 0 && fcntl(fd, F_SETFL, fl | O_NONBLOCK) == 0;
}

long long ipe_now_ms()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// Waits for readability; a signal does not cut the wait short.
// 1 readable (data, end of stream or a pending error), 0 time-out or failure.
int ipe_wait_readable(int sock, int timeout_ms)
{
    const long long deadline = timeout_ms >= 0 ? ipe_now_ms() + timeout_ms : 0;
    int left = timeout_ms;
    for (;;) {
        pollfd pfd{sock, POLLIN, 0};
        const int rc = poll(&pfd, 1, left);
        if (rc > 0)
            return (pfd.revents & (POLLIN | POLLHUP | POLLERR)) ? 1 : 0;
        if (rc == 0 || errno != EINTR)
            return 0;
        if (timeout_ms >= 0) {
            const long long rest = deadline - ipe_now_ms();
            if (rest <= 0)
                return 0;
            left = static_cast<int>(rest);
        }
    }
}

}  // namespace

int socket_listen(char* addr)
{
    if (addr == nullptr) {
        std::printf("%s: invalid path\n", __func__);
        return -1;
    }
    int type = SOCK_STREAM;
    char* path = addr;
    if (std::strncmp(path, "udp:", 4) == 0) {
        type = SOCK_DGRAM;
        path += 4;
    }

    ipe_sockaddr sa;
    if (!ipe_parse_addr(__func__, path, sa))
        return -1;

    const int fd = socket(sa.u.sa.sa_family, type | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        std::printf("%s: socket fail with %s, path=%s\n", __func__, std::strerror(errno), path);
        return -1;
    }

    if (sa.unix_path) {
        unlink(sa.path);  // a stale socket file from an earlier run would block the bind
        if (bind(fd, &sa.u.sa, sa.len) != 0) {
            std::printf("bind unix fail %s\n", std::strerror(errno));
            close(fd);
            return -1;
        }
    } else {
        const int one = 1;
        setsockopt(fd, SOL_SOCKET, SO_REUSEPORT, &one, sizeof(one));
        if (bind(fd, &sa.u.sa, sa.len) != 0) {
            std::printf("bind tcp fail %s\n", std::strerror(errno));
            close(fd);
            return -1;
        }
    }

    if (type == SOCK_STREAM && listen(fd, IPE_BACKLOG) != 0) {
        std::printf("listen fail %s\n", std::strerror(errno));
        close(fd);
        return -1;
    }
    if (!ipe_set_nonblock(fd)) {
        close(fd);
        return -1;
    }
    return fd;
}

int udp_listen(int port)
{
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        std::printf("%s: socket fail with %s\n", __func__, std::strerror(errno));
        return -1;
    }
    const int one = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEPORT, &one, sizeof(one));

    sockaddr_in sin{};
    sin.sin_family = AF_INET;
    sin.sin_port = htons(static_cast<uint16_t>(port));
    sin.sin_addr.s_addr = htonl(INADDR_ANY);
    if (bind(fd, reinterpret_cast<sockaddr*>(&sin), sizeof(sin)) != 0) {
        std::printf("bind tcp fail %s\n", std::strerror(errno));
        close(fd);
        return -1;
    }
    if (!ipe_set_nonblock(fd)) {
        close(fd);
        return -1;
    }
    return fd;
}

// Always a stream socket: the "udp:" prefix is accepted so that a listening
// address can be reused as is, but it is not honoured.
int socket_connect(char* addr)
{
    if (addr == nullptr) {
        std::printf("%s: invalid path\n", __func__);
        return -1;
    }
    char* path = addr;
    if (std::strncmp(path, "udp:", 4) == 0)
        path += 4;

    ipe_sockaddr sa;
    if (!ipe_parse_addr(__func__, path, sa))
        return -1;

    const int fd = socket(sa.u.sa.sa_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        std::printf("%s: socket fail with %s\n", __func__, std::strerror(errno));
        return -1;
    }
    if (connect(fd, &sa.u.sa, sa.len) != 0) {
        // An interrupted connect carries on in the background: wait for it
        // to finish and take its outcome.
        bool ok = false;
        if (errno == EINTR) {
            pollfd pfd{fd, POLLOUT, 0};
            int rc;
            do
                rc = poll(&pfd, 1, -1);
            while (rc < 0 && errno == EINTR);
            int err = 0;
            socklen_t elen = sizeof(err);
            ok = rc > 0 && getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &elen) == 0 && err == 0;
        }
        if (!ok) {
            close(fd);
            return -1;
        }
    }
    return fd;
}

// Linux does not pass the listener's O_NONBLOCK on to the accepted socket, so
// the result is blocking; socket_receive never blocks on it regardless.
int socket_accept(int lsock, int timeout_ms)
{
    if (timeout_ms > 0 && !ipe_wait_readable(lsock, timeout_ms))
        return -1;
    const int fd = accept4(lsock, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) {
        // Nothing pending on a non-blocking listener is routine, not an error.
        if (errno != EAGAIN)
            std::printf("%s: %s(%d)\n", __func__, std::strerror(errno), errno);
        return -1;
    }
    return fd;
}

int socket_readable(int sock, int timeout_ms)
{
    return ipe_wait_readable(sock, timeout_ms);
}

// Receives exactly len bytes. Up to len / 8192 * 5 + 5 waits of 200 ms may
// time out; the last one fails the call. A wait that times out earlier is
// still followed by a receive, and that receive never blocks (MSG_DONTWAIT),
// so unless data turned up in between it fails with EAGAIN and ends the call.
// In practice a peer that goes quiet for more than 200 ms in the middle of a
// message is therefore dropped after one wait, not after all of them; this
// is deliberate: the loop must never hang the caller, whatever the blocking
// mode of the socket.
int socket_receive(int sock, void* buf, int len)
{
    if (len < 1)
        return 0;
    auto* p = static_cast<char*>(buf);
    int remaining = len;
    int waits = len / 8192 * 5 + 5;
    while (remaining > 0) {
        if (!ipe_wait_readable(sock, IPE_WAIT_MS)) {
            if (--waits <= 0)
                return -1;
        }
        const ssize_t n = recv(sock, p, static_cast<size_t>(std::min(remaining, IPE_CHUNK)), MSG_DONTWAIT);
        if (n <= 0)
            return -1;
        p += n;
        remaining -= static_cast<int>(n);
    }
    return 0;
}

// Sends exactly len bytes in pieces of at most 1400, without waiting for
// room. MSG_NOSIGNAL: a peer that has gone away yields EPIPE, not SIGPIPE.
int socket_send(int sock, const void* buf, int len)
{
    const auto* p = static_cast<const char*>(buf);
    int remaining = len;
    while (remaining > 0) {
        ssize_t n;
        do
            n = send(sock, p, static_cast<size_t>(std::min(remaining, IPE_CHUNK)), MSG_NOSIGNAL);
        while (n < 0 && errno == EINTR);
        if (n <= 0)
            return -1;
        p += n;
        remaining -= static_cast<int>(n);
    }
    return 0;
}

// The same pieces as socket_send, but each one sent without blocking; when
// the socket has no room, waits for it within what is left of timeout_ms.
int socket_send_within(int sock, const void* buf, int len, int timeout_ms)
{
    const auto* p = static_cast<const char*>(buf);
    const long long deadline = ipe_now_ms() + timeout_ms;
    int remaining = len;
    while (remaining > 0) {
        const ssize_t n =
            send(sock, p, static_cast<size_t>(std::min(remaining, IPE_CHUNK)), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n > 0) {
            p += n;
            remaining -= static_cast<int>(n);
            continue;
        }
        if (n == 0 || (errno != EAGAIN && errno != EINTR))
            return -1;
        if (errno == EINTR)
            continue;
        const long long rest = deadline - ipe_now_ms();
        if (rest <= 0)
            return -1;
        // A time-out or an interrupted wait is settled by the next send.
        pollfd pfd{sock, POLLOUT, 0};
        poll(&pfd, 1, static_cast<int>(rest));
    }
    return 0;
}
