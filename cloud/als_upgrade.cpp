// Upgrade tasks for cache appliances. The front end writes a task into
// vtlog.cloud_task (product "frelbox", a package and a start time) and one
// row per target appliance into vtlog.cloud_upgrade. Every 5 s a tick, run
// as a job of the database writer, sends waiting appliances their order
// through the cache appliances' socket (at most download_max= unanswered
// per task), fails orders unanswered for a minute, writes the whole state
// back to both tables and loads new tasks. The appliances' reports come in
// through the cache-appliance registry.
#include "als_upgrade.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "cloud.h"
#include "common.h"
#include "db_writer.h"
#include "family.h"
#include "frelbox.h"
#include "ipe_string.h"
#include "jos_cmds.h"
#include "jos_timer.h"

namespace {

constexpr int ALS_TASK_MAX = 500;
constexpr int ALS_QUEUE_MAX = 2000;
constexpr int ALS_TTL = 60;  // seconds an order may stay unanswered
constexpr char kNoResponse[] = "ERR_NO_RESPONSE";

enum : int { Q_WAITING = 0, Q_SENT = 1, Q_SUCC = 2, Q_FAILED = 3 };
enum : int { T_NEW = 0, T_RUNNING = 1, T_DONE = 2 };

struct als_upqueue_t {
    char license_id12[16];
    char sysname[128];  // the appliance's name when the task was loaded
    char ver[128];      // its version then
    char new_ver[128];  // the version it reported on success
    char resp[128];     // its last report text, or ERR_NO_RESPONSE
    int status;
    uint32_t sended_time;
    als_upqueue_t* next;  // next of the task's queue, or of the free list
};

struct als_uptask_t {
    int taskid;  // 0: free slot
    int device_count;
    int succ;
    int fail;
    int status;
    int sended_count;  // orders unanswered; may go below zero, see als_timeout
    int dw;
    uint32_t upstart;
    char pktname[64];
    als_upqueue_t* head;
    als_upqueue_t* tail;
};

// Tasks, queues, the free list and every counter are shared by the tick
// (writer thread), the reports (receive thread) and the commands (main
// thread): all of it under _als_mtx.
std::mutex _als_mtx;
std::array<als_uptask_t, ALS_TASK_MAX> _uptask;
std::array<als_upqueue_t, ALS_QUEUE_MAX> _upqueue;
als_upqueue_t* _freelist;
int _task_last = -1;  // highest slot ever used
int _als_httport = 80;
int _als_upmax = 5;
int _taskexist, _taskpool_full, _queue_use, _queue_full, _frb_notfind, _frb_sendsucc, _frb_sendfail, _taskid_zero,
    _uptasktodb_succ, _uptasktodb_fail;

int _als_stream = -1;  // vtlog.cloud_upgrade and vtlog.cloud_task
std::atomic<bool> _loadtask_pending;

// download_max= of /etc/cloud.conf, 5 without one.
int als_getupmax()
{
    int max = 5;
    FILE* f = std::fopen(jos_path("/etc/cloud.conf").c_str(), "re");
    if (f == nullptr)
        return max;
    char line[1024];
    while (std::fgets(line, sizeof(line), f) != nullptr) {
        char key[1024];
        int v;
        if (std::sscanf(line, "%1023[^=]=%d", key, &v) == 2 && std::strcmp(key, "download_max") == 0) {
            max = v;
            break;
        }
    }
    std::fclose(f);
    return max;
}

// Callers hold _als_mtx (all the functions down to the commands do).

als_uptask_t* als_task(int taskid)
{
    for (int i = 0; i <= _task_last; i++)
        if (_uptask[i].taskid == taskid)
            return &_uptask[i];
    return nullptr;
}

// A result reported for TASKID: one more success (FAIL 0) or failure, one
// order fewer in flight.
void als_upgrade_updatetask_ok(int taskid, int fail)
{
    als_uptask_t* t = taskid != 0 ? als_task(taskid) : nullptr;
    if (t == nullptr)
        return;
    if (fail == 0)
        t->succ++;
    else
        t->fail++;
    t->sended_count--;
}

// An order unanswered for a minute fails. The in-flight count drops also
// for an appliance that was not online when its turn came, whose order was
// never counted in: the count then goes below zero and lets one more order
// out. That is how the tasks have always counted.
void als_timeout(als_uptask_t& t, als_upqueue_t* q)
{
    q->status = Q_FAILED;
    t.fail++;
    t.sended_count--;
    ipe_fieldcpy(q->resp, kNoResponse);
}

bool als_due(const als_upqueue_t* q, uint32_t now)
{
    return q->status == Q_SENT && now - q->sended_time >= static_cast<uint32_t>(ALS_TTL);
}

// Sends the appliance its order through the socket it last reported on.
// Sent or not, the record waits for its answer from now on: an appliance
// that is not online is failed as unanswered a minute later.
void als_order(als_uptask_t& t, als_upqueue_t* q, uint32_t now)
{
    frbinfo_t r;
    if (frb_copy(q->license_id12, &r)) {
        char text[512];
        std::snprintf(text, sizeof(text), "tag=frb_upgrade license_id12=%s pktname=%s http_port=%d taskid=%d",
                      q->license_id12, t.pktname, _als_httport, t.taskid);
        if (fam_sendtext(r.sock, "FRB", r.outip, r.outport, text) == 0) {
            t.sended_count++;
            _frb_sendsucc++;
        } else {
            _frb_sendfail++;
        }
    } else {
        _frb_notfind++;
        _frb_sendfail++;
    }
    q->sended_time = now;
    q->status = Q_SENT;
}

// The write-back of every task: its counts, then each queued appliance.
struct als_taskrows {
    std::string task;
    std::vector<std::string> queue;
};

std::vector<als_taskrows> als_writeback_sql()
{
    std::vector<als_taskrows> out;
    for (int i = 0; i <= _task_last; i++) {
        const als_uptask_t& t = _uptask[i];
        if (t.taskid == 0)
            continue;
        als_taskrows w;
        w.task = sqlf(nullptr, "update vtlog.cloud_task set succ=%d, fail=%d where task_id=%d", t.succ, t.fail,
                      t.taskid);
        for (const als_upqueue_t* q = t.head; q != nullptr; q = q->next)
            w.queue.push_back(sqlf(nullptr,
                                   "update vtlog.cloud_upgrade set complete=%d, errors='%s', last_version='%s' "
                                   "where task_id=%d and license_id12='%s'",
                                   q->status, q->resp, q->new_ver, t.taskid, q->license_id12));
        out.push_back(std::move(w));
    }
    return out;
}

// Runs without the lock. A task count the server refuses ends this
// write-back (counted as failed); appliance rows it refuses are skipped.
// False when the connection was lost.
bool als_writeback(mysql_conn& c, const std::vector<als_taskrows>& rows)
{
    for (const als_taskrows& w : rows) {
        if (c.query(w.task) != 0) {
            if (mysql_conn::lost(c.errnum()))
                return false;
            std::lock_guard lk(_als_mtx);
            _uptasktodb_fail++;
            return true;
        }
        if (!dbw_run_all(c, w.queue, "vtlog.cloud_upgrade"))
            return false;
    }
    std::lock_guard lk(_als_mtx);
    _uptasktodb_succ++;
    return true;
}

// Part one of a tick: orders and time-outs, task by task, each dispatched
// task followed by a write-back of all tasks (so one tick may write every
// task several times). False when the connection was lost.
bool als_dispatch(mysql_conn& c)
{
    const uint32_t now = now32();
    std::unique_lock lk(_als_mtx);
    for (int i = 0; i <= _task_last; i++) {
        als_uptask_t& t = _uptask[i];
        if (t.taskid == 0 || t.status == T_DONE || t.head == nullptr)
            continue;
        if (t.sended_count >= _als_upmax) {
            // A full task first fails what is overdue: otherwise orders
            // that are never answered would hold its slots for good.
            for (als_upqueue_t* q = t.head; q != nullptr; q = q->next)
                if (als_due(q, now))
                    als_timeout(t, q);
            // Still full: later tasks wait for the next tick.
            if (t.sended_count >= _als_upmax)
                break;
        }
        for (als_upqueue_t* q = t.head; q != nullptr; q = q->next) {
            if (als_due(q, now))
                als_timeout(t, q);
            else if (q->status == Q_WAITING)
                als_order(t, q, now);
            if (t.sended_count >= _als_upmax)
                break;
        }
        t.status = t.succ + t.fail == t.device_count ? T_DONE : T_RUNNING;
        std::vector<als_taskrows> rows = als_writeback_sql();
        lk.unlock();
        if (!als_writeback(c, rows))
            return false;
        lk.lock();
    }
    return true;
}

// Reads a result set whole; empty on error.
std::vector<std::vector<std::string>> als_rows(mysql_conn& c, const std::string& sql, unsigned cols)
{
    std::vector<std::vector<std::string>> out;
    if (c.query(sql) != 0)
        return out;
    MYSQL_RES* res = mysql_store_result(c.get());
    if (res == nullptr)
        return out;
    if (mysql_num_fields(res) >= cols)
        while (MYSQL_ROW row = mysql_fetch_row(res)) {
            std::vector<std::string> v;
            for (unsigned k = 0; k < cols; k++)
                v.emplace_back(row[k] != nullptr ? row[k] : "");
            out.push_back(std::move(v));
        }
    mysql_free_result(res);
    return out;
}

// Part two: new tasks and their appliances. A task the pool has no room
// for stays new in the table and is tried again at the next tick.
bool als_load(mysql_conn& c)
{
    auto tasks = als_rows(c,
                          "select task_id, upgrade_bag, upgrade_start from vtlog.cloud_task where "
                          "upgrade_pro='frelbox' and status=0",
                          3);
    if (mysql_conn::lost(c.errnum()))
        return false;
    for (const auto& row : tasks) {
        const int taskid = std::atoi(row[0].c_str());
        als_uptask_t* t = nullptr;
        {
            std::lock_guard lk(_als_mtx);
            // A free slot has task number 0, so a task numbered 0 is
            // always found "loaded" and never taken.
            bool exists = false;
            for (als_uptask_t& s : _uptask)
                exists = exists || s.taskid == taskid;
            if (exists) {
                _taskexist++;
                continue;
            }
            int slot = 0;
            while (slot < ALS_TASK_MAX && _uptask[slot].taskid != 0)
                slot++;
            if (slot == ALS_TASK_MAX) {
                _taskpool_full++;
                continue;
            }
            t = &_uptask[slot];
            t->taskid = taskid;
            ipe_fieldcpy(t->pktname, row[1].c_str(), 63);
            t->upstart = static_cast<uint32_t>(std::strtoul(row[2].c_str(), nullptr, 10));
            t->status = T_NEW;
            t->sended_count = 0;
            t->dw = 0;
            if (slot > _task_last)
                _task_last = slot;
        }

        auto ids = als_rows(c,
                            sqlf(c.get(),
                                 "select license_id12 from vtlog.cloud_upgrade where complete=0 and "
                                 "upgrade_pro='frelbox' and task_id=%d",
                                 taskid),
                            1);
        if (mysql_conn::lost(c.errnum()))
            return false;
        // Names and versions as the registry has them now, read before
        // the task's lock is taken.
        std::vector<als_upqueue_t> add;
        for (const auto& id : ids) {
            als_upqueue_t q{};
            ipe_fieldcpy(q.license_id12, id[0].c_str());
            frbinfo_t r;
            if (frb_copy(q.license_id12, &r)) {
                ipe_fieldcpy(q.ver, r.ver);
                ipe_fieldcpy(q.sysname, r.frname2[0] != '\0' ? r.frname2 : r.frname);
            }
            add.push_back(q);
        }
        {
            std::lock_guard lk(_als_mtx);
            // The slot is the task's unless a command freed it meanwhile.
            if (t->taskid == taskid)
                for (const als_upqueue_t& a : add) {
                    als_upqueue_t* q = _freelist;
                    if (q == nullptr) {
                        _queue_full++;
                        continue;
                    }
                    _freelist = q->next;
                    *q = a;
                    q->status = Q_WAITING;
                    q->next = t->head;
                    t->head = q;
                    if (t->tail == nullptr)
                        t->tail = q;
                    _queue_use++;
                    t->device_count++;
                }
        }
        if (c.query(sqlf(c.get(), "update vtlog.cloud_task set status=1 where upgrade_pro='frelbox' and task_id=%d",
                         taskid)) != 0) {
            if (mysql_conn::lost(c.errnum()))
                return false;
            std::printf("%s: %s\n", "als_loadtask", c.error());
        }
    }
    return true;
}

// The timer: the tick's work waits for the database, so it runs on the
// writer, once at a time.
void als_loadtask(void*)
{
    if (_loadtask_pending.exchange(true))
        return;
    int rc = dbw_call(_als_stream, [](mysql_conn& c) {
        if (als_dispatch(c))
            als_load(c);
        // A lost connection runs the job again: the tick stays pending.
        if (!mysql_conn::lost(c.errnum()))
            _loadtask_pending = false;
    });
    if (rc != 0)
        _loadtask_pending = false;
}

jos_timer_t _als_timer = {0, 5000, als_loadtask, "als_loadtask", nullptr};

// ---------------------------------------------------------------------------
// Commands
// ---------------------------------------------------------------------------

// task_last is printed twice: the front end reads the lines by position.
void alsup_cmd_stat(jos_cmdarg_t* ca)
{
    std::vector<std::pair<const char*, int>> lines;
    {
        std::lock_guard lk(_als_mtx);
        lines = {{"task_pool_max", ALS_TASK_MAX},
                 {"device_pool_max", ALS_QUEUE_MAX},
                 {"httport", _als_httport},
                 {"upmax", _als_upmax},
                 {"upgrading_ttl", ALS_TTL},
                 {"task_last", _task_last},
                 {"taskexist", _taskexist},
                 {"taskpool_full", _taskpool_full},
                 {"task_last", _task_last},
                 {"queue_use", _queue_use},
                 {"queue_full", _queue_full},
                 {"frb_notfind", _frb_notfind},
                 {"frb_sendsucc", _frb_sendsucc},
                 {"frb_sendfail", _frb_sendfail},
                 {"taskid_zero", _taskid_zero},
                 {"uptasktodb_succ", _uptasktodb_succ},
                 {"uptasktodb_fail", _uptasktodb_fail}};
    }
    for (const auto& [name, value] : lines)
        jos_cmd_printf(ca, "%s=%d\n", name, value);
}

// One appliance out of a task's queue, or a whole task with its queue.
bool alsup_remove(long device, long task, int taskid, const std::string& id)
{
    std::lock_guard lk(_als_mtx);
    if (device != 0 && taskid != 0 && !id.empty()) {
        als_uptask_t* t = als_task(taskid);
        als_upqueue_t* prev = nullptr;
        for (als_upqueue_t* q = t != nullptr ? t->head : nullptr; q != nullptr; prev = q, q = q->next) {
            if (id != q->license_id12)
                continue;
            (prev != nullptr ? prev->next : t->head) = q->next;
            // The tail follows, so that freeing the whole task later
            // never reaches a record that went back to the free list.
            if (t->tail == q)
                t->tail = prev;
            q->next = _freelist;
            _freelist = q;
            t->device_count--;
            _queue_use--;
            return true;
        }
    } else if (task != 0 && taskid != 0) {
        als_uptask_t* t = als_task(taskid);
        if (t != nullptr && t->head != nullptr) {
            als_upqueue_t* last = t->head;
            while (last->next != nullptr)
                last = last->next;
            last->next = _freelist;
            _freelist = t->head;
            *t = als_uptask_t{};  // queue_use stays as it is
            return true;
        }
    }
    return false;
}

void alsup_cmd_list(jos_cmdarg_t* ca, const jos_cmd_args& a)
{
    const bool showtask = a.num("showtask") != 0;
    const bool showdevice = a.num("showdevice") != 0;
    const int taskid = static_cast<int>(a.num("taskid"));
    std::vector<als_uptask_t> tasks;
    std::vector<std::pair<int, als_upqueue_t>> queue;
    {
        std::lock_guard lk(_als_mtx);
        for (int i = 0; i <= _task_last; i++) {
            const als_uptask_t& t = _uptask[i];
            if (t.taskid == 0)
                continue;
            if (showtask)
                tasks.push_back(t);
            if (showdevice && (taskid == 0 || t.taskid == taskid))
                for (const als_upqueue_t* q = t.head; q != nullptr; q = q->next)
                    queue.emplace_back(t.taskid, *q);
        }
    }
    if (showtask) {
        jos_cmd_printf(ca, "id device_count succ fail status sended_count upstart pktname\n");
        for (const als_uptask_t& t : tasks)
            jos_cmd_printrow(ca, ' ', "%d %d %d %d %d %d %u %s\n", t.taskid, t.device_count, t.succ, t.fail, t.status,
                             t.sended_count, t.upstart, t.pktname);
    }
    if (showdevice) {
        // The header is spelled as the front end has always parsed it.
        jos_cmd_printf(ca, "taskid license_id12 sysname status ver new_verresp\n");
        for (const auto& [id, q] : queue)
            jos_cmd_printrow(ca, ' ', "%d %s %s %d %s %s %s\n", id, q.license_id12, q.sysname, q.status, q.ver,
                             q.new_ver, q.resp);
    }
}

int alsup_ioctl(jos_cmdarg_t* ca)
{
    if (ca->ca_cmd == JOS_CMD_EXIT)
        return 0;
    const jos_cmd_args a(ca);
    switch (ca->ca_cmd) {
    case JOS_CMD_STAT:
        alsup_cmd_stat(ca);
        break;
    case JOS_CMD_REMOVE: {
        const long device = a.num("device"), task = a.num("task");
        const int taskid = static_cast<int>(a.num("taskid"));
        const std::string id = a.str("license_id12", 15);
        if (alsup_remove(device, task, taskid, id))
            jos_cmd_printf(ca, "ok");
        else
            jos_cmd_printrow(ca, ' ', "no match: device=%d task=%d taskid=%d license_id12=%s", int(device),
                             int(task), taskid, id.c_str());
        break;
    }
    case JOS_CMD_SET:
    case 2057:
        break;
    case JOS_CMD_LIST:
        alsup_cmd_list(ca, a);
        break;
    default:
        return jos_cmd_notsupported(ca);
    }
    return jos_cmd_endreply(ca);
}

int alsup_minit(jos_kernel_t*)
{
    {
        std::lock_guard lk(_als_mtx);
        _uptask.fill(als_uptask_t{});
        _freelist = nullptr;
        for (size_t i = ALS_QUEUE_MAX; i-- > 0;) {
            _upqueue[i] = als_upqueue_t{};
            _upqueue[i].next = _freelist;
            _freelist = &_upqueue[i];
        }
        _task_last = -1;
        _als_httport = upgrade_nginx_port();
        _als_upmax = als_getupmax();
    }
    _als_stream = dbw_stream("vtlog.cloud_upgrade");
    timer_load(&_als_timer);
    return 0;
}

void alsup_mfini(jos_kernel_t*)
{
    timer_unload(&_als_timer);
}

}  // namespace

