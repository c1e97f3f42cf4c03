// The database writer: a bounded queue of statements and jobs, and one
// thread that runs them in order on one kept connection.
#include "db_writer.h"

#include <pthread.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "metrics.h"

namespace {

constexpr size_t kBatchStmts = 256;         // statements per round trip
constexpr size_t kBatchBytes = 512 * 1024;  // well below the server's packet limit
constexpr int kMaxStreams = 32;
constexpr int kBackoffMinMs = 100;
constexpr int kBackoffMaxMs = 2000;

struct item {
    uint64_t seq = 0;
    int stream = 0;
    const char* report = nullptr;
    bool repaired = false;  // the table was repaired once for this statement
    uint64_t handed = 0;    // met_now() at the hand-over
    std::string sql;
    dbw_job job;
};

struct stream_t {
    std::string table;
    dbw_rebuild_fn rebuild = nullptr;
    bool dirty = false;  // statements were lost: rebuild before going on
    uint64_t cut = 0;    // statements up to this number are superseded
};

std::mutex _mu;
std::condition_variable _work;  // something to do, or stop
std::condition_variable _done;  // the writer has ended
std::deque<item> _q;
size_t _qmax = DBW_QUEUE_MAX;
stream_t _streams[kMaxStreams];
int _nstreams;
uint64_t _seq;
size_t _inflight;  // taken off the queue, not finished yet
bool _running, _stopping, _abort, _ended;
dbw_stats_t _st;
std::thread _thread;
std::atomic<int> _connfd{-1};

bool valid(int s)
{
    return s >= 0 && s < _nstreams;
}

bool any_dirty()
{
    for (int i = 0; i < _nstreams; i++)
        if (_streams[i].dirty)
            return true;
    return false;
}

int enqueue(item&& it)
{
    it.handed = met_now();
    std::lock_guard lk(_mu);
    if (!valid(it.stream) || _stopping) {
        _st.dropped++;
        return -1;
    }
    if (_q.size() >= _qmax) {
        _st.dropped++;
        stream_t& s = _streams[it.stream];
        if (s.rebuild != nullptr)
            s.dirty = true;
        return -1;
    }
    it.seq = ++_seq;
    _q.push_back(std::move(it));
    _work.notify_one();
    return 0;
}

// Sends stmts [0, n) in one round trip and reads every answer. Returns how
// many ran; the statement at that index, if any, was refused (ERR set) or
// its outcome is unknown because the connection went away (LOST set). The
// server runs nothing after a refused statement of a multi-statement text.
size_t send_batch(MYSQL* m, const std::string* const* stmts, size_t n, bool& lost, unsigned& err)
{
    std::string text;
    for (size_t i = 0; i < n; i++) {
        if (i != 0)
            text += ';';
        text += *stmts[i];
    }
    lost = false;
    err = 0;
    size_t i = 0;
    int rc = mysql_real_query(m, text.data(), static_cast<unsigned long>(text.size()));
    for (;;) {
        if (rc != 0) {
            err = mysql_errno(m);
            lost = err == 0 || mysql_conn::lost(err);
            return i;
        }
        if (MYSQL_RES* r = mysql_store_result(m))
            mysql_free_result(r);
        i++;
        rc = mysql_next_result(m);
        if (rc == -1)
            return i;
    }
}

// Runs N statements (TEXT(i)) in batches. A refused statement is handed to
// REFUSED(i, err) and skipped, after one repair when the server found its
// table (TABLE(i)) crashed. Returns the index of the first statement whose
// outcome the lost connection made unknown, or N; OK counts what ran.
template <class Text, class Table, class Refused>
size_t run_stmts(mysql_conn& c, size_t n, Text text, Table table, Refused refused, uint64_t& ok)
{
    std::vector<const std::string*> ptrs;
    std::vector<bool> repaired(n, false);
    size_t at = 0;
    while (at < n) {
        ptrs.clear();
        size_t bytes = 0;
        for (size_t i = at; i < n && ptrs.size() < kBatchStmts; i++) {
            const std::string& s = text(i);
            if (!ptrs.empty() && bytes + s.size() > kBatchBytes)
                break;
            bytes += s.size() + 1;
            ptrs.push_back(&s);
        }
        bool lost;
        unsigned err;
        size_t k = send_batch(c.get(), ptrs.data(), ptrs.size(), lost, err);
        ok += k;
        at += k;
        if (lost)
            return at;
        if (k == ptrs.size())
            continue;
        const char* t = table(at);
        if (mysql_conn::crashed(static_cast<int>(err)) && !repaired[at] && t != nullptr && *t != '\0') {
            repaired[at] = true;
            c.repair(t);
            if (mysql_conn::lost(c.errnum()))
                return at;
            continue;
        }
        refused(at, err);
        at++;
    }
    return n;
}

// Takes the next piece of work off the queue: a job alone, or a batch of
// statements. Superseded statements are skipped on the way.
std::vector<item> take_work()
{
    std::vector<item> out;
    size_t bytes = 0;
    while (!_q.empty()) {
        item& f = _q.front();
        if (!f.job && f.seq <= _streams[f.stream].cut) {
            _st.superseded++;
            _q.pop_front();
            continue;
        }
        if (f.job) {
            if (out.empty()) {
                out.push_back(std::move(f));
                _q.pop_front();
            }
            break;
        }
        if (out.size() >= kBatchStmts || (!out.empty() && bytes + f.sql.size() > kBatchBytes))
            break;
        bytes += f.sql.size();
        out.push_back(std::move(f));
        _q.pop_front();
    }
    return out;
}

// Work whose outcome a lost connection made unknown: a table with a
// rebuild is rebuilt instead (running an insert twice would double a
// row); everything else runs again after the reconnect.
void requeue_lost(std::vector<item>& work, size_t from)
{
    std::lock_guard lk(_mu);
    for (size_t i = work.size(); i-- > from;) {
        stream_t& s = _streams[work[i].stream];
        if (!work[i].job && s.rebuild != nullptr) {
            s.dirty = true;
            _st.dropped++;
        } else {
            _q.push_front(std::move(work[i]));
        }
    }
}

// One round on a live connection. True when the connection was lost.
bool writer_round(mysql_conn& c)
{
    int dirty = -1;
    std::vector<item> work;
    {
        std::lock_guard lk(_mu);
        for (int i = 0; i < _nstreams && dirty < 0; i++) {
            if (_streams[i].dirty) {
                _streams[i].dirty = false;
                if (_streams[i].rebuild != nullptr)
                    dirty = i;
            }
        }
        if (dirty < 0)
            work = take_work();
        _inflight = work.size();
    }
    if (dirty >= 0) {
        _streams[dirty].rebuild(c);
        bool lost = mysql_conn::lost(c.errnum());
        std::lock_guard lk(_mu);
        if (lost)
            _streams[dirty].dirty = true;
        else
            _st.rebuilds++;
        return lost;
    }
    if (work.empty())
        return false;
    if (work[0].job) {
        work[0].job(c);
        if (mysql_conn::lost(c.errnum())) {
            requeue_lost(work, 0);
            return true;
        }
        return false;
    }
    uint64_t ok = 0, failed = 0;
    size_t done = run_stmts(
        c, work.size(), [&](size_t i) -> const std::string& { return work[i].sql; },
        [&](size_t i) { return _streams[work[i].stream].table.c_str(); },
        [&](size_t i, unsigned) {
            failed++;
            if (const char* who = work[i].report; who != nullptr && *who != '\0')
                std::printf("%s error: %s\n", who, c.error());
            else if (who != nullptr)
                std::printf("%s\n", c.error());
        },
        ok);
    const uint64_t answered = met_now();
    for (size_t i = 0; i < done; i++)
        met_db_answered(answered - work[i].handed);
    {
        std::lock_guard lk(_mu);
        _st.written += ok;
        _st.failed += failed;
    }
    if (done < work.size()) {
        requeue_lost(work, done);
        return true;
    }
    return false;
}

std::unique_ptr<mysql_conn> writer_connect()
{
    auto c = std::make_unique<mysql_conn>();
    if (!c->ok())
        return nullptr;
    // Several statements per round trip; each still runs on its own.
    if (mysql_set_server_option(c->get(), MYSQL_OPTION_MULTI_STATEMENTS_ON) != 0)
        return nullptr;
    _connfd = mysql_get_socket(c->get());
    return c;
}

void writer_main()
{
    pthread_setname_np(pthread_self(), "db_writer");
    std::unique_ptr<mysql_conn> c;
    int backoff = kBackoffMinMs;
    bool down = false;
    std::unique_lock lk(_mu);
    for (;;) {
        _work.wait(lk, [] { return _abort || _stopping || !_q.empty() || any_dirty(); });
        if (_abort || (_stopping && _q.empty() && !any_dirty()))
            break;
        lk.unlock();
        if (!c) {
            c = writer_connect();
            lk.lock();
            _st.connected = c != nullptr;
            if (!c) {
                if (!down)
                    std::puts("db_writer: mysql connect error, statements wait in the queue");
                down = true;
                _work.wait_for(lk, std::chrono::milliseconds(backoff), [] { return _abort; });
                backoff = std::min(backoff * 2, kBackoffMaxMs);
                continue;
            }
            if (down)
                std::puts("db_writer: mysql connected again");
            down = false;
            backoff = kBackoffMinMs;
            lk.unlock();
        }
        bool lost = writer_round(*c);
        if (lost) {
            _connfd = -1;
            c.reset();
        }
        lk.lock();
        _inflight = 0;
        if (lost)
            _st.connected = false;
    }
    _st.connected = false;
    _ended = true;
    lk.unlock();
    _connfd = -1;
    c.reset();
    _done.notify_all();
}

}  // namespace

