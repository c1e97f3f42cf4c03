// Firmware upgrade campaigns: admission by start time and limit, the order
// at the next announcement, success and failure with their counts, three
// tries, the two-hour give-up and the five-minute expiry under a moved
// clock, and the replies of the commands.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>

#include "backup.h"
#include "daemon.h"
#include "db.h"
#include "gateway.h"
#include "upgrade.h"

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

const std::string kStarted = hex("\xBF\xAA\xCA\xBC\xC9\xFD\xBC\xB6");
const std::string kTimedOut = hex("\xC9\xFD\xBC\xB6\xB3\xAC\xCA\xB1");

class Upgrade : public ::testing::Test {
protected:
    void SetUp() override
    {
        db_reset();
        db_exec("delete from vtlog.cloud_upgrade");
        db_exec("delete from vtlog.cloud_task");
        db_exec("insert into vtlog.cloud_task(task_id, upgrade_pro) values(7, 'vantrel')");
        set_max(2);
        d_.start();
        g_ = std::make_unique<test_gateway>(d_.upgrade_port());
    }
    void set_max(int n)
    {
        std::string conf = read_file(d_.path("/etc/cloud.conf"));
        conf = conf.substr(0, conf.find("download_max="));
        write_file(d_.path("/etc/cloud.conf"), conf + "download_max=" + std::to_string(n) + "\n");
    }
    // A row of task 7 whose start time is AGO seconds in the past.
    static void target(const std::string& id, long ago)
    {
        db_exec("insert into vtlog.cloud_upgrade(task_id, license_id12, upgrade_pro, upgrade_start, upgrade_bag, "
                "complete) values(7, '" + id + "', 'vantrel', " + std::to_string(time(nullptr) - ago) +
                ", 'fw-9.3.bin', 0)");
    }
    void announce(const std::string& id) const
    {
        cloud_ping_t p{};
        std::memcpy(p.tag, "VTR", 4);
        p.type = VTR_UP_ANNOUNCE;
        std::snprintf(p.license_id12, sizeof(p.license_id12), "%s", id.c_str());
        g_->send(p);
    }
    // Sends a report and returns the daemon's answer.
    std::string report(const std::string& id, uint16_t type, const std::string& errors,
                       const std::string& ver = "") const
    {
        cloud_upgrade_log_t l{};
        std::memcpy(l.tag, "VTR", 4);
        l.type = type;
        l.task_id = 7;
        std::snprintf(l.license_id12, sizeof(l.license_id12), "%s", id.c_str());
        std::snprintf(l.last_ver, sizeof(l.last_ver), "%s", ver.c_str());
        std::snprintf(l.errors, sizeof(l.errors), "%s", errors.c_str());
        g_->send(l);
        return g_->command().value_or("none");
    }
    // The order the announcement got, or "" when none came within WAIT_MS
    // (short where none is expected).
    std::string order(const std::string& id, int wait_ms = 3000) const
    {
        announce(id);
        auto o = g_->command(wait_ms);
        if (!o.has_value() || o->size() != sizeof(cloud_upgradeinfo_t))
            return "";
        cloud_upgradeinfo_t u;
        std::memcpy(&u, o->data(), sizeof(u));
        return std::to_string(u.type) + " " + std::to_string(u.task_id) + " " + u.license_id12 + " " +
               std::string(u.packet_name, strnlen(u.packet_name, sizeof(u.packet_name))) + " " +
               std::to_string(u.ngnix_port);
    }
    // One scheduler pass, run at once by moving the clock.
    void pass(long seconds = 5) const
    {
        d_.step_clock(seconds);
        ASSERT_TRUE(d_.db_settled());
    }
    // Waits until the table has seen ID's announcement.
    void known(const std::string& id) const
    {
        announce(id);
        ASSERT_TRUE(wait_until([&] { return stat(2055).find(id + " ") != std::string::npos; }, 5s));
    }
    std::string stat(int code) const { return d_.cmd("upgrade", code).text(); }
    static std::string row(const std::string& id)
    {
        return db_value("select concat(complete, '|', hex(errors), '|', last_version) from vtlog.cloud_upgrade "
                        "where license_id12='" + id + "'");
    }
    static std::string counts() { return db_value("select concat(succ, '/', fail) from vtlog.cloud_task"); }

    daemon_proc d_;
    std::unique_ptr<test_gateway> g_;
};

