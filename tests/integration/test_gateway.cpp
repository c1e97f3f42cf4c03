// Gateways reporting over real UDP to the real daemon, mirrored into the
// test run's MariaDB.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstring>
#include <filesystem>
#include <memory>

#include "daemon.h"
#include "db.h"
#include "gateway.h"

namespace {

using namespace std::chrono_literals;

bool wait_row(const std::string& id, const std::string& cols, const std::string& want,
              std::chrono::milliseconds limit = 10s)
{
    return wait_until([&] { return device_row(id, cols) == want; }, limit);
}

class Gateway : public ::testing::Test {
protected:
    void SetUp() override { db_reset(); }

    // Starts a daemon with WeChat disconnect notices on (they show when the
    // silence scan marks a device) and optional log.conf lines.
    std::unique_ptr<daemon_proc> start(const std::string& logconf = "")
    {
        auto d = std::make_unique<daemon_proc>();
        write_file(d->path("/usr/logd/bin/log.conf"), "cloud_weixin_relation_obj=discon\n" + logconf);
        d->start();
        return d;
    }
    static std::string notice(const daemon_proc& d, const std::string& id)
    {
        return read_file(d.path("/usr/logdata/tmp/weixin/" + id + ".ok"));
    }
};

TEST_F(Gateway, FirstReportInsertsEveryColumnAndChangesUpdate)
{
    auto d = start();
    test_gateway gw(d->device_port());
    auto r = test_gateway::status("GW0000000001");
    // Quotes, backslashes and SQL are stored exactly as sent.
    std::snprintf(r.sys_name, sizeof(r.sys_name), "%s", "o'brien \\ \"x\"; drop table t; --");
    gw.send(r);
    ASSERT_TRUE(wait_row("GW0000000001", "count(*)", "1")) << d->log();
    EXPECT_EQ(device_row("GW0000000001",
                     "devid, sys_run, ipaddr, sys_name, license_start, license_end, license_id83, users, "
                     "max_flowcont, max_ipcnt, upbps, downbps, flowcont, web_port, ssh_port, outip, outport, "
                     "grpid, sys_name2, map_address, version, md5str"),
              "7|3600|3232235777|o'brien \\ \"x\"; drop table t; --|1700000000|1800000000|LONG-GW0000000001|12|"
              "1000|100|5000000000|7000000000|300|24569|24570|2130706433|" +
                  std::to_string(gw.port()) + "|10000||none|V2.1.0|none");
    long t = std::stol(device_row("GW0000000001", "time"));
    EXPECT_LE(std::abs(t - static_cast<long>(time(nullptr))), 5);

    // Uptime alone changes nothing in the table; a new version does.
    r.sys_run = 9999;
    gw.send(r);
    std::snprintf(r.version, sizeof(r.version), "V3'0");
    gw.send(r);
    ASSERT_TRUE(wait_row("GW0000000001", "version, sys_run", "V3'0|9999"));
    r.sys_run = 11111;
    gw.send(r);
    r.license_end = 1900000000;
    r.sys_run = 22222;
    gw.send(r);
    EXPECT_TRUE(wait_row("GW0000000001", "license_end, sys_run", "1900000000|22222"));

    // A second gateway gets the next pair.
    test_gateway gw2(d->device_port());
    gw2.send(test_gateway::status("GW0000000002", VTR_STATUS3));
    EXPECT_TRUE(wait_row("GW0000000002", "web_port, ssh_port", "24571|24572"));
}

TEST_F(Gateway, PortPairsWrapAtTheTopOfTheRange)
{
    auto d = start("cloud_mapping_min_port=30000\ncloud_mapping_max_port=30003\n");
    EXPECT_NE(d->log().find("_minport=30000\n_current_port_alloc=30000\n"), std::string::npos) << d->log();
    test_gateway gw(d->device_port());
    const char* want[] = {"30000|30001", "30002|30000", "30001|30002"};
    for (int i = 0; i < 3; i++) {
        std::string id = "WRAP0000000" + std::to_string(i);
        gw.send(test_gateway::status(id));
        EXPECT_TRUE(wait_row(id, "web_port, ssh_port", want[i])) << id << " " << device_row(id, "web_port, ssh_port");
    }
}

TEST_F(Gateway, GroupsAndKeysAndCoordinates)
{
    db_exec("create table if not exists vtlog.cloud_grp(grpid int, grpname varchar(32))");
    db_exec("insert into vtlog.cloud_grp(grpid, grpname) values(76, 'sales'), (77, 'sales')");
    auto d = start();
    test_gateway gw(d->device_port());

    auto r = test_gateway::status("GRP000000001");
    std::snprintf(r.grpname, sizeof(r.grpname), "sales");
    gw.send(r);
    EXPECT_TRUE(wait_row("GRP000000001", "grpid", "77"));  // the last row wins

    auto u = test_gateway::status("GRP000000002");
    std::snprintf(u.grpname, sizeof(u.grpname), "nobody's");
    gw.send(u);
    EXPECT_TRUE(wait_row("GRP000000002", "grpid", "0"));

    gw.send_key("GRP000000001", "0123456789abcdef0123456789abcdef");
    EXPECT_TRUE(wait_row("GRP000000001", "md5str", "0123456789abcdef0123456789abcdef"));

    // Coordinates are kept in memory and written with the next update; an
    // empty group name afterwards moves the device out of its group without
    // a write of its own.
    gw.send_lnglat("GRP000000001", 116.397128, 39.916527);
    r.grpname[0] = '\0';
    gw.send(r);
    std::snprintf(r.version, sizeof(r.version), "V9");
    gw.send(r);
    EXPECT_TRUE(wait_row("GRP000000001", "version, grpid, round(longitude, 6), round(latitude, 6)",
                         "V9|10000|116.397128|39.916527"));
}

TEST_F(Gateway, SilenceIsNoticedOnlyAfterSixtySeconds)
{
    auto d = start();
    test_gateway gw(d->device_port());
    gw.send(test_gateway::status("SIL000000001"));
    ASSERT_TRUE(wait_row("SIL000000001", "count(*)", "1"));

    // A little short of a minute (a few seconds of slack for slow runs):
    // several passes of the one-slot scan leave it alone.
    d->step_clock(57);
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(notice(*d, "SIL000000001"), "");

    d->step_clock(4);
    ASSERT_TRUE(wait_until([&] { return !notice(*d, "SIL000000001").empty(); }, 5s)) << d->log();
    std::string down = notice(*d, "SIL000000001");
    EXPECT_EQ(down.rfind("vantrel_type=vantrel_discount\nlic12=SIL000000001\ntime=", 0), 0u) << down;
    EXPECT_NE(down.find("\nname=gw-SIL000000001"), std::string::npos) << down;
    EXPECT_EQ(down.back(), '1');  // no line end after the name

    gw.send(test_gateway::status("SIL000000001"));
    ASSERT_TRUE(wait_until([&] { return notice(*d, "SIL000000001").rfind("vantrel_type=vantrel_up\n", 0) == 0; },
                           5s));
    EXPECT_FALSE(std::filesystem::exists(d->path("/usr/logdata/tmp/weixin/SIL000000001")));
}

TEST_F(Gateway, RestartReloadsThePool)
{
    {
        auto d = start();
        test_gateway gw(d->device_port());
        gw.send(test_gateway::status("LOAD00000001"));
        ASSERT_TRUE(wait_row("LOAD00000001", "count(*)", "1"));
        d->stop();
    }
    // A row written by someone else, with names to cut and no ports yet.
    db_exec("insert into vtlog.cloud_device(license_id12, sys_name, sys_name2, web_port, ssh_port, grpid, time) "
            "values('LOAD00000002', 'plain name', 'shown|hidden', 0, 0, 5, 1000)");
    auto d = start();
    // Allocation restarts at the largest SSH port in the table; the table
    // gets the pair as allocated, the record one more on each.
    EXPECT_EQ(device_row("LOAD00000002", "web_port, ssh_port"), "24570|24571");
    EXPECT_EQ(device_row("LOAD00000001", "web_port, ssh_port"), "24569|24570");

    // A loaded device that never reports is never marked silent.
    d->step_clock(4000);
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(notice(*d, "LOAD00000002"), "");

    test_gateway gw(d->device_port());
    auto r = test_gateway::status("LOAD00000002");
    std::snprintf(r.version, sizeof(r.version), "V5");
    gw.send(r);
    EXPECT_TRUE(wait_row("LOAD00000002", "web_port, ssh_port, sys_name2, sys_name, grpid, version",
                         "24571|24572|shown|gw-LOAD00000002|5|V5"));
}

TEST_F(Gateway, SchemaIsMigratedAcrossStarts)
{
    auto type = [] {
        return db_value("select column_type from information_schema.columns where table_schema='vtlog' and "
                        "table_name='cloud_device' and column_name='map_address'");
    };
    start()->stop();
    EXPECT_EQ(type(), "varchar(128)");
    start()->stop();
    EXPECT_EQ(type(), "varchar(512)");
}

TEST_F(Gateway, PoolHoldsTwoThousandAndIgnoresTheNext)
{
    auto d = start();
    test_gateway gw(d->device_port());
    char id[16];
    for (int i = 0; i < 2001; i++) {
        std::snprintf(id, sizeof(id), "FULL%08d", i);
        gw.send(test_gateway::status(id));
        if (i % 200 == 199) {  // let the loop keep up with the inserts
            auto count = [] { return std::stoi(db_value("select count(*) from vtlog.cloud_device")); };
            ASSERT_TRUE(wait_until([&] { return count() > i - 10; }, 60s));
        }
    }
    ASSERT_TRUE(wait_row("FULL00001999", "count(*)", "1", 60s));
    auto last = test_gateway::status("FULL00000000");
    std::snprintf(last.version, sizeof(last.version), "after");
    gw.send(last);
    EXPECT_TRUE(wait_row("FULL00000000", "version", "after"));
    EXPECT_EQ(db_value("select count(*) from vtlog.cloud_device"), "2000");
    EXPECT_EQ(device_row("FULL00002000", "count(*)"), "0");
}

TEST_F(Gateway, BadDatagramsAreIgnored)
{
    auto d = start();
    test_gateway gw(d->device_port());
    auto longid = test_gateway::status("");
    std::memcpy(longid.license_id12, "THIRTEENCHARS", 13);
    gw.send(longid);
    gw.send("VTR", 3);
    gw.send("VT", 2);
    gw.send("XYZ\0\x1c\x27", 6);
    std::string big(4000, 'A');
    std::memcpy(big.data(), "VTR\0\x1c\x27", 6);
    gw.send(big.data(), big.size());
    auto noterm = test_gateway::status("NOTERM000001");
    std::memset(noterm.license_id83, 'x', sizeof(noterm.license_id83) + sizeof(noterm.version) +
                                              sizeof(noterm.sys_name));
    gw.send(noterm);
    auto other = test_gateway::status("ODDBYTE00001", VTR_STATUS2);
    other.tag[3] = 'Z';
    gw.send(other);
    gw.send(&other, 100);  // cut short: the rest reads as zeros
    auto unknown = test_gateway::status("UNKNOWNTYPE1", 12345);
    gw.send(unknown);
    gw.send_result("tag=cpuinfo license_id12=NOBODY cpurate=5");
    gw.send_result("no words at all");

    EXPECT_TRUE(wait_row("ODDBYTE00001", "count(*)", "1"));
    EXPECT_TRUE(wait_row("NOTERM000001", "length(license_id83), length(version), length(sys_name)", "87|63|63"));
    EXPECT_EQ(db_value("select count(*) from vtlog.cloud_device"), "2");
    EXPECT_EQ(d->cmd("cpu", 2050).rec.ca_errno, 0);
}

TEST_F(Gateway, SweepRecordsSilenceAndDropsTemporaryDevicesAfterAnHour)
{
    daemon_proc d;
    // Short turns of the geolocation thread: a sweep every 0.3 s or so.
    write_file(d.path("/etc/cloud.conf"), read_file(d.path("/etc/cloud.conf")) + "lnglat_turn_us=100\n");
    d.start();
    test_gateway gw(d.device_port());
    auto discon = [](const char* id) {
        try {  // the first sweep creates the table
            return std::stoi(
                db_value(std::string("select count(*) from vtlog.device_discon where license_id12='") + id + "'"));
        } catch (const std::exception&) {
            return 0;
        }
    };
    auto temp = test_gateway::status("TEMP00000001");
    gw.send(temp);
    gw.send(test_gateway::status("SWEEP0000001"));
    ASSERT_TRUE(wait_row("SWEEP0000001", "count(*)", "1"));
    ASSERT_TRUE(wait_row("TEMP00000001", "count(*)", "1"));

    // Half an hour of silence: recorded at every sweep, temporary devices
    // neither recorded nor removed.
    d.step_clock(1800);
    ASSERT_TRUE(wait_until([&] { return discon("SWEEP0000001") >= 2; }, 10s)) << d.log();
    EXPECT_EQ(db_value("select concat(grpid, ':', name) from vtlog.device_discon limit 1"), "10000:gw-SWEEP0000001");
    EXPECT_EQ(discon("TEMP00000001"), 0);

    // TEMP reports again; a moment before its hour is up it is still
    // there after a sweep (MARK's first record proves one ran).
    std::snprintf(temp.version, sizeof(temp.version), "again");
    gw.send(temp);
    ASSERT_TRUE(wait_row("TEMP00000001", "version", "again"));
    gw.send(test_gateway::status("MARK00000001"));
    ASSERT_TRUE(wait_row("MARK00000001", "count(*)", "1"));
    d.step_clock(3597);
    ASSERT_TRUE(wait_until([&] { return discon("MARK00000001") >= 1; }, 10s));
    EXPECT_EQ(device_row("TEMP00000001", "count(*)"), "1");

    d.step_clock(4);
    EXPECT_TRUE(wait_row("TEMP00000001", "count(*)", "0"));
    EXPECT_EQ(device_row("SWEEP0000001", "count(*)"), "1");
}

TEST(GatewayStart, UnreachableDatabaseStopsStartUp)
{
    daemon_proc d;
    d.setenv("CLOUD_DB_HOST", "127.0.0.1");
    d.setenv("CLOUD_DB_PORT", std::to_string(free_udp_port()));
    int status = d.run_to_exit();
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 255);
    EXPECT_NE(d.log().find("mysql init error\n"), std::string::npos) << d.log();
    EXPECT_EQ(d.log().find("######cloud startup!"), std::string::npos);
}

}  // namespace
