// udp_sink: the cheapest possible consumer of the device port, as a yardstick
// for the daemon's receive thread. One UDP socket on 127.0.0.1:PORT with the
// same 512 KiB receive buffer, the same poll (20 ms) + recvfrom (2048 bytes
// into a zeroed buffer) loop, and nothing done with a datagram but count it.
//
//   udp_sink --port P [--seconds S] [--cpu N]
//
// Prints "ready port=P" once bound (scripts wait for it), then on exit
// (after S seconds, or on SIGTERM/SIGINT) one line:
//   received=N bytes=B first_ns=T0 last_ns=T1
// with T0/T1 the CLOCK_MONOTONIC times of the first and last datagram.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

namespace {

volatile sig_atomic_t g_stop = 0;

void on_signal(int) { g_stop = 1; }

int64_t mono_ns()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

[[noreturn]] void usage()
{
    std::fprintf(stderr, "usage: udp_sink --port P [--seconds S] [--cpu N]\n");
    std::exit(2);
}

}  // namespace

int main(int argc, char** argv)
{
    int port = 0;
    double seconds = 60;  // a forgotten sink still goes away by itself
    int cpu = -1;
    for (int i = 1; i < argc; i++) {
        std::string a = argv[i];
        if (i + 1 >= argc)
            usage();
        if (a == "--port")
            port = std::atoi(argv[++i]);
        else if (a == "--seconds")
            seconds = std::atof(argv[++i]);
        else if (a == "--cpu")
            cpu = std::atoi(argv[++i]);
        else
            usage();
    }
    if (port <= 0 || port > 65535 || seconds <= 0 || seconds > 3600)
        usage();

    // The daemon pins its receive thread; pinning the sink to the same CPU
    // keeps the sender's placement the same in both runs.
    if (cpu >= 0) {
        cpu_set_t set;
        CPU_ZERO(&set);
        CPU_SET(cpu, &set);
        if (sched_setaffinity(0, sizeof(set), &set) != 0)
            std::perror("udp_sink: sched_setaffinity");
    }

    struct sigaction sa{};
    sa.sa_handler = on_signal;  // no SA_RESTART: poll returns EINTR
    sigaction(SIGTERM, &sa, nullptr);
    sigaction(SIGINT, &sa, nullptr);

    int sock = socket(AF_INET, SOCK_DGRAM, 0);
    if (sock < 0) {
        std::perror("udp_sink: socket");
        return 1;
    }
    int rcvbuf = 0x80000;
    if (setsockopt(sock, SOL_SOCKET, SO_RCVBUFFORCE, &rcvbuf, sizeof(rcvbuf)) != 0 &&
        setsockopt(sock, SOL_SOCKET, SO_RCVBUF, &rcvbuf, sizeof(rcvbuf)) != 0) {
        std::perror("udp_sink: SO_RCVBUF");
        return 1;
    }
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(static_cast<uint16_t>(port));
    if (bind(sock, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
        std::perror("udp_sink: bind");
        return 1;
    }
    std::printf("ready port=%d\n", port);
    std::fflush(stdout);

    constexpr int MAXDGRAM = 2048;
    static char buf[MAXDGRAM + 1];
    int prevlen = MAXDGRAM;
    uint64_t received = 0, bytes = 0;
    int64_t first = 0, last = 0;
    const int64_t end = mono_ns() + static_cast<int64_t>(seconds * 1e9);
    while (!g_stop && mono_ns() < end) {
        pollfd pfd = {sock, POLLIN, 0};
        int rc = poll(&pfd, 1, 20);
        if (rc < 0) {
            if (errno == EINTR)
                continue;
            std::perror("udp_sink: poll");
            break;
        }
        if (rc == 0 || (pfd.revents & POLLIN) == 0)
            continue;
        std::memset(buf, 0, static_cast<size_t>(prevlen) + 1);
        sockaddr_in from{};
        socklen_t flen = sizeof(from);
        ssize_t n = recvfrom(sock, buf, MAXDGRAM, 0, reinterpret_cast<sockaddr*>(&from), &flen);
        if (n < 1) {
            prevlen = MAXDGRAM;
            continue;
        }
        prevlen = static_cast<int>(n);
        buf[n] = '\0';
        last = mono_ns();
        if (received == 0)
            first = last;
        received++;
        bytes += static_cast<uint64_t>(n);
    }
    close(sock);
    std::printf("received=%llu bytes=%llu first_ns=%lld last_ns=%lld\n", static_cast<unsigned long long>(received),
                static_cast<unsigned long long>(bytes), static_cast<long long>(first), static_cast<long long>(last));
    return 0;
}
