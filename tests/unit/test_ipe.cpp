// Unit tests for the socket helpers and the string helpers of lib/.
#include "ipe_socket.h"
#include "ipe_string.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

TEST(IpeStr2ip, ShorthandBoundsAndMalformedText)
{
    struct { const char* text; uint32_t want; } cases[] = {  // want 0: refused
        {"192.168.1.2", 0xC0A80102u}, {"255.255.255.255", 0xFFFFFFFFu}, {"10.1", 0x0A000001u},
        {"1.65535", 0x0100FFFFu}, {"1.16777215", 0x01FFFFFFu}, {"1.2.65535", 0x0102FFFFu},
        {"4294967295", 0xFFFFFFFFu}, {"16909060", 0x01020304u}, {"010.001.000.009", 0x0A010009u},
        {"256.1.1.1", 0}, {"1.256.1.1", 0}, {"1.2.3.256", 0}, {"1.2.65536", 0}, {"1.16777216", 0},
        {"4294967296", 0}, {"0x10", 0}, {"-1", 0}, {"1.2.3.4 ", 0}, {" 1.2.3.4", 0}, {nullptr, 0},
        // Long digit runs must not wrap around into a small valid value.
        {"18446744073709551617", 0}, {"1.2.3.18446744073709551616", 0},
        {"1.2.3.4.5", 0}, {"1.2.3.4.", 0}, {"1..2", 0}, {".1", 0}, {"", 0}, {"abc", 0},
    };
    for (const auto& c : cases)
        EXPECT_EQ(ipe_str2ip(c.text), c.want) << (c.text ? c.text : "(null)");
}

TEST(IpeStrncmp, BoundedUnsignedComparisonAndStreq)
{
    struct { const char *a, *b; int n, want; } cases[] = {
        {"abc", "abc", 10, 0}, {"abcX", "abcY", 3, 0}, {"abc", "abd", 3, -1}, {"abd", "abc", 3, 1},
        {"ab", "abc", 5, -'c'}, {"abc", "ab", 5, 'c'}, {"", "", 4, 0}, {"x", "y", 0, 0}, {"x", "y", -3, 0},
        {"\xe4", "a", 1, 0xe4 - 'a'}, {"a\xff", "a\x01", 2, 0xfe},  // high-bit bytes order after ASCII
    };
    for (const auto& c : cases) {
        EXPECT_EQ(ipe_strncmp(c.a, c.b, c.n), c.want) << c.a << " vs " << c.b << " n=" << c.n;
        EXPECT_EQ(ipe_streq(c.a, c.b, c.n), c.want == 0 ? 1 : 0) << c.a << " vs " << c.b;
    }
    const char shorty[2] = {'q', '\0'};  // reading stops at the common end
    EXPECT_EQ(ipe_strncmp(shorty, "q", 1000), 0);
}

struct TempDir {
    std::string path;
    TempDir() { char t[] = "/tmp/ipe_test.XXXXXX"; path = mkdtemp(t) ? t : "/nonexistent"; }
    ~TempDir() { std::error_code ec; std::filesystem::remove_all(path, ec); }
    std::string file(const char* name) const { return path + "/" + name; }
};

struct Fd {
    int fd;
    explicit Fd(int f) : fd(f) {}
    ~Fd() { if (fd >= 0) close(fd); }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
};

int sock_opt(int fd, int name)
{
    int v = -1;
    socklen_t len = sizeof(v);
    getsockopt(fd, SOL_SOCKET, name, &v, &len);
    return v;
}

bool is_nonblocking(int fd) { return (fcntl(fd, F_GETFL) & O_NONBLOCK) != 0; }

sockaddr_in local_inet(int fd)
{
    sockaddr_in sin{};
    socklen_t len = sizeof(sin);
    getsockname(fd, reinterpret_cast<sockaddr*>(&sin), &len);
    return sin;
}

