// Configuration backups and application-package upgrades. Appliances ping
// the backup socket; a ping picks up a waiting order; the appliance copies
// its configuration into the backup folder by SSH (or installs a package)
// and reports back here. The scheduler and the watchdogs run every 3 s.
#include "backup.h"
#include "metrics.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <mutex>
#include <string>
#include <vector>

#include "cloudconf.h"
#include "common.h"
#include "ipe_string.h"
#include "db_writer.h"
#include "jos_cmds.h"
#include "jos_thread.h"
#include "jos_timer.h"
#include "sshport.h"

namespace {

// State texts of a package upgrade, as the console shows them (GBK).
constexpr char kUpFailed[] = "\xC9\xFD\xBC\xB6\xCA\xA7\xB0\xDC";                          // upgrade failed
constexpr char kOrderSent[] = "\xB7\xA2\xCB\xCD\xC9\xFD\xBC\xB6\xD6\xB8\xC1\xEE";          // order sent
constexpr char kOrderTaken[] = "\xD2\xD1\xBD\xD3\xCA\xD5\xB5\xBD\xC9\xFD\xBC\xB6\xD6\xB8\xC1\xEE";  // order received

constexpr int kBackupWatch = 60;  // seconds an ordered backup may take
constexpr int kAppupWatch = 30;   // seconds an upgrade may stay silent
constexpr int kBackupsInFlight = 10;
constexpr int kUpgradesInFlight = 5;

// The list and both counters; every step's field updates under _backup_mtx.
cloud_backuplist_t _backup_pool[BACKUP_LIST_SIZE];
int _device_count;
int _device_backup_count;
int _device_upgrading_count;
std::mutex _backup_mtx;
bool _backup_full_said;

int _backup_sock = -1;
int _backup_port = CLOUD_BACKUP_PORT;
int _backup_stream = -1;  // vtlog.cloud_backup
int _appup_stream = -1;   // vtlog.cloud_appup
std::atomic<bool> _sweep_pending;

std::string vtconf_dir()
{
    return jos_path("/usr/logdata/vtconf");
}

std::string keyfile()
{
    return jos_path("/root/.ssh/authorized_keys");
}

// First record of ID, or null. Callers hold _backup_mtx.
cloud_backuplist_t* backup_find(const char* id)
{
    for (int i = 0; i < _device_count; i++)
        if (std::strcmp(_backup_pool[i].license_id12, id) == 0)
            return &_backup_pool[i];
    return nullptr;
}

void backup_send(const void* data, size_t len, const sockaddr_in& to)
{
    sendto(_backup_sock, data, len, 0, reinterpret_cast<const sockaddr*>(&to), sizeof(to));
}

// ---------------------------------------------------------------------------
// Datagrams
// ---------------------------------------------------------------------------

// Hands a waiting package-upgrade order to the sender of a ping. The row
// takes the order-sent text before the order leaves; the order is marked
// at once so that pings arriving meanwhile do not order it twice.
void cloud_appuping(const char* id, const sockaddr_in& from)
{
    {
        std::lock_guard lk(_backup_mtx);
        cloud_backuplist_t* r = backup_find(id);
        if (r == nullptr || r->needappup == 0 || r->appupcheck != 0)
            return;
        r->appupcheck = 1;
    }
    std::string sid = id;
    dbw_call(_appup_stream, [sid, from](mysql_conn& c) {
        if (c.query(sqlf(c.get(), "update vtlog.cloud_appup set complete=1, errors='%s' where license_id12='%s'",
                         kOrderSent, sid)) != 0 &&
            mysql_conn::lost(c.errnum()))
            return;
        std::lock_guard lk(_backup_mtx);
        cloud_backuplist_t* r = backup_find(sid.c_str());
        if (r == nullptr || r->needappup == 0)
            return;  // the watchdog gave up on it meanwhile
        cloud_appupgradeinfo_t o{};
        std::memcpy(o.tag, "VTR", 4);
        o.type = VTR_APPUPGRADE;
        o.nginx_port = r->nginx_port;
        std::memcpy(o.license_id12, r->license_id12, sizeof(o.license_id12));
        std::memcpy(o.packet_name, r->packet_name, sizeof(o.packet_name));
        backup_send(&o, sizeof(o), from);
        r->appupcheck = 1;
        r->appupcheck_time = now32();
    });
}

void backup_ping(const cloud_ping_t* p, const sockaddr_in& from)
{
    char id[16];
    ipe_fieldcpy(id, p->license_id12);
    if (id[0] == '\0' || std::strlen(id) > 12)
        return;
    std::vector<cloud_backupinfo_t> orders;
    {
        std::lock_guard lk(_backup_mtx);
        cloud_backuplist_t* r = backup_find(id);
        if (r == nullptr) {
            if (_device_count < static_cast<int>(BACKUP_LIST_SIZE)) {
                r = &_backup_pool[_device_count++];
                std::memcpy(r->license_id12, id, sizeof(r->license_id12));
                r->needbackup = 0;
                r->backup_over = 1;
            } else if (!_backup_full_said) {
                std::printf("backup_main: backup list full (%zu), %s not added\n", BACKUP_LIST_SIZE, id);
                _backup_full_said = true;
            }
        } else if (r->needbackup) {
            for (int i = 0; i < _device_count; i++) {
                cloud_backuplist_t& b = _backup_pool[i];
                if (b.needbackup == 0 || std::strcmp(b.license_id12, id) != 0)
                    continue;
                cloud_backupinfo_t o{};
                std::memcpy(o.tag, "VTR", 4);
                o.type = VTR_BACKUPINFO;
                o.fl_ctime = b.fl_ctime;
                std::memcpy(o.license_id12, b.license_id12, sizeof(o.license_id12));
                std::memcpy(o.filename, b.filename, sizeof(o.filename));
                orders.push_back(o);
                b.filename[0] = '\0';
                b.needbackup = 0;
            }
        }
    }
    if (!orders.empty()) {
        rsa_publish_if_missing();
        for (const cloud_backupinfo_t& o : orders)
            backup_send(&o, sizeof(o), from);
    }
    cloud_appuping(id, from);
}

void backup_logupdate(const cloud_backup_log_t* log)
{
    char id[16], errors[129], filename[33];
    ipe_fieldcpy(id, log->license_id12);
    ipe_fieldcpy(errors, log->errors);
    ipe_fieldcpy(filename, log->filename);
    {
        // Before the database: the watchdog must not time it out now.
        std::lock_guard lk(_backup_mtx);
        _device_backup_count--;
        if (cloud_backuplist_t* r = backup_find(id)) {
            r->backup_over = 1;
            r->needbackup = 0;
        }
    }
    const uint16_t type = log->type;
    if (type == VTR_BACKUP_FAIL1 || type == VTR_BACKUP_FAIL2) {
        dbw_exec(_backup_stream,
                 sqlf(nullptr, "update vtlog.cloud_backup set complete=1, errors='%s' where license_id12='%s'", errors,
                      id),
                 "backup_logupdate");
        return;
    }
    // The file the appliance says it wrote must be there. Names stay
    // inside the backup folder.
    std::string path;
    if (type == VTR_BACKUP_OK) {
        time_t t = static_cast<time_t>(std::strtoll(errors, nullptr, 10));
        tm lt{};
        localtime_r(&t, &lt);
        char name[128];
        std::snprintf(name, sizeof(name), "%s_%04d%02d%02d%02d%02d%02d.conf", id, lt.tm_year + 1900, lt.tm_mon + 1,
                      lt.tm_mday, lt.tm_hour, lt.tm_min, lt.tm_sec);
        path = vtconf_dir() + "/" + name;
    } else if (std::strchr(filename, '/') == nullptr && std::strcmp(filename, "..") != 0) {
        path = vtconf_dir() + "/" + filename;
    }
    struct stat st;
    bool present = !path.empty() && stat(path.c_str(), &st) == 0;
    if (!present) {
        const char* sql = type == VTR_BACKUP_OK
                              ? "update vtlog.cloud_backup set errors='fail', complete=1 where license_id12='%s'"
                              : "update vtlog.cloud_backup set errors='wait', complete=0 where license_id12='%s'";
        dbw_exec(_backup_stream, sqlf(nullptr, sql, id), "backup_logupdate");
        return;
    }
    const uint32_t now = now32();
    const uint32_t ctime = static_cast<uint32_t>(std::strtoul(errors, nullptr, 10));
    std::string sid = id;
    // The count of good backups is read and written back one higher, in
    // order with everything else the writer runs.
    dbw_call(_backup_stream, [sid, now, ctime](mysql_conn& c) {
        if (c.query(sqlf(c.get(),
                         "update vtlog.cloud_backup set complete=1, backup_time=%u, errors='ok', backup_ctime=%u "
                         "where license_id12='%s'",
                         now, ctime, sid)) != 0 &&
            mysql_conn::lost(c.errnum()))
            return;
        int fnum = 0;
        if (c.query(sqlf(c.get(), "select fnum from vtlog.cloud_backup where license_id12='%s'", sid)) == 0) {
            if (MYSQL_RES* res = mysql_store_result(c.get())) {
                while (MYSQL_ROW row = mysql_fetch_row(res))
                    fnum = row[0] != nullptr ? std::atoi(row[0]) : 0;
                mysql_free_result(res);
            }
        } else if (mysql_conn::lost(c.errnum())) {
            return;
        }
        if (c.query(sqlf(c.get(), "update vtlog.cloud_backup set fnum=%d where license_id12='%s'", fnum + 1, sid)) !=
                0 &&
            !mysql_conn::lost(c.errnum()))
            std::printf("%s error: %s\n", "backup_logupdate", c.error());
    });
}

void cloud_appup_ackhttpinfo(const cloud_appupgradeinfo_t* a)
{
    char id[16];
    ipe_fieldcpy(id, a->license_id12);
    dbw_exec(_appup_stream,
             sqlf(nullptr, "update vtlog.cloud_appup set complete=1, errors='%s' where license_id12='%s'", kOrderTaken,
                  id));
    std::lock_guard lk(_backup_mtx);
    for (int i = 0; i < _device_count; i++) {
        cloud_backuplist_t& b = _backup_pool[i];
        if (std::strcmp(b.license_id12, id) == 0) {
            b.packet_name[0] = '\0';
            b.needappup = 0;
        }
    }
}

// Marks the end of an upgrade and counts it out. Callers hold _backup_mtx.
void appup_end(const char* id)
{
    _device_upgrading_count--;
    if (cloud_backuplist_t* r = backup_find(id))
        r->appup_over = 1;
}

// "<word> <result> <detail>": succ, fail, or progress.
void cloud_appup_log(const cloud_appup_log_t* l)
{
    char id[16], text[129];
    ipe_fieldcpy(id, l->license_id12);
    ipe_fieldcpy(text, l->errors);
    char* result = std::strchr(text, ' ');
    if (result == nullptr)
        return;
    *result++ = '\0';
    char* detail = std::strchr(result, ' ');
    if (detail == nullptr)
        return;
    *detail++ = '\0';
    detail[std::strcspn(detail, "\r\n")] = '\0';
    int state = 1;
    if (std::strcmp(result, "fail") == 0) {
        std::lock_guard lk(_backup_mtx);
        appup_end(id);
        state = 3;
    } else if (std::strcmp(result, "succ") == 0) {
        dbw_exec(_appup_stream,
                 sqlf(nullptr, "update vtlog.cloud_appup set last_version='%s' where license_id12='%s'", detail, id),
                 "cloud_appup_log");
        std::lock_guard lk(_backup_mtx);
        appup_end(id);
        state = 2;
    }
    dbw_exec(_appup_stream,
             sqlf(nullptr, "update vtlog.cloud_appup set complete=%d, errors='%s' where license_id12='%s'", state,
                  detail, id),
             "cloud_appup_log");
}

// Answers a text message: a start request waiting for the application it
// names goes out once, as the reply.
void cloud_appstart(const char* text, const sockaddr_in& from)
{
    appup_t r;
    if (!appup_splitfill(text, &r) || r.mask != 1 || !appup_takestart(r.license_id12, r.app_name, &r))
        return;
    cldarg_t a{};
    std::memcpy(a.tag, "VTR", 4);
    a.type = VTR_CMDARG;
    a.arglen = sizeof(cldarg_t);
    std::snprintf(a.argstr, sizeof(a.argstr), "tag=appstart license_id12=%s app_name=%s state=%s", r.license_id12,
                  r.app_name, r.app_status);
    backup_send(&a, sizeof(a), from);
}

void backup_text(const cldarg_t* a, const sockaddr_in& from)
{
    char copy[1024];
    std::snprintf(copy, sizeof(copy), "%s", a->argstr);
    if (std::strncmp(copy, "tag=appinfo ", 12) == 0)
        appup_splitfill(copy);
    else if (std::strncmp(copy, "tag=appstartlog ", 16) == 0)
        appup_startlog(copy);
    cloud_appstart(a->argstr, from);
}

void backup_dgram(char* buf, ssize_t len, const sockaddr_in& from)
{
    if (std::memcmp(buf, "VTR", 4) != 0)
        return;
    switch (reinterpret_cast<const cloud_hdr_t*>(buf)->type) {
    case VTR_ECHO:
        backup_send(buf, static_cast<size_t>(len), from);
        break;
    case VTR_PING:
        backup_ping(reinterpret_cast<const cloud_ping_t*>(buf), from);
        break;
    case VTR_BACKUP_OK:
    case VTR_BACKUP_FAIL1:
    case VTR_BACKUP_FAIL2:
    case VTR_BACKUP_NAMED:
        backup_logupdate(reinterpret_cast<const cloud_backup_log_t*>(buf));
        break;
    case VTR_APPINFO:
        appup_update(reinterpret_cast<const cloud_appinfo_t*>(buf));
        break;
    case VTR_APPUPGRADE:
        cloud_appup_ackhttpinfo(reinterpret_cast<const cloud_appupgradeinfo_t*>(buf));
        break;
    case VTR_APPUP_LOG:
        cloud_appup_log(reinterpret_cast<const cloud_appup_log_t*>(buf));
        break;
    case VTR_CMDARG:
        backup_text(reinterpret_cast<const cldarg_t*>(buf), from);
        break;
    default:
        break;
    }
}

void backup_main(jos_thread_t* td)
{
    {
        std::lock_guard lk(_backup_mtx);
        std::memset(_backup_pool, 0, sizeof(_backup_pool));
        _device_count = 0;
    }
    std::error_code ec;
    std::filesystem::create_directories(vtconf_dir(), ec);
    // No key stays authorised from an earlier run.
    unlink(keyfile().c_str());
    if (appup_init() != 0)
        return;

    // Room for a fleet's pings and reports arriving together.
    int s = cloud_udp_bind(_backup_port, 4 << 20, "backup_main", "setsockopt error");
    if (s < 0)
        return;
    _backup_sock = s;

    // Zeroed, with a NUL after the received bytes: every record read at a
    // fixed offset stays inside the buffer.
    static char buf[1024 + 1];
    while (!td->td_notifyexit) {
        int rc = jos_thread_wait(td, s, 1000);
        if (rc < 0)
            break;
        if (rc == 0)
            continue;
        std::memset(buf, 0, sizeof(buf));
        sockaddr_in from{};
        socklen_t flen = sizeof(from);
        ssize_t n = recvfrom(s, buf, 1023, 0, reinterpret_cast<sockaddr*>(&from), &flen);
        if (n < 0)
            continue;
        met_job_dgram(true, buf, n);
        if (n < 8)
            continue;
        backup_dgram(buf, n, from);
    }
    _backup_sock = -1;
    close(s);
}

// ---------------------------------------------------------------------------
// Scheduler and watchdogs, run as one job of the database writer every 3 s
// (a job still waiting is not queued again).
// ---------------------------------------------------------------------------

void backup_sweeps(mysql_conn& c)
{
    const uint32_t now = now32();
    std::vector<std::string> stmts;

    // 1. Backups ordered 60 s ago and not reported: timed out.
    {
        std::lock_guard lk(_backup_mtx);
        for (int i = 0; i < _device_count; i++) {
            cloud_backuplist_t& b = _backup_pool[i];
            if (b.backup_over != 0 || b.backupcheck_time == 0 || now - b.backupcheck_time < kBackupWatch)
                continue;
            b.backup_over = 1;
            b.needbackup = 0;
            _device_backup_count--;
            stmts.push_back(sqlf(c.get(),
                                 "update vtlog.cloud_backup set complete=1, errors='timeout' where license_id12='%s'",
                                 b.license_id12));
        }
    }
    if (!dbw_run_all(c, stmts, "vtlog.cloud_backup"))
        return;
    stmts.clear();

    // 2. Backups that are due, at most 10 in flight.
    if (c.query("select license_id12, backup_type, backup_time, complete, backup_nexttime, backup_seg, backup_ctime "
                "from vtlog.cloud_backup") != 0) {
        if (mysql_conn::lost(c.errnum()))
            return;
    } else if (MYSQL_RES* res = mysql_store_result(c.get())) {
        while (MYSQL_ROW row = mysql_fetch_row(res)) {
            std::lock_guard lk(_backup_mtx);
            if (_device_backup_count > kBackupsInFlight - 1)
                break;
            if (row[0] == nullptr)
                continue;
            const long type = row[1] != nullptr ? std::atol(row[1]) : 0;
            const long complete = row[3] != nullptr ? std::atol(row[3]) : 0;
            const long nexttime = row[4] != nullptr ? std::atol(row[4]) : 0;
            const long seg = row[5] != nullptr ? std::atol(row[5]) : 0;
            const uint32_t ctime = row[6] != nullptr ? static_cast<uint32_t>(std::strtoul(row[6], nullptr, 10)) : 0;
            // The period in days, the product in 32 bits.
            const long next = static_cast<long>(now) + static_cast<int32_t>(static_cast<uint32_t>(seg) * 86400U);
            if (type == 2)
                continue;
            bool due = true;
            if (type == 0 && complete > 0)
                continue;
            if (type == 1 && complete != 0) {
                due = false;
                if (static_cast<long>(now) > nexttime)
                    stmts.push_back(sqlf(c.get(),
                                         "update vtlog.cloud_backup set backup_time=%ld, backup_nexttime=%ld, "
                                         "complete=1, errors='timeout' where license_id12='%s'",
                                         static_cast<long>(now), next, row[0]));
            }
            cloud_backuplist_t* b = backup_find(row[0]);
            if (b == nullptr || (!due && nexttime > static_cast<long>(now)))
                continue;
            _device_backup_count++;
            b->backup_over = 0;
            b->needbackup = 1;
            b->fl_ctime = ctime;
            b->backupcheck_time = now;
            stmts.push_back(sqlf(c.get(),
                                 "update vtlog.cloud_backup set backup_time=%ld, backup_nexttime=%ld, complete=1, "
                                 "errors='wait' where license_id12='%s'",
                                 static_cast<long>(now), next, row[0]));
        }
        mysql_free_result(res);
    }
    if (!dbw_run_all(c, stmts, "vtlog.cloud_backup"))
        return;
    stmts.clear();

    // 3. Upgrades silent for 30 s: started again, or failed after three.
    {
        std::lock_guard lk(_backup_mtx);
        for (int i = 0; i < _device_count; i++) {
            cloud_backuplist_t& b = _backup_pool[i];
            if (b.appup_over != 0 || b.appupcheck_time == 0 || now - b.appupcheck_time < kAppupWatch)
                continue;
            if (b.appup_times > 2) {
                stmts.push_back(sqlf(c.get(),
                                     "update vtlog.cloud_appup set complete=3, errors='%s' where license_id12='%s'",
                                     kUpFailed, b.license_id12));
                b.appup_times = 0;
            } else {
                stmts.push_back(sqlf(c.get(),
                                     "update vtlog.cloud_appup set complete=0, errors='wait' where license_id12='%s'",
                                     b.license_id12));
            }
            b.needappup = 0;
            b.appupcheck_time = 0;
            b.appup_over = 0;
            _device_upgrading_count--;
        }
    }
    if (!dbw_run_all(c, stmts, "vtlog.cloud_appup"))
        return;
    stmts.clear();

    // 4. Upgrades waiting to start, at most 5 in flight.
    const int port = upgrade_nginx_port();
    if (c.query("select license_id12, complete, upgrade_bag from vtlog.cloud_appup where complete = 0") != 0)
        return;
    if (MYSQL_RES* res = mysql_store_result(c.get())) {
        while (MYSQL_ROW row = mysql_fetch_row(res)) {
            std::lock_guard lk(_backup_mtx);
            if (_device_upgrading_count >= kUpgradesInFlight)
                break;
            cloud_backuplist_t* b = row[0] != nullptr ? backup_find(row[0]) : nullptr;
            if (b == nullptr)
                continue;
            b->appupcheck = 0;
            b->needappup = 1;
            b->appup_over = 0;
            b->appup_times++;
            b->appupcheck_time = now;
            b->nginx_port = static_cast<uint16_t>(port);
            ipe_fieldcpy(b->packet_name, row[2] != nullptr ? row[2] : "");
            _device_upgrading_count++;
            stmts.push_back(sqlf(c.get(),
                                 "update vtlog.cloud_appup set complete=1, errors='wait' where license_id12='%s'",
                                 row[0]));
        }
        mysql_free_result(res);
    }
    dbw_run_all(c, stmts, "vtlog.cloud_appup");
}

void backup_thr(void*)
{
    if (_sweep_pending.exchange(true))
        return;
    dbw_call(_backup_stream, [](mysql_conn& c) {
        backup_sweeps(c);
        if (!mysql_conn::lost(c.errnum()))
            _sweep_pending = false;
    });
}

// True when a process runs with an argument containing "mapping=1" (a
// port-mapping session that needs the key).
bool mapping_running()
{
    DIR* d = opendir("/proc");
    if (d == nullptr)
        return false;
    bool found = false;
    while (dirent* e = readdir(d)) {
        if (e->d_name[0] < '0' || e->d_name[0] > '9')
            continue;
        std::string path = std::string("/proc/") + e->d_name + "/cmdline";
        int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0)
            continue;
        char buf[4096];
        ssize_t n = read(fd, buf, sizeof(buf) - 1);
        close(fd);
        if (n <= 0)
            continue;
        buf[n] = '\0';
        for (const char* a = buf; a < buf + n; a += std::strlen(a) + 1)
            if (std::strstr(a, "mapping=1") != nullptr)
                found = true;
        if (found)
            break;
    }
    closedir(d);
    return found;
}