alsup_counts_t alsup_counts()
{
    alsup_counts_t c{};
    std::lock_guard lk(_als_mtx);
    for (const als_uptask_t& t : _uptask) {
        if (t.taskid == 0)
            continue;
        c.tasks[std::clamp(t.status, int(T_NEW), int(T_DONE))]++;
        for (const als_upqueue_t* q = t.head; q != nullptr; q = q->next)
            c.orders[std::clamp(q->status, int(Q_WAITING), int(Q_FAILED))]++;
    }
    return c;
}

// A report: "log" (its text), "license_id12" or "key", "new_ver", "taskid"
// and "fail" (0 success, 1 failure, absent or other: progress only).
void frelbox_upgrade_log(char* text)
{
    char log[128] = "", id[16] = "", new_ver[128] = "";
    bool haslog = false, hasfail = false;
    long taskid = 0, fail = 0;
    char* save = nullptr;
    for (char* w = strtok_r(text, " ", &save); w != nullptr; w = strtok_r(nullptr, " ", &save)) {
        char* eq = std::strchr(w, '=');
        if (eq == nullptr)
            continue;
        *eq = '\0';
        const char* v = eq + 1;
        if (std::strcmp(w, "log") == 0) {
            ipe_fieldcpy(log, v, 126);
            haslog = true;
        } else if (std::strcmp(w, "license_id12") == 0 || std::strcmp(w, "key") == 0) {
            ipe_fieldcpy(id, v);
        } else if (std::strcmp(w, "new_ver") == 0) {
            ipe_fieldcpy(new_ver, v);
        } else if (std::strcmp(w, "taskid") == 0) {
            taskid = std::strtol(v, nullptr, 10);
        } else if (std::strcmp(w, "fail") == 0) {
            fail = std::strtol(v, nullptr, 10);
            hasfail = true;
        }
    }
    std::lock_guard lk(_als_mtx);
    if (id[0] == '\0' || taskid == 0) {
        _taskid_zero++;
        return;
    }
    als_uptask_t* t = als_task(static_cast<int>(taskid));
    als_upqueue_t* q = t != nullptr ? t->head : nullptr;
    while (q != nullptr && std::strcmp(q->license_id12, id) != 0)
        q = q->next;
    if (q == nullptr || !haslog)
        return;
    ipe_fieldcpy(q->resp, log, 126);
    if (hasfail && fail == 0) {
        q->status = Q_SUCC;
        ipe_fieldcpy(q->new_ver, new_ver);
        als_upgrade_updatetask_ok(t->taskid, 0);
    } else if (hasfail && fail == 1) {
        q->status = Q_FAILED;
        als_upgrade_updatetask_ok(t->taskid, 1);
    }
}

jos_module_t als_upgrade_module = {"als_upgrade", 0x09000000, -1, alsup_minit, alsup_mfini, alsup_ioctl, nullptr};