// A loopback port that was free a moment ago (0 if none could be had).
int free_port(int type)
{
    Fd s(socket(AF_INET, type, 0));
    sockaddr_in sin{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    bind(s.fd, reinterpret_cast<sockaddr*>(&sin), sizeof(sin));
    return ntohs(local_inet(s.fd).sin_port);
}

template <typename F>
std::string captured(F&& f)
{
    testing::internal::CaptureStdout();
    f();
    return testing::internal::GetCapturedStdout();
}

TEST(IpeSocketListen, UdpPrefixAndUdpListenGiveDatagramSockets)
{
    const int port = free_port(SOCK_DGRAM);
    ASSERT_GT(port, 0);
    std::string lo = "udp:127.0.0.1:" + std::to_string(port), any = "udp:0.0.0.0:" + std::to_string(port);
    // SO_REUSEPORT lets all three share the port. 0.0.0.0, which ipe_str2ip
    // cannot tell from a failure, binds to any, as udp_listen does.
    Fd s1(socket_listen(lo.data())), s2(socket_listen(any.data())), s3(udp_listen(port));
    for (const Fd* s : {&s1, &s2, &s3}) {
        ASSERT_GE(s->fd, 0);
        EXPECT_EQ(sock_opt(s->fd, SO_TYPE), SOCK_DGRAM);
        EXPECT_TRUE(is_nonblocking(s->fd));
        EXPECT_EQ(ntohs(local_inet(s->fd).sin_port), port);
    }
    EXPECT_EQ(ntohl(local_inet(s1.fd).sin_addr.s_addr), INADDR_LOOPBACK);
    EXPECT_EQ(ntohl(local_inet(s2.fd).sin_addr.s_addr), INADDR_ANY);
    EXPECT_EQ(ntohl(local_inet(s3.fd).sin_addr.s_addr), INADDR_ANY);
    TempDir dir;
    std::string upath = "udp:" + dir.file("dgram");
    Fd u(socket_listen(upath.data()));
    ASSERT_GE(u.fd, 0);
    EXPECT_EQ(sock_opt(u.fd, SO_DOMAIN), AF_UNIX);
    EXPECT_EQ(sock_opt(u.fd, SO_TYPE), SOCK_DGRAM);
}

TEST(IpeSocketListen, RefusesInvalidAddresses)
{
    const std::vector<std::string> bad = {
        "127.0.0.1:0", "127.0.0.1:65536", "127.0.0.1:", "127.0.0.1:80x", "127.0.0.1:-1",
        "127.0.0.1:99999999999999999999", "0:4000", "udp:0:4000", "1.2.3.4.5:4000", "localhost:4000", "",
        "udp:", "/tmp/" + std::string(sizeof(sockaddr_un::sun_path) - 5, 'x'),  // no room for the terminator
    };
    for (const std::string& b : bad) {
        std::string l = b, c = b;
        int fd = 0;
        EXPECT_EQ(captured([&] { fd = socket_listen(l.data()); }), "socket_listen: invalid path\n") << b;
        EXPECT_EQ(fd, -1) << b;
        EXPECT_EQ(captured([&] { fd = socket_connect(c.data()); }), "socket_connect: invalid path\n") << b;
        EXPECT_EQ(fd, -1) << b;
    }
    TempDir dir;
    std::string path = dir.file("no/such/dir/sock");
    int fd = 0;
    EXPECT_EQ(captured([&] { fd = socket_listen(path.data()); }),
              std::string("bind unix fail ") + std::strerror(ENOENT) + "\n");
    EXPECT_EQ(fd, -1);
}

TEST(IpeSocketListen, UnixStreamReplacesStaleFileAndAcceptReportsOnlyRealErrors)
{
    TempDir dir;
    std::string path = dir.file("mgmt.d");
    std::FILE* f = std::fopen(path.c_str(), "w");
    ASSERT_NE(f, nullptr);
    std::fclose(f);
    Fd ls(socket_listen(path.data()));
    ASSERT_GE(ls.fd, 0);
    struct stat st{};
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_TRUE(S_ISSOCK(st.st_mode));
    EXPECT_EQ(sock_opt(ls.fd, SO_TYPE), SOCK_STREAM);
    EXPECT_EQ(sock_opt(ls.fd, SO_ACCEPTCONN), 1);
    EXPECT_TRUE(is_nonblocking(ls.fd));

    // Nothing pending: -1, and "would block" is not worth a message.
    int fd = 0;
    for (int timeout : {1, 0}) {
        EXPECT_EQ(captured([&] { fd = socket_accept(ls.fd, timeout); }), "");
        EXPECT_EQ(fd, -1);
    }
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    Fd r(p[0]), w(p[1]);
    const std::string notsock = std::string(std::strerror(ENOTSOCK)) + "(" + std::to_string(ENOTSOCK) + ")\n";
    EXPECT_EQ(captured([&] { fd = socket_accept(r.fd, 0); }), "socket_accept: " + notsock);
    EXPECT_EQ(fd, -1);
    Fd again(socket_listen(path.data()));  // a live socket file is taken over too
    EXPECT_GE(again.fd, 0);
}

TEST(IpeSocketTransfer, TcpAndUnixExchange)
{
    TempDir dir;
    const int port = free_port(SOCK_STREAM);
    ASSERT_GT(port, 0);
    for (const std::string& addr : {"127.0.0.1:" + std::to_string(port), dir.file("xfer")}) {
        std::string laddr = addr, caddr = "udp:" + addr;  // connect ignores "udp:": always a stream
        Fd ls(socket_listen(laddr.data()));
        ASSERT_GE(ls.fd, 0) << addr;
        Fd c(socket_connect(caddr.data()));
        ASSERT_GE(c.fd, 0) << addr;
        Fd s(socket_accept(ls.fd, 1000));
        ASSERT_GE(s.fd, 0) << addr;

        // A record, several 1400-byte pieces and a remainder, and far more
        // than a socket buffer holds (the sender runs alongside).
        for (size_t n : {size_t{208}, size_t{5000}, size_t{3 * 1024 * 1024 + 123}}) {
            std::vector<char> out(n), in(n);
            for (size_t i = 0; i < n; i++)
                out[i] = static_cast<char>(i * 131 + 7);
            int send_rc = 1;
            std::thread tx([&] { send_rc = socket_send(c.fd, out.data(), static_cast<int>(n)); });
            EXPECT_EQ(socket_receive(s.fd, in.data(), static_cast<int>(n)), 0) << addr << " " << n;
            tx.join();
            EXPECT_EQ(send_rc, 0) << addr << " " << n;
            EXPECT_TRUE(in == out) << addr << " " << n;
        }
        EXPECT_EQ(socket_receive(s.fd, nullptr, 0), 0);
        EXPECT_EQ(socket_send(c.fd, nullptr, 0), 0);
    }
    std::string gone = dir.file("xfer");  // its listener is closed
    unlink(gone.c_str());
    EXPECT_EQ(socket_connect(gone.data()), -1);
}

TEST(IpeSocketTransfer, ReadableAndReceiveFailures)
{
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
    Fd a(sv[0]), peer(sv[1]);
    char buf[208] = {};
    const timeval tv{3, 0};  // should a receive ever block: a slow failure, not a hang
    ASSERT_EQ(setsockopt(a.fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv)), 0);
    EXPECT_EQ(socket_readable(a.fd, 1), 0);

    // Part of a record, then silence: the call gives up within the allowed waits.
    ASSERT_EQ(write(peer.fd, buf, 100), 100);
    EXPECT_EQ(socket_readable(a.fd, 1000), 1);
    using clock = std::chrono::steady_clock;
    const auto t0 = clock::now();
    EXPECT_EQ(socket_receive(a.fd, buf, 208), -1);
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(clock::now() - t0).count();
    EXPECT_GE(ms, 150);
    EXPECT_LT(ms, 5 * 200 + 500);

    close(peer.fd);
    peer.fd = -1;
    EXPECT_EQ(socket_receive(a.fd, buf, 208), -1);  // end of stream: at once
    EXPECT_EQ(socket_send(a.fd, buf, 208), -1);     // and no SIGPIPE
}

}  // namespace
