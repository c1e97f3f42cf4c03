// A fleet reporting while every registry command runs in a loop, and the
// sweep removing temporary gateways: the run that the ThreadSanitizer build
// in scripts/test.sh judges (any race report fails it).
#include <gtest/gtest.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <string>
#include <vector>

#include "daemon.h"
#include "db.h"

extern char** environ;

namespace {

using namespace std::chrono_literals;

pid_t vtsim(const std::vector<std::string>& args)
{
    std::string bin = std::string(CLOUD_BIN).substr(0, std::string(CLOUD_BIN).rfind('/')) + "/vtsim";
    std::vector<char*> argv{bin.data()};
    std::vector<std::string> copy = args;
    for (std::string& a : copy)
        argv.push_back(a.data());
    argv.push_back(nullptr);
    pid_t pid = -1;
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_addopen(&fa, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn(&pid, bin.c_str(), &fa, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&fa);
    return pid;
}

bool running(pid_t pid)
{
    return waitpid(pid, nullptr, WNOHANG) == 0;
}

TEST(Load, CommandsWhileTheFleetReports)
{
    db_reset();
    daemon_proc d;
    // A short geolocation turn runs the disconnect sweep every 0.3 s.
    write_file(d.path("/etc/cloud.conf"), read_file(d.path("/etc/cloud.conf")) + "lnglat_turn_us=100\n");
    write_file(d.path("/usr/logd/bin/log.conf"), "cloud_weixin_relation_obj=discon\n");
    write_file(d.path("/tmp/relay"), "deny one\ndevice=SIM000000003 deny two\n");
    d.start();
    const std::string port = std::to_string(d.device_port());
    pid_t temp = vtsim({"--port", port, "--prefix", "TEMP", "--count", "5", "--reports", "1", "--linger", "0"});
    pid_t fleet = vtsim({"--port", port, "--count", "2000", "--shared-socket", "--rate", "400", "--duration", "4",
                         "--key", "--lnglat", "--grpname", "g1", "--users", "200", "--linger", "0"});
    ASSERT_GT(fleet, 0);
    db_exec("insert into vtlog.cloud_grp(grpid, grpname) values(7, 'g1')");

    const char* lists[] = {"limit=50", "sortname=1 limit=2000", "sortname=13 sortdesc=1", "sch=sim expire=3",
                           "showequal=1", "showpassreset", "clearequalinfo", "clearpassreset"};
    int rounds = 0;
    for (int i = 1; running(fleet); i++, rounds++) {
        char id[16];
        std::snprintf(id, sizeof(id), "SIM%09d", i % 2000 + 1);
        for (const char* l : lists)
            EXPECT_EQ(d.cmd("cloud", 2055, l).rc, 0);
        d.cmd("cloud", 2050, "grpid=10000");
        d.cmd("cloud", 2053, std::string("license_id12=") + id + " grpid=3 sysname=n" + std::to_string(i));
        d.cmd("cloud", 2053, std::string("license_id12=") + id + " rootpass=pw mfadminpass=1");
        d.cmd("cloud", 2054, std::string("license_id12=") + id);
        d.cmd("cloud", 2057, std::string("license_id12=") + id + " maphost=h webport=1 sshport=2");
        d.cmd("cloud", 2053, "wxcmd=1 file=" + d.path("/tmp/relay"));
        d.cmd("cloud", 2053, "wxcmdstatus=1");
        if (i % 10 == 0)
            d.cmd("cloud", 2052, std::string("license_id12=") + id);
        if (i % 100 == 0)
            d.cmd("cloud", 2056, "minport=30000 maxport=40000");
    }
    waitpid(temp, nullptr, 0);
    EXPECT_GT(rounds, 3);
    // An hour later the sweep removes the temporary gateways.
    d.step_clock(3601);
    EXPECT_TRUE(wait_until([&] { return d.cmd("cloud", 2055, "sch=temp").text().find("TEMP") == std::string::npos; },
                           20s));
    EXPECT_TRUE(d.db_settled(30s));
    EXPECT_EQ(d.stop(20s), 0) << d.log();
}

}  // namespace
