// The application inventory: which add-on applications each appliance
// runs, reported over the backup socket, listed and searched for the
// console, and the start requests an operator sends to an appliance.
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "backup.h"
#include "common.h"
#include "ipe_string.h"
#include "jos_cmds.h"

static appup_pool_t _apppool;
// Guards the inventory: the backup thread upserts, commands list and mark.
static std::mutex _appup_mtx;

int appup_init()
{
    std::lock_guard lk(_appup_mtx);
    if (_apppool.first() != nullptr)
        return 0;
    if (_apppool.init() != 0) {
        std::puts("appup malloc error");
        return -1;
    }
    return 0;
}

uint32_t appup_getcount()
{
    std::lock_guard lk(_appup_mtx);
    return _apppool.count();
}

static appup_t* appup_find(const char* license_id12, const char* app_name)
{
    return _apppool.find_if(license_id12, [&](const appup_t* r) { return std::strcmp(r->app_name, app_name) == 0; });
}

bool appup_update(const cloud_appinfo_t* info, appup_t* out)
{
    appup_t in{};
    ipe_fieldcpy(in.license_id12, info->license_id12, sizeof(info->license_id12));
    if (in.license_id12[0] == '\0' || _apppool.first() == nullptr)
        return false;
    ipe_fieldcpy(in.app_name, info->app_name, sizeof(info->app_name));
    ipe_fieldcpy(in.app_cname, info->app_cname, sizeof(info->app_cname));
    ipe_fieldcpy(in.app_version, info->app_version, sizeof(info->app_version));
    ipe_fieldcpy(in.app_status, info->app_status, sizeof(info->app_status));
    // The registry's name and group, taken under its own lock first.
    char name[128];
    uint16_t grp = 0;
    _devpool.mtx.lock();
    device_getsysname(in.license_id12, name, sizeof(name), &grp);
    _devpool.mtx.unlock();
    ipe_fieldcpy(in.sysname, name, sizeof(name));

    std::lock_guard lk(_appup_mtx);
    appup_t* r = appup_find(in.license_id12, in.app_name);
    if (r == nullptr) {
        r = _apppool.alloc();
        if (r == nullptr)
            return false;
        std::memcpy(r->license_id12, in.license_id12, sizeof(r->license_id12));
        _apppool.link(r);
    }
    // The start request (mask) stays as it is.
    std::memcpy(r->app_version, in.app_version, sizeof(r->app_version));
    std::memcpy(r->app_status, in.app_status, sizeof(r->app_status));
    std::memcpy(r->app_cname, in.app_cname, sizeof(r->app_cname));
    std::memcpy(r->app_name, in.app_name, sizeof(r->app_name));
    std::memcpy(r->sysname, in.sysname, sizeof(r->sysname));
    r->grpid = grp;
    r->time = now32();
    if (out != nullptr)
        *out = *r;
    return true;
}

bool appup_splitfill(const char* text, appup_t* out)
{
    cloud_appinfo_t info{};
    ipe_eachword(text, [&](const char* k, const char* v) {
        if (std::strcmp(k, "license_id12") == 0)
            ipe_fieldcpy(info.license_id12, v, 15);
        else if (std::strcmp(k, "name") == 0)
            ipe_fieldcpy(info.app_name, v, 63);
        else if (std::strcmp(k, "cname") == 0)
            ipe_fieldcpy(info.app_cname, v, 63);
        else if (std::strcmp(k, "version") == 0)
            ipe_fieldcpy(info.app_version, v, 31);
        else if (std::strcmp(k, "status") == 0)
            ipe_fieldcpy(info.app_status, v, 15);
    }, " \t\r\n");
    return appup_update(&info, out);
}

int appup_setstartmask(const char* license_id12, const char* app_name, const char*)
{
    std::lock_guard lk(_appup_mtx);
    appup_t* r = _apppool.first() != nullptr ? appup_find(license_id12, app_name) : nullptr;
    if (r == nullptr) {
        std::puts("not find");
        return -1;
    }
    r->mask = 1;
    return 0;
}

bool appup_takestart(const char* license_id12, const char* app_name, appup_t* out)
{
    std::lock_guard lk(_appup_mtx);
    appup_t* r = _apppool.first() != nullptr ? appup_find(license_id12, app_name) : nullptr;
    if (r == nullptr || r->mask != 1)
        return false;
    r->mask = 2;
    *out = *r;
    return true;
}

// A start log names an appliance and an application; the record is looked
// up and nothing else happens to it.
void appup_startlog(const char* text)
{
    char id[16] = "", app[64] = "";
    ipe_eachword(text, [&](const char* k, const char* v) {
        if (std::strcmp(k, "license_id12") == 0)
            ipe_fieldcpy(id, v, 15);
        else if (std::strcmp(k, "app_name") == 0)
            ipe_fieldcpy(app, v, 63);
    }, " \t\r\n");
    std::lock_guard lk(_appup_mtx);
    if (_apppool.first() != nullptr)
        (void)appup_find(id, app);
}

