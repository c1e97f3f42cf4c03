// Cache-appliance upgrade tasks: loading from cloud_task and cloud_upgrade,
// orders paced by download_max= and received on the appliances' sockets,
// success, failure and progress reports, the minute without an answer,
// the write-back of both tables, and the replies of module "als_upgrade".
#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include "daemon.h"
#include "db.h"
#include "gateway.h"

namespace {

using namespace std::chrono_literals;

// A cache appliance of known identifier, with its upgrade reports and the
// orders the daemon sends it.
class test_frb : public test_appliance {
public:
    test_frb(int daemon_port, std::string id) : test_appliance(daemon_port, "FRB"), id_(std::move(id)) {}

    const std::string& id() const { return id_; }
    void upgrade_report(int taskid, const std::string& words) const
    {
        send("tag=frb_upgrade license_id12=" + id_ + " taskid=" + std::to_string(taskid) + " " + words);
    }
    // The text of an order waiting on the socket (the header checked), ""
    // for something else, none when nothing is there.
    std::optional<std::string> order() const
    {
        auto d = recv(0);
        if (!d)
            return std::nullopt;
        const std::string& buf = *d;
        if (buf.size() != 520 || buf.substr(0, 6) != std::string("FRB\0\x40\x9c", 6))
            return "";
        size_t len = static_cast<unsigned char>(buf[6]) | static_cast<unsigned char>(buf[7]) << 8;
        std::string text = buf.substr(8, std::min<size_t>(len, 512));
        return buf.substr(8 + text.size()) == std::string(512 - text.size(), '\0') ? text : "";
    }

private:
    std::string id_;
};

class AlsUpgrade : public ::testing::Test {
protected:
    void SetUp() override
    {
        clean();
        write_file(d_.path("/etc/cloud.conf"), read_file(d_.path("/etc/cloud.conf")) + "download_max=5\n");
        write_file(d_.path("/usr/logd/www/vtupbags/webport.conf"), "# web server\nWEBPORT=8088\n");
        d_.start();
    }
    void TearDown() override
    {
        d_.stop();
        clean();
    }
    static void clean()
    {
        db_reset();
        db_exec("delete from vtlog.cloud_task");
        db_exec("delete from vtlog.cloud_upgrade");
        db_exec("drop table if exists vtlog.frelbox_list");
        db_exec("drop table if exists vtlog.frelbox_discon");
    }
    // N appliances ALS0000000NN that have reported (name box-NN, V1.0).
    void online(int n)
    {
        for (int i = 1; i <= n; i++) {
            char id[16];
            std::snprintf(id, sizeof(id), "ALS%09d", i);
            boxes_.push_back(std::make_unique<test_frb>(d_.device_port(), id));
            boxes_.back()->send(std::string("key=") + id + " name=box-" + std::to_string(i) + " ver=V1.0");
        }
        ASSERT_TRUE(wait_until([&] { return d_.cmd("frelbox", 2050).text().find("device_total=" + std::to_string(n) +
                                                                                  "\n") != std::string::npos; },
                               5s));
    }
    static void task(int taskid, const std::vector<std::string>& ids)
    {
        db_exec("insert into vtlog.cloud_task(task_id, upgrade_pro, upgrade_bag, upgrade_start, status) values(" +
                std::to_string(taskid) + ", 'frelbox', 'frb-2.0.bin', 1700000000, 0)");
        for (const std::string& id : ids)
            db_exec("insert into vtlog.cloud_upgrade(task_id, license_id12, upgrade_pro, complete) values(" +
                    std::to_string(taskid) + ", '" + id + "', 'frelbox', 0)");
    }
    // One timer run, at once by moving the clock; its work is done when the
    // writer is idle.
    void tick(long seconds = 5) const
    {
        d_.step_clock(seconds);
        ASSERT_TRUE(d_.db_settled());
    }
    // Appliances (by number) that have an order waiting; each order's text
    // is checked.
    std::set<int> orders(int taskid) const
    {
        std::set<int> got;
        for (size_t i = 0; i < boxes_.size(); i++)
            while (auto o = boxes_[i]->order()) {
                EXPECT_EQ(*o, "tag=frb_upgrade license_id12=" + boxes_[i]->id() +
                                  " pktname=frb-2.0.bin http_port=8088 taskid=" + std::to_string(taskid));
                got.insert(static_cast<int>(i) + 1);
            }
        return got;
    }
    std::string cmd(int code, const std::string& args = "") const { return d_.cmd("als_upgrade", code, args).text(); }
    static std::string upgrade_row(const std::string& id)
    {
        return db_value("select concat(complete, '|', errors, '|', last_version) from vtlog.cloud_upgrade where "
                        "license_id12='" + id + "'");
    }
    static std::string task_row(int taskid)
    {
        return db_value("select concat(status, '|', succ, '|', fail) from vtlog.cloud_task where task_id=" +
                        std::to_string(taskid) + " limit 1");
    }
    // complete=N rows of the task.
    static int complete(int n)
    {
        return std::stoi(db_value("select count(*) from vtlog.cloud_upgrade where complete=" + std::to_string(n)));
    }
    // The task's line of the task listing, without the header.
    std::string taskline() const
    {
        std::string t = cmd(2055, "showtask=1");
        return t.substr(t.find('\n') + 1);
    }