// The key file exists only while a backup is in flight or a mapping runs.
void mappingexists(void*)
{
    if (!mapping_running() && backup_inflight() == 0)
        unlink(keyfile().c_str());
}

jos_timer_t _backup_thr_timer = {0, 3000, backup_thr, "backup_thr", nullptr};
jos_timer_t _chkmapping_timer = {0, 30000, mappingexists, "chkmapping", nullptr};

// ---------------------------------------------------------------------------
// Commands
// ---------------------------------------------------------------------------

void backup_cmd_stat(jos_cmdarg_t* ca)
{
    std::vector<std::string> waiting;
    int backups, count;
    {
        std::lock_guard lk(_backup_mtx);
        backups = _device_backup_count;
        count = _device_count;
        for (int i = 0; i < _device_count; i++)
            if (_backup_pool[i].needbackup)
                waiting.emplace_back(_backup_pool[i].license_id12);
    }
    jos_cmd_printf(ca, "device_backup_count=%d\n", backups);
    jos_cmd_printf(ca, "device_count=%d\n", count);
    for (const std::string& id : waiting)
        jos_cmd_printrow(ca, ' ', "%s\n", id.c_str());
}

int backup_ioctl(jos_cmdarg_t* ca)
{
    if (ca->ca_cmd == JOS_CMD_EXIT)
        return 0;
    const jos_cmd_args a(ca);
    switch (ca->ca_cmd) {
    case JOS_CMD_STAT:
        backup_cmd_stat(ca);
        break;
    case JOS_CMD_SET: {
        std::string id = a.str("license_id12", 15);
        if (id.empty()) {
            jos_cmd_printf(ca, "Invalid license\n");
            break;
        }
        appup_setstartmask(id.c_str(), a.str("app_name", 127).c_str(), a.str("state", 127).c_str());
        jos_cmd_printf(ca, "ok");
        break;
    }
    case JOS_CMD_LIST:
        appup_list(ca, a.num("page", 1), a.num("limit", 20), a.str("sch", 1023).c_str(),
                   a.str("usergrp", 1023).c_str(), a.num("reverse", 0));
        break;
    default:
        return jos_cmd_notsupported(ca);
    }
    return jos_cmd_endreply(ca);
}

