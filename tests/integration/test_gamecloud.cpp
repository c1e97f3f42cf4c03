// Game acceleration nodes: reports kept in memory, enable=2 ignored, the
// highest address count kept while the node is known, list and remove.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "daemon.h"
#include "db.h"
#include "gateway.h"

namespace {

using namespace std::chrono_literals;

TEST(GameCloud, ReportsListAndRemove)
{
    db_reset();
    daemon_proc d;
    d.start();
    test_gateway g(d.device_port());
    for (const char* id : {"GAME00000001", "GAME00000002"}) {
        auto r = test_gateway::status(id);
        std::snprintf(r.sys_name, sizeof(r.sys_name), "node-%s", id + 10);
        g.send(r);
    }
    ASSERT_TRUE(wait_until([&] { return d.cmd("cloud", 2050).text().find("device_total=2\n") != std::string::npos; },
                           5s));
    auto list = [&](const std::string& args) { return d.cmd("gamecloud", 2055, args).text(); };
    auto report = [&](const std::string& words) { g.send_result("tag=gamecloud_stat " + words); };

    report("license_id12=GAME00000001 enable=1 startm=100 endtm=200 l2tp_state=up inbps=12k outbps=3k ipcnt=9 "
           "license_ipcnt=50 delay_cur=30 delay_min=10 delay_max=90 state=running waitime_left=4");
    report("license_id12=GAME00000002 enable=2 ipcnt=1");  // ignored
    report("license_id12=GAME00000001 enable=1 ipcnt=3 delay_cur=31 state=running|x\nforged");
    ASSERT_TRUE(wait_until([&] { return list("").find(" 31 ") != std::string::npos; }, 5s));
    std::string l = list("");
    // Fields a report leaves out are cleared; the highest count is kept; a
    // line break in a text does not end the row.
    EXPECT_EQ(l.rfind("GAME00000001 10000 1  node-01 0 0  ", 0), 0u) << l;
    EXPECT_NE(l.find(" 3 0 31 0 0 running|x forg 0 9 \n"), std::string::npos) << l;
    EXPECT_EQ(l.substr(l.find("total=")), "total=1\nfail=0\n");

    report("license_id12=GAME00000002 enable=0 ipcnt=7 delay_cur=5");
    ASSERT_TRUE(wait_until([&] { return list("").find("total=2\n") != std::string::npos; }, 5s));
    auto first = [&](const std::string& args) { return list(args).substr(0, 12); };
    EXPECT_EQ(first("sortname=3"), "GAME00000001");             // by ipcnt, 3 before 7
    EXPECT_EQ(first("sortname=3 sortdesc=1"), "GAME00000002");
    EXPECT_EQ(first("sortname=1 sortdesc=1"), "GAME00000002");
    EXPECT_EQ(first("sortname=4"), "GAME00000002");             // delay 5 before 31
    EXPECT_EQ(first("sch=node-01"), "GAME00000001");
    EXPECT_EQ(first("page=2 limit=1"), "GAME00000002");
    EXPECT_EQ(list("grpid=3"), "total=2\nfail=0\n");
    EXPECT_EQ(list("usergrp=5,6"), "total=2\nfail=0\n");

    EXPECT_EQ(d.cmd("gamecloud", 2052, "").text(), "Invalid value\n");
    EXPECT_EQ(d.cmd("gamecloud", 2052, "license_id12=GAME00000001").text(), "ok");
    report("license_id12=GAME00000001 enable=1 ipcnt=2");
    ASSERT_TRUE(wait_until([&] { return list("sch=game00000001").find(" 2 0 ") != std::string::npos; }, 5s));
    EXPECT_NE(list("sch=game00000001").find(" 2 \n"), std::string::npos);  // re-added: the highest starts again
    EXPECT_EQ(d.cmd("gamecloud", 2050).text(), "");
    EXPECT_EQ(d.cmd("gamecloud", 2054).rec.ca_errno, 22);
}

}  // namespace

namespace {

// The node table holds 2000: a node reported after that is dropped. (A node
// stays when its gateway is removed, so a new gateway can report once the
// 2000 are taken.)
TEST(GameCloud, TwoThousandNodesThenNoMore)
{
    db_reset();
    daemon_proc d;
    d.start();
    test_gateway g(d.device_port());
    auto id = [](int i) { return "NODE" + std::to_string(10000000 + i); };
    auto total = [&](const char* module, const std::string& key) {
        std::string t = d.cmd(module, module == std::string("cloud") ? 2050 : 2055, "limit=1").text();
        size_t at = t.find(key);
        return at == std::string::npos ? -1 : std::atoi(t.c_str() + at + key.size());
    };
    for (int i = 0; i < 2000; i += 250) {
        for (int k = i; k < i + 250; k++)
            g.send(test_gateway::status(id(k)));
        ASSERT_TRUE(wait_until([&] { return total("cloud", "device_total=") == i + 250; }, 10s));
        for (int k = i; k < i + 250; k++)
            g.send_result("tag=gamecloud_stat license_id12=" + id(k) + " enable=1 ipcnt=1");
        ASSERT_TRUE(wait_until([&] { return total("gamecloud", "total=") == i + 250; }, 10s));
    }
    EXPECT_EQ(d.cmd("cloud", 2052, "license_id12=" + id(0)).text(), "ok");
    g.send(test_gateway::status(id(5000)));
    ASSERT_TRUE(wait_until([&] { return total("cloud", "device_total=") == 2000; }, 10s));
    g.send_result("tag=gamecloud_stat license_id12=" + id(5000) + " enable=1 ipcnt=1");
    g.send_result("tag=gamecloud_stat license_id12=" + id(1) + " enable=1 ipcnt=4");  // a marker behind it
    ASSERT_TRUE(wait_until([&] { return d.cmd("gamecloud", 2055, "sch=node10000001").text().find(" 4 ") !=
                                        std::string::npos; }, 5s));
    EXPECT_EQ(total("gamecloud", "total="), 2000);
    EXPECT_EQ(d.cmd("gamecloud", 2055, "sch=node10005000").text(), "total=2000\nfail=0\n");
}

}  // namespace
