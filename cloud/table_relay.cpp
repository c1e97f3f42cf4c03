// Pushes of named tables to gateways. A gateway reports the table it holds;
// the operator marks it for a push; at its next heartbeat it gets the
// instruction naming the file to fetch, at most five at once; it answers
// with a status. The IP table and the URL/DNS group table work alike: the
// names and the one rule that differ are in the descriptor table below.
#include "table_relay.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "cloud.h"
#include "ipe_pool.h"
#include "ipe_string.h"
#include "jos_cmds.h"

namespace {

struct resinfo_t {
    char license_id12[16];
    uint16_t grpid;
    uint16_t istask;  // 0 none, 1 requested, 2 sent, 3 failed, 4 done
    uint32_t time;
    char ipidstr[64];
    char grpname[32];
    char tblfname[32];
    char error[64];
    char sysname[128];
    char tableinfo[512];
    resinfo_t* next;
};

enum : uint16_t { TASK_NONE = 0, TASK_REQUESTED = 1, TASK_SENT = 2, TASK_FAILED = 3, TASK_DONE = 4 };

constexpr size_t RELAY_POOL_SIZE = 2000;
constexpr int kInFlight = 5;
constexpr uint32_t kTimeout = 60;
using relay_pool_t = ipe_pool<resinfo_t, RELAY_POOL_SIZE, 128, &resinfo_t::license_id12>;

}  // namespace

struct table_relay {
    // What differs between the two.
    const char* report_key;  // the table description's word in a report
    const char* push_tag;    // the tag of the instruction sent at a heartbeat
    bool report_sets_time;   // a report stamps the record's time

    // Its records are allocated at the first report; every record under
    // mtx, by every path.
    relay_pool_t pool;
    int count = 0;
    int update_curr = 0;  // pushes in flight; may drift below zero
    std::mutex mtx;
};

table_relay _iptable{"iptable", "iptablestatus", true, {}, 0, 0, {}};
table_relay _urldnsgrp{"urldnsgrp", "urldnsgrpstatus", false, {}, 0, 0, {}};

namespace {

// The pool, or null before the first report.
relay_pool_t* pool_of(table_relay& r)
{
    return r.pool.first() != nullptr ? &r.pool : nullptr;
}

}  // namespace

namespace {

void relay_list(table_relay& r, jos_cmdarg_t* ca, const jos_cmd_args& a)
{
    const long grpid = a.num("grpid");
    const std::string sch = a.str("sch", 1023);
    const long istask = a.num("istask");
    std::vector<long> grps;
    std::string ug = a.str("usergrp", 1023);
    for (size_t pos = 0; !ug.empty() && pos < ug.size() && grps.size() < 128;) {
        size_t end = ug.find(',', pos);
        if (end == std::string::npos)
            end = ug.size();
        grps.push_back(std::strtol(ug.substr(pos, end - pos).c_str(), nullptr, 10));
        pos = end + 1;
    }
    std::vector<resinfo_t> rows;
    {
        std::lock_guard lk(r.mtx);
        if (pool_of(r) == nullptr)
            return;  // nothing reported yet: not even the header
        r.pool.each([&](const resinfo_t* p) { rows.push_back(*p); });
    }
    jos_cmd_printf(ca, "license_id12 sysname tableinfo grpid istask tblfname error\n");
    for (const resinfo_t& p : rows) {
        if (grpid == GRP_NONE ? (p.grpid != 0 && p.grpid != GRP_NONE) : (grpid != 0 && p.grpid != grpid))
            continue;
        bool in = grps.empty();
        for (long g : grps)
            in = in || g == p.grpid;
        if (!in)
            continue;
        if (!sch.empty() && std::strstr(p.sysname, sch.c_str()) == nullptr &&
            std::strstr(p.license_id12, sch.c_str()) == nullptr)
            continue;
        if (istask != 0 && p.istask == TASK_NONE)
            continue;
        jos_cmd_printrow(ca, ' ', "%s %s %s %u %d %s %s\n", p.license_id12, p.sysname, p.tableinfo,
                         unsigned(p.grpid), int(p.istask), p.tblfname, p.error);
    }
}

void relay_mark(table_relay& r, jos_cmdarg_t* ca, const jos_cmd_args& a)
{
    std::lock_guard lk(r.mtx);
    if (a.num("clear") != 0) {
        if (pool_of(r) != nullptr)
            r.pool.each([](resinfo_t* p) { p->istask = TASK_NONE; });
        return;
    }
    std::string id = a.str("license_id12", 15);
    if (id.empty() || !a.has("ipid")) {
        jos_cmd_printf(ca, "err: license_id12 is null\n");
        return;
    }
    if (resinfo_t* p = pool_of(r) != nullptr ? r.pool.find(id.c_str()) : nullptr) {
        p->istask = TASK_REQUESTED;
        ipe_fieldcpy(p->ipidstr, a.str("ipid").c_str());
        ipe_fieldcpy(p->tblfname, a.str("tblfname", 31).c_str());
        ipe_fieldcpy(p->grpname, a.str("grpname", 31).c_str());
    }
    jos_cmd_printf(ca, "ok\n");
}

int relay_ioctl(table_relay& r, jos_cmdarg_t* ca)
{
    if (ca->ca_cmd == JOS_CMD_EXIT)
        return 0;
    const jos_cmd_args a(ca);
    switch (ca->ca_cmd) {
    case JOS_CMD_STAT:
    case JOS_CMD_REMOVE:
    case 2057:
        break;
    case JOS_CMD_SET:
        relay_mark(r, ca, a);
        break;
    case JOS_CMD_LIST:
        relay_list(r, ca, a);
        break;
    default:
        return jos_cmd_notsupported(ca);
    }
    return jos_cmd_endreply(ca);
}

int iptable_ioctl(jos_cmdarg_t* ca)
{
    return relay_ioctl(_iptable, ca);
}
int urldnsgrp_ioctl(jos_cmdarg_t* ca)
{
    return relay_ioctl(_urldnsgrp, ca);
}
int relay_minit(jos_kernel_t*)
{
    return 0;
}
void relay_mfini(jos_kernel_t*) {}

}  // namespace