int backup_minit(jos_kernel_t*)
{
    _backup_port = cloudconf_int("backup_port", CLOUD_BACKUP_PORT);
    _backup_stream = dbw_stream("vtlog.cloud_backup");
    _appup_stream = dbw_stream("vtlog.cloud_appup");
    if (jos_thread_register("backup", 1, backup_main) == nullptr) {
        std::puts("fail to register backup thread!");
        return -1;
    }
    timer_load(&_backup_thr_timer);
    timer_load(&_chkmapping_timer);
    return 0;
}

void backup_mfini(jos_kernel_t*)
{
    timer_unload(&_chkmapping_timer);
    timer_unload(&_backup_thr_timer);
}

}  // namespace

int backup_inflight()
{
    std::lock_guard lk(_backup_mtx);
    int n = 0;
    for (int i = 0; i < _device_count; i++)
        n += _backup_pool[i].backup_over == 0;
    return n;
}

// A gateway seen for the first time gets a daily backup, due at once,
// when /etc/cloud.conf has "backup_auto=1". The name is converted from
// GB2312 on insert only.
int backup_auto(const char* license_id12, const char* cname)
{
    if (std::strncmp(license_id12, "TEMP", 4) == 0)
        return 0;
    FILE* f = std::fopen(jos_path("/etc/cloud.conf").c_str(), "re");
    if (f == nullptr)
        return 0;
    bool on = false;
    char line[1024];
    while (!on && std::fgets(line, sizeof(line), f) != nullptr)
        on = std::strstr(line, "backup_auto=1") != nullptr;
    std::fclose(f);
    if (!on)
        return 0;
    std::string id = license_id12, name = cname;
    const long next = static_cast<long>(now32()) + 86400;
    dbw_call(_backup_stream, [id, name, next](mysql_conn& c) {
        bool exists = false;
        if (c.query(sqlf(c.get(), "select license_id12 from vtlog.cloud_backup where license_id12='%s'", id)) == 0) {
            if (MYSQL_RES* res = mysql_store_result(c.get())) {
                exists = mysql_num_rows(res) > 0;
                mysql_free_result(res);
            }
        } else if (mysql_conn::lost(c.errnum())) {
            return;
        } else {
            std::printf("1:%s\n", c.error());
        }
        if (exists) {
            if (c.query(sqlf(c.get(),
                             "update vtlog.cloud_backup set backup_type=1, backup_seg=1, backup_nexttime=%lu, "
                             "complete=0, errors='wait', grpid=0, cname='%s' where license_id12='%s'",
                             static_cast<unsigned long>(next), name, id)) != 0 &&
                !mysql_conn::lost(c.errnum()))
                std::printf("2:%s\n", c.error());
            return;
        }
        char utf8[1024] = "";
        key_convert(name.c_str(), utf8, sizeof(utf8));
        if (c.query(sqlf(c.get(),
                         "insert into vtlog.cloud_backup(license_id12, complete,cname, backup_type, backup_seg, "
                         "backup_nexttime, backup_time, fnum, grpid, backup_ctime)values('%s', 0, '%s', 1, 1, %lu, 0, "
                         "0, 0, 0)",
                         id, utf8, static_cast<unsigned long>(next))) != 0 &&
            !mysql_conn::lost(c.errnum()))
            std::printf("%s: %s\n", "backup_auto", c.error());
    });
    return 0;
}

void appup_upgrade_over(const char* license_id12)
{
    std::lock_guard lk(_backup_mtx);
    if (cloud_backuplist_t* r = backup_find(license_id12))
        r->appup_over = 1;
}

jos_module_t backup_module = {"backup", 0x09000000, -1, backup_minit, backup_mfini, backup_ioctl, nullptr};
