// Cache appliances on the device socket: reports and their rows (which
// reports write, conversions and cuts, identifier precedence), port pairs
// with their wrap and a restart, FRBPWD and key messages, the commands of
// module "frelbox" (statistics, removal, both kinds of set, the list's
// sorting, search, filters and paging), disconnect rows under a moved
// clock, the full pool, and the table rebuilt after dropped statements.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "daemon.h"
#include "db.h"
#include "gateway.h"

namespace {

using namespace std::chrono_literals;

std::vector<std::string> split(const std::string& s, char sep)
{
    std::vector<std::string> out;
    std::string item;
    std::istringstream in(s);
    while (std::getline(in, item, sep))
        out.push_back(item);
    return out;
}

// A report with every key: identifier ID, values as a running appliance
// sends them. Tests change single words.
std::map<std::string, std::string> full_report(const std::string& id)
{
    return {{"key", id},          {"cpurate", "37"},        {"cpu", "Xeon-E3"},          {"board", "X10SLM"},
            {"mem", "16G"},       {"boot", "1700000100"},   {"name", "cache-" + id},     {"ver", "V3.2.1"},
            {"bdw", "1000"},      {"start", "1700000000"},  {"end", "1900000000"},       {"bpsout", "5000000000"},
            {"bpsin", "7000000000"}, {"flow", "321"},       {"diskio", "r10/w20"},       {"pused", "45%"}};
}

std::string body(const std::map<std::string, std::string>& words)
{
    std::string b;
    for (const auto& [k, v] : words)
        b += (b.empty() ? "" : " ") + k + "=" + v;
    return b;
}

class Frelbox : public ::testing::Test {
protected:
    void SetUp() override { drop(); }
    // The appliances of a test stay out of other suites' daemons.
    void TearDown() override
    {
        d_.stop();
        drop();
    }
    static void drop()
    {
        db_reset();
        db_exec("drop table if exists vtlog.frelbox_list");
        db_exec("drop table if exists vtlog.frelbox_discon");
    }
    // Disconnect passes every 0.15 s; LOGCONF goes to log.conf.
    void start(const std::string& conf = "", const std::string& logconf = "")
    {
        write_file(d_.path("/etc/cloud.conf"), read_file(d_.path("/etc/cloud.conf")) + "discon_turn_ms=1\n" + conf);
        if (!logconf.empty())
            write_file(d_.path("/usr/logd/bin/log.conf"), logconf);
        d_.start();
        box_ = std::make_unique<test_appliance>(d_.device_port(), "FRB");
    }
    std::string cmd(int code, const std::string& args = "") const { return d_.cmd("frelbox", code, args).text(); }
    std::string list(const std::string& args = "expire=2") const { return cmd(2055, args); }
    // The listed values of ID (27), or none.
    std::vector<std::string> listed(const std::string& id) const
    {
        for (const std::string& l : split(list(), '\n'))
            if (l.rfind(id + " ", 0) == 0)
                return split(l, ' ');
        return {};
    }
    // Value N (0-based) of ID's listed row.
    std::string value(const std::string& id, size_t n) const
    {
        auto v = listed(id);
        return n < v.size() ? v[n] : "<none>";
    }
    // Sends BODY from the test's appliance and waits until ID's value N
    // reads WANT: the report has been handled.
    void report(const std::string& b, const std::string& id, size_t n, const std::string& want) const
    {
        box_->send(b);
        ASSERT_TRUE(wait_until([&] { return value(id, n) == want; }, 5s))
            << b << "\nvalue " << n << " is " << value(id, n);
    }
    static std::string row(const std::string& id, const std::string& cols)
    {
        auto rows = db_rows("select " + cols + " from vtlog.frelbox_list where license_id12='" + id + "'");
        if (rows.empty())
            return "<none>";
        std::string out;
        for (size_t i = 0; i < rows[0].size(); i++)
            out += (i ? "|" : "") + rows[0][i].value_or("NULL");
        return out + (rows.size() > 1 ? "|<twice>" : "");
    }
    long daemon_time() const
    {
        std::string t = d_.cmd(nullptr, 389, "sec=0").text();
        return std::stol(t.substr(t.find('=') + 1));
    }
    // Appliances in the pool.
    int total() const
    {
        std::string t = cmd(2050);
        size_t at = t.find("device_total=");
        return at == std::string::npos ? -1 : std::stoi(t.substr(at + 13));
    }

