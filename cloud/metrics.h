// The Prometheus endpoint: off unless /etc/cloud.conf has metrics_port=N
// (N > 0); it listens on metrics_bind= (127.0.0.1 by default). Most figures
// are read at scrape time from the counters the modules keep for their
// statistics commands, under the same locks. The few that exist nowhere
// else (datagrams per kind, statement latency) are relaxed atomics bumped
// through the calls below whether the endpoint is on or off; command
// latency is taken through the management loop's hook only while it is on.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "jos.h"

// A latency histogram with fixed bounds (100 us .. 10 s). Any thread may
// observe; a scrape reads each bucket on its own, so a scrape taken during
// an observation may see the count one ahead of a bucket.
struct met_hist {
    static constexpr double bounds[] = {0.0001, 0.0005, 0.001, 0.005, 0.01, 0.05, 0.1, 0.5, 1, 5, 10};
    static constexpr size_t nbounds = sizeof(bounds) / sizeof(bounds[0]);
    std::atomic<uint64_t> buckets[nbounds + 1] = {};  // the last one: above every bound
    std::atomic<uint64_t> sum_ns{0};

    void observe(uint64_t ns);
};

// Nanoseconds of a monotonic clock that test clock steps do not move.
uint64_t met_now();

// One datagram received on the device socket (LEN bytes at BUF, zero
// padded); unknown families and types count as dropped here.
void met_dgram(const char* buf, int len);
// The datagram at BUF was read but not stored (its pool is full, or it
// names no appliance).
void met_dgram_dropped(const char* buf, int len);

// One datagram received on a job socket: the gateways' backup socket
// (backup = true) or their firmware-upgrade socket; LEN bytes at BUF.
void met_job_dgram(bool backup, const char* buf, long len);

// A pool of appliances of the family whose datagrams start with MAGIC
// ("VTR", "FRB", "LOG"): FN counts its records and those heard from
// lately, under the pool's lock.
using met_countfn = void (*)(size_t* known, size_t* online);
void met_appliances(const char* magic, met_countfn fn);

// A database statement handed over NS nanoseconds ago has been answered.
void met_db_answered(uint64_t ns);

extern jos_module_t metrics_module;
