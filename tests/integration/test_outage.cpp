// The database going away under a running daemon: stopped, killed and
// restarted on its data, refusing a statement, and a daemon told to stop
// while writes wait. The daemon keeps answering; the table catches up.
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "daemon.h"
#include "db.h"
#include "gateway.h"

extern char** environ;

namespace {

using namespace std::chrono_literals;

// The test run's server (scripts/test.sh exports its directory).
struct test_server {
    std::string dir;

    test_server()
    {
        const char* d = std::getenv("CLOUD_TEST_DBDIR");
        dir = d != nullptr ? d : "";
    }
    pid_t pid() const
    {
        std::string s = read_file(dir + "/mysqld.pid");
        return s.empty() ? -1 : static_cast<pid_t>(std::stol(s));
    }
    void signal(int sig) const { kill(pid(), sig); }
    bool kill_and_wait() const
    {
        pid_t p = pid();
        kill(p, SIGKILL);
        return wait_until([&] { return kill(p, 0) != 0; }, 10s);
    }
    // Starts it again on the same data and port.
    bool restart() const
    {
        std::string script = std::string(CLOUD_SOURCE_DIR) + "/scripts/mariadb.sh";
        char* argv[] = {const_cast<char*>("bash"), script.data(), const_cast<char*>("start"),
                        const_cast<char*>(dir.c_str()), nullptr};
        pid_t child;
        if (posix_spawnp(&child, "bash", nullptr, nullptr, argv, environ) != 0)
            return false;
        int status = 0;
        waitpid(child, &status, 0);
        return WIFEXITED(status) && WEXITSTATUS(status) == 0;
    }
};

// A stopped server is always let go again, whatever the test did.
struct resume_guard {
    const test_server& s;
    ~resume_guard() { s.signal(SIGCONT); }
};

class Outage : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (srv_.dir.empty())
            GTEST_SKIP() << "CLOUD_TEST_DBDIR is not set (run through scripts/test.sh)";
        db_reset();
    }

    std::unique_ptr<daemon_proc> start(const std::string& conf = "")
    {
        auto d = std::make_unique<daemon_proc>();
        if (!conf.empty())
            write_file(d->path("/etc/cloud.conf"), read_file(d->path("/etc/cloud.conf")) + conf);
        d->start();
        return d;
    }

    static std::string id(int i)
    {
        char buf[16];
        std::snprintf(buf, sizeof(buf), "OUT%09d", i);
        return buf;
    }
    static void report(const test_gateway& g, int from, int to, const char* version)
    {
        for (int i = from; i <= to; i++) {
            auto r = test_gateway::status(id(i));
            std::snprintf(r.version, sizeof(r.version), "%s", version);
            g.send(r);
        }
    }
    static std::string stat(const daemon_proc& d, const std::string& key)
    {
        std::string t = d.cmd("cloud", 2050).text();
        size_t at = t.find("\n" + key + "=");
        if (at == std::string::npos)
            return "";
        at += key.size() + 2;
        return t.substr(at, t.find('\n', at) - at);
    }
    // The pool as the daemon sees it, while the database may not answer.
    static bool pool_has(const daemon_proc& d, int n)
    {
        return wait_until([&] { return stat(d, "device_total") == std::to_string(n); }, 20s);
    }
    // How many rows of the device list hold TEXT.
    static int in_list(const daemon_proc& d, const std::string& text)
    {
        std::string t = d.cmd("cloud", 2055, "limit=100").text();
        int n = 0;
        for (size_t at = t.find(text); at != std::string::npos; at = t.find(text, at + 1))
            n++;
        return n;
    }
    // Rows of the OUT gateways and how many carry VERSION.
    static std::string rows_with(const char* version)
    {
        return db_value("select concat(count(*), '/', sum(version='" + std::string(version) +
                        "')) from vtlog.cloud_device where license_id12 like 'OUT%'");
    }

    test_server srv_;
};