TEST_F(Upgrade, AdmissionByStartTimeAndLimit)
{
    for (const char* id : {"UPA000000001", "UPA000000002", "UPA000000003"})
        target(id, 10);
    target("UPA000000004", -1000);  // starts later
    target("UPA000000005", 10);     // never announces
    for (const char* id : {"UPA000000001", "UPA000000002", "UPA000000003", "UPA000000004"})
        known(id);
    EXPECT_EQ(stat(2055).substr(0, 27), "UPA000000001 0 0 0 0 \nUPA00");
    pass();
    for (const char* id : {"UPA000000001", "UPA000000002", "UPA000000003"})
        EXPECT_EQ(row(id), "1|" + kStarted + "|") << id;
    EXPECT_EQ(row("UPA000000004"), "0||");
    EXPECT_EQ(row("UPA000000005"), "0||");
    EXPECT_NE(stat(2055).find("UPA000000003 7 1 80 0 fw-9.3.bin\n"), std::string::npos) << stat(2055);

    EXPECT_EQ(order("UPA000000001"), "10011 7 UPA000000001 fw-9.3.bin 80");
    EXPECT_EQ(order("UPA000000002"), "10011 7 UPA000000002 fw-9.3.bin 80");
    EXPECT_EQ(order("UPA000000003", 300), "");  // two in flight: waits
    EXPECT_EQ(stat(2050), "upgrading_num=2\nupgrading_max=2\n");
    EXPECT_NE(stat(2055).find("UPA000000001 0 0 0 1 \n"), std::string::npos);

    EXPECT_EQ(report("UPA000000001", VTR_UP_PROGRESS, "downloading 40%"), "ok");
    ASSERT_TRUE(d_.db_settled());
    EXPECT_EQ(row("UPA000000001"), "1|" + hex("downloading 40%") + "|");
    EXPECT_EQ(report("UPA000000001", VTR_UP_SUCC, "done", "V9.3.1"), "ok");
    ASSERT_TRUE(d_.db_settled());
    EXPECT_EQ(row("UPA000000001"), "2|" + hex("done") + "|V9.3.1");
    long end = std::stol(db_value("select upgrade_end from vtlog.cloud_upgrade where license_id12='UPA000000001'"));
    EXPECT_LE(std::abs(end - time(nullptr)), 5);
    EXPECT_EQ(counts(), "1/0");
    // The slot freed: the waiting appliance gets its order at its next
    // announcement.
    EXPECT_EQ(order("UPA000000003"), "10011 7 UPA000000003 fw-9.3.bin 80");

    // A new limit is read before every pass.
    set_max(9);
    pass();
    EXPECT_EQ(stat(2050), "upgrading_num=2\nupgrading_max=9\n");
    auto other = d_.cmd("upgrade", 2053);
    EXPECT_EQ(other.rec.ca_errno, 22);
    EXPECT_STREQ(other.rec.ca_errmsg, "NOT_SUPPORTED");
}

TEST_F(Upgrade, ThreeTriesThenFailed)
{
    target("UPB000000001", 10);
    known("UPB000000001");
    for (int attempt = 1; attempt <= 3; attempt++) {
        SCOPED_TRACE(attempt);
        pass();
        EXPECT_EQ(row("UPB000000001").substr(0, 2), "1|");
        ASSERT_EQ(order("UPB000000001"), "10011 7 UPB000000001 fw-9.3.bin 80");
        EXPECT_EQ(report("UPB000000001", VTR_UP_FAIL, "flash 'error' " + std::to_string(attempt)), "ok");
        ASSERT_TRUE(d_.db_settled());
        EXPECT_EQ(row("UPB000000001"), "0|" + hex("flash 'error' " + std::to_string(attempt)) + "|");
        EXPECT_EQ(counts(), "0/" + std::to_string(attempt));
    }
    // Three tries used: given up at the next pass, without a text, and the
    // in-flight count goes one below what is in flight.
    pass();
    EXPECT_EQ(row("UPB000000001"), "3|" + hex("flash 'error' 3") + "|");
    EXPECT_EQ(stat(2050), "upgrading_num=-1\nupgrading_max=2\n");
    EXPECT_EQ(order("UPB000000001", 300), "");
}

TEST_F(Upgrade, TwoHourGiveUpAndFiveMinuteExpiry)
{
    target("UPC000000001", 10);    // started, never reports
    target("UPC000000002", 7300);  // still waiting after two hours
    known("UPC000000001");
    known("UPC000000002");
    pass();
    EXPECT_EQ(row("UPC000000001"), "1|" + kStarted + "|");
    EXPECT_EQ(row("UPC000000002"), "3|" + kTimedOut + "|");
    ASSERT_EQ(order("UPC000000001"), "10011 7 UPC000000001 fw-9.3.bin 80");

    // Silent for five minutes: forgotten at the next minute's check.
    pass(299);
    EXPECT_NE(stat(2055).find("UPC000000001"), std::string::npos);
    pass(61);
    EXPECT_EQ(stat(2055).find("UPC000000001"), std::string::npos);

    // Two hours after its start time the started row is given up too.
    pass(7200);
    known("UPC000000001");
    pass();
    EXPECT_EQ(row("UPC000000001"), "3|" + kTimedOut + "|");
    EXPECT_EQ(stat(2050), "upgrading_num=-1\nupgrading_max=2\n");
}

}  // namespace