int dbw_stream(const char* table, dbw_rebuild_fn rebuild)
{
    std::lock_guard lk(_mu);
    for (int i = 0; i < _nstreams; i++) {
        if (_streams[i].table == table) {
            if (rebuild != nullptr)
                _streams[i].rebuild = rebuild;
            return i;
        }
    }
    if (_nstreams >= kMaxStreams)
        return -1;
    _streams[_nstreams] = stream_t{table, rebuild, false, 0};
    return _nstreams++;
}

int dbw_exec(int stream, std::string sql, const char* report)
{
    item it;
    it.stream = stream;
    it.report = report;
    it.sql = std::move(sql);
    return enqueue(std::move(it));
}

int dbw_call(int stream, dbw_job job)
{
    item it;
    it.stream = stream;
    it.job = std::move(job);
    return enqueue(std::move(it));
}

void dbw_rebuild(int stream)
{
    std::lock_guard lk(_mu);
    if (valid(stream) && _streams[stream].rebuild != nullptr) {
        _streams[stream].dirty = true;
        _work.notify_one();
    }
}

void dbw_cut(int stream)
{
    std::lock_guard lk(_mu);
    if (valid(stream))
        _streams[stream].cut = _seq;
}

bool dbw_run_all(mysql_conn& c, const std::vector<std::string>& stmts, const char* table)
{
    if (stmts.empty())
        return true;
    // The writer's own connection has it already; a start-up one not yet.
    if (mysql_set_server_option(c.get(), MYSQL_OPTION_MULTI_STATEMENTS_ON) != 0)
        return false;
    uint64_t ok = 0, failed = 0;
    size_t done = run_stmts(
        c, stmts.size(), [&](size_t i) -> const std::string& { return stmts[i]; }, [&](size_t) { return table; },
        [&](size_t, unsigned) { failed++; }, ok);
    std::lock_guard lk(_mu);
    _st.written += ok;
    _st.failed += failed;
    return done == stmts.size();
}

