// The runtime through its real management socket: module registry commands,
// dispatch errors, reply truncation, bad clients, shutdown and crash report.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <regex>
#include <sstream>
#include <vector>

#include "daemon.h"

namespace {

// The worker threads in registration order, with the processor each asks for.
const std::pair<const char*, int> kThreads[] = {{"cloud", 1},          {"updatelnglat", 2},     {"backup", 1},
                                                {"frelbox_discon", 0}, {"logserver_discon", 0}, {"sshidle", 1},
                                                {"upgrade", 1},        {"usragp", 1}};

class Runtime : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        d_ = new daemon_proc();
        d_->start();
    }
    static void TearDownTestSuite()
    {
        delete d_;
        d_ = nullptr;
    }
    static daemon_proc* d_;
};
daemon_proc* Runtime::d_;

std::string errword(const cloudctl_result& r)
{
    return std::string(r.rec.ca_errmsg, strnlen(r.rec.ca_errmsg, sizeof(r.rec.ca_errmsg)));
}

int connect_unix(const std::string& path)
{
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un sa{};
    sa.sun_family = AF_UNIX;
    std::snprintf(sa.sun_path, sizeof(sa.sun_path), "%s", path.c_str());
    if (connect(fd, reinterpret_cast<sockaddr*>(&sa), sizeof(sa)) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

TEST_F(Runtime, ModuleListInLevelAndTieOrder)
{
    auto r = d_->cmd(nullptr, 387);
    ASSERT_EQ(r.rc, 0);
    ASSERT_EQ(r.rec.ca_errno, 0);
    std::istringstream in(r.text());
    std::vector<std::string> names;
    std::regex line(R"(^(\S+) +(-?\d+) +([0-9a-f]{8}) .*$)");
    for (std::string l; std::getline(in, l);) {
        std::smatch m;
        ASSERT_TRUE(std::regex_match(l, m, line)) << l;
        EXPECT_EQ(m[2], "0") << l;
        names.push_back(m[1]);
    }
    std::vector<std::string> want = {"cmds",      "cpu",     "dbf",       "delaymb",     "thread",    "cloud",
                                     "backup",    "gamecloud", "frelbox", "iptable",     "urldnsgrp", "logserver",
                                     "sshport",   "upgrade", "als_upgrade", "usragp",    "mgmt",      "metrics",
                                     "config"};
    EXPECT_EQ(names, want);
    EXPECT_NE(r.text().find("cmds         0  00000000 "), std::string::npos) << r.text();
    EXPECT_NE(r.text().find("config       0  0d000000 "), std::string::npos) << r.text();
}

TEST_F(Runtime, ModuleStatistics)
{
    auto cpu = d_->cmd(nullptr, 388, "name=cpu");
    EXPECT_EQ(cpu.rec.ca_errno, 0);
    EXPECT_TRUE(cpu.text().rfind("cpurate=", 0) == 0) << cpu.text();

    auto thr = d_->cmd(nullptr, 388, "x=1 name=thread");
    EXPECT_EQ(thr.text(), "thread_count=" + std::to_string(std::size(kThreads)) + "\n");

    for (const char* bad : {"", "name=", "x=1", "word", "x=1 word name=cpu"}) {
        auto r = d_->cmd(nullptr, 388, bad);
        EXPECT_EQ(r.rec.ca_errno, 22) << bad;
        EXPECT_EQ(errword(r), "NO_MODULE") << bad;
        EXPECT_EQ(r.rec.ca_rlen, 0) << bad;
    }

    auto unknown = d_->cmd(nullptr, 388, "name=nosuch");
    EXPECT_EQ(unknown.rec.ca_errno, 0);
    EXPECT_EQ(unknown.rec.ca_rlen, 0);
}

TEST_F(Runtime, ModuleCommands)
{
    auto cpu = d_->cmd("cpu", 2050);
    EXPECT_EQ(cpu.rec.ca_errno, 0);
    EXPECT_TRUE(std::regex_match(cpu.text(), std::regex("cpurate=\\d+\n"))) << cpu.text();

    auto threads = d_->cmd("thread", 2055);
    EXPECT_EQ(threads.rec.ca_errno, 0);
    std::string want_threads;
    for (const auto& [name, cpu] : kThreads)
        want_threads += std::string(name) + " " + std::to_string(cpu) + " 0x[0-9a-f]+ \\(nil\\)\n";
    EXPECT_TRUE(std::regex_match(threads.text(), std::regex(want_threads))) << threads.text();
    EXPECT_EQ(threads.rec.ca_rlen, static_cast<int>(threads.text().size()) + 1);

    // dbf answers with binary 40-byte records; 39 bytes of room hold none.
    auto dbf = d_->cmd("dbf", 2050);
    ASSERT_EQ(dbf.rec.ca_errno, 0);
    EXPECT_EQ(dbf.rec.ca_retval, 1);
    ASSERT_EQ(dbf.data.size(), 40u);
    EXPECT_STREQ(dbf.data.c_str(), "cpu");
    auto small = d_->cmd("dbf", 2050, "", 39);
    EXPECT_EQ(small.rec.ca_errno, 0);
    EXPECT_EQ(small.rec.ca_retval, 0);
    EXPECT_EQ(small.rec.ca_rlen, 0);
}

TEST_F(Runtime, NopIsAnsweredUntouched)
{
    jos_cmdarg_t rec{};
    rec.ca_cmd = 511;
    rec.ca_index1 = 77;
    rec.ca_cookie = 99;
    auto r = cloudctl_send(d_->sock(), rec, "", 4096, true);
    ASSERT_EQ(r.rc, 0);
    EXPECT_EQ(r.rec.ca_errno, 0);
    EXPECT_EQ(r.rec.ca_cmd, 511);
    EXPECT_EQ(r.rec.ca_pos, 0);
    EXPECT_EQ(r.rec.ca_rlen, 4096);
    EXPECT_EQ(r.rec.ca_index1, 77u);
    EXPECT_EQ(r.rec.ca_cookie, 99);
}

TEST_F(Runtime, DispatchErrorWords)
{
    struct {
        const char* module;
        int code;
        int err;
        const char* word;
    } cases[] = {
        {nullptr, 0, 2, "INV_CMD"},       {nullptr, -1, 2, "INV_CMD"},       {nullptr, 513, 2, "INV_CMD"},
        {nullptr, 2047, 2, "INV_CMD"},    {nullptr, 2059, 2, "INV_CMD"},     {nullptr, 4096, 2, "INV_CMD"},
        {nullptr, 4128, 2, "INV_CMD"},    {nullptr, 1, 2, "NO_CMD"},         {nullptr, 512, 2, "NO_CMD"},
        {"nosuch", 2050, 2, "MODULE_NEXIST"}, {"", 2050, 2, "MODULE_NEXIST"}, {"cmds", 2050, 2, "NO_FUNC"},
        {"thread", 2051, 5, "IOCTL_FAIL"},
    };
    for (const auto& c : cases) {
        auto r = d_->cmd(c.module, c.code);
        ASSERT_EQ(r.rc, 0) << c.code;
        EXPECT_EQ(r.rec.ca_errno, c.err) << c.code << " " << (c.module ? c.module : "");
        EXPECT_EQ(errword(r), c.word) << c.code;
    }
}

TEST_F(Runtime, InvalidArgumentLengthOrSegment)
{
    for (auto [alen, shmid] : {std::pair{65536, 0}, {70000, 0}, {0, -1}, {5, -5}}) {
        jos_cmdarg_t rec{};
        rec.ca_cmd = 387;
        rec.ca_alen = alen;
        rec.ca_shmid = shmid;
        rec.ca_rlen = 100;
        auto r = cloudctl_send(d_->sock(), rec, "", 100, shmid == 0 && alen < 65536);
        if (shmid == 0) {
            // make a record with a valid segment but keep the bad length
            jos_cmdarg_t rec2 = rec;
            r = cloudctl_send(d_->sock(), rec2, "", 100, false);
        }
        ASSERT_EQ(r.rc, 0);
        EXPECT_EQ(r.rec.ca_errno, 22) << alen << " " << shmid;
        EXPECT_EQ(errword(r), "invalid alen or shmid");
    }

    // A segment that does not exist, and an argument longer than its segment.
    jos_cmdarg_t rec{};
    rec.ca_cmd = 387;
    rec.ca_shmid = 0x7ffffff0;
    rec.ca_rlen = 100;
    auto gone = cloudctl_send(d_->sock(), rec, "", 100, false);
    EXPECT_EQ(gone.rec.ca_errno, 5);
    EXPECT_EQ(errword(gone), "shminit fail");

    jos_cmdarg_t big{};
    big.ca_cmd = 387;
    big.ca_alen = 60000;
    auto over = cloudctl_send(d_->sock(), big, "x", 4096, true);
    EXPECT_EQ(over.rec.ca_errno, 22);
    EXPECT_EQ(errword(over), "invalid alen or shmid");
}

TEST_F(Runtime, ShortRecordIsRefused)
{
    int fd = connect_unix(d_->sock());
    ASSERT_GE(fd, 0);
    char half[100] = {};
    ASSERT_EQ(send(fd, half, sizeof(half), 0), 100);
    shutdown(fd, SHUT_WR);
    jos_cmdarg_t back{};
    ASSERT_EQ(recv(fd, &back, sizeof(back), MSG_WAITALL), static_cast<ssize_t>(sizeof(back)));
    close(fd);
    EXPECT_EQ(back.ca_errno, 5);
    EXPECT_STREQ(back.ca_errmsg, "can't receive request");
}

TEST_F(Runtime, ReplyIsCutToCapacity)
{
    auto full = d_->cmd(nullptr, 387);
    ASSERT_GT(full.text().size(), 60u);
    auto cut = d_->cmd(nullptr, 387, "", 60);
    EXPECT_EQ(cut.rec.ca_errno, 0);
    EXPECT_EQ(cut.rec.ca_rlen, 59);
    EXPECT_EQ(cut.text(), full.text().substr(0, 59));
}

TEST_F(Runtime, SegmentOfAnotherUserIsRefused)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "needs root to act as another user";
    int shmid = shmget(IPC_PRIVATE, 4096, IPC_CREAT | 0666);
    if (shmid == 0) {
        shmid = shmget(IPC_PRIVATE, 4096, IPC_CREAT | 0666);
        shmctl(0, IPC_RMID, nullptr);
    }
    ASSERT_GT(shmid, 0);
    // Let the other user reach the socket; only the segment check may refuse.
    ASSERT_EQ(chmod(d_->root().c_str(), 0755), 0);
    ASSERT_EQ(chmod(d_->path("/var").c_str(), 0755), 0);
    ASSERT_EQ(chmod(d_->path("/var/tmp").c_str(), 0755), 0);
    ASSERT_EQ(chmod(d_->sock().c_str(), 0666), 0);
    pid_t child = fork();
    if (child == 0) {
        if (setgid(65534) != 0 || setuid(65534) != 0)
            _exit(10);
        jos_cmdarg_t rec{};
        rec.ca_cmd = 387;
        rec.ca_shmid = shmid;
        rec.ca_rlen = 4096;
        auto r = cloudctl_send(d_->sock(), rec, "", 4096, false);
        if (r.rc != 0)
            _exit(11);
        _exit(r.rec.ca_errno == 5 && std::strcmp(r.rec.ca_errmsg, "shminit fail") == 0 ? 0 : 12);
    }
    int status = 0;
    waitpid(child, &status, 0);
    chmod(d_->sock().c_str(), 0660);
    shmctl(shmid, IPC_RMID, nullptr);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST_F(Runtime, SocketFileMode)
{
    struct stat st{};
    ASSERT_EQ(stat(d_->sock().c_str(), &st), 0);
    EXPECT_TRUE(S_ISSOCK(st.st_mode));
    EXPECT_EQ(st.st_mode & 0777, 0660u);
}

TEST_F(Runtime, SilentAndBadClientsDoNotStopTheLoop)
{
    int fd = connect_unix(d_->sock());
    ASSERT_GE(fd, 0);
    EXPECT_TRUE(d_->wait_log("socket no data in 500ms, close it!", std::chrono::seconds(3)));
    char c;
    EXPECT_EQ(recv(fd, &c, 1, 0), 0);  // dropped by the daemon
    close(fd);

    for (int i = 0; i < 1000; i++) {
        jos_cmdarg_t rec{};
        switch (i % 4) {
        case 0:
            rec.ca_cmd = 0;
            break;
        case 1:
            rec.ca_cmd = 2050, rec.ca_alen = 65536;
            break;
        case 2:
            rec.ca_cmd = 2050, std::strcpy(rec.ca_errmsg, "nosuch");
            break;
        case 3:
            rec.ca_cmd = 4096;
            break;
        }
        auto r = cloudctl_send(d_->sock(), rec, "", 256, i % 4 != 1);
        ASSERT_EQ(r.rc, 0) << i;
        ASSERT_NE(r.rec.ca_errno, 0) << i;
    }
    auto good = d_->cmd("cpu", 2050);
    EXPECT_EQ(good.rec.ca_errno, 0);
    EXPECT_EQ(good.text().rfind("cpurate=", 0), 0u);
}

TEST_F(Runtime, CommandLineClient)
{
    std::string cmd = std::string(CLOUDCTL_BIN) + " -r " + d_->root() + " 387 2>&1";
    FILE* p = popen(cmd.c_str(), "r");
    ASSERT_NE(p, nullptr);
    char buf[4096] = {};
    size_t n = fread(buf, 1, sizeof(buf) - 1, p);
    int st = pclose(p);
    EXPECT_EQ(WEXITSTATUS(st), 0);
    EXPECT_EQ(std::string(buf, n).rfind("cmds ", 0), 0u);

    cmd = std::string(CLOUDCTL_BIN) + " -r " + d_->root() + " nosuch 2050 2>&1";
    p = popen(cmd.c_str(), "r");
    n = fread(buf, 1, sizeof(buf) - 1, p);
    st = pclose(p);
    EXPECT_EQ(WEXITSTATUS(st), 2);
    EXPECT_EQ(std::string(buf, n), "error 2 MODULE_NEXIST\n");

    cmd = std::string(CLOUDCTL_BIN) + " -r " + d_->root() + " -b dbf 2050 2>&1";
    p = popen(cmd.c_str(), "r");
    n = fread(buf, 1, sizeof(buf) - 1, p);
    st = pclose(p);
    EXPECT_EQ(WEXITSTATUS(st), 0);
    EXPECT_TRUE(std::regex_match(std::string(buf, n), std::regex("cpu \\d+\n"))) << buf;
}

TEST(Lifecycle, TermStopsWithinASecond)
{
    daemon_proc d;
    d.start();
    auto t0 = std::chrono::steady_clock::now();
    int status = d.stop(std::chrono::seconds(5));
    auto took = std::chrono::steady_clock::now() - t0;
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_LT(took, std::chrono::seconds(1));
    EXPECT_NE(d.log().find("thread cloud exited!\nthread updatelnglat exited!\n"), std::string::npos) << d.log();
}

TEST(Lifecycle, ConfigurationLinesAreCheckedAtStart)
{
    daemon_proc d;
    write_file(d.path("/verify/etc/verify.conf"),
               "# comment\n"
               "nospace\n"
               "key\tvalue\n"
               "keyonly   \n" +
                   std::string(64, 'k') + " value\n" +
                   "ENDCONFIG\n"
                   "after\n");
    d.start();
    std::string log = d.log();
    EXPECT_NE(log.find("Warning: invalid line 2\n"), std::string::npos) << log;
    EXPECT_NE(log.find("loadcfg: invalid line 4\n"), std::string::npos) << log;
    EXPECT_NE(log.find("Warning: invalid tag at line 5\n"), std::string::npos) << log;
    EXPECT_EQ(log.find("line 3"), std::string::npos) << log;
    EXPECT_EQ(log.find("line 6"), std::string::npos) << log;
    d.stop();
}

TEST(Lifecycle, SegvWritesTheDump)
{
    daemon_proc d;
    d.start();
    int status = d.signal_and_wait(SIGSEGV, std::chrono::seconds(10));
    EXPECT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(WTERMSIG(status), SIGSEGV);
    std::string dump = read_file(d.path("/var/tmp/cloud.dump"));
    std::vector<std::string> lines;
    std::istringstream in(dump);
    for (std::string l; std::getline(in, l);)
        lines.push_back(l);
    ASSERT_GE(lines.size(), 32u) << dump;
    EXPECT_EQ(lines[0], "Segmentation Fault!");
    EXPECT_TRUE(std::regex_match(lines[1], std::regex(R"(Image built at \d{8}\.\d{6}, osver=-?\d+\.-?\d+)")))
        << lines[1];
    EXPECT_EQ(lines[2], "info.si_signo = 11");
    const char* labels[] = {"info.si_errno = ", "info.si_code  = ", "info.si_addr  = ", "info.si_trapno= ",
                            "info.si_pid   = ", "info.si_uid   = ", "gs  = 0x", "es  = 0x", "ds  = 0x",
                            "edi = 0x", "esi = 0x", "rdx = 0x", "rcs = 0x", "rbp = 0x", "rsp = 0x", "rbx = 0x",
                            "rdx = 0x", "rcx = 0x", "rax = 0x", "trapno = 0x", "err = 0x", "rip = 0x",
                            "cs  = 0x", "rflags = 0x", "ss  = 0x", "Stack trace:"};
    for (size_t i = 0; i < std::size(labels); i++)
        EXPECT_EQ(lines[3 + i].rfind(labels[i], 0), 0u) << i << ": " << lines[3 + i];
    EXPECT_EQ(lines[7], "info.si_pid   = " + std::to_string(getpid()));
    size_t k = 3 + std::size(labels);
    while (k < lines.size() && lines[k].rfind(" *0x", 0) == 0)
        k++;
    EXPECT_LE(k - (3 + std::size(labels)), 5u);
    ASSERT_EQ(lines.size(), k + 3);
    EXPECT_EQ(lines[k], "End of stack trace");
    EXPECT_EQ(lines[k + 1], "curthread=MGMT");
    EXPECT_EQ(lines[k + 2], "curcpu=0");
}

}  // namespace

TEST(Lifecycle, TellsTheServiceManagerWhenReadyAndStopping)
{
    daemon_proc d;
    const std::string path = d.path("/notify");
    int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un sa{};
    sa.sun_family = AF_UNIX;
    std::snprintf(sa.sun_path, sizeof(sa.sun_path), "%s", path.c_str());
    ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&sa), sizeof(sa)), 0);
    d.setenv("NOTIFY_SOCKET", path);
    d.start();
    auto next = [&] {
        pollfd p = {fd, POLLIN, 0};
        char buf[64] = {};
        if (poll(&p, 1, 5000) != 1 || recv(fd, buf, sizeof(buf) - 1, 0) < 0)
            return std::string("none");
        return std::string(buf);
    };
    EXPECT_EQ(next(), "READY=1");
    EXPECT_EQ(d.cmd(nullptr, 388, "name=cpu").rec.ca_errno, 0);
    EXPECT_EQ(d.stop(), 0);
    EXPECT_EQ(next(), "STOPPING=1");
    close(fd);
}
