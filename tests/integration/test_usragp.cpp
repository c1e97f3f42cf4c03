// User application distribution: the published list, five gateways at once
// told at their next report, answers and the 15 s time-out, the groups and
// applications gateways report (ring of 2000), and the commands.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "daemon.h"
#include "db.h"
#include "gateway.h"

namespace {

using namespace std::chrono_literals;

class Usragp : public ::testing::Test {
protected:
    void SetUp() override
    {
        db_reset();
        d_.start();
        for (int i = 1; i <= 7; i++) {
            gw_.push_back(std::make_unique<test_gateway>(d_.device_port()));
            report(i);
        }
        ASSERT_TRUE(
            wait_until([&] { return d_.cmd("cloud", 2050).text().find("device_total=7\n") != std::string::npos; }, 5s));
    }
    static std::string id(int i) { return "UAG00000000" + std::to_string(i); }
    void report(int i) const { gw_[i - 1]->send(test_gateway::status(id(i))); }
    void say(int i, const std::string& words) const { gw_[i - 1]->send_result(words); }
    std::string cmd(int code, const std::string& args = "") const { return d_.cmd("usragp", code, args).text(); }
    // The status digit of each gateway of the distribution.
    std::string states() const
    {
        std::string t = cmd(2055, "showdevice=1"), out;
        for (size_t at = 0, nl; (nl = t.find('\n', at)) != std::string::npos; at = nl + 1)
            out += t.substr(at + 13, 1);
        return out;
    }

    daemon_proc d_;
    std::vector<std::unique_ptr<test_gateway>> gw_;
};

TEST_F(Usragp, FiveAtOnceAnswersAndTimeout)
{
    std::string all;
    for (int i = 1; i <= 7; i++)
        all += (i > 1 ? ";" : "") + id(i);
    EXPECT_EQ(cmd(2056, "device=" + all), "ERR_DEVICE\n");
    EXPECT_EQ(cmd(2056, "device=" + all + " agp_name=office;games"), "");
    EXPECT_EQ(read_file(d_.path("/usr/logd/www/vtupbags/usragp.txt")), "agp office\nagp games\n");
    EXPECT_EQ(cmd(2056, "device=" + all + " agp_name=office app=chat;mail"), "");
    EXPECT_EQ(read_file(d_.path("/usr/logd/www/vtupbags/usragp.txt")), "app chat\napp mail\n");

    ASSERT_TRUE(wait_until([&] { return states() == "1111100"; }, 5s)) << states();
    EXPECT_EQ(cmd(2050), "syn_curr_cnt=5\ndevice_count=7\n");
    // A gateway in progress is told at its next report, once.
    report(1);
    EXPECT_EQ(gw_[0]->command(), "tag=usragp_file httpport=80");
    report(1);
    EXPECT_FALSE(gw_[0]->command(200).has_value());
    report(6);
    EXPECT_FALSE(gw_[5]->command(200).has_value());

    say(1, "tag=usragp_log license_id12=" + id(1) + " error=OK_installed");
    say(2, "tag=usragp_log license_id12=" + id(2) + " error=NO_space");
    say(3, "tag=usragp_log license_id12=" + id(3) + " error=downloading");
    say(4, "tag=usragp_log license_id12=" + id(4) + " error=OK return=0");  // has "return": ignored
    ASSERT_TRUE(wait_until([&] { return states() == "2311111"; }, 5s)) << states();
    EXPECT_NE(cmd(2055, "showdevice=1").find(id(3) + " 1 gw-" + id(3) + " downloading\n"), std::string::npos);

    // 15 s without an answer: failed, the text kept when there was one.
    d_.step_clock(15);
    ASSERT_TRUE(wait_until([&] { return states() == "2333333"; }, 5s)) << states();
    EXPECT_NE(cmd(2055, "showdevice=1").find(id(4) + " 3 gw-" + id(4) + " ERR_TIMEOUT\n"), std::string::npos);
    EXPECT_EQ(cmd(2050), "syn_curr_cnt=0\ndevice_count=7\n");
    EXPECT_EQ(cmd(2053), "");
    EXPECT_EQ(d_.cmd("usragp", 2054).rec.ca_errno, 22);
}

TEST_F(Usragp, ReportedGroupsAndApplications)
{
    say(1, "tag=usragp_request license_id12=" + id(1) + " cname=Office name=office-apps");
    say(1, "tag=usragp_request license_id12=" + id(1) + " cname=Office name=other");  // same cname: ignored
    say(1, "tag=usrapp_request license_id12=" + id(1) + " cname=ChatClientWithAVeryLongDisplayName name=chat "
           "nodettl=30 tports=80,443 uports=53");
    say(1, "tag=usrapp_request license_id12=" + id(1) + " cname=Chat name=chat nodettl=45 tports=8443 uports=53");
    say(1, "tag=usrapp_request license_id12=" + id(1) + " name=nochat nodettl=1");  // incomplete
    ASSERT_TRUE(wait_until([&] { return cmd(2055, "license_id12=" + id(1) + " showapp=1").find(" 45 ") !=
                                        std::string::npos; }, 5s));
    EXPECT_EQ(cmd(2055, "license_id12=" + id(1)), id(1) + " Office office-apps\n");
    EXPECT_EQ(cmd(2055, "license_id12=" + id(1) + " showapp=1"),
              id(1) + " chat ChatClientWithAVeryLongDisplayN 45 8443 53\n");  // cut to its field
    EXPECT_EQ(cmd(2055, ""), "ERR_LICID12_2");

    // Asking again clears what the gateway had reported.
    EXPECT_EQ(cmd(2058, "license_id12=" + id(1)), "ok");
    EXPECT_EQ(gw_[0]->command(), "tag=usragp_request licid12=" + id(1));
    EXPECT_EQ(cmd(2055, "license_id12=" + id(1)), "");
    EXPECT_EQ(cmd(2058, "license_id12=NOSUCH000001"), "ERR_NOOBJECT");
    EXPECT_EQ(cmd(2058, ""), "ERR_LICID12_1");

    // The ring: 2000 more groups overwrite the oldest.
    say(2, "tag=usragp_request license_id12=" + id(2) + " cname=first name=x");
    for (int k = 0; k < 2000; k++)
        say(3, "tag=usragp_request license_id12=" + id(3) + " cname=g" + std::to_string(k) + " name=x");
    ASSERT_TRUE(wait_until([&] { return cmd(2055, "license_id12=" + id(3)).find(" g1999 ") != std::string::npos; },
                           10s));
    EXPECT_EQ(cmd(2055, "license_id12=" + id(2)), "");
}

}  // namespace
