// Management commands of the gateway registry: statistics, list, removal,
// settings and password resets. They run on the main thread.
#include <crypt.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "cloud.h"
#include "common.h"
#include "db_writer.h"
#include "jos_cmds.h"
#include "jos_timer.h"
#include "wxcmd.h"

// The list's working order of the slots; reset to slot order by each list.
static devlist_t* _punit[DEV_POOL_SIZE];

static void punit_reset()
{
    for (size_t i = 0; i < DEV_POOL_SIZE; i++)
        _punit[i] = _devpool.slot(i);
}

namespace {

// The name=value arguments of one command.
struct cmd_args {
    std::vector<std::pair<std::string, std::string>> kv;

    explicit cmd_args(jos_cmdarg_t* ca)
    {
        // nextarg cuts the text in place: work on a copy.
        std::string text = ca->ca_arg != nullptr ? ca->ca_arg : "";
        char* value = nullptr;
        char* cursor = nullptr;
        for (char* tag = jos_cmd_nextarg(text.data(), &value, &cursor); tag != nullptr;
             tag = jos_cmd_nextarg(cursor, &value, &cursor))
            kv.emplace_back(tag, value != nullptr ? value : "");
    }
    const std::string* get(const char* name) const
    {
        for (const auto& [k, v] : kv)
            if (k == name)
                return &v;
        return nullptr;
    }
    bool has(const char* name) const { return get(name) != nullptr; }
    std::string str(const char* name) const
    {
        const std::string* v = get(name);
        return v != nullptr ? *v : "";
    }
    // Decimal value, DEF when absent; garbage reads as 0, as atoi would.
    long num(const char* name, long def = 0) const
    {
        const std::string* v = get(name);
        return v != nullptr ? std::strtol(v->c_str(), nullptr, 10) : def;
    }
};

// Group filters: grpid (10000 also takes group 0) and a list of up to 50
// group ids; a list that is empty or starts with "0" is no filter.
struct grp_filter {
    long grpid = 0;
    std::vector<long> users;

    grp_filter(const cmd_args& a, const char* seps)
    {
        grpid = a.num("grpid");
        std::string list = a.str("usergrp");
        if (list.empty() || list[0] == '0')
            return;
        for (size_t pos = 0; pos < list.size() && users.size() < 50;) {
            size_t end = list.find_first_of(seps, pos);
            if (end == std::string::npos)
                end = list.size();
            users.push_back(std::strtol(list.substr(pos, end - pos).c_str(), nullptr, 10));
            pos = end + 1;
        }
    }
    bool pass(const devlist_t* d) const
    {
        if (grpid == GRP_NONE && d->grpid != 0 && d->grpid != GRP_NONE)
            return false;
        if (grpid != 0 && grpid != GRP_NONE && d->grpid != grpid)
            return false;
        if (users.empty())
            return true;
        for (long g : users)
            if (g == d->grpid)
                return true;
        return false;
    }
};

bool dev_failed(const devlist_t* d, uint32_t now)
{
    return d->time + 60 < now;
}

bool dev_expiring(const devlist_t* d, uint32_t now)
{
    return d->license_end != 0 && (static_cast<int64_t>(d->license_end) - now) / 86400 < 8;
}

}  // namespace

static void cloud_stat(jos_cmdarg_t* ca, const cmd_args& a)
{
    grp_filter f(a, ",");
    const uint32_t now = now32();
    int fail = 0, exp = 0;
    _devpool.each([&](const devlist_t* d) {
        if (!f.pass(d))
            return;
        fail += dev_failed(d, now);
        exp += dev_expiring(d, now);
    });
    int inuse = static_cast<int>(_devpool.count());
    jos_cmd_printf(ca, "device_pool=%d/%d[total/use]\n", static_cast<int>(DEV_POOL_SIZE), inuse);
    jos_cmd_printf(ca, "device_total=%d\n", inuse);
    jos_cmd_printf(ca, "device_fail=%d\n", fail);
    jos_cmd_printf(ca, "device_exp=%d\n", exp);
    jos_cmd_printf(ca, "device_defgrp=%d\n", static_cast<int>(_defgrp));
    jos_cmd_printf(ca, "equalcount=%d\n", static_cast<int>(_equalcount));
    jos_cmd_printf(ca, "_weixin_notify_discon=%d\n", _weixin_notify_discon);
    jos_cmd_printf(ca, "_current_port_alloc=%d\nmapping_port_min=%d\nmapping_port_max=%d\n", _current_port_alloc,
                   _mapping_port_min, _mapping_port_max);
    jos_cmd_printf(ca, "device_update_cnt=%d,%d/%d/%d/%d[0/1/2/3]\n", static_cast<int>(_cloud_device_update_count),
                   static_cast<int>(_cloud_device_update0), static_cast<int>(_cloud_device_update1),
                   static_cast<int>(_cloud_device_update2), static_cast<int>(_cloud_device_update3));
    dbw_stats_t db = dbw_stats();
    jos_cmd_printf(ca,
                   "db_queued=%llu\ndb_written=%llu\ndb_failed=%llu\ndb_dropped=%llu\ndb_superseded=%llu\n"
                   "db_rebuilds=%llu\ndb_connected=%d\n",
                   static_cast<unsigned long long>(db.queued), static_cast<unsigned long long>(db.written),
                   static_cast<unsigned long long>(db.failed), static_cast<unsigned long long>(db.dropped),
                   static_cast<unsigned long long>(db.superseded), static_cast<unsigned long long>(db.rebuilds),
                   db.connected ? 1 : 0);
}

