// Worker thread table and its start/stop protocol.
#include "jos_thread.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>

#include <cstdio>
#include <cstring>
#include <new>

#include "jos_cmds.h"
#include "ipe_string.h"
#include "jos_cpu.h"

thread_local jos_thread_t* _jos_curthread;

static jos_thread_t* _threads;
static int _thread_count;

jos_thread_t* jos_thread_register(const char* name, int cpu, jos_routine_t routine)
{
    if (_threads == nullptr || _thread_count >= JOS_MAX_THREADS)
        return nullptr;
    if (std::strlen(name) >= sizeof(_threads->td_name)) {
        std::printf("Name too long\n");
        return nullptr;
    }
    jos_thread_t* td = &_threads[_thread_count];
    td->td_signals = 0;
    td->td_notifyexit = 0;
    td->td_cpuid = static_cast<uint8_t>(cpu);
    std::snprintf(td->td_name, sizeof(td->td_name), "%s", name);
    td->td_routine = routine;
    td->td_threadid = 0;
    if (td->td_wakefd <= 0)
        td->td_wakefd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    _thread_count++;
    return td;
}

const char* jos_thread_name(jos_thread_t* td)
{
    return td->td_name;
}

static void* jos_thread_main(void* arg)
{
    auto* td = static_cast<jos_thread_t*>(arg);
    td->td_signals |= JOS_TD_RUNNING;
    // The kernel's name of the thread (15 characters), so that top and
    // /proc tell the workers apart.
    char comm[16];
    ipe_fieldcpy(comm, td->td_name);
    pthread_setname_np(pthread_self(), comm);
    jos_cpu_bind(td->td_cpuid);
    _jos_curthread = td;
    while ((td->td_signals & JOS_TD_RELEASED) == 0)
        usleep(1);
    td->td_routine(td);
    td->td_signals |= JOS_TD_RETURNED;
    return nullptr;
}

void jos_start_threads()
{
    for (int i = 0; i < _thread_count; i++) {
        jos_thread_t* td = &_threads[i];
        if (td->td_threadid != 0)
            continue;
        td->td_signals = 0;
        int rc = pthread_create(&td->td_threadid, nullptr, jos_thread_main, td);
        if (rc != 0) {
            td->td_threadid = 0;
            std::printf("%s: fail to start thread %s(%d)\n", "jos_start_thread", td->td_name, rc);
            continue;
        }
        td->td_signals |= JOS_TD_RELEASED;
    }
}

// Each thread is told and joined before the next one is told. A thread just
// created may not have marked itself running yet; it is waited for, so that
// no started thread outlives the stop.
void jos_stop_threads()
{
    for (int i = 0; i < _thread_count; i++) {
        jos_thread_t* td = &_threads[i];
        if ((td->td_signals & JOS_TD_RELEASED) != 0)
            while ((td->td_signals & JOS_TD_RUNNING) == 0)
                usleep(1);
        if ((td->td_signals & JOS_TD_RUNNING) == 0)
            continue;
        td->td_notifyexit = 1;
        if (td->td_wakefd > 0) {
            uint64_t one = 1;
            ssize_t w = write(td->td_wakefd, &one, sizeof(one));
            (void)w;
        }
        pthread_join(td->td_threadid, nullptr);
        std::printf("thread %s exited!\n", td->td_name);
    }
}

int jos_thread_wait(jos_thread_t* td, int fd, int timeout_ms)
{
    pollfd fds[2];
    int n = 0;
    if (fd >= 0)
        fds[n++] = {fd, POLLIN, 0};
    if (td != nullptr && td->td_wakefd > 0)
        fds[n++] = {td->td_wakefd, POLLIN, 0};
    if (td != nullptr && td->td_notifyexit)
        return 0;
    int rc = poll(fds, static_cast<nfds_t>(n), timeout_ms);
    if (rc < 0)
        return errno == EINTR ? 0 : -1;
    return fd >= 0 && (fds[0].revents & POLLIN) != 0 ? 1 : 0;
}

static int thread_minit(jos_kernel_t*)
{
    _threads = new (std::nothrow) jos_thread_t[JOS_MAX_THREADS]();
    if (_threads == nullptr) {
        std::printf("thread: malloc fail\n");
        return -1;
    }
    _thread_count = 0;
    std::printf("threads base at %p\n", static_cast<void*>(_threads));
    return 0;
}

static void thread_mfini(jos_kernel_t*)
{
    for (int i = 0; i < _thread_count; i++)
        if (_threads[i].td_wakefd > 0)
            close(_threads[i].td_wakefd);
    delete[] _threads;
    _threads = nullptr;
    _thread_count = 0;
}

static int thread_ioctl(jos_cmdarg_t* ca)
{
    switch (ca->ca_cmd) {
    case JOS_CMD_STAT:
        jos_cmd_printf(ca, "thread_count=%d\n", _thread_count);
        return 0;
    case JOS_CMD_LIST:
        for (int i = 0; i < _thread_count; i++) {
            jos_thread_t* td = &_threads[i];
            jos_cmd_printf(ca, "%s %d %p %p\n", td->td_name, td->td_cpuid,
                           reinterpret_cast<void*>(td->td_routine), td->td_cookie);
        }
        ca->ca_rlen = ca->ca_pos + 1;
        return 0;
    default:
        return -1;
    }
}

jos_module_t thread_module = {"thread", 0x01000000, -1, thread_minit, thread_mfini, thread_ioctl, nullptr};
