// Configuration backups, package upgrades and the application inventory on
// the backup socket: schedule, order at the next ping, results and their
// rows, the watchdogs under a moved clock, the limits in flight, the key
// file, and the inventory commands.
#include <gtest/gtest.h>
#include <spawn.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <ctime>
#include <string>
#include <vector>

#include "backup.h"
#include "daemon.h"
#include "db.h"
#include "gateway.h"

extern char** environ;

namespace {

using namespace std::chrono_literals;

std::string hex(const std::string& s)
{
    std::string out;
    char b[3];
    for (unsigned char c : s) {
        std::snprintf(b, sizeof(b), "%02X", c);
        out += b;
    }
    return out;
}

class Backup : public ::testing::Test {
protected:
    void SetUp() override
    {
        db_reset();
        db_exec("delete from vtlog.cloud_appup");
        write_file(d_.path("/etc/cloud.conf"), read_file(d_.path("/etc/cloud.conf")) + "backup_auto=1\n");
        write_file(d_.path("/root/.ssh/authorized_keys_tmp"), "ssh-ed25519 AAAAC3 backup@cloud\n");
        d_.start();
        g_ = std::make_unique<test_gateway>(d_.backup_port());
    }

    void ping(const std::string& id) const
    {
        cloud_ping_t p{};
        std::memcpy(p.tag, "VTR", 4);
        p.type = VTR_PING;
        std::snprintf(p.license_id12, sizeof(p.license_id12), "%s", id.c_str());
        g_->send(p);
    }
    void result(const std::string& id, uint16_t type, const std::string& errors, const std::string& file = "") const
    {
        cloud_backup_log_t l{};
        std::memcpy(l.tag, "VTR", 4);
        l.type = type;
        std::snprintf(l.license_id12, sizeof(l.license_id12), "%s", id.c_str());
        std::snprintf(l.filename, sizeof(l.filename), "%s", file.c_str());
        std::snprintf(l.errors, sizeof(l.errors), "%s", errors.c_str());
        g_->send(l);
    }
    std::string backup(int code, const std::string& args = "") const { return d_.cmd("backup", code, args).text(); }
    // One scheduler turn: the 3 s timer, run at once by moving the clock.
    void sweep() const
    {
        d_.step_clock(3);
        ASSERT_TRUE(d_.db_settled());
    }
    std::string row(const std::string& id, const std::string& cols) const
    {
        auto rows = db_rows("select " + cols + " from vtlog.cloud_backup where license_id12='" + id + "'");
        std::string out;
        for (size_t i = 0; !rows.empty() && i < rows[0].size(); i++)
            out += (i ? "|" : "") + rows[0][i].value_or("NULL");
        return out;
    }
    void due(const std::string& id, int type = 1) const
    {
        db_exec("insert into vtlog.cloud_backup(license_id12, backup_type, backup_seg, complete, errors, "
                "backup_ctime) values('" + id + "', " + std::to_string(type) + ", 1, 0, 'wait', 777)");
    }
    // The config file the appliance's SSH copy writes for a 10017 report at T.
    std::string backup_file(const std::string& id, time_t t) const
    {
        tm lt{};
        localtime_r(&t, &lt);
        char name[64];
        std::strftime(name, sizeof(name), "_%Y%m%d%H%M%S.conf", &lt);
        return d_.path("/usr/logdata/vtconf/" + id + name);
    }