void dbw_start(size_t queue_max)
{
    std::lock_guard lk(_mu);
    if (_running)
        return;
    _qmax = queue_max > 0 ? queue_max : DBW_QUEUE_MAX;
    _running = true;
    _stopping = _abort = _ended = false;
    _thread = std::thread(writer_main);
}

size_t dbw_stop(int limit_ms)
{
    std::unique_lock lk(_mu);
    if (!_running)
        return _q.size();
    _stopping = true;
    _work.notify_all();
    if (!_done.wait_for(lk, std::chrono::milliseconds(limit_ms), [] { return _ended; })) {
        // A server that stopped answering holds the writer in a read:
        // cut the connection under it.
        _abort = true;
        _work.notify_all();
        int fd = _connfd.load();
        if (fd >= 0)
            shutdown(fd, SHUT_RDWR);
    }
    lk.unlock();
    _thread.join();
    lk.lock();
    _running = false;
    size_t left = _q.size();
    _q.clear();
    if (left != 0 || any_dirty())
        std::printf("db_writer: %zu statements not written%s\n", left,
                    any_dirty() ? ", and a table was not rebuilt" : "");
    return left;
}

dbw_stats_t dbw_stats()
{
    std::lock_guard lk(_mu);
    dbw_stats_t s = _st;
    s.queued = _q.size() + _inflight;
    return s;
}
