// The text families on the device socket (cache appliances "FRB", log
// servers "LOG") share one registry in the daemon; their tests share one
// fixture. A family_case names what differs: magic, module, tables, the
// words of a full report and the positions of a listed row.
#pragma once

#include <gtest/gtest.h>

#include <map>
#include <initializer_list>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "daemon.h"
#include "db.h"
#include "gateway.h"

struct family_case {
    const char* magic;
    const char* module;
    const char* list_table;
    const char* discon_table;
    std::map<std::string, std::string> (*full_report)(const std::string& id);
    size_t id_col, name_col, actime_col, columns;
    int first_port;       // web port of the first appliance
    const char* figure;   // a word whose value the list shows at figure_col
    size_t figure_col;
};

// "k=v" words one blank apart.
inline std::string report_body(const std::map<std::string, std::string>& words)
{
    std::string b;
    for (const auto& [k, v] : words)
        b += (b.empty() ? "" : " ") + k + "=" + v;
    return b;
}

class FamilyFixture : public ::testing::Test {
protected:
    explicit FamilyFixture(const family_case& fam) : fam_(fam) {}
    void SetUp() override { drop(); }
    // The appliances of a test stay out of other suites' daemons.
    void TearDown() override
    {
        d_.stop();
        drop();
    }
    void drop() const
    {
        db_reset();
        db_exec(std::string("drop table if exists vtlog.") + fam_.list_table);
        db_exec(std::string("drop table if exists vtlog.") + fam_.discon_table);
    }
    // Disconnect passes every few ms; LOGCONF goes to log.conf.
    void start(const std::string& conf = "", const std::string& logconf = "")
    {
        write_file(d_.path("/etc/cloud.conf"), read_file(d_.path("/etc/cloud.conf")) + "discon_turn_ms=1\n" + conf);
        if (!logconf.empty())
            write_file(d_.path("/usr/logd/bin/log.conf"), logconf);
        d_.start();
        box_ = std::make_unique<test_appliance>(d_.device_port(), fam_.magic);
    }
    std::string cmd(int code, const std::string& args = "") const { return d_.cmd(fam_.module, code, args).text(); }
    std::string list(const std::string& args = "expire=2") const { return cmd(2055, args); }
    // The listed values of ID, or none.
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
    // Sends BODY and waits until ID's value N reads WANT: the report has
    // been handled.
    void report(const std::string& b, const std::string& id, size_t n, const std::string& want) const
    {
        box_->send(b);
        ASSERT_TRUE(wait_until([&] { return value(id, n) == want; }, std::chrono::seconds(5)))
            << b << "\nvalue " << n << " is " << value(id, n);
    }
    // The last digit of each listed row of an identifier starting with
    // PREFIX, in printed order (every such row has the family's number of
    // values), and the other lines of the listing.
    std::pair<std::string, std::string> list_digits(const std::string& args, const std::string& prefix) const
    {
        std::string got, other;
        for (const std::string& l : split(cmd(2055, args), '\n')) {
            if (l.rfind(prefix, 0) == 0) {
                EXPECT_EQ(split(l, ' ').size(), fam_.columns) << l;
                got += l[11];
            } else {
                other += l + "\n";
            }
        }
        return {got, other};
    }
    // 2057 for ID is taken without a reply; CODES are refused.
    void expect_unsupported(const std::string& id, std::initializer_list<int> codes) const
    {
        auto accepted = d_.cmd(fam_.module, 2057, "license_id12=" + id);
        EXPECT_EQ(accepted.rec.ca_errno, 0);
        EXPECT_EQ(accepted.text(), "");
        for (int code : codes) {
            auto r = d_.cmd(fam_.module, code);
            EXPECT_EQ(r.rec.ca_errno, 22) << code;
            EXPECT_STREQ(r.rec.ca_errmsg, "NOT_SUPPORTED") << code;
        }
    }
    // A full report of ID, handled.
    void full(const std::string& id) const { report(report_body(fam_.full_report(id)), id, fam_.id_col, id); }
    // COLS of ID's table row, '|'-joined ("<twice>" after a second row).
    std::string row(const std::string& id, const std::string& cols) const
    {
        auto rows = db_rows("select " + cols + " from vtlog." + fam_.list_table + " where license_id12='" + id + "'");
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

    const family_case& fam_;
    daemon_proc d_;
    std::unique_ptr<test_appliance> box_;
};

// A report with every key a cache appliance sends.
inline std::map<std::string, std::string> frb_full_report(const std::string& id)
{
    return {{"key", id},          {"cpurate", "37"},        {"cpu", "Xeon-E3"},          {"board", "X10SLM"},
            {"mem", "16G"},       {"boot", "1700000100"},   {"name", "cache-" + id},     {"ver", "V3.2.1"},
            {"bdw", "1000"},      {"start", "1700000000"},  {"end", "1900000000"},       {"bpsout", "5000000000"},
            {"bpsin", "7000000000"}, {"flow", "321"},       {"diskio", "r10/w20"},       {"pused", "45%"}};
}

// A report with every key a log server sends.
inline std::map<std::string, std::string> log_full_report(const std::string& id)
{
    return {{"key", id},          {"name", "log-" + id}, {"ver", "V1.2.0"}, {"boot", "1700000100"},
            {"start", "1700000000"}, {"end", "1900000000"}, {"bps", "4000000000"}};
}

// Listed row positions of a cache appliance (27 values).
enum { F_ID, F_GRP, F_CPURATE, F_CPU, F_BOARD, F_MEM, F_BOOT, F_NAME, F_VER, F_BDW, F_START, F_END, F_BPSIN,
       F_BPSOUT, F_FLOW, F_DISKIO, F_PUSED, F_OUTIP, F_OUTPORT, F_ACTIME, F_ADDR, F_LNG, F_LAT, F_NAME2, F_VERIFY,
       F_WEBPORT, F_SSHPORT, F_COUNT };

// Listed row positions of a log server (15 values).
enum { L_ID, L_GRP, L_BOOT, L_NAME, L_VER, L_START, L_END, L_BPS, L_OUTIP, L_OUTPORT, L_ACTIME, L_ADDR, L_LNG,
       L_LAT, L_NAME2, L_COUNT };

// Names the case in test listings (stable across builds, unlike its address).
inline void PrintTo(const family_case* c, std::ostream* os) { *os << c->module; }

inline const family_case kFrbCase = {"FRB", "frelbox", "frelbox_list", "frelbox_discon", frb_full_report,
                                     F_ID,  F_NAME,    F_ACTIME,       F_COUNT,          30000,
                                     "bdw", F_BDW};
inline const family_case kLogCase = {"LOG", "logserver", "logserver_list", "logserver_discon", log_full_report,
                                     L_ID,  L_NAME,      L_ACTIME,         L_COUNT,            31000,
                                     "boot", L_BOOT};
