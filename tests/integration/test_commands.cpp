// The registry's management commands through the real socket, against
// gateways reporting over UDP.
#include <crypt.h>
#include <sys/wait.h>
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <sstream>
#include <vector>

#include "daemon.h"
#include "db.h"
#include "gateway.h"

namespace {

using namespace std::chrono_literals;

struct listing {
    std::vector<std::vector<std::string>> rows;  // 32 values each
    std::string totals;
};

class Commands : public ::testing::Test {
protected:
    void SetUp() override
    {
        db_reset();
        d_ = std::make_unique<daemon_proc>();
        write_file(d_->path("/usr/logd/bin/log.conf"), "# settings\n");
        d_->start();
        gw_ = std::make_unique<test_gateway>(d_->device_port());
    }

    std::string run(int code, const std::string& args)
    {
        auto r = d_->cmd("cloud", code, args);
        EXPECT_EQ(r.rc, 0);
        EXPECT_EQ(r.rec.ca_errno, 0) << code << " " << args;
        return r.text();
    }

    listing list(const std::string& args)
    {
        std::istringstream in(run(2055, args));
        listing l;
        std::string header;
        std::getline(in, header);
        EXPECT_EQ(split(header, '|').size(), 30u);
        for (std::string line; std::getline(in, line);) {
            auto v = split(line, '|');
            if (v.size() == 32)
                l.rows.push_back(v);
            else
                l.totals += line + "\n";
        }
        return l;
    }

    static std::vector<std::string> ids(const listing& l)
    {
        std::vector<std::string> out;
        for (auto& r : l.rows)
            out.push_back(r[4]);
        return out;
    }

    // Reports N gateways DEV00000001.. through one socket, then waits until
    // the pool has them all.
    void report(int n, const std::function<void(int, devinfo_recv_bps_t&)>& fill = nullptr)
    {
        for (int i = 1; i <= n; i++) {
            char id[16];
            std::snprintf(id, sizeof(id), "DEV%09d", i);
            auto r = test_gateway::status(id);
            if (fill)
                fill(i, r);
            gw_->send(r);
        }
        ASSERT_TRUE(wait_until([&] { return list("limit=5000").rows.size() == static_cast<size_t>(n); }, 10s));
    }