    daemon_proc d_;
    std::unique_ptr<test_gateway> g_;
};

TEST_F(Backup, NewGatewayGetsADailyBackupDueAtOnce)
{
    test_gateway dev(d_.device_port());
    auto r = test_gateway::status("AUTO00000001");
    std::snprintf(r.sys_name, sizeof(r.sys_name), "\xC4\xE3\xBA\xC3");  // GB2312
    dev.send(r);
    dev.send(test_gateway::status("TEMP00000001"));
    ASSERT_TRUE(d_.db_settled());
    ASSERT_TRUE(wait_until([&] { return !row("AUTO00000001", "complete").empty(); }, 5s));
    long next = std::stol(row("AUTO00000001", "backup_nexttime"));
    EXPECT_LE(std::abs(next - (time(nullptr) + 86400)), 5);
    EXPECT_EQ(row("AUTO00000001", "complete, backup_type, backup_seg, fnum, grpid, hex(cname)"),
              "0|1|1|0|0|" + hex("\xE4\xBD\xA0\xE5\xA5\xBD"));  // converted to UTF-8 on insert
    EXPECT_EQ(row("TEMP00000001", "count(*)"), "0");
}

TEST_F(Backup, OrderAtThePingAfterTheSweepAndEveryResult)
{
    const std::string keys = d_.path("/root/.ssh/authorized_keys");
    struct {
        const char* name;
        uint16_t type;
        bool file;         // the file the appliance names is there
        const char* text;  // errors field of the report
        const char* want;  // complete|errors|fnum afterwards
    } cases[] = {
        {"time-stamped, present", VTR_BACKUP_OK, true, "", "1|ok|1"},
        {"time-stamped, missing", VTR_BACKUP_OK, false, "", "1|fail|1"},
        {"named, missing: again", VTR_BACKUP_NAMED, false, "", "0|wait|1"},
        {"named, present", VTR_BACKUP_NAMED, true, "", "1|ok|2"},
        {"appliance failure text", VTR_BACKUP_FAIL1, false, "no space on 'var'", "1|no space on 'var'|2"},
    };
    due("BAK000000001");
    ping("BAK000000001");  // first sight: listed, no order
    EXPECT_FALSE(g_->command(300).has_value());
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        db_exec("update vtlog.cloud_backup set complete=0 where license_id12='BAK000000001'");
        sweep();
        EXPECT_EQ(backup(2050), "device_backup_count=1\ndevice_count=1\nBAK000000001\n");
        EXPECT_EQ(row("BAK000000001", "complete, errors"), "1|wait");
        ping("BAK000000001");
        auto o = g_->command();
        ASSERT_TRUE(o.has_value());
        ASSERT_EQ(o->size(), sizeof(cloud_backupinfo_t));
        cloud_backupinfo_t bi;
        std::memcpy(&bi, o->data(), sizeof(bi));
        EXPECT_EQ(bi.type, VTR_BACKUPINFO);
        EXPECT_EQ(std::to_string(bi.fl_ctime), row("BAK000000001", "backup_ctime"));  // 777, then as reported
        EXPECT_STREQ(bi.license_id12, "BAK000000001");
        EXPECT_STREQ(bi.filename, "");
        struct stat st;
        ASSERT_EQ(stat(keys.c_str(), &st), 0);
        EXPECT_EQ(st.st_mode & 0777, 0600u);
        EXPECT_EQ(backup(2050), "device_backup_count=1\ndevice_count=1\n");

        const time_t t = time(nullptr);
        std::string text = c.text;
        if (c.type == VTR_BACKUP_OK) {
            text = std::to_string(t);
            if (c.file)
                write_file(backup_file("BAK000000001", t), "conf");
        } else if (c.type == VTR_BACKUP_NAMED && c.file) {
            write_file(d_.path("/usr/logdata/vtconf/named.conf"), "conf");
        }
        result("BAK000000001", c.type, text, "named.conf");
        ASSERT_TRUE(wait_until([&] { return backup(2050).find("device_backup_count=0\n") == 0; }, 5s));
        // The count drops before the row's update is handed to the writer.
        EXPECT_TRUE(wait_until([&] { return d_.db_settled() && row("BAK000000001", "complete, errors, fnum") == c.want; },
                               5s))
            << row("BAK000000001", "complete, errors, fnum");
        std::remove(backup_file("BAK000000001", t).c_str());
        std::remove(d_.path("/usr/logdata/vtconf/named.conf").c_str());
    }
    // No backup in flight: the key goes with the next mapping check, unless
    // a port-mapping process still runs.
    pid_t keeper;
    char* argv[] = {const_cast<char*>("sh"), const_cast<char*>("-c"), const_cast<char*>("sleep 20"),
                    const_cast<char*>("mapping=1"), nullptr};
    ASSERT_EQ(posix_spawnp(&keeper, "sh", nullptr, nullptr, argv, environ), 0);
    ASSERT_TRUE(wait_until(
        [&] {
            std::string cl = read_file("/proc/" + std::to_string(keeper) + "/cmdline");
            return cl.find("mapping=1") != std::string::npos;
        },
        5s));
    d_.step_clock(30);
    ASSERT_TRUE(d_.db_settled());
    EXPECT_EQ(access(keys.c_str(), F_OK), 0);
    kill(keeper, SIGKILL);
    waitpid(keeper, nullptr, 0);
    d_.step_clock(30);
    EXPECT_TRUE(wait_until([&] { return access(keys.c_str(), F_OK) != 0; }, 5s));
}

