// Management commands of the gateway registry: statistics, list, removal,
// settings and password resets. They run on the main thread.
#include <crypt.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "backup.h"
#include "cloud.h"
#include "common.h"
#include "db_writer.h"
#include "jos_cmds.h"
#include "jos_timer.h"
#include "table_relay.h"
#include "wxcmd.h"

// A listing works on copies of the records taken under the registry lock,
// and sorts and prints them without holding it.
struct dev_copy_t {
    devlist_t d;
    size_t slot;
};

// Main thread only; kept between listings to spare the allocation.
static std::vector<dev_copy_t> _snap;
// The list's working order of the copies.
static std::vector<dev_copy_t*> _punit;

// Copies every device in slot order; also reads the counters a listing
// prints while the lock is held.
static void list_snapshot(uint32_t* equalcount)
{
    _snap.clear();
    _snap.reserve(DEV_POOL_SIZE);
    _devpool.mtx.lock();
    for (size_t i = 0; i < DEV_POOL_SIZE; i++) {
        const devlist_t* d = _devpool.slot(i);
        if (device_pool_t::inuse(d))
            _snap.push_back({*d, i});
    }
    if (equalcount != nullptr)
        *equalcount = _equalcount;
    _devpool.mtx.unlock();
    _punit.clear();
    for (dev_copy_t& c : _snap)
        _punit.push_back(&c);
}