    std::unique_ptr<daemon_proc> d_;
    std::unique_ptr<test_gateway> gw_;
};

TEST_F(Commands, ListPagesSortsAndSearches)
{
    report(45, [](int i, devinfo_recv_bps_t& r) {
        r.current_users = static_cast<uint32_t>(100 - i);
        std::snprintf(r.sys_name, sizeof(r.sys_name), "Name-%02d|x\ny", i % 7);
        std::snprintf(r.version, sizeof(r.version), i % 2 ? "V1.odd" : "V1.even");
    });
    auto page2 = list("page=2 limit=20");
    ASSERT_EQ(page2.rows.size(), 20u);
    EXPECT_EQ(page2.rows.front()[4], "DEV000000021");
    EXPECT_EQ(page2.rows.back()[4], "DEV000000040");
    EXPECT_EQ(page2.totals, "device_total=45\ndevice_fail=0\ndevice_exp=0\nequalcount=0\n");
    // Names lose everything from the first '|' or line end, in the record.
    EXPECT_EQ(page2.rows.front()[1], "Name-00");

    auto byid = ids(list("sortname=1 sortdesc=1 limit=3"));
    EXPECT_EQ(byid, (std::vector<std::string>{"DEV000000045", "DEV000000044", "DEV000000043"}));
    auto byusers = ids(list("sortname=5 sortdesc=0 limit=2"));
    EXPECT_EQ(byusers, (std::vector<std::string>{"DEV000000045", "DEV000000044"}));
    auto byusersdesc = ids(list("sortname=5 sortdesc=1 limit=2"));
    EXPECT_EQ(byusersdesc, (std::vector<std::string>{"DEV000000001", "DEV000000002"}));
    // A later list starts again from slot order.
    EXPECT_EQ(ids(list("sortname=14 limit=2")), (std::vector<std::string>{"DEV000000001", "DEV000000002"}));
    auto byversion = list("sortname=10 limit=45");
    EXPECT_EQ(byversion.rows.front()[22], "V1.even");
    EXPECT_EQ(byversion.rows.back()[22], "V1.odd");

    // Search: lower-cased identifier and names, the long identifier, the
    // version, or a version inside the search text.
    EXPECT_EQ(list("sch=dev00000004").rows.size(), 6u);  // 40 to 45
    EXPECT_EQ(list("sch=name-03").rows.size(), 7u);
    EXPECT_EQ(list("sch=LONG-DEV000000007").rows.size(), 1u);
    EXPECT_EQ(list("sch=xxV1.oddxx limit=100").rows.size(), 23u);
    EXPECT_EQ(list("sch=nothing").totals, "device_total=0\ndevice_fail=0\ndevice_exp=0\nequalcount=0\n");
}

TEST_F(Commands, ExpireModesAndGroupFilters)
{
    uint32_t now = static_cast<uint32_t>(time(nullptr));
    report(6, [&](int i, devinfo_recv_bps_t& r) {
        r.license_end = i <= 2 ? now + 3 * 86400 : now + 30 * 86400;
        r.current_users = i == 6 ? 100 : 1;  // limit reached
    });
    d_->cmd(nullptr, 389, "sec=61");
    gw_->send(test_gateway::status("DEV000000005"));  // the only one not failed
    ASSERT_TRUE(wait_until([&] { return list("expire=3").rows.size() == 5; }, 5s));

    auto exp1 = list("expire=1 limit=1 page=2");
    EXPECT_EQ(ids(exp1), (std::vector<std::string>{"DEV000000002"}));
    EXPECT_EQ(exp1.totals, "device_total=2\ndevice_fail=5\ndevice_exp=2\nequalcount=1\n");
    EXPECT_EQ(list("expire=2 limit=1").rows.size(), 6u);
    EXPECT_EQ(list("expire=0 limit=4").totals, "device_total=6\ndevice_fail=5\ndevice_exp=2\nequalcount=1\n");
    EXPECT_TRUE(list("expire=7").rows.empty());
    auto equal = list("showequal=1");
    ASSERT_EQ(ids(equal), (std::vector<std::string>{"DEV000000006"}));
    EXPECT_EQ(equal.rows[0][27], "用户数=最大用户数100/100;");
    EXPECT_EQ(run(2055, "clearequalinfo"), "ok");
    EXPECT_TRUE(list("showequal=1").rows.empty());

    // Groups: 10000 takes groups 0 and 10000 alike.
    run(2053, "license_id12=DEV000000001 grpid=0 sysname=zero");
    run(2053, "license_id12=DEV000000002 grpid=7 sysname=seven");
    run(2053, "license_id12=DEV000000003 grpid=8 sysname=eight");
    std::string all = run(2050, "");
    EXPECT_NE(all.find("device_pool=2000/6[total/use]\ndevice_total=6\ndevice_fail=5\ndevice_exp=2\n"),
              std::string::npos)
        << all;
    std::string nogrp = run(2050, "grpid=10000");
    EXPECT_NE(nogrp.find("device_total=6\ndevice_fail=3\ndevice_exp=1\n"), std::string::npos) << nogrp;
    EXPECT_EQ(list("usergrp=7|8").rows.size(), 2u);
    EXPECT_EQ(list("usergrp=0,7").rows.size(), 6u);  // starts with 0: no filter
    EXPECT_EQ(list("grpid=7").rows.size(), 1u);
    EXPECT_NE(run(2050, "usergrp=7,8").find("device_fail=2\n"), std::string::npos);
    EXPECT_EQ(device_row("DEV000000002", "sys_name2, grpid"), "seven|7");
}

TEST_F(Commands, PasswordResetReachesTheGateway)
{
    test_gateway a(d_->device_port()), b(d_->device_port());
    auto ra = test_gateway::status("PASS00000001");
    std::snprintf(ra.version, sizeof(ra.version), "V[9.2]build");
    auto rb = test_gateway::status("PASS00000002");
    std::snprintf(rb.version, sizeof(rb.version), "V[8.1]");
    auto rc = test_gateway::status("PASS00000003");
    a.send(ra);
    b.send(rb);
    gw_->send(rc);
    ASSERT_TRUE(wait_until([&] { return list("").rows.size() == 3; }, 5s));

    EXPECT_EQ(run(2053, "license_id12=PASS00000001 rootpass=s3cret mfadminpass=1"), "ok");
    EXPECT_EQ(run(2053, "license_id12=PASS00000002 rootpass=old-style"), "ok");
    EXPECT_EQ(run(2053, "license_id12=PASS00000003 rootpass=nothing"), "ok");
    EXPECT_EQ(run(2053, "rootpass=x"), "Invalid license\n");
    auto state = [&](const std::string& id) {
        for (auto& r : list("").rows)
            if (r[4] == id)
                return r[24];
        return std::string("?");
    };
    EXPECT_EQ(state("PASS00000001"), "1");
    EXPECT_EQ(state("PASS00000003"), "0");

    a.send(ra);
    auto cmd = a.command();
    ASSERT_TRUE(cmd.has_value());
    auto words = split(*cmd, ' ');
    ASSERT_EQ(words.size(), 5u) << *cmd;
    EXPECT_EQ(words[0], "tag=rootpassreset");
    EXPECT_EQ(words[1], "license_id12=PASS00000001");
    std::string hash = words[2].substr(9);
    EXPECT_EQ(hash.rfind("$6$", 0), 0u) << hash;
    EXPECT_STREQ(crypt("s3cret", hash.c_str()), hash.c_str());
    EXPECT_EQ(words[3], "oripass=s3cret");
    EXPECT_EQ(words[4], "mfadminpass=1");
    EXPECT_EQ(state("PASS00000001"), "20");
    a.send_result("tag=rootpassreset license_id12=PASS00000001 return=0");
    EXPECT_TRUE(wait_until([&] { return state("PASS00000001") == "40"; }, 5s));

    // No confirmation within 60 s: failed at the next report.
    b.send(rb);
    auto cmdb = b.command();
    ASSERT_TRUE(cmdb.has_value());
    EXPECT_NE(cmdb->find("password=$1$"), std::string::npos) << *cmdb;
    EXPECT_EQ(state("PASS00000002"), "20");
    d_->step_clock(60);
    b.send(rb);
    EXPECT_TRUE(wait_until([&] { return state("PASS00000002") == "30"; }, 5s));
    EXPECT_FALSE(b.command(200).has_value());
}

TEST_F(Commands, RangeChangeGivesEveryDeviceANewPair)
{
    report(3);
    EXPECT_EQ(run(2056, "minport=0 maxport=-1"), "Invalid port\n");
    EXPECT_EQ(run(2056, "minport=30000 maxport=31000"), "ok");
    ASSERT_TRUE(d_->db_settled());
    EXPECT_EQ(db_value("select group_concat(web_port, ':', ssh_port order by license_id12) from vtlog.cloud_device"),
              "30000:30001,30002:30003,30004:30005");
    // The pool holds each pair one up, as a load does.
    EXPECT_EQ(list("limit=1").rows[0][12] + ":" + list("limit=1").rows[0][17], "30001:30002");
    std::string conf = read_file(d_->path("/usr/logd/bin/log.conf"));
    EXPECT_NE(conf.find("cloud_mapping_min_port=30000\n"), std::string::npos) << conf;
    EXPECT_NE(conf.find("cloud_mapping_max_port=31000\n"), std::string::npos) << conf;
    EXPECT_NE(run(2050, "").find("mapping_port_min=30000\nmapping_port_max=31000\n"), std::string::npos);

    EXPECT_EQ(run(2056, "defgrp=55"), "ok");
    EXPECT_NE(run(2050, "").find("device_defgrp=55\n"), std::string::npos);
    EXPECT_EQ(run(2056, "notify_discon=1"), "ok");
    EXPECT_NE(run(2050, "").find("_weixin_notify_discon=1\n"), std::string::npos);
}

TEST_F(Commands, MappingDatagramAndDeviceEdits)
{
    test_gateway g(d_->device_port());
    g.send(test_gateway::status("MAP000000001"));
    ASSERT_TRUE(wait_until([&] { return list("").rows.size() == 1; }, 5s));
    EXPECT_EQ(run(2057, "license_id12=MAP000000001 maphost=relay.example hostport=2222 webport=40001 "
                        "sshport=40002 webenable=1 sshenable=0"),
              "ok");
    auto m = g.command();
    ASSERT_TRUE(m.has_value());
    ASSERT_EQ(m->size(), sizeof(_mapping_port_t));
    _mapping_port_t mp;
    std::memcpy(&mp, m->data(), sizeof(mp));
    EXPECT_EQ(std::string(mp.tag, 4), std::string("VTR\0", 4));
    EXPECT_EQ(mp.type, VTR_MAPPING);
    EXPECT_EQ(mp.webport, 40001);
    EXPECT_EQ(mp.sshport, 40002);
    EXPECT_EQ(mp.webenable, 1);
    EXPECT_EQ(mp.sshenable, 0);
    EXPECT_EQ(mp.hostport, 2222);
    EXPECT_STREQ(mp.licenseid12, "MAP000000001");
    EXPECT_STREQ(mp.maphost, "relay.example");
    ASSERT_TRUE(d_->db_settled());
    EXPECT_EQ(device_row("MAP000000001", "web_port, ssh_port"), "40001|40002");
    EXPECT_EQ(run(2057, "maphost=x"), "Invalid value\n");
    EXPECT_EQ(run(2057, "license_id12=NOSUCH"), "ok");

    db_exec("insert into vtlog.cloud_backup(license_id12, cname, grpid) values('MAP000000001', 'old', 1)");
    EXPECT_EQ(run(2053, "license_id12=MAP000000001 grpid=12 sysname=\"it's\" address=Main_St lng=1.5 lat=2.5"),
              "ok");
    ASSERT_TRUE(d_->db_settled());
    EXPECT_EQ(device_row("MAP000000001", "sys_name2, grpid, map_address, longitude, latitude"),
              "it's|12|Main_St|1.5|2.5");
    EXPECT_EQ(db_value("select concat(cname, ':', grpid) from vtlog.cloud_backup where license_id12='MAP000000001'"),
              "it's:12");
    EXPECT_EQ(run(2054, "license_id12=MAP000000001"), "name=it's\n");
    EXPECT_EQ(run(2054, "license_id12=NOSUCH"), "");
    EXPECT_EQ(run(2054, ""), "Invalid value\n");

    EXPECT_EQ(run(2053, "license_id12=MAP000000001 newcloudip=10.9.8.7"), "ok");
    EXPECT_EQ(g.command(), "tag=setnewcloud license_id12=MAP000000001 newcloudip=10.9.8.7");

    EXPECT_EQ(run(2052, ""), "Invalid value\n");
    EXPECT_EQ(run(2052, "license_id12=MAP000000001"), "ok");
    ASSERT_TRUE(d_->db_settled());
    EXPECT_EQ(device_row("MAP000000001", "count(*)"), "0");
    EXPECT_TRUE(list("").rows.empty());
}

TEST_F(Commands, RelayCountsOnlyTheLastLine)
{
    test_gateway a(d_->device_port()), b(d_->device_port());
    a.send(test_gateway::status("WXA000000001"));
    b.send(test_gateway::status("WXB000000001"));
    ASSERT_TRUE(wait_until([&] { return list("").rows.size() == 2; }, 5s));
    std::string file = d_->path("/wx.txt");
    write_file(file, "deny all\ndevice=WXA000000001 deny one\ndevice=WXB000000001 deny other\n");
    EXPECT_EQ(run(2053, "wxcmd=1 file=" + file), "okokok");
    EXPECT_EQ(a.command(), "tag=wxdeny license_id12=WXA000000001 deny all");
    EXPECT_EQ(a.command(), "tag=wxdeny license_id12=WXA000000001 device=WXA000000001 deny one");
    EXPECT_EQ(b.command(), "tag=wxdeny license_id12=WXB000000001 deny all");
    EXPECT_EQ(b.command(), "tag=wxdeny license_id12=WXB000000001 device=WXB000000001 deny other");
    b.send_result("tag=wxdeny license_id12=WXB000000001 return=0");
    a.send_result("tag=wxdeny license_id12=WXA000000001 return=-1");
    // The status query clears the counters, so ask once, after the receive
    // loop has reached a report sent behind the answers.
    auto marker = test_gateway::status("WXB000000001");
    std::snprintf(marker.version, sizeof(marker.version), "marker");
    b.send(marker);
    ASSERT_TRUE(wait_until([&] { return device_row("WXB000000001", "version") == "marker"; }, 5s));
    EXPECT_EQ(run(2053, "wxcmd=1 wxcmdstatus=1"), "send=1\nsucc=1\nfail=1\n");
    EXPECT_EQ(run(2053, "wxcmd=1 wxcmdstatus=1"), "send=0\nsucc=0\nfail=0\n");

    auto missing = d_->cmd("cloud", 2053, "wxcmd=1 file=/nonexistent/file");
    EXPECT_EQ(missing.rec.ca_errno, 5);
    write_file(file, "device=NOSUCH000000 x\n");
    EXPECT_EQ(run(2053, "wxcmd=1 file=" + file), "ok");
    EXPECT_EQ(run(2053, "wxcmd=1 wxcmdstatus=1"), "send=0\nsucc=0\nfail=0\n");
}

TEST_F(Commands, CommandLineShortcuts)
{
    report(2, [](int i, devinfo_recv_bps_t& r) { r.current_users = static_cast<uint32_t>(i); });
    auto ctl = [&](const std::string& args) {
        std::string cmd = std::string(CLOUDCTL_BIN) + " -r " + d_->root() + " " + args + " 2>&1";
        FILE* p = popen(cmd.c_str(), "r");
        std::string out;
        char buf[4096];
        for (size_t n; (n = fread(buf, 1, sizeof(buf), p)) > 0;)
            out.append(buf, n);
        int st = pclose(p);
        return std::to_string(WEXITSTATUS(st)) + ":" + out;
    };
    EXPECT_EQ(ctl("setgrp DEV000000001 33"), "0:ok\n");
    EXPECT_EQ(ctl("rename DEV000000001 front-door"), "0:ok\n");
    ASSERT_TRUE(d_->db_settled());
    EXPECT_EQ(device_row("DEV000000001", "sys_name2, grpid"), "front-door|33");
    EXPECT_EQ(ctl("rename DEV000000001 'two words'").substr(0, 2), "1:");
    EXPECT_EQ(ctl("rename NOSUCH x").substr(0, 2), "1:");

    std::string table = ctl("devices --sort users --desc --limit 1 --table");
    std::istringstream in(table.substr(2));
    std::string header, row;
    std::getline(in, header);
    std::getline(in, row);
    EXPECT_EQ(header.rfind("ipaddr  ", 0), 0u) << table;
    EXPECT_EQ(header.find("|"), std::string::npos);
    // Columns line up: each row value starts where its header name does.
    size_t col = header.find("license_id12");
    EXPECT_EQ(row.substr(col, 12), "DEV000000002") << table;
    EXPECT_NE(header.find("passreset  cpu"), std::string::npos);
    EXPECT_NE(ctl("stats --grp 33").find("device_total=2\n"), std::string::npos);
    EXPECT_EQ(ctl("devices --sort bogus").substr(0, 2), "1:");
}

TEST_F(Commands, BadArgumentsNeverBreakTheDaemon)
{
    report(3);
    std::string many = "usergrp=";
    for (int i = 1; i <= 60; i++)
        many += std::to_string(i) + (i < 60 ? "," : "");
    for (const char* args : {"page=-1 limit=-5", "page=99999999999 limit=99999999999", "sortname=99 sortdesc=7",
                             "sortname=-1", "limit=abc page=\"2\"", "sch=\"a b\" x", "grpid=-3", "expire=-1",
                             "sch=%s%n%x"}) {
        auto r = d_->cmd("cloud", 2055, args);
        EXPECT_EQ(r.rec.ca_errno, 0) << args;
    }
    EXPECT_EQ(d_->cmd("cloud", 2055, many).rec.ca_errno, 0);
    EXPECT_EQ(d_->cmd("cloud", 2050, many).rec.ca_errno, 0);
    auto ns = d_->cmd("cloud", 2049, "");
    EXPECT_EQ(ns.rec.ca_errno, 22);
    EXPECT_STREQ(ns.rec.ca_errmsg, "NOT_SUPPORTED");
    EXPECT_EQ(list("").rows.size(), 3u);
}

}  // namespace