// Scheme by firmware: newer releases take SHA-512, older ones MD5; others
// cannot take a reset.
static const char* passreset_scheme(const char* version)
{
    for (const char* v : {"[9.2]", "[9.3]", "[11.1]"})
        if (std::strstr(version, v) != nullptr)
            return "$6$";
    for (const char* v : {"[8.0]", "[8.1]"})
        if (std::strstr(version, v) != nullptr)
            return "$1$";
    return nullptr;
}

static void cloud_rootpass(devlist_t* d, const cmd_args& a)
{
    const char* scheme = passreset_scheme(d->version);
    if (scheme == nullptr)
        return;
    static crypt_data cd;
    char salt[CRYPT_GENSALT_OUTPUT_SIZE];
    std::string pass = a.str("rootpass");
    if (crypt_gensalt_rn(scheme, 0, nullptr, 0, salt, sizeof(salt)) == nullptr)
        return;
    const char* hash = crypt_r(pass.c_str(), salt, &cd);
    if (hash == nullptr || hash[0] == '*')
        return;
    std::snprintf(d->password, sizeof(d->password), "%s", hash);
    std::snprintf(d->oripass, sizeof(d->oripass), "%.30s", pass.c_str());
    d->mfadminpass = static_cast<uint8_t>(a.num("mfadminpass"));
    d->passreset = PASSRESET_REQUESTED;
    d->resettime = now32();
}

static int cloud_set(jos_cmdarg_t* ca, const cmd_args& a)
{
    if (std::strstr(ca->ca_arg, "wxcmd=1") != nullptr)
        return wxcmd_main(ca);
    std::string id = a.str("license_id12");
    if (!a.has("license_id12")) {
        jos_cmd_printf(ca, "Invalid license\n");
        return 0;
    }
    devlist_t* d = device_find(id.c_str());
    if (a.has("rootpass")) {
        if (d != nullptr)
            cloud_rootpass(d, a);
    } else if (a.has("newcloudip")) {
        if (d != nullptr) {
            char text[512];
            std::snprintf(text, sizeof(text), "tag=%s license_id12=%s newcloudip=%s", "setnewcloud",
                          d->license_id12, a.str("newcloudip").c_str());
            cloud_sendarg(d->outip, d->outport, text);
        }
    } else {
        std::string name = a.str("sysname");
        int grp = static_cast<int>(a.num("grpid"));
        _devpool.mtx.lock();
        d = device_find(id.c_str());
        if (d != nullptr) {
            d->grpid = static_cast<uint16_t>(grp);
            d->grpname[0] = '\0';
            std::snprintf(d->sys_name2, sizeof(d->sys_name2), "%s", name.c_str());
            std::snprintf(d->map_address, sizeof(d->map_address), "%s", a.str("address").c_str());
            d->longitude = std::strtod(a.str("lng").c_str(), nullptr);
            d->latitude = std::strtod(a.str("lat").c_str(), nullptr);
            cloud_devlist_tomysql(d, "update");
        }
        _devpool.mtx.unlock();
        dbw_exec(dbw_stream("vtlog.cloud_backup"),
                 sqlf(nullptr, "update vtlog.cloud_backup set cname='%s', grpid=%d where license_id12='%s'", name,
                      grp, id));
    }
    jos_cmd_printf(ca, "ok");
    return 0;
}

static const char* const LIST_HEADER =
    "ipaddr|sys_name|license_start|licnese_end|license_id12|max_flowcont|max_ipcnt|current_users|flowcont|upbps|"
    "downbps|time|webport|grpid|license_id83|sys_name2|sys_run|sshport|outip|longitude|latitude|map_address|"
    "version|temp|isequal|info|eqtime|max_users|grpname|stat\n";

