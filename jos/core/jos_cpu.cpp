// Processor count and binding, and the machine's CPU load measured from the
// cpu line of /proc/stat.
#include "jos_cpu.h"

#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "jos_cmds.h"
#include "jos_dbf.h"
#include "jos_timer.h"

static int _ncpu = 1;
static time_t _starttime;
static unsigned _cpu_calls;
static uint64_t _cpu_base[5];
static const char* _cpu_statfile = "/proc/stat";

std::atomic<int> _cpurate;

static jos_timer_t _cpu_tmr = {0, 2000, cpu_timer, "cputimer", nullptr};

int jos_cpu_count()
{
    return _ncpu;
}

int jos_cpu_exist(int n)
{
    return n >= 0 && n < _ncpu;
}

int jos_cpu_bind(int cpu)
{
    if (!jos_cpu_exist(cpu))
        cpu = 0;
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(cpu, &set);
    int rc = pthread_setaffinity_np(pthread_self(), sizeof(set), &set);
    if (rc != 0) {
        errno = rc;
        perror("error: ics_set_cpu - cpuset_setaffinity()");
    }
    return rc;
}

// Simultaneous multithreading is present when a processor shares its core
// with another one.
int jos_cpu_hasht()
{
    for (int i = 0; i < _ncpu; i++) {
        std::string path = "/sys/devices/system/cpu/cpu" + std::to_string(i) + "/topology/thread_siblings_list";
        FILE* f = std::fopen(path.c_str(), "r");
        if (f == nullptr) {
            std::printf("%s: %s(%d)\n", "jos_cpu_hasht", std::strerror(errno), errno);
            return 0;
        }
        char buf[2048] = {};
        bool ht = std::fgets(buf, sizeof(buf), f) != nullptr && std::strpbrk(buf, ",-") != nullptr;
        std::fclose(f);
        if (ht)
            return 1;
    }
    return 0;
}

void cpu_setstatfile(const char* path)
{
    _cpu_statfile = path;
    _cpu_calls = 0;
}

// user, nice, system, interrupt (irq+softirq), idle (idle+iowait).
static int cpu_readtimes(uint64_t t[5])
{
    FILE* f = std::fopen(_cpu_statfile, "r");
    if (f == nullptr)
        return -1;
    unsigned long long user, nice, sys, idle, iowait, irq, softirq;
    int n = std::fscanf(f, "cpu %llu %llu %llu %llu %llu %llu %llu", &user, &nice, &sys, &idle, &iowait,
                        &irq, &softirq);
    std::fclose(f);
    if (n != 7)
        return -1;
    t[0] = user;
    t[1] = nice;
    t[2] = sys;
    t[3] = irq + softirq;
    t[4] = idle + iowait;
    return 0;
}

// Even calls store the baseline, odd calls measure against it, so a new
// figure appears every second call.
void cpu_timer(void*)
{
    uint64_t t[5];
    if (cpu_readtimes(t) != 0)
        return;
    if ((_cpu_calls++ & 1) == 0) {
        std::memcpy(_cpu_base, t, sizeof(_cpu_base));
        return;
    }
    uint64_t busy = 0;
    for (int i = 0; i < 4; i++)
        busy += t[i] - _cpu_base[i];
    uint64_t total = busy + (t[4] - _cpu_base[4]);
    if (total != 0)
        _cpurate = static_cast<int>(static_cast<double>(busy) / static_cast<double>(total) * 100);
}

// The CPU entry of the binary statistics reply.
void cpu_snapshot(jos_cmdarg_t* ca)
{
    if (ca->ca_rlen - ca->ca_pos < static_cast<int>(sizeof(jos_dbfval_t)) || ca->ca_result == nullptr)
        return;
    jos_dbfval_t v{};
    std::snprintf(v.tag.name, sizeof(v.tag.name), "%s", "cpu");
    v.val = _cpurate;
    std::memcpy(ca->ca_result + ca->ca_pos, &v, sizeof(v));
    ca->ca_retval++;
    ca->ca_pos += sizeof(v);
}

// The odd prefixes of the two messages are kept as they are.
static int cpu_minit(jos_kernel_t* k)
{
    long n = sysconf(_SC_NPROCESSORS_ONLN);
    if (n < 1) {
        std::printf("kkk%s: %s(%d)\n", "cpu_minit", std::strerror(errno), errno);
        return 0;
    }
    _ncpu = static_cast<int>(n);
    _starttime = jos_time();
    k->boottime = static_cast<uint32_t>(_starttime);
    timespec res;
    if (clock_getres(CLOCK_MONOTONIC, &res) != 0) {
        std::printf("dkdkdkkd%s: %s(%d)\n", "cpu_minit", std::strerror(errno), errno);
        return 0;
    }
    timer_load(&_cpu_tmr);
    return 0;
}

static void cpu_mfini(jos_kernel_t*) {}

static int cpu_ioctl(jos_cmdarg_t* ca)
{
    if (ca->ca_cmd == JOS_CMD_STAT) {
        jos_cmd_printf(ca, "cpurate=%d\n", _cpurate.load());
        ca->ca_rlen = ca->ca_pos + 1;
    }
    return 0;
}

jos_module_t cpu_module = {"cpu", 0x00000000, -1, cpu_minit, cpu_mfini, cpu_ioctl, nullptr};