TEST_F(Backup, WatchdogAndTenInFlight)
{
    for (int i = 1; i <= 12; i++) {
        std::string id = "LIM00000000" + std::string(1, char('A' + i - 1));
        due(id);
        ping(id);
    }
    ASSERT_TRUE(wait_until([&] { return backup(2050).find("device_count=12\n") != std::string::npos; }, 5s));
    sweep();
    std::string st = backup(2050);
    EXPECT_EQ(st.substr(0, st.find('\n')), "device_backup_count=10");
    EXPECT_EQ(std::count(st.begin(), st.end(), '\n'), 12);  // two counts and ten identifiers
    EXPECT_EQ(db_value("select count(*) from vtlog.cloud_backup where errors='wait' and complete=1"), "10");
    ping("LIM00000000A");
    ASSERT_TRUE(g_->command().has_value());

    // Not answered within 60 s: timed out, and the next two start.
    d_.step_clock(57);
    ASSERT_TRUE(d_.db_settled());
    EXPECT_EQ(db_value("select count(*) from vtlog.cloud_backup where errors='timeout'"), "0");
    d_.step_clock(3);
    ASSERT_TRUE(d_.db_settled());
    EXPECT_EQ(db_value("select count(*) from vtlog.cloud_backup where errors='timeout'"), "10");
    sweep();
    EXPECT_EQ(backup(2050).substr(0, 23), "device_backup_count=2\nd");

    // The list holds 2000 appliances and refuses the next, saying so once.
    for (int i = 0; i < 2000; i += 200) {
        for (int k = i; k < i + 200; k++)
            ping("FILL" + std::to_string(10000000 + k));
        const int want = std::min(2000, 12 + i + 200);
        ASSERT_TRUE(wait_until([&] {
            return backup(2050).find("device_count=" + std::to_string(want) + "\n") != std::string::npos;
        }, 5s)) << want;
    }
    EXPECT_EQ(d_.log().find("backup list full"), d_.log().rfind("backup list full"));
    EXPECT_NE(d_.log().find("backup list full (2000), FILL"), std::string::npos);
}

