// Timers and the clock. Timers are measured on a monotonic nanosecond
// counter; periods are kept in milliseconds.
#include "jos_timer.h"

#include <cstdlib>
#include <cstring>

#include "jos_cmds.h"

static jos_timer_t* _timer_head;
static std::atomic<int64_t> _clock_offset;

uint64_t _jos_counterfreq = 1000000000ULL;
std::atomic<time_t> _jos_timesec;

uint64_t jos_counter()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec + _clock_offset.load()) * 1000000000ULL +
           static_cast<uint64_t>(ts.tv_nsec);
}

time_t jos_time()
{
    return time(nullptr) + _clock_offset.load();
}

void jos_clock_step(int64_t seconds)
{
    _clock_offset += seconds;
    _jos_timesec = jos_time();
}

// A timer first runs one full period after loading; newest timers are
// visited first.
void timer_load(jos_timer_t* t)
{
    t->lastick = jos_counter();
    t->next = _timer_head;
    _timer_head = t;
}

void timer_unload(jos_timer_t* t)
{
    for (jos_timer_t** pp = &_timer_head; *pp != nullptr; pp = &(*pp)->next) {
        if (*pp == t) {
            *pp = t->next;
            t->next = nullptr;
            return;
        }
    }
}

static uint64_t timer_period(const jos_timer_t* t)
{
    return ((_jos_counterfreq * t->timeout) / 8) / 125;
}

int timer_wait_ms(int limit_ms)
{
    uint64_t now = jos_counter();
    uint64_t wait = static_cast<uint64_t>(limit_ms) * 1000000ULL;
    for (const jos_timer_t* t = _timer_head; t != nullptr; t = t->next) {
        uint64_t due = t->lastick + timer_period(t);
        if (due <= now)
            return 0;
        if (due - now < wait)
            wait = due - now;
    }
    // Rounded up: waking a little late runs the timer, waking early would
    // only poll again.
    return static_cast<int>((wait + 999999ULL) / 1000000ULL);
}

// A late timer is not caught up: its next run is one period after this one.
void timer_scan_at(uint64_t counter, time_t now)
{
    _jos_timesec = now;
    for (jos_timer_t* t = _timer_head; t != nullptr;) {
        jos_timer_t* next = t->next;
        uint64_t period = timer_period(t);
        if (t->lastick + period <= counter) {
            t->lastick = counter;
            t->func(nullptr);
        }
        t = next;
    }
}

void timer_scan()
{
    time_t now = jos_time();
    timer_scan_at(jos_counter(), now);
}

// 389 sec=N: moves the daemon's clock N seconds forward (or back) and runs
// the timers that are then due. Only a
// daemon running under a test root (-r) registers it; tests use it to pass
// long waits without sleeping.
void jos_cmd_clockstep(jos_cmdarg_t* ca)
{
    char* value = nullptr;
    char* cursor = nullptr;
    for (char* tag = jos_cmd_nextarg(ca->ca_arg, &value, &cursor); tag != nullptr;
         tag = jos_cmd_nextarg(cursor, &value, &cursor)) {
        if (std::strcmp(tag, "sec") == 0 && value != nullptr) {
            char* end = nullptr;
            long long sec = std::strtoll(value, &end, 10);
            if (*value != '\0' && *end == '\0' && sec > -100000000LL && sec < 100000000LL) {
                jos_clock_step(sec);
                // Timers the step made due run before the answer, so that
                // a test sees their effects after it.
                timer_scan();
            }
            break;
        }
    }
    jos_cmd_printf(ca, "timesec=%ld\n", static_cast<long>(_jos_timesec.load()));
    ca->ca_rlen = ca->ca_pos + 1;
}