// One row: 32 values under a 30-column header. Line ends and '|' end the
// names in the record itself, so they cannot break the table.
static void cloud_cmd_printrow(jos_cmdarg_t* ca, devlist_t* d)
{
    for (char* name : {d->sys_name, d->sys_name2})
        for (char* p = name; *p != '\0'; p++)
            if (*p == '\n' || *p == '\r' || *p == '|')
                *p = '\0';
    jos_cmd_printf(ca,
                   "%u|%s|%u|%u|%s|%u|%u|%u|%u|%lu|%lu|%u|%d|%d|%s|%s|%u|%d|%u|%.12f|%.12f|%s|%s|%d|%d|%d|%d|%s|%u|%"
                   "u|%s|%d\n",
                   d->ipaddr, d->sys_name, d->license_start, d->license_end, d->license_id12, d->max_flowcont,
                   d->max_ipcnt, d->current_users, d->flowcont, static_cast<unsigned long>(d->upbps),
                   static_cast<unsigned long>(d->downbps), d->time, d->webport, d->grpid, d->license_id83,
                   d->sys_name2, d->sys_run, d->sshport, d->outip, d->longitude, d->latitude, d->map_address,
                   d->version, d->temp, d->passreset, d->cpu, d->isequal, d->info, d->equtime, d->max_users,
                   d->grpname, d->stat);
}

// Sort keys 1..13; strings byte-wise, numbers unsigned.
static int list_cmp(const devlist_t* x, const devlist_t* y, long key)
{
    auto num = [](uint64_t a, uint64_t b) { return a < b ? -1 : a > b ? 1 : 0; };
    auto str = [](const char* a, const char* b) {
        int r = std::strcmp(a, b);
        return r < 0 ? -1 : r > 0 ? 1 : 0;
    };
    switch (key) {
    case 1: return str(x->license_id12, y->license_id12);
    case 2: return num(x->time, y->time);
    case 3: return num(x->license_start, y->license_start);
    case 4: return num(x->license_end, y->license_end);
    case 5: return num(x->current_users, y->current_users);
    case 6: return num(x->flowcont, y->flowcont);
    case 7: return num(x->upbps, y->upbps);
    case 8: return num(x->downbps, y->downbps);
    case 9: return num(x->sys_run, y->sys_run);
    case 10: return str(x->version, y->version);
    case 11: return num(x->temp, y->temp);
    case 12: return num(x->cpu, y->cpu);
    case 13: return str(x->sys_name2, y->sys_name2);
    }
    return 0;
}

// The exchange sort of the list: every position against every later one,
// free slots skipped on both sides.
static void list_sort(long key, bool desc)
{
    for (size_t i = 0; i < DEV_POOL_SIZE; i++) {
        if (!device_pool_t::inuse(_punit[i]))
            continue;
        for (size_t j = i + 1; j < DEV_POOL_SIZE; j++) {
            if (!device_pool_t::inuse(_punit[j]))
                continue;
            int c = list_cmp(_punit[i], _punit[j], key);
            if (desc ? c < 0 : c > 0)
                std::swap(_punit[i], _punit[j]);
        }
    }
}

static bool list_search(const devlist_t* d, const std::string& sch)
{
    char low[sizeof(d->sys_name2) > sizeof(d->sys_name) ? sizeof(d->sys_name2) : sizeof(d->sys_name)];
    const char* s = sch.c_str();
    if (std::strstr(mystrtolower(d->license_id12, low, sizeof(low) - 1), s) != nullptr ||
        std::strstr(d->license_id83, s) != nullptr ||
        std::strstr(mystrtolower(d->sys_name, low, sizeof(low) - 1), s) != nullptr ||
        std::strstr(mystrtolower(d->sys_name2, low, sizeof(low) - 1), s) != nullptr ||
        std::strstr(d->version, s) != nullptr || std::strstr(s, d->version) != nullptr)
        return true;
    return false;
}

static void cloud_list(jos_cmdarg_t* ca, const cmd_args& a)
{
    // Bounded so that the page arithmetic cannot overflow.
    long limit = std::clamp(a.num("limit", 20), -2147483647L, 2147483647L);
    long page = std::clamp(a.num("page", 1), -2147483647L, 2147483647L);
    long sortname = a.num("sortname");
    long sortdesc = a.num("sortdesc");
    long expire = a.num("expire");
    long showequal = a.num("showequal");
    std::string sch = a.str("sch");
    grp_filter f(a, "|,");

    punit_reset();
    if (sortname >= 1 && sortname <= 13 && (sortdesc == 0 || sortdesc == 1))
        list_sort(sortname, sortdesc == 1);
    jos_cmd_printf(ca, "%s", LIST_HEADER);

    const long long first = (static_cast<long long>(page) - 1) * limit;
    const long long end = static_cast<long long>(page) * limit;
    const uint32_t now = now32();
    long long pos = 0;
    int matched = 0, fail = 0, exp = 0;
    for (devlist_t* d : _punit) {
        if (!device_pool_t::inuse(d) || (showequal != 0 && d->isequal == 0) || !f.pass(d))
            continue;
        if (!sch.empty() && !list_search(d, sch))
            continue;
        matched++;
        bool failed = dev_failed(d, now);
        fail += failed;
        bool expiring = dev_expiring(d, now);
        switch (expire) {
        case 0:
            exp += expiring;
            if (pos >= first && pos < end)
                cloud_cmd_printrow(ca, d);
            pos++;
            break;
        case 1:
            if (!expiring)
                break;
            exp++;
            if (pos >= first && pos < end)
                cloud_cmd_printrow(ca, d);
            pos++;
            break;
        case 2:
            cloud_cmd_printrow(ca, d);
            break;
        case 3:
            if (failed)
                cloud_cmd_printrow(ca, d);
            break;
        default:
            break;
        }
    }
    jos_cmd_printf(ca, "device_total=%d\n", expire == 1 ? exp : matched);
    jos_cmd_printf(ca, "device_fail=%d\n", fail);
    jos_cmd_printf(ca, "device_exp=%d\n", exp);
    jos_cmd_printf(ca, "equalcount=%d\n", static_cast<int>(_equalcount));
}