    daemon_proc d_;
    std::unique_ptr<test_appliance> box_;
};

// Listed row positions.
enum { L_ID, L_GRP, L_CPURATE, L_CPU, L_BOARD, L_MEM, L_BOOT, L_NAME, L_VER, L_BDW, L_START, L_END, L_BPSIN,
       L_BPSOUT, L_FLOW, L_DISKIO, L_PUSED, L_OUTIP, L_OUTPORT, L_ACTIME, L_ADDR, L_LNG, L_LAT, L_NAME2, L_VERIFY,
       L_WEBPORT, L_SSHPORT };

const char* const kAllCols =
    "license_id12, frname, frname2, grpid, start, end, flow, bdw, bpsout, bpsin, boot, cpurate, cpudesc, diskio, "
    "pused, map_addr, lng, lat, mem, board, ver, outip, webport, sshport";

TEST_F(Frelbox, ReportsAddRowsWithEveryColumn)
{
    start();
    const long t0 = daemon_time();
    report(body(full_report("FRB000000001")), "FRB000000001", L_WEBPORT, "30000");
    ASSERT_TRUE(d_.db_settled());
    EXPECT_EQ(row("FRB000000001", kAllCols),
              "FRB000000001|cache-FRB000000001||0|1700000000|1900000000|321|1000|5000000000|7000000000|1700000100|"
              "37|Xeon-E3|r10/w20|45%||||16G|X10SLM|V3.2.1|2130706433|30000|30001");
    long actime = std::stol(row("FRB000000001", "actime"));
    EXPECT_GE(actime, t0);
    EXPECT_LE(actime, daemon_time());
    const std::string port = std::to_string(box_->port());
    EXPECT_EQ(list("page=1 limit=10"),
              "FRB000000001 0 37 Xeon-E3 X10SLM 16G 1700000100 cache-FRB000000001 V3.2.1 1000 1700000000 1900000000 "
              "7000000000 5000000000 321 r10/w20 45% 2130706433 " + port + " " + std::to_string(actime) +
              "      30000 30001\ntotal=1\nfail=0\nexp=0\n");

    // Conversions and cuts, one appliance each: the value as listed and as
    // stored (or not stored at all).
    struct {
        const char* what;
        std::string words;
        std::string id;
        size_t pos;
        std::string listed;
        const char* col;
        std::string stored;
    } cases[] = {
        {"cpurate cut to 8 bits", "key=FRBCONV00001 cpurate=300", "FRBCONV00001", L_CPURATE, "44", "cpurate", "44"},
        {"bdw cut to 16 bits", "key=FRBCONV00002 bdw=70000", "FRBCONV00002", L_BDW, "4464", "bdw", "4464"},
        {"negative start as unsigned", "key=FRBCONV00003 start=-1", "FRBCONV00003", L_START, "4294967295", "start",
         "4294967295"},
        {"64-bit traffic", "key=FRBCONV00004 bpsout=9000000000000000000", "FRBCONV00004", L_BPSOUT,
         "9000000000000000000", "bpsout", "9000000000000000000"},
        {"identifier cut to 15", "key=FRBCONV00005TOOLONG", "FRBCONV00005TOO", L_ID, "FRBCONV00005TOO",
         "license_id12", "FRBCONV00005TOO"},
        {"name cut to 63", "key=FRBCONV00006 name=" + std::string(70, 'n'), "FRBCONV00006", L_NAME,
         std::string(63, 'n'), "frname", std::string(63, 'n')},
        {"mem cut to 15", "key=FRBCONV00007 mem=" + std::string(20, 'm'), "FRBCONV00007", L_MEM,
         std::string(15, 'm'), "mem", std::string(15, 'm')},
        {"diskio cut to 127", "key=FRBCONV00008 diskio=" + std::string(150, 'd'), "FRBCONV00008", L_DISKIO,
         std::string(127, 'd'), "diskio", std::string(127, 'd')},
        {"quotes stored as sent", "key=FRBCONV00009 name=o'neil\\\"", "FRBCONV00009", L_NAME, "o'neil\\\"", "frname",
         "o'neil\\\""},
        {"later license_id12 wins over key", "key=FRBCONV00010 license_id12=FRBCONV00011", "FRBCONV00011", L_ID,
         "FRBCONV00011", "license_id12", "FRBCONV00011"},
        {"later key wins over license_id12", "license_id12=FRBCONV00012 key=FRBCONV00013", "FRBCONV00013", L_ID,
         "FRBCONV00013", "license_id12", "FRBCONV00013"},
        {"words that do not parse are skipped", "name= =x junk key=FRBCONV00014 ver==2", "FRBCONV00014", L_VER, "=2",
         "concat(frname, '/', ver)", "/=2"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        report(c.words, c.id, c.pos, c.listed);
        ASSERT_TRUE(d_.db_settled());
        EXPECT_EQ(row(c.id, c.col), c.stored);
    }
    // Overwritten identifiers and a report without any identifier created
    // nothing.
    box_->send("name=orphan ver=V1 cpurate=5");
    report("key=FRBCONV00015", "FRBCONV00015", L_ID, "FRBCONV00015");
    ASSERT_TRUE(d_.db_settled());
    for (const char* id : {"FRBCONV00010", "FRBCONV00012"})
        EXPECT_TRUE(listed(id).empty()) << id;
    EXPECT_EQ(db_value("select count(*) from vtlog.frelbox_list"), std::to_string(1 + std::size(cases) + 1));
    EXPECT_EQ(list().find("orphan"), std::string::npos);
}

// Traffic, memory and load figures are kept in memory only; every other
// reported change writes the row. The marker in frname2 shows whether the
// daemon wrote it (its update carries the empty display name).
TEST_F(Frelbox, OnlyRealChangesWriteTheRow)
{
    start();
    auto words = full_report("FRB000000002");
    report(body(words), "FRB000000002", L_WEBPORT, "30000");
    ASSERT_TRUE(d_.db_settled());
    auto mark = [] { db_exec("update vtlog.frelbox_list set frname2='marker' where license_id12='FRB000000002'"); };

    mark();
    for (auto [k, v] : std::map<std::string, std::string>{{"bpsin", "1"},   {"bpsout", "2"},  {"flow", "3"},
                                                           {"diskio", "r1"}, {"pused", "9%"}, {"mem", "32G"},
                                                           {"cpurate", "99"}})
        words[k] = v;
    report(body(words), "FRB000000002", L_CPURATE, "99");
    ASSERT_TRUE(d_.db_settled());
    EXPECT_EQ(row("FRB000000002", "frname2"), "marker");
    auto v = listed("FRB000000002");
    EXPECT_EQ(v[L_BPSIN] + " " + v[L_BPSOUT] + " " + v[L_FLOW] + " " + v[L_DISKIO] + " " + v[L_PUSED] + " " + v[L_MEM],
              "1 2 3 r1 9% 32G");

    struct {
        const char* key;
        const char* value;
        size_t pos;
        const char* col;
    } changes[] = {
        {"start", "1700000001", L_START, "start"}, {"end", "1900000001", L_END, "end"},
        {"ver", "V3.3.0", L_VER, "ver"},           {"name", "renamed", L_NAME, "frname"},
        {"cpu", "Atom", L_CPU, "cpudesc"},         {"board", "A1SRi", L_BOARD, "board"},
        {"bdw", "2000", L_BDW, "bdw"},             {"boot", "1700000200", L_BOOT, "boot"},
    };
    for (const auto& c : changes) {
        SCOPED_TRACE(c.key);
        mark();
        words[c.key] = c.value;
        report(body(words), "FRB000000002", c.pos, c.value);
        ASSERT_TRUE(d_.db_settled());
        EXPECT_EQ(row("FRB000000002", std::string("frname2, ") + c.col), std::string("|") + c.value);
    }
    // The update never writes the figures the insert wrote.
    EXPECT_EQ(row("FRB000000002", "bpsin, bpsout, flow, mem, cpurate"), "7000000000|5000000000|321|16G|37");
}

// Pairs from 30000/30001, each web port the SSH port of the appliance
// before; the web port reaching the range's maximum starts again at
// 30000/30001; a restart starts the counter afresh and every appliance gets
// a new pair (and an update) at its first report; 64-bit figures come back
// from the table with their low 32 bits only.
TEST_F(Frelbox, PortPairsWrapAndRestart)
{
    start("", "cloud_mapping_max_port=30003\n");
    const char* ids[] = {"FRBPORT00001", "FRBPORT00002", "FRBPORT00003", "FRBPORT00004"};
    const char* pairs[] = {"30000|30001", "30001|30002", "30002|30003", "30000|30001"};
    for (const char* id : ids) {
        auto w = full_report(id);
        report(body(w), id, L_ID, id);
    }
    ASSERT_TRUE(d_.db_settled());
    for (size_t i = 0; i < std::size(ids); i++) {
        EXPECT_EQ(row(ids[i], "webport, sshport"), pairs[i]) << ids[i];
        EXPECT_EQ(value(ids[i], L_WEBPORT) + "|" + value(ids[i], L_SSHPORT), pairs[i]) << ids[i];
    }
    box_->send("tag=FRBPWD licenseid=FRBPORT00003 verify=before");
    ASSERT_TRUE(wait_until([&] { return value("FRBPORT00003", L_VERIFY) == "before"; }, 5s));
    const std::string actime = row("FRBPORT00003", "actime");

    ASSERT_EQ(d_.stop(), 0);
    d_.start();
    auto v = listed("FRBPORT00003");
    ASSERT_EQ(v.size(), 27u) << list();
    EXPECT_EQ(v[L_WEBPORT] + " " + v[L_SSHPORT] + " " + v[L_OUTPORT] + " [" + v[L_VERIFY] + "]", "0 0 0 []");
    EXPECT_EQ(v[L_ACTIME], actime);
    EXPECT_EQ(v[L_BPSOUT] + " " + v[L_BPSIN], "705032704 2705032704");
    EXPECT_EQ(total(), 4);

    auto w = full_report("FRBPORT00003");
    report(body(w), "FRBPORT00003", L_WEBPORT, "30000");
    w = full_report("FRBPORT00001");
    report(body(w), "FRBPORT00001", L_WEBPORT, "30001");
    ASSERT_TRUE(d_.db_settled());
    EXPECT_EQ(row("FRBPORT00003", "webport, sshport"), "30000|30001");
    EXPECT_EQ(row("FRBPORT00001", "webport, sshport"), "30001|30002");
    EXPECT_EQ(db_value("select count(*) from vtlog.frelbox_list"), "4");
}

// FRBPWD stores the verification text; other tags and incomplete messages
// change nothing; "RSA=" bodies go to the key store, which a mapping
// instruction publishes.
TEST_F(Frelbox, VerificationTagsAndKeys)
{
    start();
    auto w = full_report("FRB000000003");
    int step = 0;
    // Each message is followed by a report changing bdw, so that it has
    // been handled when that change shows.
    auto then_sync = [&](const std::string& msg) {
        box_->send(msg);
        w["bdw"] = std::to_string(++step);
        report(body(w), "FRB000000003", L_BDW, w["bdw"]);
    };
    then_sync(body(w));
    struct {
        std::string msg;
        std::string verify;
    } cases[] = {
        {"tag=FRBPWD licenseid=FRB000000003 verify=s3cr3t", "s3cr3t"},
        {"tag=FRBPWD licenseid=FRB000000003", "s3cr3t"},
        {"tag=FRBPWD verify=other", "s3cr3t"},
        {"tag=FRBPWD licenseid=FRB000000003 verify=", "s3cr3t"},
        {"tag=frbpwd licenseid=FRB000000003 verify=lower", "s3cr3t"},
        {"tag=unknown licenseid=FRB000000003 verify=other", "s3cr3t"},
        {"tag licenseid=FRB000000003 verify=noequals", "s3cr3t"},
        {"tag=FRBPWD verify=" + std::string(70, 'v') + " licenseid=FRB000000003", std::string(63, 'v')},
        {"tag=FRBPWD licenseid=FRBUNKNOWN01 verify=x", std::string(63, 'v')},
        {"tag=FRBPWD key=FRB000000004 verify=x", std::string(63, 'v')},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.msg);
        then_sync(c.msg);
        EXPECT_EQ(value("FRB000000003", L_VERIFY), c.verify);
    }
    // Tagged bodies are messages, never reports.
    then_sync("tag=FRBPWD key=FRB000000005 name=x");
    then_sync("RSA=ssh-ed25519 AAAAC3NzaC1lZDI1NTE5AAAAIGtestkeymaterial0123456789 box@frb key=FRB000000006");
    EXPECT_EQ(total(), 1);

    const std::string key = "ssh-ed25519 AAAAC3NzaC1lZDI1NTE5AAAAIGtestkeymaterial0123456789 box@frb key=FRB000000006";
    EXPECT_NE(read_file(d_.path("/root/.ssh/authorized_keys_tmp")).find(key), std::string::npos);
    EXPECT_EQ(cmd(2053, "license_id12=FRB000000003 mapping=1 webport=40010 sshport=40011"), "ok");
    ASSERT_TRUE(box_->recv(3000).has_value());
    EXPECT_NE(read_file(d_.path("/root/.ssh/authorized_keys")).find(key), std::string::npos);
}

TEST_F(Frelbox, StatisticsRemoveSetAndUnsupported)
{
    start();
    const long now = daemon_time();
    auto a = full_report("FRBCMD000001"), b = full_report("FRBCMD000002"), c = full_report("FRBCMD000003");
    a["end"] = std::to_string(now + 3 * 86400);  // expiring
    b["end"] = "0";                              // no end
    c["end"] = std::to_string(now + 30 * 86400);
    for (auto* w : {&a, &b, &c})
        report(body(*w), (*w)["key"], L_ID, (*w)["key"]);

    // Set: group, display name, address and coordinates (cut to their
    // fields), a row update.
    struct {
        std::string args;
        std::string reply;
    } sets[] = {
        {"license_id12=FRBCMD000001 grpid=5 sysname=front-1 address=Road-1 lng=116.397128 lat=39.916527", "ok"},
        {"license_id12=FRBCMD000002 grpid=6 sysname=back-2 address=" + std::string(130, 'a') +
             " lng=1234567890123456789 lat=-1",
         "ok"},
        {"license_id12=FRBUNKNOWN01 grpid=6 sysname=ghost", "ok"},
        {"license_id12=FRBUNKNOWN01 mapping=1 webport=1 sshport=2", "ok"},
        {"grpid=6 sysname=ghost", "Invalid license\n"},
    };
    for (const auto& s : sets)
        EXPECT_EQ(cmd(2053, s.args), s.reply) << s.args;
    ASSERT_TRUE(d_.db_settled());
    EXPECT_EQ(row("FRBCMD000001", "grpid, frname2, map_addr, lng, lat"), "5|front-1|Road-1|116.397128|39.916527");
    EXPECT_EQ(row("FRBCMD000002", "grpid, frname2, map_addr, lng, lat"),
              "6|back-2|" + std::string(127, 'a') + "|123456789012345|-1");
    EXPECT_EQ(value("FRBCMD000001", L_NAME2) + " " + value("FRBCMD000001", L_GRP), "front-1 5");
    EXPECT_FALSE(box_->recv(0).has_value());

    // Mapping: the instruction to the appliance, the ports on record and
    // row; the other settings of that command are ignored.
    EXPECT_EQ(cmd(2053, "license_id12=FRBCMD000001 mapping=1 webport=40000 sshport=40001 grpid=9 sysname=ignored"),
              "ok");
    auto m = box_->recv(3000);
    ASSERT_TRUE(m.has_value());
    const std::string text = "mapping=1 webport=40000 sshport=40001";
    std::string want("FRB\0\x40\x9c", 6);
    want += static_cast<char>(text.size());
    want += '\0';
    want += text;
    want.resize(520, '\0');
    EXPECT_EQ(*m, want);
    ASSERT_TRUE(d_.db_settled());
    EXPECT_EQ(row("FRBCMD000001", "webport, sshport, grpid, frname2"), "40000|40001|5|front-1");
    EXPECT_EQ(value("FRBCMD000001", L_WEBPORT) + " " + value("FRBCMD000001", L_SSHPORT), "40000 40001");
    // A later report keeps the set ports.
    a["bdw"] = "77";
    report(body(a), "FRBCMD000001", L_BDW, "77");
    EXPECT_EQ(value("FRBCMD000001", L_WEBPORT), "40000");

    // Statistics: failed by the 15-second rule, expiring by the 8-day rule,
    // both within the group filters; the total whatever they say.
    struct {
        std::string args;
        std::string reply;
    } stats[] = {
        {"", "device_pool=2000/3[total/use]\ndevice_total=3\ndevice_fail=0\ndevice_exp=1\n"},
        {"usergrp=6,0", "device_pool=2000/3[total/use]\ndevice_total=3\ndevice_fail=0\ndevice_exp=0\n"},
        {"usergrp=0,6", "device_pool=2000/3[total/use]\ndevice_total=3\ndevice_fail=0\ndevice_exp=1\n"},
        {"grpid=5", "device_pool=2000/3[total/use]\ndevice_total=3\ndevice_fail=0\ndevice_exp=1\n"},
        {"grpid=0", "device_pool=2000/3[total/use]\ndevice_total=3\ndevice_fail=0\ndevice_exp=0\n"},
    };
    for (const auto& s : stats)
        EXPECT_EQ(cmd(2050, s.args), s.reply) << s.args;
    d_.step_clock(16);
    EXPECT_EQ(cmd(2050, "usergrp=5,6"), "device_pool=2000/3[total/use]\ndevice_total=3\ndevice_fail=2\ndevice_exp=1\n");

    // Remove: the record, its row; its slot serves the next appliance.
    EXPECT_EQ(cmd(2052, "license_id12=FRBCMD000002"), "ok");
    EXPECT_EQ(cmd(2052, "license_id12=FRBUNKNOWN01"), "ok");
    EXPECT_EQ(cmd(2052, "grpid=5"), "Invalid value\n");
    ASSERT_TRUE(d_.db_settled());
    EXPECT_EQ(row("FRBCMD000002", "license_id12"), "<none>");
    EXPECT_TRUE(listed("FRBCMD000002").empty());
    report(body(full_report("FRBCMD000004")), "FRBCMD000004", L_ID, "FRBCMD000004");
    const std::string l = list("page=1 limit=10");
    EXPECT_EQ(l.substr(0, 13), "FRBCMD000001 ");
    EXPECT_LT(l.find("\nFRBCMD000004 "), l.find("\nFRBCMD000003 ")) << l;

    auto accepted = d_.cmd("frelbox", 2057, "license_id12=FRBCMD000001");
    EXPECT_EQ(accepted.rec.ca_errno, 0);
    EXPECT_EQ(accepted.text(), "");
    for (int code : {2048, 2051, 2054, 2056, 2058}) {
        auto r = d_.cmd("frelbox", code);
        EXPECT_EQ(r.rec.ca_errno, 22) << code;
        EXPECT_STREQ(r.rec.ca_errmsg, "NOT_SUPPORTED") << code;
    }
}

TEST_F(Frelbox, ListSortsSearchesFiltersAndPages)
{
    start();
    const long now = daemon_time();
    // id, name, bdw, bpsout, end, group, display name
    struct {
        const char* id;
        const char* name;
        const char* bdw;
        const char* bpsout;
        long end;
        int grp;
        const char* name2;
    } boxes[] = {
        {"FRBLIST00003", "Cache-C", "300", "9000000000", now + 2 * 86400, 5, "bravo"},
        {"FRBLIST00001", "Cache-A", "100", "1", 0, 5, "delta"},
        {"FRBLIST00005", "Edge-E", "500", "8000000000", now + 30 * 86400, 6, "alpha"},
        {"FRBLIST00002", "Cache-B", "200", "2", now + 7 * 86400, 7, "charlie"},
        {"FRBLIST00004", "Edge-D", "400", "3", now - 86400, 0, "echo"},
    };
    for (const auto& b : boxes) {
        auto w = full_report(b.id);
        w["name"] = b.name;
        w["bdw"] = b.bdw;
        w["bpsout"] = b.bpsout;
        w["end"] = std::to_string(b.end);
        report(body(w), b.id, L_ID, b.id);
        ASSERT_EQ(cmd(2053, std::string("license_id12=") + b.id + " grpid=" + std::to_string(b.grp) +
                                " sysname=" + b.name2),
                  "ok");
    }
    // All but the last one go silent.
    d_.step_clock(10);
    auto w = full_report("FRBLIST00004");
    w["name"] = "Edge-D";
    w["bdw"] = "401";
    w["bpsout"] = "3";
    w["end"] = std::to_string(now - 86400);
    report(body(w), "FRBLIST00004", L_BDW, "401");
    d_.step_clock(6);

    // Expiring: 3 (2 days left), 2 (7 days), 4 (past); 1 has no end.
    struct {
        std::string args;
        std::string ids;  // last digits, in printed order
        std::string counts;
    } cases[] = {
        {"page=1 limit=10", "31524", "total=5\nfail=4\nexp=3\n"},
        {"page=1 limit=10 sortname=1 sortdesc=0", "12345", "total=5\nfail=4\nexp=3\n"},
        {"page=1 limit=10 sortname=1 sortdesc=1", "54321", "total=5\nfail=4\nexp=3\n"},
        {"page=1 limit=10 sortname=1", "12345", "total=5\nfail=4\nexp=3\n"},
        {"page=1 limit=10 sortname=1 sortdesc=2", "31524", "total=5\nfail=4\nexp=3\n"},
        {"page=1 limit=10 sortname=13 sortdesc=1", "31524", "total=5\nfail=4\nexp=3\n"},
        {"page=1 limit=10 sortname=5 sortdesc=1", "54321", "total=5\nfail=4\nexp=3\n"},
        {"page=1 limit=10 sortname=7 sortdesc=1", "35421", "total=5\nfail=4\nexp=3\n"},
        {"page=1 limit=10 sortname=12 sortdesc=0", "53214", "total=5\nfail=4\nexp=3\n"},
        {"page=2 limit=2", "52", "total=5\nfail=4\nexp=3\n"},
        {"page=3 limit=2", "4", "total=5\nfail=4\nexp=3\n"},
        {"page=0 limit=10", "", "total=5\nfail=4\nexp=3\n"},
        {"page=1 limit=0", "", "total=5\nfail=4\nexp=3\n"},
        {"", "", "total=5\nfail=4\nexp=3\n"},
        {"expire=2", "31524", "total=5\nfail=4\nexp=3\n"},
        {"expire=2 page=1 limit=1", "31524", "total=5\nfail=4\nexp=3\n"},
        {"expire=1 page=1 limit=10", "324", "total=3\nfail=3\nexp=3\n"},
        {"sch=cache-b page=1 limit=10", "2", "total=1\nfail=4\nexp=3\n"},
        {"sch=Cache page=1 limit=10", "", "total=0\nfail=4\nexp=3\n"},
        {"sch=edge page=1 limit=10", "54", "total=2\nfail=4\nexp=3\n"},
        {"sch=frblist00001 page=1 limit=10", "1", "total=1\nfail=4\nexp=3\n"},
        {"sch=v3.2 page=1 limit=10", "31524", "total=5\nfail=4\nexp=3\n"},
        {"usergrp=5,6 page=1 limit=10", "315", "total=3\nfail=3\nexp=1\n"},
        {"usergrp=0,5 page=1 limit=10", "31524", "total=5\nfail=4\nexp=3\n"},
        {"grpid=5 page=1 limit=10", "31", "total=2\nfail=4\nexp=3\n"},
        {"grpid=0 page=1 limit=10", "4", "total=1\nfail=4\nexp=3\n"},
        {"grpid=5 usergrp=6 page=1 limit=10", "", "total=0\nfail=1\nexp=0\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.args);
        std::string got, counts;
        for (const std::string& l : split(cmd(2055, c.args), '\n')) {
            if (l.rfind("FRBLIST0000", 0) == 0) {
                EXPECT_EQ(split(l, ' ').size(), 27u) << l;
                got += l[11];
            } else {
                counts += l + "\n";
            }
        }
        EXPECT_EQ(got, c.ids);
        EXPECT_EQ(counts, c.counts);
    }
}

// One row per pass for every appliance silent more than 15 s, for an hour
// after its last report, under its display name when it has one.
TEST_F(Frelbox, DisconnectRowsForAnHour)
{
    start();
    report(body(full_report("FRBGONE00001")), "FRBGONE00001", L_ID, "FRBGONE00001");
    report(body(full_report("FRBGONE00002")), "FRBGONE00002", L_ID, "FRBGONE00002");
    ASSERT_EQ(cmd(2053, "license_id12=FRBGONE00001 grpid=3 sysname=shown"), "ok");
    const std::string actime = value("FRBGONE00001", L_ACTIME);
    auto count = [](const std::string& id) {
        return std::stol(db_value("select count(*) from vtlog.frelbox_discon where license_id12='" + id + "'"));
    };
    const long before = daemon_time();
    d_.step_clock(16);
    ASSERT_TRUE(wait_until([&] { return d_.db_settled() && count("FRBGONE00001") >= 2 && count("FRBGONE00002") >= 2; },
                           10s));
    auto first = [](const std::string& id) {
        return db_rows("select grpid, name, time, uptime from vtlog.frelbox_discon where license_id12='" + id +
                       "' limit 1")[0];
    };
    auto a = first("FRBGONE00001"), b = first("FRBGONE00002");
    EXPECT_EQ(*a[0] + "|" + *a[1] + "|" + *a[2], "3|shown|" + actime);
    EXPECT_EQ(*b[0] + "|" + *b[1], "0|cache-FRBGONE00002");
    EXPECT_GE(std::stol(*a[3]), before + 16);

    // Past the hour: no more rows for them. A third appliance silent from
    // then on shows that passes go on.
    d_.step_clock(3600);
    report(body(full_report("FRBGONE00003")), "FRBGONE00003", L_ID, "FRBGONE00003");
    d_.step_clock(16);
    ASSERT_TRUE(wait_until([&] { return d_.db_settled() && count("FRBGONE00003") >= 1; }, 10s));
    const long one = count("FRBGONE00001"), two = count("FRBGONE00002");
    const long three = count("FRBGONE00003");
    ASSERT_TRUE(wait_until([&] { return d_.db_settled() && count("FRBGONE00003") >= three + 2; }, 10s));
    EXPECT_EQ(count("FRBGONE00001"), one);
    EXPECT_EQ(count("FRBGONE00002"), two);
}

TEST_F(Frelbox, PoolTakesTwoThousand)
{
    start();
    auto id = [](int i) {
        char b[16];
        std::snprintf(b, sizeof(b), "FRBFULL%05d", i);
        return std::string(b);
    };
    // In batches, so that no receive buffer overflows.
    for (int i = 1; i <= 2000; i++) {
        box_->send("key=" + id(i) + " name=n" + std::to_string(i));
        if (i % 200 == 0) {
            ASSERT_TRUE(wait_until([&] { return total() == i; }, 10s)) << i << " " << total();
        }
    }
    box_->send("key=" + id(2001) + " name=late");
    report("key=" + id(1) + " name=n1 bdw=7", id(1), L_BDW, "7");
    EXPECT_EQ(total(), 2000);
    EXPECT_TRUE(listed(id(2001)).empty());
    EXPECT_EQ(cmd(2050), "device_pool=2000/2000[total/use]\ndevice_total=2000\ndevice_fail=0\ndevice_exp=0\n");
    ASSERT_TRUE(d_.db_settled(30s));
    EXPECT_EQ(db_value("select count(*) from vtlog.frelbox_list"), "2000");
    EXPECT_EQ(db_value("select count(distinct webport) from vtlog.frelbox_list"), "2000");

    EXPECT_EQ(cmd(2052, "license_id12=" + id(1000)), "ok");
    report("key=" + id(2001) + " name=late", id(2001), L_NAME, "late");
    EXPECT_EQ(total(), 2000);
}

// Statements the writer's queue could not take are made good from the pool:
// the table is rebuilt with every appliance once, with its ports.
TEST_F(Frelbox, DroppedStatementsRebuildTheTable)
{
    start("db_queue_max=1\n");
    for (int i = 0; i < 60; i++) {
        char id[16];
        std::snprintf(id, sizeof(id), "FRBDROP%05d", i);
        box_->send(std::string("key=") + id + " name=n" + std::to_string(i));
    }
    ASSERT_TRUE(wait_until([&] { return total() == 60; }, 10s));
    ASSERT_TRUE(wait_until(
        [&] {
            return d_.db_settled() && db_value("select count(distinct license_id12) from vtlog.frelbox_list") == "60" &&
                   db_value("select count(*) from vtlog.frelbox_list") == "60";
        },
        10s));
    EXPECT_EQ(db_value("select concat(min(webport), '-', max(webport)) from vtlog.frelbox_list"), "30000-30059");
    const std::string stat = d_.cmd("cloud", 2050).text();
    EXPECT_EQ(stat.find("\ndb_dropped=0\n"), std::string::npos) << "nothing was dropped: the test proves nothing";
}

}  // namespace