void appup_sysname_update(mysql_conn& c)
{
    if (c.query("select license_id12, sys_name, sys_name2, grpid from vtlog.cloud_device") != 0) {
        std::printf("%s error: %s\n", "appup_sysname_update", c.error());
        return;
    }
    MYSQL_RES* res = mysql_use_result(c.get());
    if (res == nullptr)
        return;
    while (MYSQL_ROW row = mysql_fetch_row(res)) {
        if (row[0] == nullptr)
            continue;
        const char* name = row[2] != nullptr && row[2][0] != '\0' ? row[2] : (row[1] != nullptr ? row[1] : "");
        long grp = row[3] != nullptr ? std::strtol(row[3], nullptr, 10) : 0;
        std::lock_guard lk(_appup_mtx);
        if (_apppool.first() == nullptr)
            break;
        for (appup_t* r = _apppool.chain(appup_pool_t::bucket(row[0])); r != nullptr; r = r->next) {
            if (std::strcmp(r->license_id12, row[0]) != 0)
                continue;
            ipe_fieldcpy(r->sysname, name, sizeof(r->sysname));
            r->grpid = static_cast<uint16_t>(grp != 0 ? grp : GRP_NONE);
        }
    }
    mysql_free_result(res);
}

namespace {

// What a listing matches: a group list, and either an exclusion list of
// appliances (reverse) or a search text.
struct app_filter {
    std::vector<long> grps;
    bool reverse = false;
    std::vector<std::string> excluded;
    std::string sch;

    bool grp_pass(const appup_t* r) const
    {
        if (grps.empty())
            return true;
        for (long g : grps)
            if (g == r->grpid)
                return true;
        return false;
    }
    bool text_pass(const appup_t* r) const
    {
        if (reverse) {
            for (const std::string& id : excluded)
                if (std::strncmp(id.c_str(), r->license_id12, 12) == 0)
                    return false;
            return true;
        }
        if (sch.empty() || sch == "none")
            return true;
        char low[sizeof(r->sysname)];
        const char* s = sch.c_str();
        return std::strstr(mystrtolower(r->license_id12, low, sizeof(low) - 1), s) != nullptr ||
               std::strstr(r->sysname, s) != nullptr ||
               std::strstr(mystrtolower(r->sysname, low, sizeof(low) - 1), s) != nullptr ||
               std::strstr(mystrtolower(r->app_cname, low, sizeof(low) - 1), s) != nullptr ||
               std::strstr(mystrtolower(r->app_version, low, sizeof(low) - 1), s) != nullptr;
    }
};

}  // namespace

void appup_list(jos_cmdarg_t* ca, long page, long limit, const char* sch, const char* usergrp, long reverse)
{
    app_filter f;
    if (usergrp != nullptr && usergrp[0] != '\0' && usergrp[0] != '0') {
        std::string list = usergrp;
        for (size_t pos = 0; pos < list.size() && f.grps.size() < 50;) {
            size_t end = list.find(',', pos);
            if (end == std::string::npos)
                end = list.size();
            f.grps.push_back(std::strtol(list.substr(pos, end - pos).c_str(), nullptr, 10));
            pos = end + 1;
        }
    }
    f.sch = sch != nullptr ? sch : "";
    f.reverse = reverse != 0;

    const long long first = (static_cast<long long>(page) - 1) * limit;
    const long long end = first + limit;
    std::vector<appup_t> rows;
    int total = 0;
    {
        std::lock_guard lk(_appup_mtx);
        if (_apppool.first() != nullptr) {
            if (f.reverse) {
                // The appliances that have the application (or that
                // version) are left out: what remains lacks it.
                std::string text = f.sch, version;
                if (size_t comma = text.find(','); comma != std::string::npos) {
                    version = text.substr(comma + 1);
                    text.resize(comma);
                }
                _apppool.each([&](const appup_t* r) {
                    char low[sizeof(r->app_cname)];
                    if (f.excluded.size() < 2000 &&
                        std::strstr(mystrtolower(r->app_cname, low, sizeof(low) - 1), text.c_str()) != nullptr &&
                        (version.empty() || version == r->app_version))
                        f.excluded.emplace_back(r->license_id12);
                });
            }
            _apppool.each([&](const appup_t* r) {
                if (r->app_name[0] == '\0' || !f.grp_pass(r) || !f.text_pass(r))
                    return;
                if (total >= first && total < end)
                    rows.push_back(*r);
                total++;
            });
        }
    }
    for (const appup_t& r : rows)
        jos_cmd_printrow(ca, ' ', "%s %s %s %s %s %d %u %s %d\n", r.license_id12, r.sysname, r.app_name,
                         r.app_cname, r.app_version, int(r.grpid), r.time, r.app_status, int(r.mask));
    jos_cmd_printf(ca, "total=%d\n", total);
}