void relay_handle(table_relay& r, const char* text)
{
    char id[16] = "";
    std::string info;
    ipe_eachword(text, [&](const char* k, const char* v) {
        if (std::strcmp(k, "license_id12") == 0)
            ipe_fieldcpy(id, v, 15);
        else if (std::strcmp(k, r.report_key) == 0)
            info.assign(v, strnlen(v, 1023));
    });
    if (id[0] == '\0')
        return;
    char name[128];
    uint16_t grp = 0;
    _devpool.mtx.lock();
    device_getsysname(id, name, sizeof(name), &grp);
    _devpool.mtx.unlock();

    std::lock_guard lk(r.mtx);
    if (pool_of(r) == nullptr && r.pool.init() != 0)
        return;
    resinfo_t* p = r.pool.find(id);
    if (p == nullptr) {
        p = r.pool.alloc();
        if (p == nullptr)
            return;
        ipe_fieldcpy(p->license_id12, id);
        r.pool.link(p);
        r.count++;
    }
    ipe_fieldcpy(p->tableinfo, info.c_str(), 511);
    if (r.report_sets_time)
        p->time = now32();
    ipe_fieldcpy(p->sysname, name);
    p->grpid = grp;
}

void relay_status(table_relay& r, const char* text)
{
    char id[16] = "";
    std::string error;
    long ret = 0;
    ipe_eachword(text, [&](const char* k, const char* v) {
        if (std::strcmp(k, "license_id12") == 0)
            ipe_fieldcpy(id, v, 15);
        else if (std::strcmp(k, "error") == 0)
            error.assign(v, strnlen(v, 1023));
        else if (std::strcmp(k, "ret") == 0)
            ret = std::strtol(v, nullptr, 10);
    });
    std::lock_guard lk(r.mtx);
    resinfo_t* p = pool_of(r) != nullptr ? r.pool.find(id) : nullptr;
    if (p == nullptr)
        return;
    if (ret == -1) {
        p->istask = TASK_FAILED;
        ipe_fieldcpy(p->error, error.c_str(), 62);
    } else {
        p->istask = TASK_DONE;
    }
    // Whatever the record's state: an answer nothing was sent for lowers
    // the count below what is in flight.
    r.update_curr--;
}

void relay_heartbeat(table_relay& r, const char* license_id12, uint32_t ip, uint16_t port)
{
    std::lock_guard lk(r.mtx);
    resinfo_t* p = pool_of(r) != nullptr ? r.pool.find(license_id12) : nullptr;
    if (p == nullptr)
        return;
    const uint32_t now = now32();
    if (p->istask == TASK_REQUESTED) {
        if (r.update_curr > kInFlight - 1)
            return;  // waits for a later heartbeat
        p->time = now;
        r.update_curr++;
        char text[512];
        std::snprintf(text, sizeof(text), "tag=%s license_id12=%s ipid=%s file=%s grpname=%s dwport=%d", r.push_tag,
                      p->license_id12, p->ipidstr, p->tblfname, p->grpname, _http_port);
        p->istask = cloud_sendarg(ip, port, text) == 0 ? TASK_SENT : TASK_FAILED;
    } else if (p->istask == TASK_SENT && now - p->time >= kTimeout) {
        p->istask = TASK_FAILED;
        p->time = 0;
        std::snprintf(p->error, sizeof(p->error), "time out");
        r.update_curr--;
    }
}

void relay_setgrp(table_relay& r, const char* license_id12, uint16_t grpid, const char* sysname)
{
    std::lock_guard lk(r.mtx);
    if (resinfo_t* p = pool_of(r) != nullptr ? r.pool.find(license_id12) : nullptr) {
        p->grpid = grpid;
        ipe_fieldcpy(p->sysname, sysname, 127);
    }
}

void relay_remove(table_relay& r, const char* license_id12)
{
    std::lock_guard lk(r.mtx);
    if (resinfo_t* p = pool_of(r) != nullptr ? r.pool.unlink(license_id12) : nullptr) {
        r.pool.release(p);
        r.count--;
    }
}

jos_module_t iptable_module = {"iptable", 0x09000000, -1, relay_minit, relay_mfini, iptable_ioctl, nullptr};
jos_module_t urldnsgrp_module = {"urldnsgrp", 0x09000000, -1, relay_minit, relay_mfini, urldnsgrp_ioctl, nullptr};
