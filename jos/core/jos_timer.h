// Periodic timers run by the main loop between polls, and the daemon's clock.
#pragma once

#include "jos.h"

struct jos_timer_t {
    uint64_t lastick;   // counter at the last run (or at loading)
    uint64_t timeout;   // period in milliseconds
    void (*func)(void*);
    const char* name;
    jos_timer_t* next;
};

void timer_load(jos_timer_t* t);
void timer_unload(jos_timer_t* t);
// Refreshes _jos_timesec and runs every timer that is due.
void timer_scan();
// Milliseconds until the next timer is due (0: one is due now), at most
// LIMIT_MS.
int timer_wait_ms(int limit_ms);
// The same with an explicit counter value and time, for tests.
void timer_scan_at(uint64_t counter, time_t now);

// The counter: CLOCK_MONOTONIC in nanoseconds, so its frequency is 10^9.
uint64_t jos_counter();
time_t jos_time();
extern uint64_t _jos_counterfreq;

// Seconds added to the daemon's clock (both the counter and the wall time);
// only test runs move it.
void jos_clock_step(int64_t seconds);
void jos_cmd_clockstep(jos_cmdarg_t* ca);
constexpr int JOS_CMD_CLOCKSTEP = 389;

// Present time in whole seconds, refreshed at every timer scan.
extern std::atomic<time_t> _jos_timesec;
