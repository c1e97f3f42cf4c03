// The one path by which receive loops, polling threads and management
// commands write tables. They hand a statement over and go on; one writer
// thread with one kept connection runs the statements in the order they
// were handed over, several per round trip. While the database does not
// answer, statements wait in a bounded queue; what the queue cannot hold is
// dropped, and a table whose rows mirror a pool is then rebuilt from that
// pool once the database answers again.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "common.h"

// Brings a table back in line with the memory it mirrors. Runs on the
// writer thread with the writer's connection; it must call dbw_cut while
// holding the lock under which its stream's statements are handed over.
using dbw_rebuild_fn = void (*)(mysql_conn& c);

// A job runs on the writer thread after everything handed over before it.
// It is run again when the connection was lost during it, so it must be
// safe to repeat.
using dbw_job = std::function<void(mysql_conn& c)>;

// Names a stream of statements: TABLE (repaired when the server reports it
// crashed) and, for a table that mirrors a pool, its rebuild. The same
// table always gets the same stream. -1 when all streams are taken.
int dbw_stream(const char* table, dbw_rebuild_fn rebuild = nullptr);

// Hands a statement over. When the server refuses it and REPORT is given,
// the error is printed: "REPORT error: TEXT", or the text alone for "". 0,
// or -1 when it was dropped (queue full, or the writer stopped).
int dbw_exec(int stream, std::string sql, const char* report = nullptr);
// Hands a job over; 0 or -1 as dbw_exec.
int dbw_call(int stream, dbw_job job);
// Asks for a rebuild of STREAM (no-op for a stream without one).
void dbw_rebuild(int stream);
// For rebuild functions: every statement of STREAM handed over so far is
// superseded by the rebuild and will not run.
void dbw_cut(int stream);

// Runs STMTS on C in batches (several statements per round trip from
// then on), skipping statements the server refuses. False when the
// connection was lost on the way.
bool dbw_run_all(mysql_conn& c, const std::vector<std::string>& stmts, const char* table);

// Statements and jobs that may wait for the database.
constexpr size_t DBW_QUEUE_MAX = 65536;

// Starts the writer thread; QUEUE_MAX bounds the queue (0: the default).
void dbw_start(size_t queue_max = 0);
// Lets the writer finish what is queued, waiting at most LIMIT_MS, then
// stops it. Returns the number of statements left unwritten.
size_t dbw_stop(int limit_ms);

struct dbw_stats_t {
    uint64_t queued;      // waiting now
    uint64_t written;     // run by the server
    uint64_t failed;      // refused by the server
    uint64_t dropped;     // never run: queue full, or outcome lost with the connection
    uint64_t superseded;  // never run because a rebuild wrote their rows
    uint64_t rebuilds;
    bool connected;
};
dbw_stats_t dbw_stats();
