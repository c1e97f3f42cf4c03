// Cache appliances on the device socket: reports and their rows (which
// reports write, conversions and cuts, identifier precedence), port pairs
// with their wrap and a restart, FRBPWD and key messages, the commands of
// module "frelbox" (statistics, removal, both kinds of set, the list's
// sorting, search, filters and paging) and the table rebuilt after dropped
// statements. Disconnect rows and the full pool: test_family.cpp.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "family_fixture.h"

namespace {

using namespace std::chrono_literals;

class Frelbox : public FamilyFixture {
protected:
    Frelbox() : FamilyFixture(kFrbCase) {}
};

const char* const kAllCols =
    "license_id12, frname, frname2, grpid, start, end, flow, bdw, bpsout, bpsin, boot, cpurate, cpudesc, diskio, "
    "pused, map_addr, lng, lat, mem, board, ver, outip, webport, sshport";

TEST_F(Frelbox, ReportsAddRowsWithEveryColumn)
{
    start();
    const long t0 = daemon_time();
    report(report_body(frb_full_report("FRB000000001")), "FRB000000001", F_WEBPORT, "30000");
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
        {"cpurate cut to 8 bits", "key=FRBCONV00001 cpurate=300", "FRBCONV00001", F_CPURATE, "44", "cpurate", "44"},
        {"bdw cut to 16 bits", "key=FRBCONV00002 bdw=70000", "FRBCONV00002", F_BDW, "4464", "bdw", "4464"},
        {"negative start as unsigned", "key=FRBCONV00003 start=-1", "FRBCONV00003", F_START, "4294967295", "start",
         "4294967295"},
        {"64-bit traffic", "key=FRBCONV00004 bpsout=9000000000000000000", "FRBCONV00004", F_BPSOUT,
         "9000000000000000000", "bpsout", "9000000000000000000"},
        {"identifier cut to 15", "key=FRBCONV00005TOOLONG", "FRBCONV00005TOO", F_ID, "FRBCONV00005TOO",
         "license_id12", "FRBCONV00005TOO"},
        {"name cut to 63", "key=FRBCONV00006 name=" + std::string(70, 'n'), "FRBCONV00006", F_NAME,
         std::string(63, 'n'), "frname", std::string(63, 'n')},
        {"mem cut to 15", "key=FRBCONV00007 mem=" + std::string(20, 'm'), "FRBCONV00007", F_MEM,
         std::string(15, 'm'), "mem", std::string(15, 'm')},
        {"diskio cut to 127", "key=FRBCONV00008 diskio=" + std::string(150, 'd'), "FRBCONV00008", F_DISKIO,
         std::string(127, 'd'), "diskio", std::string(127, 'd')},
        {"quotes stored as sent", "key=FRBCONV00009 name=o'neil\\\"", "FRBCONV00009", F_NAME, "o'neil\\\"", "frname",
         "o'neil\\\""},
        {"later license_id12 wins over key", "key=FRBCONV00010 license_id12=FRBCONV00011", "FRBCONV00011", F_ID,
         "FRBCONV00011", "license_id12", "FRBCONV00011"},
        {"later key wins over license_id12", "license_id12=FRBCONV00012 key=FRBCONV00013", "FRBCONV00013", F_ID,
         "FRBCONV00013", "license_id12", "FRBCONV00013"},
        {"words that do not parse are skipped", "name= =x junk key=FRBCONV00014 ver==2", "FRBCONV00014", F_VER, "=2",
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
    report("key=FRBCONV00015", "FRBCONV00015", F_ID, "FRBCONV00015");
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
    auto words = frb_full_report("FRB000000002");
    report(report_body(words), "FRB000000002", F_WEBPORT, "30000");
    ASSERT_TRUE(d_.db_settled());
    auto mark = [] { db_exec("update vtlog.frelbox_list set frname2='marker' where license_id12='FRB000000002'"); };

    mark();
    for (auto [k, v] : std::map<std::string, std::string>{{"bpsin", "1"},   {"bpsout", "2"},  {"flow", "3"},
                                                           {"diskio", "r1"}, {"pused", "9%"}, {"mem", "32G"},
                                                           {"cpurate", "99"}})
        words[k] = v;
    report(report_body(words), "FRB000000002", F_CPURATE, "99");
    ASSERT_TRUE(d_.db_settled());
    EXPECT_EQ(row("FRB000000002", "frname2"), "marker");
    auto v = listed("FRB000000002");
    EXPECT_EQ(v[F_BPSIN] + " " + v[F_BPSOUT] + " " + v[F_FLOW] + " " + v[F_DISKIO] + " " + v[F_PUSED] + " " + v[F_MEM],
              "1 2 3 r1 9% 32G");

    struct {
        const char* key;
        const char* value;
        size_t pos;
        const char* col;
    } changes[] = {
        {"start", "1700000001", F_START, "start"}, {"end", "1900000001", F_END, "end"},
        {"ver", "V3.3.0", F_VER, "ver"},           {"name", "renamed", F_NAME, "frname"},
        {"cpu", "Atom", F_CPU, "cpudesc"},         {"board", "A1SRi", F_BOARD, "board"},
        {"bdw", "2000", F_BDW, "bdw"},             {"boot", "1700000200", F_BOOT, "boot"},
    };
    for (const auto& c : changes) {
        SCOPED_TRACE(c.key);
        mark();
        words[c.key] = c.value;
        report(report_body(words), "FRB000000002", c.pos, c.value);
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
        auto w = frb_full_report(id);
        report(report_body(w), id, F_ID, id);
    }
    ASSERT_TRUE(d_.db_settled());
    for (size_t i = 0; i < std::size(ids); i++) {
        EXPECT_EQ(row(ids[i], "webport, sshport"), pairs[i]) << ids[i];
        EXPECT_EQ(value(ids[i], F_WEBPORT) + "|" + value(ids[i], F_SSHPORT), pairs[i]) << ids[i];
    }
    box_->send("tag=FRBPWD licenseid=FRBPORT00003 verify=before");
    ASSERT_TRUE(wait_until([&] { return value("FRBPORT00003", F_VERIFY) == "before"; }, 5s));
    const std::string actime = row("FRBPORT00003", "actime");

    ASSERT_EQ(d_.stop(), 0);
    d_.start();
    auto v = listed("FRBPORT00003");
    ASSERT_EQ(v.size(), 27u) << list();
    EXPECT_EQ(v[F_WEBPORT] + " " + v[F_SSHPORT] + " " + v[F_OUTPORT] + " [" + v[F_VERIFY] + "]", "0 0 0 []");
    EXPECT_EQ(v[F_ACTIME], actime);
    EXPECT_EQ(v[F_BPSOUT] + " " + v[F_BPSIN], "705032704 2705032704");
    EXPECT_EQ(total(), 4);

    auto w = frb_full_report("FRBPORT00003");
    report(report_body(w), "FRBPORT00003", F_WEBPORT, "30000");
    w = frb_full_report("FRBPORT00001");
    report(report_body(w), "FRBPORT00001", F_WEBPORT, "30001");
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
    auto w = frb_full_report("FRB000000003");
    int step = 0;
    // Each message is followed by a report changing bdw, so that it has
    // been handled when that change shows.
    auto then_sync = [&](const std::string& msg) {
        box_->send(msg);
        w["bdw"] = std::to_string(++step);
        report(report_body(w), "FRB000000003", F_BDW, w["bdw"]);
    };
    then_sync(report_body(w));
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
        EXPECT_EQ(value("FRB000000003", F_VERIFY), c.verify);
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
    auto a = frb_full_report("FRBCMD000001"), b = frb_full_report("FRBCMD000002"), c = frb_full_report("FRBCMD000003");
    a["end"] = std::to_string(now + 3 * 86400);  // expiring
    b["end"] = "0";                              // no end
    c["end"] = std::to_string(now + 30 * 86400);
    for (auto* w : {&a, &b, &c})
        report(report_body(*w), (*w)["key"], F_ID, (*w)["key"]);

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
    EXPECT_EQ(value("FRBCMD000001", F_NAME2) + " " + value("FRBCMD000001", F_GRP), "front-1 5");
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
    EXPECT_EQ(value("FRBCMD000001", F_WEBPORT) + " " + value("FRBCMD000001", F_SSHPORT), "40000 40001");
    // A later report keeps the set ports.
    a["bdw"] = "77";
    report(report_body(a), "FRBCMD000001", F_BDW, "77");
    EXPECT_EQ(value("FRBCMD000001", F_WEBPORT), "40000");

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
    report(report_body(frb_full_report("FRBCMD000004")), "FRBCMD000004", F_ID, "FRBCMD000004");
    const std::string l = list("page=1 limit=10");
    EXPECT_EQ(l.substr(0, 13), "FRBCMD000001 ");
    EXPECT_LT(l.find("\nFRBCMD000004 "), l.find("\nFRBCMD000003 ")) << l;

    expect_unsupported("FRBCMD000001", {2048, 2051, 2054, 2056, 2058});
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
        auto w = frb_full_report(b.id);
        w["name"] = b.name;
        w["bdw"] = b.bdw;
        w["bpsout"] = b.bpsout;
        w["end"] = std::to_string(b.end);
        report(report_body(w), b.id, F_ID, b.id);
        ASSERT_EQ(cmd(2053, std::string("license_id12=") + b.id + " grpid=" + std::to_string(b.grp) +
                                " sysname=" + b.name2),
                  "ok");
    }
    // All but the last one go silent.
    d_.step_clock(10);
    auto w = frb_full_report("FRBLIST00004");
    w["name"] = "Edge-D";
    w["bdw"] = "401";
    w["bpsout"] = "3";
    w["end"] = std::to_string(now - 86400);
    report(report_body(w), "FRBLIST00004", F_BDW, "401");
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
        auto [got, counts] = list_digits(c.args, "FRBLIST0000");
        EXPECT_EQ(got, c.ids);
        EXPECT_EQ(counts, c.counts);
    }
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