    daemon_proc d_;
    std::vector<std::unique_ptr<test_frb>> boxes_;
};

// Twelve appliances, five orders at a time: the first dispatch sends five,
// reports and the minute without an answer free places for more, and the
// task ends when every appliance has succeeded or failed.
TEST_F(AlsUpgrade, OrdersArePacedAndResultsWrittenBack)
{
    online(12);
    std::vector<std::string> ids;
    for (const auto& b : boxes_)
        ids.push_back(b->id());
    task(41, ids);

    tick();  // loads the task (the dispatch comes before the load)
    EXPECT_EQ(taskline(), "41 12 0 0 0 0 1700000000 frb-2.0.bin\n");
    EXPECT_EQ(task_row(41), "1|0|0");
    tick();
    std::set<int> first = orders(41);
    ASSERT_EQ(first.size(), 5u);
    EXPECT_EQ(taskline(), "41 12 0 0 1 5 1700000000 frb-2.0.bin\n");
    EXPECT_EQ(complete(1), 5);
    EXPECT_EQ(complete(0), 7);
    tick();
    EXPECT_TRUE(orders(41).empty());

    // Success, failure and a progress text from three that have an order.
    auto it = first.begin();
    const test_frb& ok = *boxes_[*it++ - 1];
    const test_frb& bad = *boxes_[*it++ - 1];
    const test_frb& busy = *boxes_[*it++ - 1];
    ok.upgrade_report(41, "log=upgrade_ok new_ver=V2.0 fail=0");
    bad.upgrade_report(41, "log=flash_error fail=1");
    busy.upgrade_report(41, "log=downloading_40%");
    busy.upgrade_report(41, "new_ver=V9 fail=0");  // no log word: ignored
    ASSERT_TRUE(wait_until([&] { return taskline() == "41 12 1 1 1 3 1700000000 frb-2.0.bin\n"; }, 5s))
        << taskline();
    tick();
    std::set<int> second = orders(41);
    EXPECT_EQ(second.size(), 2u);
    EXPECT_EQ(upgrade_row(ok.id()), "2|upgrade_ok|V2.0");
    EXPECT_EQ(upgrade_row(bad.id()), "3|flash_error|");
    EXPECT_EQ(upgrade_row(busy.id()), "1|downloading_40%|");
    EXPECT_EQ(task_row(41), "1|1|1");

    // A minute later the five unanswered fail, and the last five go out.
    tick(60);
    std::set<int> third = orders(41);
    EXPECT_EQ(third.size(), 5u);
    EXPECT_EQ(upgrade_row(busy.id()), "3|ERR_NO_RESPONSE|");
    EXPECT_EQ(task_row(41), "1|1|6");
    EXPECT_EQ(complete(3), 6);
    EXPECT_EQ(complete(1), 5);
    EXPECT_EQ(complete(0), 0);

    for (int n : third)
        boxes_[n - 1]->upgrade_report(41, "log=done new_ver=V2.0 fail=0");
    ASSERT_TRUE(wait_until([&] { return taskline() == "41 12 6 6 1 0 1700000000 frb-2.0.bin\n"; }, 5s))
        << taskline();
    tick();
    EXPECT_EQ(taskline(), "41 12 6 6 2 0 1700000000 frb-2.0.bin\n");
    EXPECT_EQ(task_row(41), "1|6|6");
    EXPECT_EQ(complete(2), 6);
    EXPECT_EQ(complete(3), 6);
    // A finished task sends nothing more.
    tick(60);
    EXPECT_TRUE(orders(41).empty());
}

// An appliance that never reported ends as unanswered; a task listed twice
// is loaded once; a report without its task counts as such; the commands.
TEST_F(AlsUpgrade, UnknownApplianceRepeatedTaskAndCommands)
{
    online(2);
    task(42, {"ALS000000001", "ALSNOTHERE01"});
    db_exec("insert into vtlog.cloud_task(task_id, upgrade_pro, upgrade_bag, status) values(42, 'frelbox', 'x', 0)");
    tick();
    tick();
    EXPECT_EQ(orders(42), std::set<int>{1});
    boxes_[0]->upgrade_report(42, "log=flashed new_ver=V2.1 fail=0");
    boxes_[1]->send("tag=frb_upgrade license_id12=ALS000000002 log=no_task fail=0");
    boxes_[1]->send("tag=frb_upgrade taskid=42 log=no_appliance fail=0");
    ASSERT_TRUE(wait_until([&] { return cmd(2050).find("taskid_zero=2\n") != std::string::npos; }, 5s));
    tick(60);
    EXPECT_EQ(upgrade_row("ALSNOTHERE01"), "3|ERR_NO_RESPONSE|");
    EXPECT_EQ(upgrade_row("ALS000000001"), "2|flashed|V2.1");
    EXPECT_EQ(task_row(42), "1|1|1");

    // The sent-and-unanswered count went below zero: the unknown appliance
    // never had its order counted in.
    EXPECT_EQ(taskline(), "42 2 1 1 2 -1 1700000000 frb-2.0.bin\n");
    std::string stat = cmd(2050);
    EXPECT_TRUE(std::regex_match(stat, std::regex("task_pool_max=500\ndevice_pool_max=2000\nhttport=8088\nupmax=5\n"
                                                  "upgrading_ttl=60\ntask_last=0\ntaskexist=1\ntaskpool_full=0\n"
                                                  "task_last=0\nqueue_use=2\nqueue_full=0\nfrb_notfind=1\n"
                                                  "frb_sendsucc=1\nfrb_sendfail=1\ntaskid_zero=2\n"
                                                  "uptasktodb_succ=[2-9]\nuptasktodb_fail=0\n")))
        << stat;

    // The appliance listing: its header as the front end knows it, the name
    // and version at load, the result.
    EXPECT_EQ(cmd(2055, "showdevice=1"),
              "taskid license_id12 sysname status ver new_verresp\n"
              "42 ALSNOTHERE01  3   ERR_NO_RESPONSE\n"
              "42 ALS000000001 box-1 2 V1.0 V2.1 flashed\n");
    EXPECT_EQ(cmd(2055, "showdevice=1 taskid=7"), "taskid license_id12 sysname status ver new_verresp\n");
    EXPECT_EQ(cmd(2055), "");

    // A second task, then removals.
    task(43, {"ALS000000002"});
    tick();
    EXPECT_EQ(cmd(2055, "showtask=1 showdevice=1 taskid=43"),
              "id device_count succ fail status sended_count upstart pktname\n"
              "42 2 1 1 2 -1 1700000000 frb-2.0.bin\n"
              "43 1 0 0 0 0 1700000000 frb-2.0.bin\n"
              "taskid license_id12 sysname status ver new_verresp\n"
              "43 ALS000000002 box-2 0 V1.0  \n");
    struct {
        std::string args;
        std::string reply;
    } removals[] = {
        {"device=1 taskid=42 license_id12=ALSNOTHERE01", "ok"},
        {"device=1 taskid=42 license_id12=ALSNOTHERE01", "no match: device=1 task=0 taskid=42 license_id12=ALSNOTHERE01"},
        {"device=1 taskid=42", "no match: device=1 task=0 taskid=42 license_id12="},
        {"task=1 taskid=44", "no match: device=0 task=1 taskid=44 license_id12="},
        {"task=1 taskid=42", "ok"},
        {"task=1 taskid=42", "no match: device=0 task=1 taskid=42 license_id12="},
        {"", "no match: device=0 task=0 taskid=0 license_id12="},
    };
    for (const auto& r : removals)
        EXPECT_EQ(cmd(2052, r.args), r.reply) << r.args;
    EXPECT_EQ(taskline(), "43 1 0 0 0 0 1700000000 frb-2.0.bin\n");
    EXPECT_NE(cmd(2050).find("\ntask_last=1\nqueue_use=2\n"), std::string::npos) << cmd(2050);

    // The freed records serve the next task: 2000 in all.
    tick();
    EXPECT_EQ(orders(43), std::set<int>{2});

    for (int code : {2053, 2057}) {
        auto r = d_.cmd("als_upgrade", code, "taskid=43");
        EXPECT_EQ(r.rec.ca_errno, 0) << code;
        EXPECT_EQ(r.text(), "") << code;
    }
    for (int code : {2051, 2054, 2056}) {
        auto r = d_.cmd("als_upgrade", code);
        EXPECT_EQ(r.rec.ca_errno, 22) << code;
        EXPECT_STREQ(r.rec.ca_errmsg, "NOT_SUPPORTED") << code;
    }
}

}  // namespace