TEST_F(Backup, PackageUpgradeStatesAndFiveInFlight)
{
    auto state = [&](const std::string& id) {
        return db_value("select concat(complete, '|', hex(errors), '|', last_version) from vtlog.cloud_appup "
                        "where license_id12='" + id + "'");
    };
    for (int i = 1; i <= 7; i++) {
        std::string id = "APP00000000" + std::to_string(i);
        db_exec("insert into vtlog.cloud_appup(license_id12, upgrade_bag, complete) values('" + id +
                "', 'pkg-2.1.tgz', 0)");
        ping(id);
    }
    ASSERT_TRUE(wait_until([&] { return backup(2050).find("device_count=7\n") != std::string::npos; }, 5s));
    sweep();
    EXPECT_EQ(db_value("select count(*) from vtlog.cloud_appup where complete=1 and errors='wait'"), "5");

    ping("APP000000001");
    auto o = g_->command();
    ASSERT_TRUE(o.has_value());
    ASSERT_EQ(o->size(), sizeof(cloud_appupgradeinfo_t));
    cloud_appupgradeinfo_t up;
    std::memcpy(&up, o->data(), sizeof(up));
    EXPECT_EQ(up.type, VTR_APPUPGRADE);
    EXPECT_EQ(up.nginx_port, 80);
    EXPECT_STREQ(up.license_id12, "APP000000001");
    EXPECT_STREQ(up.packet_name, "pkg-2.1.tgz");
    ASSERT_TRUE(d_.db_settled());
    EXPECT_EQ(state("APP000000001"), "1|" + hex("\xB7\xA2\xCB\xCD\xC9\xFD\xBC\xB6\xD6\xB8\xC1\xEE") + "|");
    ping("APP000000001");  // ordered once only
    EXPECT_FALSE(g_->command(300).has_value());

    g_->send(up);  // the acknowledgement
    ASSERT_TRUE(wait_until([&] {
        return state("APP000000001") ==
               "1|" + hex("\xD2\xD1\xBD\xD3\xCA\xD5\xB5\xBD\xC9\xFD\xBC\xB6\xD6\xB8\xC1\xEE") + "|";
    }, 5s));
    auto report = [&](const std::string& id, const std::string& text) {
        cloud_appup_log_t l{};
        std::memcpy(l.tag, "VTR", 4);
        l.type = VTR_APPUP_LOG;
        std::snprintf(l.license_id12, sizeof(l.license_id12), "%s", id.c_str());
        std::snprintf(l.errors, sizeof(l.errors), "%s", text.c_str());
        g_->send(l);
    };
    report("APP000000001", "upgrade 50% downloading");
    report("APP000000001", "malformed");
    ASSERT_TRUE(wait_until([&] { return state("APP000000001") == "1|" + hex("downloading") + "|"; }, 5s));
    report("APP000000001", "upgrade succ 2.1.0\r\nextra");
    report("APP000000002", "upgrade fail no space");
    ASSERT_TRUE(wait_until([&] { return state("APP000000002") == "3|" + hex("no space") + "|"; }, 5s));
    EXPECT_EQ(state("APP000000001"), "2|" + hex("2.1.0") + "|2.1.0");

    // Two ended: the waiting two start. An upgrade silent for 30 s starts
    // again; after its third start it fails.
    sweep();
    EXPECT_EQ(db_value("select count(*) from vtlog.cloud_appup where complete=1"), "5");
    for (int start = 2; start <= 4; start++) {
        d_.step_clock(30);
        ASSERT_TRUE(d_.db_settled());
    }
    EXPECT_EQ(state("APP000000003"), "3|" + hex("\xC9\xFD\xBC\xB6\xCA\xA7\xB0\xDC") + "|");
}