namespace {

using cmd_args = jos_cmd_args;

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

void cloud_counts(size_t* known, size_t* online)
{
    const uint32_t now = now32();
    size_t failed = 0;
    _devpool.mtx.lock();
    _devpool.each([&](const devlist_t* d) { failed += dev_failed(d, now); });
    *known = _devpool.count();
    _devpool.mtx.unlock();
    *online = *known - failed;
}

static void cloud_stat(jos_cmdarg_t* ca, const cmd_args& a)
{
    grp_filter f(a, ",");
    const uint32_t now = now32();
    int fail = 0, exp = 0;
    _devpool.mtx.lock();
    _devpool.each([&](const devlist_t* d) {
        if (!f.pass(d))
            return;
        fail += dev_failed(d, now);
        exp += dev_expiring(d, now);
    });
    const int inuse = static_cast<int>(_devpool.count());
    const uint32_t defgrp = _defgrp, equalcount = _equalcount, upd = _cloud_device_update_count,
                   upd0 = _cloud_device_update0, upd1 = _cloud_device_update1, upd2 = _cloud_device_update2,
                   upd3 = _cloud_device_update3;
    const int notify = _weixin_notify_discon, alloc = _current_port_alloc, pmin = _mapping_port_min,
              pmax = _mapping_port_max;
    _devpool.mtx.unlock();
    jos_cmd_printf(ca, "device_pool=%d/%d[total/use]\n", static_cast<int>(DEV_POOL_SIZE), inuse);
    jos_cmd_printf(ca, "device_total=%d\n", inuse);
    jos_cmd_printf(ca, "device_fail=%d\n", fail);
    jos_cmd_printf(ca, "device_exp=%d\n", exp);
    jos_cmd_printf(ca, "device_defgrp=%d\n", static_cast<int>(defgrp));
    jos_cmd_printf(ca, "equalcount=%d\n", static_cast<int>(equalcount));
    jos_cmd_printf(ca, "_weixin_notify_discon=%d\n", notify);
    jos_cmd_printf(ca, "_current_port_alloc=%d\nmapping_port_min=%d\nmapping_port_max=%d\n", alloc, pmin, pmax);
    jos_cmd_printf(ca, "device_update_cnt=%d,%d/%d/%d/%d[0/1/2/3]\n", static_cast<int>(upd), static_cast<int>(upd0),
                   static_cast<int>(upd1), static_cast<int>(upd2), static_cast<int>(upd3));
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

// The hash is made without the lock (it takes milliseconds); the record
// takes it only if the device is still there.
static void cloud_rootpass(const std::string& id, const cmd_args& a)
{
    char version[sizeof(devlist_t::version)] = "";
    _devpool.mtx.lock();
    const devlist_t* found = device_find(id.c_str());
    if (found != nullptr)
        std::memcpy(version, found->version, sizeof(version));
    _devpool.mtx.unlock();
    const char* scheme = found != nullptr ? passreset_scheme(version) : nullptr;
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
    _devpool.mtx.lock();
    if (devlist_t* d = device_find(id.c_str())) {
        std::snprintf(d->password, sizeof(d->password), "%s", hash);
        std::snprintf(d->oripass, sizeof(d->oripass), "%.30s", pass.c_str());
        d->mfadminpass = static_cast<uint8_t>(a.num("mfadminpass"));
        d->passreset = PASSRESET_REQUESTED;
        d->resettime = now32();
    }
    _devpool.mtx.unlock();
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
    if (a.has("rootpass")) {
        cloud_rootpass(id, a);
    } else if (a.has("newcloudip")) {
        _devpool.mtx.lock();
        if (const devlist_t* d = device_find(id.c_str())) {
            char text[512];
            std::snprintf(text, sizeof(text), "tag=%s license_id12=%s newcloudip=%s", "setnewcloud",
                          d->license_id12, a.str("newcloudip").c_str());
            cloud_sendarg(d->outip, d->outport, text);
        }
        _devpool.mtx.unlock();
    } else {
        std::string name = a.str("sysname");
        int grp = static_cast<int>(a.num("grpid"));
        _devpool.mtx.lock();
        if (devlist_t* d = device_find(id.c_str())) {
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
        relay_setgrp(_iptable, id.c_str(), static_cast<uint16_t>(grp), name.c_str());
        // The inventory shows names and groups as the table has them.
        dbw_call(dbw_stream("vtlog.cloud_device"), appup_sysname_update);
    }
    jos_cmd_printf(ca, "ok");
    return 0;
}

static const char* const LIST_HEADER =
    "ipaddr|sys_name|license_start|licnese_end|license_id12|max_flowcont|max_ipcnt|current_users|flowcont|upbps|"
    "downbps|time|webport|grpid|license_id83|sys_name2|sys_run|sshport|outip|longitude|latitude|map_address|"
    "version|temp|isequal|info|eqtime|max_users|grpname|stat\n";

// One row: 32 values under a 30-column header. A name ends at its first
// line break or '|' (the copy is cut here; the record is cut after the
// listing, see list_cutnames).
static void cloud_cmd_printrow(jos_cmdarg_t* ca, dev_copy_t* c)
{
    devlist_t* d = &c->d;
    for (char* name : {d->sys_name, d->sys_name2})
        name[std::strcspn(name, "\n\r|")] = '\0';
    jos_cmd_printrow(ca, '|',
                     "%u|%s|%u|%u|%s|%u|%u|%u|%u|%lu|%lu|%u|%d|%d|%s|%s|%u|%d|%u|%.12f|%.12f|%s|%s|%d|%d|%d|%d|%s|%u|%"
                     "u|%s|%d\n",
                     d->ipaddr, d->sys_name, d->license_start, d->license_end, d->license_id12, d->max_flowcont,
                     d->max_ipcnt, d->current_users, d->flowcont, static_cast<unsigned long>(d->upbps),
                     static_cast<unsigned long>(d->downbps), d->time, int(d->webport), int(d->grpid), d->license_id83,
                     d->sys_name2, d->sys_run, int(d->sshport), d->outip, d->longitude, d->latitude, d->map_address,
                     d->version, int(d->temp), int(d->passreset), int(d->cpu), int(d->isequal), d->info, d->equtime,
                     d->max_users, d->grpname, int(d->stat));
}

// The names of the devices a listing printed are cut in their records too,
// as the registry has always done.
static void list_cutnames(const std::vector<size_t>& slots)
{
    _devpool.mtx.lock();
    for (size_t i : slots) {
        devlist_t* d = _devpool.slot(i);
        for (char* name : {d->sys_name, d->sys_name2})
            name[std::strcspn(name, "\n\r|")] = '\0';
    }
    _devpool.mtx.unlock();
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

// The exchange sort of the list: every device against every later one.
static void list_sort(long key, bool desc)
{
    for (size_t i = 0; i < _punit.size(); i++) {
        for (size_t j = i + 1; j < _punit.size(); j++) {
            int c = list_cmp(&_punit[i]->d, &_punit[j]->d, key);
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

    uint32_t equalcount = 0;
    list_snapshot(&equalcount);
    if (sortname >= 1 && sortname <= 13 && (sortdesc == 0 || sortdesc == 1))
        list_sort(sortname, sortdesc == 1);
    jos_cmd_printf(ca, "%s", LIST_HEADER);

    const long long first = (static_cast<long long>(page) - 1) * limit;
    const long long end = static_cast<long long>(page) * limit;
    const uint32_t now = now32();
    long long pos = 0;
    int matched = 0, fail = 0, exp = 0;
    std::vector<size_t> printed;
    auto print = [&](dev_copy_t* c) {
        cloud_cmd_printrow(ca, c);
        printed.push_back(c->slot);
    };
    for (dev_copy_t* c : _punit) {
        const devlist_t* d = &c->d;
        if ((showequal != 0 && d->isequal == 0) || !f.pass(d))
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
                print(c);
            pos++;
            break;
        case 1:
            if (!expiring)
                break;
            exp++;
            if (pos >= first && pos < end)
                print(c);
            pos++;
            break;
        case 2:
            print(c);
            break;
        case 3:
            if (failed)
                print(c);
            break;
        default:
            break;
        }
    }
    list_cutnames(printed);
    jos_cmd_printf(ca, "device_total=%d\n", expire == 1 ? exp : matched);
    jos_cmd_printf(ca, "device_fail=%d\n", fail);
    jos_cmd_printf(ca, "device_exp=%d\n", exp);
    jos_cmd_printf(ca, "equalcount=%d\n", static_cast<int>(equalcount));
}

static void cloud_listwords(jos_cmdarg_t* ca)
{
    if (std::strstr(ca->ca_arg, "showpassreset") != nullptr) {
        // Devices with a reset requested, sent, failed or confirmed.
        list_snapshot(nullptr);
        jos_cmd_printf(ca, "%s", LIST_HEADER);
        std::vector<size_t> printed;
        for (dev_copy_t* c : _punit) {
            if (c->d.passreset != PASSRESET_IDLE) {
                cloud_cmd_printrow(ca, c);
                printed.push_back(c->slot);
            }
        }
        list_cutnames(printed);
    } else if (std::strstr(ca->ca_arg, "clearpassreset") != nullptr) {
        _devpool.mtx.lock();
        for (size_t i = 0; i < DEV_POOL_SIZE; i++)
            _devpool.slot(i)->passreset = PASSRESET_IDLE;
        _devpool.mtx.unlock();
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
        return jos_cmd_notsupported(ca);
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
            relay_remove(_iptable, a.str("license_id12").c_str());
            jos_cmd_printf(ca, "ok");
        }
        break;
    case JOS_CMD_SET:
        rc = cloud_set(ca, a);
        break;
    case 2054:
        if (!a.has("license_id12"))
            jos_cmd_printf(ca, "Invalid value\n");
        else {
            std::string name;
            _devpool.mtx.lock();
            const devlist_t* d = device_find(a.str("license_id12").c_str());
            if (d != nullptr)
                name = device_name(d);
            _devpool.mtx.unlock();
            if (d != nullptr)
                jos_cmd_printrow(ca, ' ', "name=%s\n", name.c_str());
        }
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
    jos_cmd_endreply(ca);
    return rc;
}