TEST_F(Outage, StoppedServerCatchesUpAndCommandsAnswerMeanwhile)
{
    auto d = start();
    test_gateway g(d->device_port());
    report(g, 1, 50, "v1");
    ASSERT_TRUE(pool_has(*d, 50));
    ASSERT_TRUE(d->db_settled());

    {
        srv_.signal(SIGSTOP);
        resume_guard resume{srv_};
        report(g, 1, 150, "v2");
        ASSERT_TRUE(pool_has(*d, 150)) << d->log();
        // Commands that write answer at once and are not lost.
        EXPECT_EQ(d->cmd("cloud", 2053, "license_id12=" + id(7) + " grpid=4 sysname=renamed").text(), "ok");
        EXPECT_EQ(d->cmd("cloud", 2052, "license_id12=" + id(8)).text(), "ok");
        EXPECT_NE(stat(*d, "db_queued"), "0");
    }
    ASSERT_TRUE(d->db_settled(30s)) << d->log();
    EXPECT_EQ(rows_with("v2"), "149/149");
    EXPECT_EQ(device_row(id(7), "sys_name2, grpid"), "renamed|4");
    EXPECT_EQ(device_row(id(8), "count(*)"), "0");
    EXPECT_EQ(stat(*d, "db_dropped"), "0");
}

TEST_F(Outage, KilledServerRestartedOnItsDataGetsThePool)
{
    auto d = start();
    test_gateway g(d->device_port());
    report(g, 1, 40, "v1");
    ASSERT_TRUE(pool_has(*d, 40));
    ASSERT_TRUE(d->db_settled());
    g.send_key(id(3), "0123456789abcdef0123456789abcdef");
    ASSERT_TRUE(d->db_settled());

    ASSERT_TRUE(srv_.kill_and_wait());
    report(g, 1, 120, "v3");
    ASSERT_TRUE(pool_has(*d, 120));
    EXPECT_EQ(d->cmd("cloud", 2052, "license_id12=" + id(9)).text(), "ok");
    ASSERT_TRUE(srv_.restart());

    ASSERT_TRUE(d->db_settled(30s)) << d->log();
    EXPECT_EQ(rows_with("v3"), "119/119");
    EXPECT_EQ(device_row(id(9), "count(*)"), "0");
    // The digest is not in the pool's columns and survives the rebuild.
    EXPECT_EQ(device_row(id(3), "md5str"), "0123456789abcdef0123456789abcdef");
    EXPECT_NE(stat(*d, "db_rebuilds"), "0");
}

TEST_F(Outage, FullQueueIsRebuiltFromThePool)
{
    auto d = start("db_queue_max=20\n");
    test_gateway g(d->device_port());
    report(g, 1, 10, "v1");
    ASSERT_TRUE(pool_has(*d, 10));
    ASSERT_TRUE(d->db_settled());
    {
        srv_.signal(SIGSTOP);
        resume_guard resume{srv_};
        // 60 statements for a queue of 20: most are dropped.
        report(g, 1, 10, "v2");
        report(g, 11, 30, "v2");
        report(g, 1, 30, "v4");
        ASSERT_TRUE(wait_until([&] { return in_list(*d, "|v4|") == 30; }, 10s));
    }
    ASSERT_TRUE(d->db_settled(30s)) << d->log();
    EXPECT_EQ(rows_with("v4"), "30/30");
    EXPECT_NE(stat(*d, "db_dropped"), "0");
    EXPECT_NE(stat(*d, "db_rebuilds"), "0");
}

TEST_F(Outage, RefusedStatementDoesNotHoldBackTheOthers)
{
    auto d = start();
    test_gateway g(d->device_port());
    // One round trip carries all three inserts; the server refuses the
    // middle one (users out of range for its column).
    auto bad = test_gateway::status(id(2));
    bad.current_users = 4000000000U;
    g.send(test_gateway::status(id(1)));
    g.send(bad);
    g.send(test_gateway::status(id(3)));
    ASSERT_TRUE(pool_has(*d, 3));
    ASSERT_TRUE(d->db_settled());
    EXPECT_EQ(db_value("select group_concat(license_id12 order by license_id12) from vtlog.cloud_device"),
              id(1) + "," + id(3));
    EXPECT_EQ(stat(*d, "db_failed"), "1");
    EXPECT_NE(d->log().find("Out of range value for column 'users'"), std::string::npos) << d->log();
}

TEST_F(Outage, TermDrainsTheQueue)
{
    auto d = start();
    test_gateway g(d->device_port());
    {
        srv_.signal(SIGSTOP);
        resume_guard resume{srv_};
        report(g, 1, 200, "v5");
        ASSERT_TRUE(pool_has(*d, 200));
        kill(d->pid(), SIGTERM);
        // The threads stop; the writer still waits for the server.
        ASSERT_TRUE(d->wait_log("thread cloud exited!"));
    }
    EXPECT_EQ(d->stop(20s), 0) << d->log();
    EXPECT_EQ(rows_with("v5"), "200/200");
    EXPECT_EQ(d->log().find("not written"), std::string::npos) << d->log();
}

}  // namespace