TEST_F(Backup, InventoryListingsAndStartRequests)
{
    test_gateway dev(d_.device_port());
    auto s = test_gateway::status("INV000000001");
    std::snprintf(s.sys_name, sizeof(s.sys_name), "Branch-North");
    std::snprintf(s.grpname, sizeof(s.grpname), "%s", "");
    dev.send(s);
    ASSERT_TRUE(wait_until([&] { return d_.cmd("cloud", 2054, "license_id12=INV000000001").text() != ""; }, 5s));
    auto app = [&](const char* id, const char* name, const char* cname, const char* version) {
        cloud_appinfo_t a{};
        std::memcpy(a.tag, "VTR", 4);
        a.type = VTR_APPINFO;
        std::snprintf(a.license_id12, sizeof(a.license_id12), "%s", id);
        std::snprintf(a.app_name, sizeof(a.app_name), "%s", name);
        std::snprintf(a.app_cname, sizeof(a.app_cname), "%s", cname);
        std::snprintf(a.app_version, sizeof(a.app_version), "%s", version);
        std::snprintf(a.app_status, sizeof(a.app_status), "running");
        g_->send(a);
    };
    app("INV000000001", "vpn", "VPN Client", "1.2");
    app("INV000000001", "web", "WebGuard", "3.0");
    app("INV000000002", "vpn", "VPN Client", "1.1");
    g_->send_result("tag=appinfo license_id12=INV000000003 name=dns cname=DNSCache version=0.9 status=stopped");
    ASSERT_TRUE(wait_until([&] { return backup(2055).find("total=4\n") != std::string::npos; }, 5s));

    // Each line as the identifier's last three digits and the first two
    // letters of the application; the totals line as it is.
    auto ids = [&](const std::string& args) {
        std::string t = backup(2055, args), out;
        for (size_t at = 0, nl; (nl = t.find('\n', at)) != std::string::npos; at = nl + 1) {
            std::string l = t.substr(at, nl - at);
            if (l.rfind("total=", 0) != 0) {
                size_t app = l.find(' ', l.find(' ') + 1) + 1;  // after the identifier and the name
                l = l.substr(9, 3) + " " + l.substr(app, 2);
            }
            out += (out.empty() ? "" : ",") + l;
        }
        return out;
    };
    struct {
        const char* args;
        const char* want;  // the last characters of each line's identifier, then the total
    } lists[] = {
        {"", "001 vp,001 we,002 vp,003 dn,total=4"},
        {"page=2 limit=3", "003 dn,total=4"},
        {"sch=vpn", "001 vp,002 vp,total=2"},           // lower-cased display name
        {"sch=north", "001 vp,001 we,total=2"},         // lower-cased appliance name
        {"sch=VPN", "total=0"},                         // the text itself is not lower-cased
        {"sch=none", "001 vp,001 we,002 vp,003 dn,total=4"},
        {"reverse=1 sch=vpn", "003 dn,total=1"},        // appliances without it
        {"reverse=1 sch=vpn,1.2", "002 vp,003 dn,total=2"},
        {"reverse=1 sch=nothing", "001 vp,001 we,002 vp,003 dn,total=4"},
        {"usergrp=0", "001 vp,001 we,002 vp,003 dn,total=4"},
        {"usergrp=5,6", "total=0"},
    };
    for (const auto& l : lists)
        EXPECT_EQ(ids(l.args), l.want) << l.args;
    EXPECT_EQ(backup(2055, "limit=1").substr(0, 51), "INV000000001 Branch-North vpn VPN Client 1.2 10000 ");

    // A new display name and group reach the inventory.
    EXPECT_EQ(d_.cmd("cloud", 2053, "license_id12=INV000000001 grpid=7 sysname=Depot").text(), "ok");
    ASSERT_TRUE(d_.db_settled());
    EXPECT_EQ(backup(2055, "limit=1 usergrp=7").substr(0, 19), "INV000000001 Depot ");

    // A start request goes out once, with the next message naming the app.
    EXPECT_EQ(backup(2053, "license_id12=INV000000003 app_name=dns state=start"), "ok");
    EXPECT_EQ(backup(2053, "license_id12=INV000000003 app_name=nosuch"), "ok");
    EXPECT_EQ(backup(2053, "app_name=dns"), "Invalid license\n");
    g_->send_result("tag=appstartlog license_id12=INV000000003 name=dns status=stopped");
    EXPECT_EQ(g_->command(), "tag=appstart license_id12=INV000000003 app_name=dns state=stopped");
    g_->send_result("tag=appinfo license_id12=INV000000003 name=dns status=running");
    EXPECT_FALSE(g_->command(300).has_value());
    EXPECT_NE(backup(2055, "sch=inv000000003").find(" running 2\n"), std::string::npos);

    // Echo, and what the module does not answer.
    const std::string echo = std::string("VTR\0", 4) + "\xF1\x03" + "payload";
    g_->send(echo.data(), echo.size());
    EXPECT_EQ(g_->command(), echo);
    auto bad = d_.cmd("backup", 2054);
    EXPECT_EQ(bad.rec.ca_errno, 22);
    EXPECT_STREQ(bad.rec.ca_errmsg, "NOT_SUPPORTED");
}

}  // namespace