static void cloud_listwords(jos_cmdarg_t* ca)
{
    if (std::strstr(ca->ca_arg, "showpassreset") != nullptr) {
        // Devices with a reset requested, sent, failed or confirmed.
        punit_reset();
        jos_cmd_printf(ca, "%s", LIST_HEADER);
        for (devlist_t* d : _punit)
            if (device_pool_t::inuse(d) && d->passreset != PASSRESET_IDLE)
                cloud_cmd_printrow(ca, d);
    } else if (std::strstr(ca->ca_arg, "clearpassreset") != nullptr) {
        for (size_t i = 0; i < DEV_POOL_SIZE; i++)
            _devpool.slot(i)->passreset = PASSRESET_IDLE;
    } else {
        _devpool.mtx.lock();
        for (size_t i = 0; i < DEV_POOL_SIZE; i++) {
            _devpool.slot(i)->isequal = 0;
            _devpool.slot(i)->info[0] = '\0';
        }
        _equalcount = 0;
        _devpool.mtx.unlock();
        jos_cmd_printf(ca, "ok");
    }
}

int cloud_ioctl(jos_cmdarg_t* ca)
{
    if (ca->ca_cmd == JOS_CMD_EXIT)
        return 0;
    if (ca->ca_cmd < JOS_CMD_STAT || ca->ca_cmd > 2057) {
        ca->ca_errno = 22;
        std::snprintf(ca->ca_errmsg, sizeof(ca->ca_errmsg), "NOT_SUPPORTED");
        return 0;
    }
    if (ca->ca_arg == nullptr)
        ca->ca_arg = const_cast<char*>("");
    cmd_args a(ca);
    int rc = 0;
    switch (ca->ca_cmd) {
    case JOS_CMD_STAT:
        cloud_stat(ca, a);
        break;
    case JOS_CMD_REMOVE:
        if (!a.has("license_id12"))
            jos_cmd_printf(ca, "Invalid value\n");
        else {
            device_remove(a.str("license_id12").c_str());
            jos_cmd_printf(ca, "ok");
        }
        break;
    case JOS_CMD_SET:
        rc = cloud_set(ca, a);
        break;
    case 2054:
        if (!a.has("license_id12"))
            jos_cmd_printf(ca, "Invalid value\n");
        else if (const devlist_t* d = device_find(a.str("license_id12").c_str()))
            jos_cmd_printf(ca, "name=%s\n", device_name(d));
        break;
    case JOS_CMD_LIST:
        if (std::strstr(ca->ca_arg, "showpassreset") != nullptr ||
            std::strstr(ca->ca_arg, "clearpassreset") != nullptr ||
            std::strstr(ca->ca_arg, "clearequalinfo") != nullptr)
            cloud_listwords(ca);
        else
            cloud_list(ca, a);
        break;
    case 2056:
        cloud_cmd_ranges(ca, a.str("defgrp").empty() ? GRP_NONE : a.num("defgrp"), a.num("grpreset"),
                         a.num("oldgrp"), a.has("notify_discon"), a.num("notify_discon"), a.num("minport"),
                         a.num("maxport"));
        break;
    case 2057:
        if (!a.has("license_id12"))
            jos_cmd_printf(ca, "Invalid value\n");
        else
            cloud_cmd_mapping(ca, a.str("license_id12").c_str(), a.str("maphost").c_str(), a.num("hostport"),
                              a.num("webport"), a.num("sshport"), a.num("webenable"), a.num("sshenable"));
        break;
    default:
        break;
    }
    // The terminator counts only when there is text: an empty reply must not
    // hand back the first byte of the argument still in the segment.
    ca->ca_rlen = ca->ca_pos > 0 ? ca->ca_pos + 1 : 0;
    return rc;
}
