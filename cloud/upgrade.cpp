// Firmware upgrade campaigns for gateways. The front end writes a row per
// appliance and task; the scheduler admits rows whose start time has come,
// an appliance gets its order when it next announces itself, at most
// download_max= at once, three tries, two hours in all.
#include "upgrade.h"
#include "metrics.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "backup.h"
#include "cloud.h"
#include "cloudconf.h"
#include "common.h"
#include "db_writer.h"
#include "ipe_string.h"
#include "jos_cmds.h"
#include "jos_thread.h"
#include "jos_timer.h"

namespace {

constexpr char kStarted[] = "\xBF\xAA\xCA\xBC\xC9\xFD\xBC\xB6";   // upgrade started
constexpr char kTimedOut[] = "\xC9\xFD\xBC\xB6\xB3\xAC\xCA\xB1";  // upgrade timed out
constexpr uint32_t kGiveUp = 7200;  // seconds after the start time
constexpr uint32_t kSilence = 300;  // an appliance is forgotten after this
constexpr int kTries = 3;

// The appliance table and the two counts, under _upgrade_mtx. The in-flight
// count has no floor: it may drift below zero (see the note at upgrade_give_up).
upgrade_pool_t _ipport;
int vt_ipport_count;  // insertions since start, never lowered
int upgrading_num;
int upgrading_max = 5;
std::mutex _upgrade_mtx;

int _upgrade_sock = -1;
int _upgrade_port = CLOUD_UPGRADE_PORT;
int _upgrade_stream = -1;  // vtlog.cloud_upgrade and vtlog.cloud_task
std::atomic<bool> _checkmysql_pending;

// download_max= of /etc/cloud.conf; the last value stays when it is missing.
void upgrade_getdwmax()
{
    FILE* f = std::fopen(jos_path("/etc/cloud.conf").c_str(), "re");
    if (f == nullptr)
        return;
    char line[1024];
    while (std::fgets(line, sizeof(line), f) != nullptr) {
        char key[1024];
        int v;
        if (std::sscanf(line, "%1023[^=]=%d", key, &v) == 2 && std::strcmp(key, "download_max") == 0) {
            std::lock_guard lk(_upgrade_mtx);
            upgrading_max = v;
            break;
        }
    }
    std::fclose(f);
}

std::string updatevtstatus_sql(int task_id, const char* id, int complete, const char* text)
{
    if (text == nullptr)
        return sqlf(nullptr, "update vtlog.cloud_upgrade set complete=%d where license_id12='%s' and task_id=%d",
                    complete, id, task_id);
    return sqlf(nullptr,
                "update vtlog.cloud_upgrade set complete=%d, errors='%s' where license_id12='%s' and task_id=%d",
                complete, text, id, task_id);
}

void upgrade_send(const void* data, size_t len, uint32_t ip, uint16_t port)
{
    cloud_sendto(_upgrade_sock, data, len, ip, port);
}

void upgrade_announce(const cloud_ping_t* p, uint32_t ip, uint16_t port)
{
    char id[16];
    ipe_fieldcpy(id, p->license_id12);
    if (id[0] == '\0')
        return;
    std::string giveup;
    {
        std::lock_guard lk(_upgrade_mtx);
        cloud_ipportinfo_t* r = _ipport.find(id);
        if (r == nullptr) {
            r = _ipport.alloc();
            // Once 2000 appliances were taken in since start the table
            // takes no more; the record drawn stays out of use.
            if (r == nullptr || vt_ipport_count >= static_cast<int>(UPGRADE_POOL_SIZE))
                return;
            std::memcpy(r->license_id12, id, sizeof(r->license_id12));
            r->outip = ip;
            r->outport = port;
            r->ifupgrade = 0;
            r->lastup = now32();
            _ipport.link(r);
            vt_ipport_count++;
            return;
        }
        r->outip = ip;
        r->outport = port;
        r->lastup = now32();
        if (r->ifupgrade == 0)
            return;
        if (r->up_times < kTries) {
            if (upgrading_num >= upgrading_max)
                return;  // waits for a later announcement
            r->up_times++;
            upgrading_num++;
            cloud_upgradeinfo_t o{};
            std::memcpy(o.tag, "VTR", 4);
            o.type = VTR_UP_ORDER;
            o.task_id = r->task_id;
            std::memcpy(o.license_id12, r->license_id12, sizeof(o.license_id12));
            ipe_fieldcpy(o.packet_name, r->packet_name);
            o.ngnix_port = r->nginx_port;
            upgrade_send(&o, sizeof(o), ip, port);
            r->task_id = 0;
            r->packet_name[0] = '\0';
            r->ifupgrade = 0;
            r->nginx_port = 0;
            return;
        }
        r->ifupgrade = 0;
        giveup = sqlf(nullptr, "update vtlog.cloud_upgrade set complete=3 where task_id=%d and license_id12='%s'",
                      int(r->task_id), id);
        r->up_times = 0;
    }
    dbw_exec(_upgrade_stream, giveup);
}

// A report: its text on the row, and for an end the task's count read and
// written back one higher, all in order on the writer's connection.
void upgrade_logupdate(const cloud_upgrade_log_t* l)
{
    char id[16], ver[65], errors[129];
    ipe_fieldcpy(id, l->license_id12);
    ipe_fieldcpy(ver, l->last_ver);
    ipe_fieldcpy(errors, l->errors);
    const int task = l->task_id;
    const uint16_t type = l->type;
    const uint32_t now = now32();
    std::string sid = id, sver = ver, serr = errors;
    dbw_call(_upgrade_stream, [=](mysql_conn& c) {
        if (c.query(sqlf(c.get(), "update vtlog.cloud_upgrade set errors='%s' where task_id=%d and license_id12='%s'",
                         serr, task, sid)) != 0) {
            if (!mysql_conn::lost(c.errnum()))
                std::printf("%s: %s\n", "upgrade_logupdate", c.error());
            return;
        }
        if (type == VTR_UP_PROGRESS)
            return;
        const bool succ = type == VTR_UP_SUCC;
        if (c.query(sqlf(c.get(),
                         succ ? "select succ from vtlog.cloud_task where task_id=%d"
                              : "select fail from vtlog.cloud_task where task_id=%d",
                         task)) != 0)
            return;
        int n = 1;
        if (MYSQL_RES* res = mysql_store_result(c.get())) {
            while (MYSQL_ROW row = mysql_fetch_row(res))
                n = (row[0] != nullptr ? std::atoi(row[0]) : 0) + 1;
            mysql_free_result(res);
        }
        if (c.query(sqlf(c.get(),
                         succ ? "update vtlog.cloud_task set succ=%d where task_id=%d"
                              : "update vtlog.cloud_task set fail=%d where task_id=%d",
                         n, task)) != 0 &&
            mysql_conn::lost(c.errnum()))
            return;
        int rc;
        if (succ) {
            {
                std::lock_guard lk(_upgrade_mtx);
                if (cloud_ipportinfo_t* r = _ipport.find(sid.c_str()))
                    r->up_times = 0;
            }
            rc = c.query(sqlf(c.get(),
                              "update vtlog.cloud_upgrade set complete=%d, upgrade_end=%u, last_version='%s' where "
                              "task_id=%d and license_id12='%s'",
                              2, now, sver, task, sid));
        } else {
            // Back to waiting: the scheduler starts it again while tries remain.
            rc = c.query(sqlf(c.get(), "update vtlog.cloud_upgrade set complete=0 where task_id=%d and license_id12='%s'",
                              task, sid));
        }
        if (rc != 0 && !mysql_conn::lost(c.errnum()))
            std::printf("%s error: %s\n", "upgrade_logupdate", c.error());
    });
}

void upgrade_main(jos_thread_t* td)
{
    {
        std::lock_guard lk(_upgrade_mtx);
        if (_ipport.first() == nullptr && _ipport.init() != 0) {
            std::printf("%s: malloc error\n", "upgrade_init");
            return;
        }
    }
    upgrade_getdwmax();
    // Room for a fleet's pings and reports arriving together.
    int s = cloud_udp_bind(_upgrade_port, 4 << 20, "upgrade_main", nullptr);
    if (s < 0)
        return;
    _upgrade_sock = s;

    static char buf[1024 + 1];
    while (!td->td_notifyexit) {
        int rc = jos_thread_wait(td, s, 500);
        if (rc < 0)
            break;
        if (rc == 0)
            continue;
        std::memset(buf, 0, sizeof(buf));
        sockaddr_in from{};
        socklen_t flen = sizeof(from);
        ssize_t n = recvfrom(s, buf, 1024, 0, reinterpret_cast<sockaddr*>(&from), &flen);
        if (n < 0)
            continue;
        met_job_dgram(false, buf, n);
        if (n < 8 || std::memcmp(buf, "VTR", 3) != 0)
            continue;
        const uint32_t ip = ntohl(from.sin_addr.s_addr);
        const uint16_t port = ntohs(from.sin_port);
        switch (reinterpret_cast<const cloud_hdr_t*>(buf)->type) {
        case VTR_UP_SUCC:
        case VTR_UP_FAIL: {
            std::lock_guard lk(_upgrade_mtx);
            upgrading_num--;
        }
            [[fallthrough]];
        case VTR_UP_PROGRESS:
            // Queued before the answer goes out: whoever reads the answer
            // finds the report's statements counted in the writer's queue.
            upgrade_logupdate(reinterpret_cast<const cloud_upgrade_log_t*>(buf));
            upgrade_send("ok", 2, ip, port);
            break;
        case VTR_UP_ANNOUNCE:
            upgrade_announce(reinterpret_cast<const cloud_ping_t*>(buf), ip, port);
            break;
        default:
            break;
        }
    }
    _upgrade_sock = -1;
    close(s);
}

// One scheduler pass on the writer's connection. The table's statements are
// collected under the lock and run after it: the receive thread never
// waits for the database.
void upgrade_pass(mysql_conn& c, int port)
{
    if (c.query("select task_id, license_id12, upgrade_type, upgrade_start, upgrade_bag, complete from "
                "vtlog.cloud_upgrade where upgrade_pro='vantrel' and (complete=0 or complete=1)") != 0)
        return;
    MYSQL_RES* res = mysql_store_result(c.get());
    if (res == nullptr)
        return;
    const uint32_t now = now32();
    std::vector<std::string> stmts;
    {
        std::lock_guard lk(_upgrade_mtx);
        while (MYSQL_ROW row = mysql_fetch_row(res)) {
            if (row[0] == nullptr || row[1] == nullptr || _ipport.first() == nullptr)
                continue;
            const int task = std::atoi(row[0]);
            const uint32_t start = row[3] != nullptr ? static_cast<uint32_t>(std::strtoul(row[3], nullptr, 10)) : 0;
            const uint32_t elapsed = now - start;
            const int complete = row[5] != nullptr ? std::atoi(row[5]) : 0;
            cloud_ipportinfo_t* r = _ipport.find(row[1]);
            if (r == nullptr)
                continue;
            r->task_id = static_cast<uint16_t>(task);
            r->nginx_port = static_cast<uint16_t>(port);
            ipe_fieldcpy(r->packet_name, row[4] != nullptr ? row[4] : "", 63);
            if (complete == 0 && elapsed != 0 && elapsed < kGiveUp) {
                if (r->up_times < kTries) {
                    stmts.push_back(updatevtstatus_sql(task, row[1], 1, kStarted));
                    r->ifupgrade = 1;
                } else {
                    stmts.push_back(updatevtstatus_sql(task, row[1], 3, nullptr));
                    r->ifupgrade = 0;
                    r->up_times = 0;
                    upgrading_num--;
                }
            }
            // Two hours after the start time, waiting or started: given up.
            // Counted out either way, so a row that never had an order
            // lowers the count below what is in flight.
            if (static_cast<int32_t>(elapsed) >= static_cast<int32_t>(kGiveUp)) {
                r->ifupgrade = 0;
                stmts.push_back(updatevtstatus_sql(task, row[1], 3, kTimedOut));
                upgrading_num--;
            }
        }
    }
    mysql_free_result(res);
    // upgrade_updatevtstatus prints what the server refuses.
    for (const std::string& sql : stmts)
        if (c.query(sql) != 0 && !mysql_conn::lost(c.errnum()))
            std::printf("%s: %s\n", "upgrade_updatevtstatus", c.error());
}

void upgrade_checkmysql(void*)
{
    const int port = upgrade_nginx_port();
    upgrade_getdwmax();
    if (_checkmysql_pending.exchange(true))
        return;
    dbw_call(_upgrade_stream, [port](mysql_conn& c) {
        upgrade_pass(c, port);
        if (!mysql_conn::lost(c.errnum()))
            _checkmysql_pending = false;
    });
}

// Appliances silent for five minutes are forgotten with their orders.
void upgrade_idle(void*)
{
    const uint32_t now = now32();
    std::lock_guard lk(_upgrade_mtx);
    if (_ipport.first() == nullptr)
        return;
    for (size_t i = 0; i < UPGRADE_POOL_SIZE; i++) {
        cloud_ipportinfo_t* r = _ipport.slot(i);
        if (upgrade_pool_t::inuse(r) && r->lastup + kSilence < now) {
            // Unlinked and returned to the free list; the insertion count
            // stays as it is.
            if (_ipport.unlink(r->license_id12) == r)
                _ipport.release(r);
        }
    }
}

jos_timer_t _checkmysql_timer = {0, 5000, upgrade_checkmysql, "upgrade_checkmysql", nullptr};
jos_timer_t _idle_timer = {0, 60000, upgrade_idle, "upgrade_idle", nullptr};

int upgrade_ioctl(jos_cmdarg_t* ca)
{
    switch (ca->ca_cmd) {
    case JOS_CMD_EXIT:
        return 0;
    case JOS_CMD_STAT: {
        int num, max;
        {
            std::lock_guard lk(_upgrade_mtx);
            num = upgrading_num;
            max = upgrading_max;
        }
        jos_cmd_printf(ca, "upgrading_num=%d\n", num);
        jos_cmd_printf(ca, "upgrading_max=%d\n", max);
        break;
    }
    case JOS_CMD_LIST: {
        std::vector<cloud_ipportinfo_t> rows;
        {
            std::lock_guard lk(_upgrade_mtx);
            if (_ipport.first() != nullptr)
                _ipport.each([&](const cloud_ipportinfo_t* r) { rows.push_back(*r); });
        }
        for (const cloud_ipportinfo_t& r : rows)
            jos_cmd_printrow(ca, ' ', "%s %d %d %d %d %s\n", r.license_id12, int(r.task_id), int(r.ifupgrade),
                             int(r.nginx_port), int(r.up_times), r.packet_name);
        break;
    }
    default:
        return jos_cmd_notsupported(ca);
    }
    ca->ca_rlen = ca->ca_pos + 1;
    return 0;
}

int upgrade_minit(jos_kernel_t*)
{
    _upgrade_port = cloudconf_int("upgrade_port", CLOUD_UPGRADE_PORT);
    _upgrade_stream = dbw_stream("vtlog.cloud_upgrade");
    if (jos_thread_register("upgrade", 1, upgrade_main) == nullptr) {
        std::puts("fail to register upgrade thread!");
        return -1;
    }
    timer_load(&_checkmysql_timer);
    timer_load(&_idle_timer);
    return 0;
}

void upgrade_mfini(jos_kernel_t*)
{
    timer_unload(&_idle_timer);
    timer_unload(&_checkmysql_timer);
}

}  // namespace

upgrade_counts_t upgrade_counts()
{
    std::lock_guard lk(_upgrade_mtx);
    return {upgrading_num, _ipport.first() != nullptr ? static_cast<int>(_ipport.count()) : 0};
}

jos_module_t upgrade_module = {"upgrade", 0x09000000, -1, upgrade_minit, upgrade_mfini, upgrade_ioctl, nullptr};
