// Log servers on the device socket: reports and the rows they write (or
// do not), the words a log server has and has not ("key" only, "tag"
// bodies are reports, "RSA=" bodies are keys), port pairs from 31000 with
// their wrap and a restart, the commands of module "logserver" (15-value
// rows, its own sort keys and search fields, the "LOG" mapping
// instruction). Disconnect rows and the full pool: test_family.cpp.
#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "family_fixture.h"

namespace {

using namespace std::chrono_literals;

class Logserver : public FamilyFixture {
protected:
    Logserver() : FamilyFixture(kLogCase) {}
};

const char* const kAllCols =
    "license_id12, logsname, logsname2, grpid, start, end, bps, boot, map_addr, lng, lat, ver, outip, webport, "
    "sshport";

TEST_F(Logserver, ReportsAndTheirRows)
{
    start();
    report(report_body(log_full_report("LOG000000001")), "LOG000000001", L_ID, "LOG000000001");
    ASSERT_TRUE(d_.db_settled());
    EXPECT_EQ(row("LOG000000001", kAllCols),
              "LOG000000001|log-LOG000000001||0|1700000000|1900000000|4000000000|1700000100||||V1.2.0|2130706433|"
              "31000|31001");
    const std::string actime = row("LOG000000001", "actime");
    EXPECT_EQ(list("page=1 limit=10"), "LOG000000001 0 1700000100 log-LOG000000001 V1.2.0 1700000000 1900000000 "
                                       "4000000000 2130706433 " + std::to_string(box_->port()) + " " + actime +
                                           "    \ntotal=1\nfail=0\nexp=0\n");
    EXPECT_NE(db_value("select table_collation from information_schema.tables where table_schema='vtlog' and "
                       "table_name='logserver_list'")
                  .rfind("utf8", 0),
              std::string::npos);

    // The words of a log server, one server each: the value as listed and
    // as stored.
    struct {
        const char* what;
        std::string words;
        std::string id;
        size_t pos;
        std::string listed;
        const char* col;
        std::string stored;
    } cases[] = {
        {"a tag body is a report", "tag=FRBPWD key=LOGWORD00001 name=tagged", "LOGWORD00001", L_NAME, "tagged",
         "logsname", "tagged"},
        {"runs of blanks separate", "key=LOGWORD00002   name=spaced    ver=V9", "LOGWORD00002", L_VER, "V9",
         "concat(logsname, '/', ver)", "spaced/V9"},
        {"license_id12 is no key", "key=LOGWORD00003 license_id12=LOGWORD00099", "LOGWORD00003", L_ID,
         "LOGWORD00003", "license_id12", "LOGWORD00003"},
        {"later key wins", "key=LOGWORD00098 key=LOGWORD00004", "LOGWORD00004", L_ID, "LOGWORD00004",
         "license_id12", "LOGWORD00004"},
        {"identifier cut to 15", "key=LOGWORD00005TOOLONG", "LOGWORD00005TOO", L_ID, "LOGWORD00005TOO",
         "license_id12", "LOGWORD00005TOO"},
        {"name cut to 63", "key=LOGWORD00006 name=" + std::string(70, 'n'), "LOGWORD00006", L_NAME,
         std::string(63, 'n'), "logsname", std::string(63, 'n')},
        {"bps cut to 32 bits", "key=LOGWORD00007 bps=5000000000", "LOGWORD00007", L_BPS, "705032704", "bps",
         "705032704"},
        {"keys of other families ignored", "key=LOGWORD00008 bdw=5 cpu=x boot=7", "LOGWORD00008", L_BOOT, "7",
         "boot", "7"},
        {"quotes stored as sent", "key=LOGWORD00009 name=o'neil\\\"", "LOGWORD00009", L_NAME, "o'neil\\\"",
         "logsname", "o'neil\\\""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        report(c.words, c.id, c.pos, c.listed);
        ASSERT_TRUE(d_.db_settled());
        EXPECT_EQ(row(c.id, c.col), c.stored);
    }
    // Nothing without "key"; an "RSA=" body is a key, not a report.
    box_->send("license_id12=LOGWORD00097 name=orphan");
    box_->send("name=orphan ver=V1");
    box_->send("RSA=ssh-ed25519 AAAAC3NzaC1lZDI1NTE5AAAAIGtestkeymaterial0123456789 box@log key=LOGWORD00096");
    report("key=LOGWORD00010", "LOGWORD00010", L_ID, "LOGWORD00010");
    ASSERT_TRUE(d_.db_settled());
    EXPECT_EQ(db_value("select count(*) from vtlog.logserver_list"), std::to_string(1 + std::size(cases) + 1));
    EXPECT_EQ(list().find("orphan"), std::string::npos);
    EXPECT_NE(read_file(d_.path("/root/.ssh/authorized_keys_tmp")).find("box@log key=LOGWORD00096"),
              std::string::npos);

    // bps is kept in memory only; every other reported change writes the
    // row. The marker in logsname2 shows whether the daemon wrote it.
    auto words = log_full_report("LOG000000001");
    auto mark = [] { db_exec("update vtlog.logserver_list set logsname2='marker' where license_id12='LOG000000001'"); };
    mark();
    words["bps"] = "123";
    report(report_body(words) + " cpurate=99 bdw=3", "LOG000000001", L_BPS, "123");
    ASSERT_TRUE(d_.db_settled());
    EXPECT_EQ(row("LOG000000001", "logsname2"), "marker");
    struct {
        const char* key;
        const char* value;
        size_t pos;
    } changes[] = {{"start", "1700000001", L_START}, {"end", "1900000001", L_END}, {"ver", "V1.3.0", L_VER},
                   {"name", "renamed", L_NAME},      {"boot", "1700000200", L_BOOT}};
    for (const auto& c : changes) {
        SCOPED_TRACE(c.key);
        mark();
        words[c.key] = c.value;
        report(report_body(words), "LOG000000001", c.pos, c.value);
        ASSERT_TRUE(d_.db_settled());
        EXPECT_EQ(row("LOG000000001", std::string("logsname2, ") + (c.key == std::string("name") ? "logsname" : c.key)),
                  std::string("|") + c.value);
    }
    EXPECT_EQ(row("LOG000000001", "bps, actime"), "4000000000|" + actime);
}

// Pairs from 31000/31001, each web port the SSH port of the server before,
// back to 31000/31001 at the range's maximum; a restart reloads the servers
// without ports and starts the counter afresh.
TEST_F(Logserver, PortPairsWrapAndRestart)
{
    start("", "cloud_mapping_max_port=31003\n");
    const char* ids[] = {"LOGPORT00001", "LOGPORT00002", "LOGPORT00003", "LOGPORT00004"};
    const char* pairs[] = {"31000|31001", "31001|31002", "31002|31003", "31000|31001"};
    for (const char* id : ids)
        report(report_body(log_full_report(id)), id, L_ID, id);
    ASSERT_TRUE(d_.db_settled());
    for (size_t i = 0; i < std::size(ids); i++)
        EXPECT_EQ(row(ids[i], "webport, sshport"), pairs[i]) << ids[i];
    ASSERT_EQ(cmd(2053, "license_id12=LOGPORT00002 grpid=4 sysname=kept address=Road-2 lng=1.5 lat=2.5"), "ok");
    ASSERT_TRUE(d_.db_settled());
    const std::string before = row("LOGPORT00002", "actime");

    ASSERT_EQ(d_.stop(), 0);
    d_.start();
    EXPECT_EQ(total(), 4);
    auto v = listed("LOGPORT00002");
    ASSERT_EQ(v.size(), size_t(L_COUNT)) << list();
    EXPECT_EQ(v[L_GRP] + " " + v[L_NAME2] + " " + v[L_ADDR] + " " + v[L_LNG] + " " + v[L_LAT] + " " + v[L_BPS] +
                  " " + v[L_OUTPORT] + " " + v[L_ACTIME],
              "4 kept Road-2 1.5 2.5 4000000000 0 " + before);

    // The first reports after the start: an update with a new pair each.
    db_exec("update vtlog.logserver_list set logsname='marker'");
    report(report_body(log_full_report("LOGPORT00002")), "LOGPORT00002", L_OUTPORT, std::to_string(box_->port()));
    report(report_body(log_full_report("LOGPORT00004")), "LOGPORT00004", L_OUTPORT, std::to_string(box_->port()));
    ASSERT_TRUE(d_.db_settled());
    EXPECT_EQ(row("LOGPORT00002", "webport, sshport, logsname, logsname2"), "31000|31001|log-LOGPORT00002|kept");
    EXPECT_EQ(row("LOGPORT00004", "webport, sshport, logsname"), "31001|31002|log-LOGPORT00004");
    EXPECT_EQ(row("LOGPORT00001", "logsname"), "marker");
    EXPECT_EQ(db_value("select count(*) from vtlog.logserver_list"), "4");
}

TEST_F(Logserver, StatisticsRemoveSetAndMapping)
{
    start();
    const long now = daemon_time();
    auto a = log_full_report("LOGCMD000001"), b = log_full_report("LOGCMD000002");
    a["end"] = std::to_string(now + 3 * 86400);
    b["end"] = "0";
    for (auto* w : {&a, &b})
        report(report_body(*w), (*w)["key"], L_ID, (*w)["key"]);

    struct {
        std::string args;
        std::string reply;
    } sets[] = {
        {"license_id12=LOGCMD000001 grpid=5 sysname=front-1 address=Road-1 lng=116.397128 lat=39.916527", "ok"},
        {"license_id12=LOGCMD000002 grpid=6 sysname=" + std::string(70, 's') + " address=" + std::string(130, 'a') +
             " lng=1234567890123456789 lat=-1",
         "ok"},
        {"license_id12=LOGUNKNOWN01 grpid=6 sysname=ghost", "ok"},
        {"license_id12=LOGUNKNOWN01 mapping=1 webport=1 sshport=2", "ok"},
        {"grpid=6 sysname=ghost", "Invalid license\n"},
    };
    for (const auto& s : sets)
        EXPECT_EQ(cmd(2053, s.args), s.reply) << s.args;
    ASSERT_TRUE(d_.db_settled());
    EXPECT_EQ(row("LOGCMD000001", "grpid, logsname2, map_addr, lng, lat"), "5|front-1|Road-1|116.397128|39.916527");
    EXPECT_EQ(row("LOGCMD000002", "grpid, logsname2, map_addr, lng, lat"),
              "6|" + std::string(63, 's') + "|" + std::string(127, 'a') + "|123456789012345|-1");
    auto v = listed("LOGCMD000001");
    ASSERT_EQ(v.size(), size_t(L_COUNT));
    EXPECT_EQ(v[L_GRP] + " " + v[L_ADDR] + " " + v[L_LNG] + " " + v[L_LAT] + " " + v[L_NAME2],
              "5 Road-1 116.397128 39.916527 front-1");
    EXPECT_FALSE(box_->recv(0).has_value());

    // The mapping instruction under the log servers' magic, after the keys
    // are published; the other settings of that command are ignored.
    box_->send("RSA=ssh-ed25519 AAAAC3NzaC1lZDI1NTE5AAAAIGlogserverkey0123456789 box@log");
    ASSERT_TRUE(wait_until(
        [&] { return read_file(d_.path("/root/.ssh/authorized_keys_tmp")).find("box@log") != std::string::npos; },
        5s));
    EXPECT_EQ(cmd(2053, "license_id12=LOGCMD000001 mapping=1 webport=40000 sshport=40001 grpid=9 sysname=ignored"),
              "ok");
    auto m = box_->recv(3000);
    ASSERT_TRUE(m.has_value());
    const std::string text = "mapping=1 webport=40000 sshport=40001";
    std::string want("LOG\0\x40\x9c", 6);
    want += static_cast<char>(text.size());
    want += '\0';
    want += text;
    want.resize(520, '\0');
    EXPECT_EQ(*m, want);
    EXPECT_NE(read_file(d_.path("/root/.ssh/authorized_keys")).find("box@log"), std::string::npos);
    ASSERT_TRUE(d_.db_settled());
    EXPECT_EQ(row("LOGCMD000001", "webport, sshport, grpid, logsname2"), "40000|40001|5|front-1");
    // A later report keeps the set ports.
    a["boot"] = "77";
    report(report_body(a), "LOGCMD000001", L_BOOT, "77");
    ASSERT_TRUE(d_.db_settled());
    EXPECT_EQ(row("LOGCMD000001", "webport, sshport, boot"), "40000|40001|77");

    struct {
        std::string args;
        std::string reply;
    } stats[] = {
        {"", "device_pool=2000/2[total/use]\ndevice_total=2\ndevice_fail=0\ndevice_exp=1\n"},
        {"usergrp=6", "device_pool=2000/2[total/use]\ndevice_total=2\ndevice_fail=0\ndevice_exp=0\n"},
        {"grpid=5", "device_pool=2000/2[total/use]\ndevice_total=2\ndevice_fail=0\ndevice_exp=1\n"},
    };
    for (const auto& s : stats)
        EXPECT_EQ(cmd(2050, s.args), s.reply) << s.args;
    d_.step_clock(16);
    EXPECT_EQ(cmd(2050), "device_pool=2000/2[total/use]\ndevice_total=2\ndevice_fail=2\ndevice_exp=1\n");

    EXPECT_EQ(cmd(2052, "license_id12=LOGCMD000002"), "ok");
    EXPECT_EQ(cmd(2052, "license_id12=LOGUNKNOWN01"), "ok");
    EXPECT_EQ(cmd(2052, "grpid=5"), "Invalid value\n");
    ASSERT_TRUE(d_.db_settled());
    EXPECT_EQ(row("LOGCMD000002", "license_id12"), "<none>");
    EXPECT_EQ(total(), 1);

    expect_unsupported("LOGCMD000001", {2049, 2051, 2054, 2056, 2058});
}

TEST_F(Logserver, ListSortsSearchesFiltersAndPages)
{
    start();
    const long now = daemon_time();
    // Reported in this order (slot order 3 1 5 2 4), a second apart.
    struct {
        const char* id;
        const char* name;
        const char* ver;
        const char* start;
        long end;
        const char* bps;
        const char* boot;
        int grp;
        const char* name2;
    } servers[] = {
        {"LOGLIST00003", "Log-C", "V2.5", "1700000500", now + 2 * 86400, "900", "50", 5, "bravo"},
        {"LOGLIST00001", "Log-A", "V3.0", "1700000100", 0, "100", "40", 5, "delta"},
        {"LOGLIST00005", "Edge-E", "V2.0", "1700000300", now + 30 * 86400, "800", "10", 6, "alpha"},
        {"LOGLIST00002", "Log-B", "V1.0", "1700000200", now + 7 * 86400, "200", "30", 7, "charlie"},
        {"LOGLIST00004", "Edge-D", "V1.5", "1700000400", now - 86400, "300", "20", 0, "echo"},
    };
    // Handled when the server's actime reads the daemon's present time.
    auto send = [&](const auto& s) {
        report(report_body({{"key", s.id},
                     {"name", s.name},
                     {"ver", s.ver},
                     {"start", s.start},
                     {"end", std::to_string(s.end)},
                     {"bps", s.bps},
                     {"boot", s.boot}}),
               s.id, L_ACTIME, std::to_string(daemon_time()));
    };
    for (const auto& s : servers) {
        send(s);
        ASSERT_EQ(cmd(2053, std::string("license_id12=") + s.id + " grpid=" + std::to_string(s.grp) +
                                " sysname=" + s.name2),
                  "ok");
        d_.step_clock(1);
    }
    // All but 3 go silent; 3 reports last.
    d_.step_clock(9);
    send(servers[0]);
    d_.step_clock(6);

    // Expiring: 3 (2 days left), 2 (7 days), 4 (past); 1 has no end.
    const std::string all = "total=5\nfail=4\nexp=3\n";
    struct {
        std::string args;
        std::string ids;  // last digits, in printed order
        std::string counts;
    } cases[] = {
        {"page=1 limit=10", "31524", all},
        {"page=1 limit=10 sortname=1 sortdesc=0", "12345", all},
        {"page=1 limit=10 sortname=1 sortdesc=1", "54321", all},
        {"page=1 limit=10 sortname=2 sortdesc=0", "15243", all},
        {"page=1 limit=10 sortname=2 sortdesc=1", "34251", all},
        {"page=1 limit=10 sortname=3 sortdesc=0", "12543", all},
        {"page=1 limit=10 sortname=4 sortdesc=0", "14325", all},
        {"page=1 limit=10 sortname=8 sortdesc=0", "12453", all},
        {"page=1 limit=10 sortname=8 sortdesc=1", "35421", all},
        {"page=1 limit=10 sortname=9 sortdesc=0", "54213", all},
        {"page=1 limit=10 sortname=10 sortdesc=0", "24531", all},
        {"page=1 limit=10 sortname=12 sortdesc=0", "53214", all},
        {"page=1 limit=10 sortname=12", "53214", all},
        {"page=1 limit=10 sortname=5 sortdesc=1", "31524", all},
        {"page=1 limit=10 sortname=6 sortdesc=0", "31524", all},
        {"page=1 limit=10 sortname=7 sortdesc=1", "31524", all},
        {"page=1 limit=10 sortname=11 sortdesc=0", "31524", all},
        {"page=1 limit=10 sortname=13 sortdesc=1", "31524", all},
        {"page=2 limit=2", "52", all},
        {"page=0 limit=10", "", all},
        {"expire=2 page=1 limit=1", "31524", all},
        {"expire=1 page=1 limit=10", "324", "total=3\nfail=3\nexp=3\n"},
        {"sch=edge page=1 limit=10", "54", "total=2\nfail=4\nexp=3\n"},
        {"sch=loglist00001 page=1 limit=10", "1", "total=1\nfail=4\nexp=3\n"},
        {"sch=Log page=1 limit=10", "", "total=0\nfail=4\nexp=3\n"},
        {"sch=v2 page=1 limit=10", "", "total=0\nfail=4\nexp=3\n"},
        {"sch=charlie page=1 limit=10", "", "total=0\nfail=4\nexp=3\n"},
        {"usergrp=5,6 page=1 limit=10", "315", "total=3\nfail=2\nexp=1\n"},
        {"grpid=5 page=1 limit=10", "31", "total=2\nfail=4\nexp=3\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.args);
        auto [got, counts] = list_digits(c.args, "LOGLIST0000");
        EXPECT_EQ(got, c.ids);
        EXPECT_EQ(counts, c.counts);
    }
}

}  // namespace
