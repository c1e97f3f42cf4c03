// Worker threads: a table of 128 entries registered by module inits, started
// together by the main loop and stopped one by one at shutdown.
#pragma once

#include <pthread.h>

#include "jos.h"

struct jos_mutex_t {
    volatile int locked;
};

enum : uint8_t {
    JOS_TD_RELEASED = 1,  // the starter let the routine run
    JOS_TD_RETURNED = 2,  // the routine has returned
    JOS_TD_RUNNING = 4,   // set by the thread itself on entry
};

struct jos_thread_t {
    std::atomic<uint8_t> td_signals;
    uint8_t td_stage;                    // progress marker shown in crash dumps
    std::atomic<uint8_t> td_notifyexit;  // 1: the routine must return
    uint8_t td_cpuid;
    jos_mutex_t td_mtxevt;
    jos_routine_t td_routine;
    pthread_t td_threadid;
    void* td_cookie;
    char td_name[32];
    uint32_t td_arg0, td_arg1, td_arg2;
    void* td_receiver;
    int td_wakefd;  // eventfd written when the thread is told to stop
};

constexpr int JOS_MAX_THREADS = 128;

jos_thread_t* jos_thread_register(const char* name, int cpu, jos_routine_t routine);
// Waits at most TIMEOUT_MS for FD (-1: none) to become readable or for the
// thread to be told to stop. 1: FD readable; 0: time-out or stop; -1: poll
// failed.
int jos_thread_wait(jos_thread_t* td, int fd, int timeout_ms);
const char* jos_thread_name(jos_thread_t* td);
void jos_start_threads();
void jos_stop_threads();

// The worker running on this thread, null on the main thread.
extern thread_local jos_thread_t* _jos_curthread;

extern jos_module_t thread_module;
