// Many and misbehaving clients of the management socket: silent, slow,
// vanishing and garbage-sending connections never hold up another client's
// command, and every one of them is let go.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <vector>

#include "daemon.h"

namespace {

using namespace std::chrono;

const std::string NODATA = "socket no data in 500ms, close it!";

// Connects without waiting for the daemon: fails rather than queue when the
// listen queue is full.
int connect_now(const std::string& path)
{
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0);
    sockaddr_un sa{};
    sa.sun_family = AF_UNIX;
    std::snprintf(sa.sun_path, sizeof(sa.sun_path), "%s", path.c_str());
    if (connect(fd, reinterpret_cast<sockaddr*>(&sa), sizeof(sa)) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

std::vector<int> connect_many(const daemon_proc& d, int n)
{
    std::vector<int> fds;
    for (int i = 0; i < n; i++)
        fds.push_back(connect_now(d.sock()));
    return fds;
}

void close_all(std::vector<int>& fds)
{
    for (int fd : fds)
        if (fd >= 0)
            close(fd);
    fds.clear();
}

// -1: nothing yet; otherwise the bytes the daemon sent before ending the
// stream (0: dropped without a reply).
long dropped_after(int fd)
{
    char buf[512];
    long total = 0;
    for (;;) {
        ssize_t n = recv(fd, buf, sizeof(buf), MSG_DONTWAIT);
        if (n == 0)
            return total;
        if (n < 0)
            return -1;
        total += n;
    }
}

bool all_dropped(const std::vector<int>& fds, milliseconds limit)
{
    return wait_until(
        [&] {
            for (int fd : fds)
                if (fd >= 0 && dropped_after(fd) < 0)
                    return false;
            return true;
        },
        limit);
}

size_t count(const std::string& hay, const std::string& needle)
{
    size_t n = 0;
    for (size_t p = hay.find(needle); p != std::string::npos; p = hay.find(needle, p + 1))
        n++;
    return n;
}

size_t open_fds(pid_t pid)
{
    size_t n = 0;
    for ([[maybe_unused]] auto& e : std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/fd"))
        n++;
    return n;
}

// A command record with its argument in a private segment, for clients that
// send it by hand.
struct raw_command {
    int shmid;
    jos_cmdarg_t rec{};
    raw_command(int code, const char* module, const std::string& args)
    {
        shmid = shmget(IPC_PRIVATE, 4096, IPC_CREAT | 0600);
        if (shmid == 0) {  // the daemon takes 0 for "no segment"
            shmid = shmget(IPC_PRIVATE, 4096, IPC_CREAT | 0600);
            shmctl(0, IPC_RMID, nullptr);
        }
        void* p = shmat(shmid, nullptr, 0);
        std::memcpy(p, args.c_str(), args.size() + 1);
        shmdt(p);
        rec.ca_cmd = code;
        rec.ca_alen = static_cast<int32_t>(args.size());
        rec.ca_shmid = shmid;
        rec.ca_rlen = 4096;
        if (module != nullptr)
            std::snprintf(rec.ca_errmsg, sizeof(rec.ca_errmsg), "%s", module);
    }
    ~raw_command() { shmctl(shmid, IPC_RMID, nullptr); }
    std::string reply() const
    {
        auto* p = static_cast<char*>(shmat(shmid, nullptr, SHM_RDONLY));
        std::string s(p);
        shmdt(p);
        return s;
    }
    const char* bytes() const { return reinterpret_cast<const char*>(&rec); }
};

bool send_bytes(int fd, const void* p, size_t n)
{
    return send(fd, p, n, MSG_NOSIGNAL) == static_cast<ssize_t>(n);
}

// The whole record back, within a generous time.
bool recv_record(int fd, jos_cmdarg_t* out)
{
    pollfd pfd{fd, POLLIN, 0};
    auto* p = reinterpret_cast<char*>(out);
    size_t got = 0;
    while (got < sizeof(*out) && poll(&pfd, 1, 5000) > 0) {
        ssize_t n = recv(fd, p + got, sizeof(*out) - got, 0);
        if (n <= 0)
            return false;
        got += static_cast<size_t>(n);
    }
    return got == sizeof(*out);
}

// Silent clients fill the listen queue and the daemon's table of pending
// connections; statistics still answer at once, and every silent client is
// dropped at its deadline with one line each.
TEST(MgmtClients, SilentClientsDoNotDelayCommands)
{
    daemon_proc d;
    d.start();

    std::vector<int> idle = connect_many(d, 100);
    EXPECT_EQ(std::count(idle.begin(), idle.end(), -1), 0) << "clients refused by the listen queue";

    auto t0 = steady_clock::now();
    auto stat = d.cmd("cloud", 2050);
    auto took = duration_cast<microseconds>(steady_clock::now() - t0);
    auto cpu = d.cmd(nullptr, 388, "name=cpu");
    std::printf("cloud 2050 with 100 silent clients pending: %.3f ms\n", took.count() / 1000.0);
    ASSERT_EQ(stat.rc, 0) << stat.error;
    EXPECT_EQ(stat.rec.ca_errno, 0);
    EXPECT_EQ(stat.text().rfind("device_pool=", 0), 0u) << stat.text();
    EXPECT_EQ(cpu.text().rfind("cpurate=", 0), 0u) << cpu.text();
    EXPECT_LT(took, seconds(1));

    // Each silent client gets no reply, only the end of the stream, and one
    // line in the log.
    EXPECT_TRUE(all_dropped(idle, seconds(10)));
    EXPECT_EQ(std::count_if(idle.begin(), idle.end(), [](int fd) { return fd >= 0 && dropped_after(fd) != 0; }), 0)
        << "silent clients that got a reply or were never dropped";
    EXPECT_TRUE(wait_until([&] { return count(d.log(), NODATA) == 100; }, seconds(5))) << count(d.log(), NODATA);
    close_all(idle);

    // More than the table holds: the oldest are pushed out, a command is
    // still answered, and nothing is left open behind them.
    const size_t fds_before = open_fds(d.pid());
    idle = connect_many(d, 300);
    EXPECT_EQ(std::count(idle.begin(), idle.end(), -1), 0);
    auto more = d.cmd(nullptr, 388, "name=cpu");
    EXPECT_EQ(more.text().rfind("cpurate=", 0), 0u) << more.text();
    EXPECT_TRUE(all_dropped(idle, seconds(10)));
    close_all(idle);
    EXPECT_TRUE(wait_until([&] { return open_fds(d.pid()) == fds_before; }, seconds(5)))
        << open_fds(d.pid()) << " descriptors, " << fds_before << " before";

    // Clients still pending do not hold up the exit.
    idle = connect_many(d, 50);
    t0 = steady_clock::now();
    int status = d.stop(seconds(5));
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_LT(steady_clock::now() - t0, seconds(1));
    close_all(idle);
}

// A record may come in pieces; one that stops half way holds up nobody and
// is dropped at its deadline without a reply. Vanishing and garbage clients
// are answered or dropped one by one, and the loop carries on.
TEST(MgmtClients, SlowVanishingAndGarbageClients)
{
    daemon_proc d;
    d.start();

    raw_command stalled(388, nullptr, "name=cpu"), pieces(388, nullptr, "name=thread");
    int a = connect_now(d.sock()), c = connect_now(d.sock());
    ASSERT_GE(a, 0);
    ASSERT_GE(c, 0);
    ASSERT_TRUE(send_bytes(a, stalled.bytes(), 104));
    ASSERT_TRUE(send_bytes(c, pieces.bytes(), 100));

    auto other = d.cmd("cpu", 2050);
    EXPECT_EQ(other.text().rfind("cpurate=", 0), 0u) << other.text();
    EXPECT_EQ(dropped_after(a), -1) << "the stalled client was settled before the other one was answered";

    ASSERT_TRUE(send_bytes(c, pieces.bytes() + 100, 8));
    ASSERT_TRUE(send_bytes(c, pieces.bytes() + 108, sizeof(jos_cmdarg_t) - 108));
    jos_cmdarg_t back{};
    ASSERT_TRUE(recv_record(c, &back));
    EXPECT_EQ(back.ca_errno, 0);
    EXPECT_EQ(pieces.reply().rfind("thread_count=", 0), 0u);
    close(c);

    EXPECT_TRUE(all_dropped({a}, seconds(5)));
    EXPECT_EQ(dropped_after(a), 0);
    close(a);
    EXPECT_TRUE(d.wait_log(NODATA, seconds(5)));

    // Vanishing clients: connect and close, with or without a piece of a
    // record.
    for (int i = 0; i < 200; i++) {
        int fd = connect_now(d.sock());
        ASSERT_GE(fd, 0) << i;
        if (i % 2 != 0)
            send_bytes(fd, stalled.bytes(), static_cast<size_t>(i % 208));
        close(fd);
    }

    // Garbage, each followed by the end of the client's sending side.
    raw_command nop(511, nullptr, "");
    std::string ff(208, '\xff'), aa(208, 'A'), shortrec(50, 'x'), longrec(nop.bytes(), sizeof(jos_cmdarg_t));
    longrec += std::string(300, 'z');
    const struct {
        const std::string& bytes;
        int err;
        const char* word;
    } cases[] = {
        {ff, 22, "invalid alen or shmid"},  // negative shmid
        {aa, 22, "invalid alen or shmid"},  // alen far above the buffer
        {shortrec, 5, "can't receive request"},
        {longrec, 0, ""},  // only the first record counts
    };
    for (const auto& g : cases) {
        int fd = connect_now(d.sock());
        ASSERT_GE(fd, 0);
        ASSERT_TRUE(send_bytes(fd, g.bytes.data(), g.bytes.size()));
        shutdown(fd, SHUT_WR);
        jos_cmdarg_t r{};
        ASSERT_TRUE(recv_record(fd, &r)) << g.word;
        close(fd);
        EXPECT_EQ(r.ca_errno, g.err) << g.word;
        EXPECT_STREQ(r.ca_errmsg, g.word);
    }

    auto after = d.cmd("cloud", 2050);
    EXPECT_EQ(after.rec.ca_errno, 0);
    EXPECT_EQ(after.text().rfind("device_pool=", 0), 0u) << after.text();
    EXPECT_EQ(d.stop(), 0);
}

}  // namespace
