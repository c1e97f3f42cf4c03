// The simulator against a real daemon: every appliance role vtsim plays
// shows up where the daemon keeps it (log servers, game nodes, tunnels, a
// collected key, table reports, user applications), and what the daemon
// sends back is answered (a close request, table pushes marked done or
// failed, distribution notices, a request to report again).
#include <gtest/gtest.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <algorithm>
#include <string>
#include <vector>

#include "daemon.h"
#include "db.h"

extern char** environ;

namespace {

using namespace std::chrono_literals;

// Runs vtsim with ARGS, its output into OUT; the process id.
pid_t spawn_vtsim(std::vector<std::string> args, const std::string& out)
{
    std::string bin = VTSIM_BIN;
    std::vector<char*> argv{bin.data()};
    for (std::string& a : args)
        argv.push_back(a.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_addopen(&fa, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_adddup2(&fa, 1, 2);
    pid_t pid = -1;
    posix_spawn(&pid, bin.c_str(), &fa, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&fa);
    return pid;
}

int wait_exit(pid_t pid)
{
    int st = -1;
    waitpid(pid, &st, 0);
    return st;
}

// Field N (0-based) of the rows of TEXT that begin with PREFIX, sorted and
// joined by ',': which states a set of appliances is in, whatever their order.
std::string fields(const std::string& text, const std::string& prefix, size_t n)
{
    std::vector<std::string> v;
    for (const std::string& row : split(text, '\n'))
        if (row.rfind(prefix, 0) == 0) {
            std::vector<std::string> f = split(row, ' ');
            v.push_back(n < f.size() ? f[n] : "-");
        }
    std::sort(v.begin(), v.end());
    std::string out;
    for (const std::string& f : v)
        out += (out.empty() ? "" : ",") + f;
    return out;
}

TEST(VtsimRoles, EveryRoleShowsUpAndIsAnswered)
{
    db_reset();
    db_exec("drop table if exists vtlog.logserver_list");
    daemon_proc d;
    d.start();
    const std::string port = std::to_string(d.device_port());
    auto text = [&](const char* module, int code, const std::string& args = "") {
        return d.cmd(module, code, args).text();
    };

    // One round of log servers (with their keys) and of game nodes.
    for (const std::vector<std::string>& fam : {std::vector<std::string>{"--family", "log", "--rsa"},
                                                 std::vector<std::string>{"--family", "game"}}) {
        std::vector<std::string> run = fam;
        run.insert(run.end(), {"--port", port, "--count", "2", "--reports", "1", "--linger", "0"});
        EXPECT_EQ(wait_exit(spawn_vtsim(run, d.path("/tmp/vtsim-" + fam[1]))), 0) << fam[1];
    }
    // Gateways with every gateway role, reporting every 0.2 s.
    const std::string out = d.path("/tmp/vtsim-gw");
    pid_t gw = spawn_vtsim({"--port", port, "--count", "2", "--interval", "0.2", "--duration", "60", "--tunnels", "3",
                            "--tables", "--usrapps", "2", "--push-fail", "0.5", "--linger", "0"},
                           out);
    ASSERT_GT(gw, 0);

    struct {
        const char* what;
        const char* module;
        std::string args;
        std::vector<std::string> rows;
    } shows[] = {
        {"log servers", "logserver", "expire=2", {"LOG000000001 0 ", " sim-log-2 V1.0.0 1704067200 "}},
        {"game nodes", "gamecloud", "", {"GAME00000001 10000 1 up sim-game-1 1704067200 2019600000 ", "GAME00000002 "}},
        {"tunnels", "sshport", "",
         {"SIM000000001 sim-gw-1 10000 10024 10025 10.1.0.2 ", "SIM000000001 sim-gw-1 10000 10028 10029 10.3.0.2 ",
          "SIM000000002 sim-gw-2 10000 10052 10053 10.3.0.3 "}},
        {"IP tables", "iptable", "", {"SIM000000001 sim-gw-1 iptable-default 10000 0", "SIM000000002 "}},
        {"URL/DNS groups", "urldnsgrp", "", {"SIM000000002 sim-gw-2 urldnsgrp-default 10000 0"}},
        {"application groups", "usragp", "license_id12=SIM000000001", {"SIM000000001 Group1 grp1\n", " Group2 "}},
        {"applications", "usragp", "license_id12=SIM000000002 showapp=1",
         {"SIM000000002 uapp2 UApp2 32 80,8002 53,9002\n"}},
    };
    for (const auto& s : shows) {
        SCOPED_TRACE(s.what);
        EXPECT_TRUE(wait_until(
            [&] {
                std::string t = text(s.module, 2055, s.args);
                return std::all_of(s.rows.begin(), s.rows.end(),
                                   [&](const std::string& r) { return t.find(r) != std::string::npos; });
            },
            5s))
            << text(s.module, 2055, s.args);
    }
    EXPECT_EQ(fields(text("sshport", 2055), "SIM", 3), "10024,10026,10028,10048,10050,10052");
    // A valid key line from each log server, once each.
    const std::string keys = read_file(d.path("/root/.ssh/authorized_keys_tmp"));
    EXPECT_EQ(std::count(keys.begin(), keys.end(), '\n'), 2) << keys;
    for (const char* id : {"LOG000000001", "LOG000000002"})
        EXPECT_NE(keys.find(std::string("vtsim@") + id + "\n"), std::string::npos) << keys;
    EXPECT_EQ(keys.rfind("ssh-ed25519 AAAAC3NzaC1lZDI1NTE5AAAAI", 0), 0u) << keys;

    // What the daemon sends: a close request, table pushes, a distribution
    // and a request to report again; each answered, half of them NO.
    EXPECT_EQ(text("sshport", 2052, "license_id12=SIM000000001 bigport=10026 minport=10027"), "ok");
    for (const char* module : {"iptable", "urldnsgrp"})
        for (const char* id : {"SIM000000001", "SIM000000002"})
            EXPECT_EQ(text(module, 2053, std::string("ipid=7 license_id12=") + id + " tblfname=t.list grpname=g"),
                      "ok\n");
    EXPECT_EQ(text("usragp", 2056, "device=SIM000000001;SIM000000002 app=chat"), "");
    EXPECT_EQ(text("usragp", 2058, "license_id12=SIM000000001"), "ok");
    struct {
        const char* what;
        const char* module;
        std::string args;
        size_t field;
        std::string want;
    } answered[] = {
        {"tunnel closed", "sshport", "", 3, "10024,10028,10048,10050,10052"},
        {"IP table pushes: one done, one failed", "iptable", "", 4, "3,4"},
        {"URL/DNS group pushes", "urldnsgrp", "", 4, "3,4"},
        {"distribution: one OK, one NO", "usragp", "showdevice=1", 1, "2,3"},
    };
    for (const auto& a : answered) {
        SCOPED_TRACE(a.what);
        EXPECT_TRUE(wait_until([&] { return fields(text(a.module, 2055, a.args), "SIM", a.field) == a.want; }, 5s))
            << text(a.module, 2055, a.args);
    }
    EXPECT_NE(text("iptable", 2055).find(" t.list:7 10000 4 t.list \n"), std::string::npos);  // the fetched table
    EXPECT_NE(text("urldnsgrp", 2055).find(" 3 t.list fetch_failed\n"), std::string::npos);
    EXPECT_NE(text("usragp", 2055, "license_id12=SIM000000001").find("Group2"), std::string::npos);
    // The pushes went at later reports, none of which brought the closed tunnel back.
    EXPECT_EQ(text("sshport", 2055).find(" 10026 "), std::string::npos);

    kill(gw, SIGTERM);
    EXPECT_EQ(wait_exit(gw), 0);
    std::string printed = read_file(out);
    for (const char* line :
         {"SIM000000001 sshportkill bigport=10026 minport=10027 -> closed\n",
          " iptablestatus ipid=7 file=t.list grpname=g dwport=80 -> ok\n",
          " iptablestatus ipid=7 file=t.list grpname=g dwport=80 -> no\n", " usragp_file httpport=80 -> ok\n",
          " usragp_file httpport=80 -> no\n", "SIM000000001 usragp_request -> groups=2 apps=2\n",
          " tunnel_closes=1 pushes=4 fetches=2 push_ok=3 push_no=3 push_silent=0 usragp_requests=1\n"})
        EXPECT_NE(printed.find(line), std::string::npos) << line << printed;
    d.stop();
}

}  // namespace
