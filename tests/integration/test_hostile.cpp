// Input meant to trick or stall the daemon: appliance texts that try to add
// rows or columns to a listing, relay files it must not read, and a stop
// request in the middle of a long command.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "daemon.h"
#include "db.h"
#include "gateway.h"

namespace {

using namespace std::chrono_literals;

std::vector<std::string> lines(const std::string& text)
{
    std::vector<std::string> out;
    size_t at = 0;
    for (size_t nl; (nl = text.find('\n', at)) != std::string::npos; at = nl + 1)
        out.push_back(text.substr(at, nl - at));
    if (at < text.size())
        out.push_back(text.substr(at));
    return out;
}

class Hostile : public ::testing::Test {
protected:
    void SetUp() override
    {
        db_reset();
        d_.start();
    }
    std::string run(int code, const std::string& args) { return d_.cmd("cloud", code, args).text(); }

    daemon_proc d_;
};

TEST_F(Hostile, ApplianceTextsNeverAddRowsOrColumns)
{
    test_gateway g(d_.device_port());
    auto r = test_gateway::status("EVIL00000001");
    std::snprintf(r.version, sizeof(r.version), "v\n1|FORGED|row\r|");
    std::snprintf(r.license_id83, sizeof(r.license_id83), "L|x\ny");
    std::snprintf(r.grpname, sizeof(r.grpname), "g\n|h");
    std::snprintf(r.sys_name, sizeof(r.sys_name), "name|cut\nhere");
    r.current_users = 100;  // at the limit: the info text is printed too
    g.send(r);
    g.send(test_gateway::status("GOOD00000001"));
    ASSERT_TRUE(wait_until([&] { return run(2050, "").find("device_total=2\n") != std::string::npos; }, 5s));
    ASSERT_EQ(run(2053, "license_id12=EVIL00000001 grpid=1 sysname=ok address=a|b"), "ok");

    for (const char* args : {"", "sortname=10", "sortname=1 sortdesc=1", "showequal=1", "expire=2"}) {
        auto rows = lines(run(2055, args));
        ASSERT_GE(rows.size(), 5u) << args;
        size_t devices = rows.size() - 5;  // the header and four totals
        EXPECT_EQ(devices, std::string(args) == "showequal=1" ? 1u : 2u) << args;
        for (size_t i = 1; i <= devices; i++)
            EXPECT_EQ(std::count(rows[i].begin(), rows[i].end(), '|'), 31) << args << ": " << rows[i];
    }
    // The name keeps its own cleaning: cut at the first '|'.
    EXPECT_EQ(run(2054, "license_id12=GOOD00000001"), "name=gw-GOOD00000001\n");
    EXPECT_NE(run(2055, "sch=evil").find("|name|"), std::string::npos);
    // The version is stored as sent; only the listing replaces the breaks.
    ASSERT_TRUE(d_.db_settled());
    EXPECT_EQ(device_row("EVIL00000001", "version"), "v\n1|FORGED|row\r|");
}

TEST_F(Hostile, RelayReadsOnlyThePeersOwnRegularFiles)
{
    const std::string fifo = d_.path("/tmp/fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const std::string big = d_.path("/tmp/big");
    write_file(big, std::string(2 << 20, 'x'));
    for (const std::string& f : {std::string("/dev/zero"), fifo, big}) {
        auto t0 = std::chrono::steady_clock::now();
        EXPECT_EQ(run(2053, "wxcmd=1 file=" + f), "ERR_NOCMD") << f;
        EXPECT_LT(std::chrono::steady_clock::now() - t0, 2s) << f;
    }
    EXPECT_NE(run(2050, "").find("device_total=0\n"), std::string::npos);

    // A client that is not root: only its own files.
    const std::string own = d_.path("/tmp/own"), roots = d_.path("/tmp/roots");
    write_file(own, "deny\n");
    write_file(roots, "deny\n");
    ASSERT_EQ(chown(own.c_str(), 65534, 65534), 0);
    for (const std::string& dir : {d_.root(), d_.path("/var"), d_.path("/var/tmp"), d_.path("/tmp")})
        chmod(dir.c_str(), 0755);
    chmod(d_.sock().c_str(), 0666);
    auto as_nobody = [&](const std::string& file) {
        int p[2];
        if (pipe(p) != 0)
            return std::string("pipe");
        pid_t pid = fork();
        if (pid == 0) {
            close(p[0]);
            std::string out = "setuid";
            if (setgid(65534) == 0 && setuid(65534) == 0)
                out = cloudctl_command(d_.sock(), "cloud", 2053, "wxcmd=1 file=" + file, 4096).text();
            ssize_t w = write(p[1], out.data(), out.size());
            _exit(w < 0);
        }
        close(p[1]);
        std::string out;
        char buf[256];
        for (ssize_t n; (n = read(p[0], buf, sizeof(buf))) > 0;)
            out.append(buf, static_cast<size_t>(n));
        close(p[0]);
        waitpid(pid, nullptr, 0);
        return out;
    };
    EXPECT_EQ(as_nobody(roots), "ERR_NOCMD");
    EXPECT_EQ(as_nobody(own), "ok");
}

TEST_F(Hostile, TermEndsALongCommandWithinASecond)
{
    test_gateway g(d_.device_port());
    for (int i = 1; i <= 100; i++) {
        char id[16];
        std::snprintf(id, sizeof(id), "LONG%08d", i);
        g.send(test_gateway::status(id));
    }
    ASSERT_TRUE(wait_until([&] { return run(2050, "").find("device_total=100\n") != std::string::npos; }, 5s));
    std::string text;
    for (int i = 0; i < 10000; i++)
        text += "deny line " + std::to_string(i) + "\n";
    write_file(d_.path("/tmp/long"), text);
    // 10000 lines to 100 gateways: far longer than a second.
    std::thread cmd([&] { d_.cmd("cloud", 2053, "wxcmd=1 file=" + d_.path("/tmp/long")); });
    ASSERT_TRUE(g.command(5000).has_value());
    auto t0 = std::chrono::steady_clock::now();
    int status = d_.stop(5s);
    auto took = std::chrono::steady_clock::now() - t0;
    cmd.join();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_LT(took, 1s);
}

}  // namespace
