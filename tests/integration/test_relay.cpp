// Table pushes to gateways, for both tables: reports, marks, at most five
// instructions in flight at heartbeats, answers, the 60 s time-out, the
// listing filters and clear.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "daemon.h"
#include "db.h"
#include "gateway.h"

namespace {

using namespace std::chrono_literals;

struct relay_names {
    const char* module;
    const char* report_tag;
    const char* key;
    const char* status_tag;
    bool report_sets_time;
};
// Names the case in test listings (stable across builds, unlike its bytes).
void PrintTo(const relay_names& n, std::ostream* os) { *os << n.module; }

class Relay : public ::testing::TestWithParam<relay_names> {
protected:
    void SetUp() override
    {
        db_reset();
        d_.start();
        for (int i = 1; i <= 6; i++) {
            gw_.push_back(std::make_unique<test_gateway>(d_.device_port()));
            heartbeat(i);
        }
        ASSERT_TRUE(
            wait_until([&] { return d_.cmd("cloud", 2050).text().find("device_total=6\n") != std::string::npos; }, 5s));
    }
    static std::string id(int i) { return "RLY00000000" + std::to_string(i); }
    void heartbeat(int i) const { gw_[i - 1]->send(test_gateway::status(id(i))); }
    void say(int i, const std::string& words) const { gw_[i - 1]->send_result(words); }
    std::string cmd(int code, const std::string& args = "") const { return d_.cmd(GetParam().module, code, args).text(); }
    // istask of each gateway in the listing, "-" when it is not listed.
    std::string states(const std::string& args = "") const
    {
        std::string t = cmd(2055, args), out;
        for (int i = 1; i <= 6; i++) {
            size_t at = t.find("\n" + id(i) + " ");
            if (at == std::string::npos) {
                out += "-";
                continue;
            }
            std::string row = t.substr(at + 1, t.find('\n', at + 1) - at - 1);
            // id sysname tableinfo grpid ISTASK tblfname error
            size_t p = 0;
            for (int f = 0; f < 4; f++)
                p = row.find(' ', p) + 1;
            out += row.substr(p, 1);
        }
        return out;
    }

    daemon_proc d_;
    std::vector<std::unique_ptr<test_gateway>> gw_;
};

TEST_P(Relay, PushesAtHeartbeatsFiveAtOnce)
{
    const relay_names& n = GetParam();
    EXPECT_EQ(cmd(2055), "");  // nothing reported yet: not even the header
    for (int i = 1; i <= 6; i++)
        say(i, std::string("tag=") + n.report_tag + " license_id12=" + id(i) + " " + n.key + "=tbl-v" +
                   std::to_string(i));
    ASSERT_TRUE(wait_until([&] { return states() == "000000"; }, 5s)) << cmd(2055);
    EXPECT_EQ(cmd(2055, "sch=RLY000000003"),
              "license_id12 sysname tableinfo grpid istask tblfname error\n"
              "RLY000000003 gw-RLY000000003 tbl-v3 10000 0  \n");

    EXPECT_EQ(cmd(2053, "license_id12=" + id(1)), "err: license_id12 is null\n");
    for (int i = 1; i <= 6; i++)
        EXPECT_EQ(cmd(2053, "ipid=77 license_id12=" + id(i) + " tblfname=t.list grpname=office"), "ok\n");
    EXPECT_EQ(states("istask=1"), "111111");

    // Heartbeats: five instructions, the sixth waits.
    for (int i = 1; i <= 6; i++)
        heartbeat(i);
    for (int i = 1; i <= 5; i++)
        EXPECT_EQ(gw_[i - 1]->command(), std::string("tag=") + n.status_tag + " license_id12=" + id(i) +
                                             " ipid=77 file=t.list grpname=office dwport=80");
    EXPECT_FALSE(gw_[5]->command(300).has_value());
    EXPECT_EQ(states(), "222221");

    // Answers end two; the waiting one goes at its next heartbeat.
    say(1, std::string("tag=") + n.status_tag + " license_id12=" + id(1) + " ret=0");
    say(2, std::string("tag=") + n.status_tag + " license_id12=" + id(2) + " ret=-1 error=no_space");
    ASSERT_TRUE(wait_until([&] { return states() == "432221"; }, 5s));
    EXPECT_NE(cmd(2055, "sch=RLY000000002").find(" 3 t.list no_space\n"), std::string::npos);
    heartbeat(6);
    EXPECT_TRUE(gw_[5]->command().has_value());

    // Sent 60 s ago without an answer: timed out at the next heartbeat. A
    // report in between restarts the clock for the IP table only.
    d_.step_clock(50);
    say(3, std::string("tag=") + n.report_tag + " license_id12=" + id(3) + " " + n.key + "=tbl-v3b");
    ASSERT_TRUE(wait_until([&] { return cmd(2055).find("tbl-v3b") != std::string::npos; }, 5s));
    d_.step_clock(15);
    heartbeat(3);
    heartbeat(4);
    ASSERT_TRUE(wait_until([&] { return states()[3] == '3'; }, 5s));
    EXPECT_EQ(states()[2], n.report_sets_time ? '2' : '3');
    EXPECT_NE(cmd(2055, "sch=RLY000000004").find(" 3 t.list time out\n"), std::string::npos);

    EXPECT_EQ(states("usergrp=5"), "------");
    EXPECT_EQ(states("grpid=10000"), states());
    EXPECT_EQ(cmd(2053, "clear=1"), "");
    EXPECT_EQ(states(), "000000");
    EXPECT_EQ(cmd(2050), "");
    EXPECT_EQ(d_.cmd(n.module, 2054).rec.ca_errno, 22);
}

INSTANTIATE_TEST_SUITE_P(Tables, Relay,
                         ::testing::Values(relay_names{"iptable", "updateiptable", "iptable", "iptablestatus", true},
                                           relay_names{"urldnsgrp", "urldnsgrpinfo", "urldnsgrp", "urldnsgrpstatus",
                                                       false}),
                         [](const auto& info) { return std::string(info.param.module); });

}  // namespace
