// Tunnels reported by gateways (portinfo words, refresh, close requests,
// ageing under a moved clock) and the device log (batches into
// cloud_otherlog, a dropped table re-created, the 2000-line cap).
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "daemon.h"
#include "db.h"
#include "gateway.h"

namespace {

using namespace std::chrono_literals;

class Tunnels : public ::testing::Test {
protected:
    void SetUp() override
    {
        db_reset();
        db_exec("drop table if exists vtlog.cloud_otherlog");
        // Short turns: the tunnel pass every 0.15 s, the device sweep (which
        // writes the device log) every 0.3 s.
        write_file(d_.path("/etc/cloud.conf"),
                   read_file(d_.path("/etc/cloud.conf")) + "sshidle_turn_ms=1\nlnglat_turn_us=100\n");
        d_.start();
        g_ = std::make_unique<test_gateway>(d_.device_port());
        g_->send(test_gateway::status("SSH000000001"));
        ASSERT_TRUE(wait_until([&] { return !d_.cmd("cloud", 2054, "license_id12=SSH000000001").text().empty(); },
                               5s));
    }
    std::string list(const std::string& args = "") const { return d_.cmd("sshport", 2055, args).text(); }
    long count() const
    {
        std::string t = list();
        return std::count(t.begin(), t.end(), '\n');
    }
    // The tunnel lines without their two times.
    std::string tunnels(const std::string& args = "") const
    {
        std::string out, t = list(args);
        for (size_t at = 0, nl; (nl = t.find('\n', at)) != std::string::npos; at = nl + 1) {
            std::string l = t.substr(at, nl - at);
            l = l.substr(0, l.rfind(' '));
            out += l.substr(0, l.rfind(' ')) + "\n";
        }
        return out;
    }
    long born(int line) const
    {
        std::string t = list();
        for (int i = 0; i < line; i++)
            t = t.substr(t.find('\n') + 1);
        t = t.substr(0, t.find('\n'));
        return std::stol(t.substr(t.rfind(' ', t.rfind(' ') - 1) + 1));
    }

    daemon_proc d_;
    std::unique_ptr<test_gateway> g_;
};

TEST_F(Tunnels, ReportsRefreshCloseAndAgeing)
{
    g_->send_result("tag=sshmapport license_id12=SSH000000001 portinfo=8022:10.0.0.5:8023 portinfo=9000:10.0.0.6:9001");
    g_->send_result("tag=sshmapport portinfo=7000:10.0.0.7:7001 license_id12=SSH000000001");  // word order
    g_->send_result("tag=sshmapport license_id12=NOSUCH000001 portinfo=1:2:3");  // unknown gateway
    ASSERT_TRUE(wait_until([&] { return tunnels().size() > 40; }, 5s));
    EXPECT_EQ(tunnels(), "SSH000000001 gw-SSH000000001 10000 8022 8023 10.0.0.5\n"
                         "SSH000000001 gw-SSH000000001 10000 9000 9001 10.0.0.6\n");
    EXPECT_EQ(tunnels("usergrp=5"), "");
    EXPECT_EQ(tunnels("usergrp=0,5"), tunnels());

    // The same report refreshes, it does not add.
    const long b = born(0);
    d_.step_clock(10);
    g_->send_result("tag=sshmapport license_id12=SSH000000001 portinfo=8022:10.0.0.9:8023");
    ASSERT_TRUE(wait_until([&] { return list().find("10.0.0.9") != std::string::npos; }, 5s));
    EXPECT_EQ(born(0), b);
    EXPECT_EQ(count(), 2);

    // An operator's close request reaches the gateway; its answer frees it.
    EXPECT_EQ(d_.cmd("sshport", 2052, "license_id12=SSH000000001 bigport=9000 minport=9001").text(), "ok");
    EXPECT_EQ(g_->command(), "tag=sshportkill license_id12=SSH000000001 cliip=10.0.0.6 bigport=9000 minport=9001");
    EXPECT_EQ(d_.cmd("sshport", 2052, "license_id12=SSH000000001 bigport=1 minport=2").text(), "ok");
    g_->send_result("tag=sshportkill license_id12=SSH000000001 bigport=9000 minport=9001");
    ASSERT_TRUE(wait_until([&] { return count() == 1; }, 5s));
    EXPECT_FALSE(g_->command(200).has_value());

    // Refreshed all along: close requests from 30 minutes on, freed at 31.
    for (int i = 0; i < 35; i++) {  // to 1760 s of age
        d_.step_clock(50);
        g_->send_result("tag=sshmapport license_id12=SSH000000001 portinfo=8022:10.0.0.9:8023");
    }
    ASSERT_TRUE(wait_until([&] { return list().find(" 8022 ") != std::string::npos; }, 5s));
    EXPECT_FALSE(g_->command(400).has_value());  // younger than 30 minutes: nothing
    d_.step_clock(40);
    g_->send_result("tag=sshmapport license_id12=SSH000000001 portinfo=8022:10.0.0.9:8023");
    EXPECT_EQ(g_->command(), "tag=sshportkill license_id12=SSH000000001 cliip=10.0.0.9 bigport=8022 minport=8023");
    d_.step_clock(60);
    EXPECT_TRUE(wait_until([&] { return list().empty(); }, 5s));

    auto other = d_.cmd("sshport", 2050);
    EXPECT_EQ(other.rec.ca_errno, 22);
    EXPECT_STREQ(other.rec.ca_errmsg, "NOT_SUPPORTED");
}

TEST_F(Tunnels, DeviceLogBatchesRecreatedTableAndCap)
{
    auto log_rows = [] {
        return db_value("select count(*) from information_schema.tables where table_schema='vtlog' and "
                        "table_name='cloud_otherlog'") == "0"
                   ? std::string("none")
                   : db_value("select count(*) from vtlog.cloud_otherlog");
    };
    g_->send_result("tag=cpuinfo license_id12=SSH000000001 cpurate=7 rmadmin=1 cronfile=1");
    g_->send_result("tag=cpuinfo license_id12=SSH000000001 cpurate=7 rmadmin=0 cronfile=0");  // nothing to log
    // The table does not exist: the batch creates it and writes the line.
    ASSERT_TRUE(wait_until([&] { return log_rows() == "1"; }, 10s)) << log_rows();
    EXPECT_EQ(db_value("select concat(license_id12, '|', name, '|', grpid, '|', log) from vtlog.cloud_otherlog"),
              "SSH000000001|gw-SSH000000001|10000|删除admin用户;删除/etc/cron/tabs文件");

    // 2000 lines in the life of the process, then nothing more.
    for (int i = 0; i < 2010; i++)
        g_->send_result("tag=cpuinfo license_id12=SSH000000001 cpurate=1 rmadmin=1 cronfile=0");
    ASSERT_TRUE(wait_until([&] { return log_rows() == "2000"; }, 20s)) << log_rows();
    EXPECT_EQ(db_value("select count(*) from vtlog.cloud_otherlog where log='删除admin用户;'"), "1999");
}

}  // namespace
