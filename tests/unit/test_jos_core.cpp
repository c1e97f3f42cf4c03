// Registry, timers, threads, configuration store and CPU load.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "jos.h"
#include "jos_cmds.h"
#include "jos_config.h"
#include "jos_cpu.h"
#include "jos_thread.h"
#include "jos_timer.h"

namespace {

std::vector<std::string> events;

template <int N>
int init_ok(jos_kernel_t*)
{
    events.push_back("init" + std::to_string(N));
    return 0;
}
template <int N>
void fini_log(jos_kernel_t*)
{
    events.push_back("fini" + std::to_string(N));
}
int init_fail(jos_kernel_t*)
{
    events.push_back("initfail");
    return -1;
}

jos_module_t mk(const char* name, uint32_t level, int (*init)(jos_kernel_t*), void (*fini)(jos_kernel_t*),
                int (*ioctl)(jos_cmdarg_t*) = nullptr)
{
    return jos_module_t{name, level, -1, init, fini, ioctl, nullptr};
}

TEST(JosRegistry, StartsByLevelKeepingTableOrderForTies)
{
    events.clear();
    jos_module_t a = mk("a", 9, init_ok<1>, fini_log<1>), b = mk("b", 0, init_ok<2>, fini_log<2>),
                 c = mk("c", 9, init_ok<3>, fini_log<3>), d = mk("d", 0, init_ok<4>, nullptr);
    jos_module_t* tbl[] = {&a, &b, &c, &d};
    ASSERT_EQ(module_minit(tbl, 4), 0);
    std::vector<std::string> chain;
    for (jos_module_t* m = module_list(); m != nullptr; m = m->next)
        chain.push_back(m->name);
    EXPECT_EQ(chain, (std::vector<std::string>{"b", "d", "a", "c"}));
    module_mfini();
    EXPECT_EQ(events, (std::vector<std::string>{"init2", "init4", "init1", "init3", "fini3", "fini1", "fini2"}));
    EXPECT_EQ(module_find("c"), &c);
    EXPECT_EQ(module_find("zz"), nullptr);
}

TEST(JosRegistry, BadTableStopsBeforeAnyInit)
{
    jos_module_t a = mk("a", 0, init_ok<1>, nullptr), dup = mk("a", 1, init_ok<2>, nullptr),
                 noinit = mk("n", 0, nullptr, nullptr);
    for (jos_module_t* second : {&dup, &a, &noinit}) {
        events.clear();
        jos_module_t* tbl[] = {&a, second};
        testing::internal::CaptureStdout();
        EXPECT_EQ(module_minit(tbl, 2), -1);
        EXPECT_EQ(testing::internal::GetCapturedStdout(),
                  "PANIC: fail to add module \"" + std::string(second->name) + "\"\n");
        EXPECT_TRUE(events.empty());
    }
}

TEST(JosRegistry, FailedInitStopsStartedModulesNewestFirst)
{
    events.clear();
    jos_module_t a = mk("a", 0, init_ok<1>, fini_log<1>), b = mk("b", 1, init_ok<2>, fini_log<2>),
                 c = mk("c", 2, init_fail, fini_log<3>), d = mk("d", 3, init_ok<4>, fini_log<4>);
    jos_module_t* tbl[] = {&d, &c, &b, &a};
    testing::internal::CaptureStdout();
    EXPECT_EQ(module_minit(tbl, 4), -1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "PANIC: fail to load module \"c\"\n");
    EXPECT_EQ(events, (std::vector<std::string>{"init1", "init2", "initfail", "fini2", "fini1"}));
    EXPECT_EQ(c.status, -1);
    EXPECT_EQ(d.status, -1);
}

std::vector<std::string> notes;
void watch(int ev, jos_module_t* m)
{
    notes.push_back(std::to_string(ev) + m->name);
}

int var_ioctl(jos_cmdarg_t* ca)
{
    if (ca->ca_cmd == JOS_CMD_GETVAR && std::string(ca->ca_errmsg) == "answer") {
        ca->ca_ptru32.u32 = 42;
        return 0;
    }
    ca->ca_ptru32.u32 = 7;
    return -1;
}

TEST(JosRegistry, WatchersAndRuntimeRegistration)
{
    jos_module_t base = mk("base", 5, init_ok<1>, nullptr);
    jos_module_t* tbl[] = {&base};
    ASSERT_EQ(module_minit(tbl, 1), 0);
    notes.clear();
    // Loading notifies watchers by the watched name, unloading by their own.
    jos_modnotify_t byname = {"x", "late", watch, nullptr}, byown = {"late", "other", watch, nullptr};
    notify_load(&byname);
    notify_load(&byown);
    jos_module_t late = mk("late", 1, init_ok<2>, nullptr, var_ioctl);
    EXPECT_EQ(module_register(&late), 0);
    EXPECT_EQ(module_list(), &late);
    EXPECT_EQ(module_register(&late), -1);
    jos_module_t same = mk("late", 9, init_ok<3>, nullptr);
    EXPECT_EQ(module_register(&same), -1);
    EXPECT_EQ(module_getvar(&late, "answer"), 42u);
    EXPECT_EQ(module_getvar(&late, "other"), 0u);
    EXPECT_EQ(module_getvar(&base, "answer"), 0u);
    EXPECT_EQ(module_unregister(&late), 0);
    EXPECT_EQ(module_unregister(&late), 0);
    EXPECT_EQ(module_list(), &base);
    EXPECT_EQ(notes, (std::vector<std::string>{"1late", "2late"}));
    notify_unload(&byown);
    notify_unload(&byname);
}

std::vector<std::string> fired;
void tick_a(void*)
{
    fired.push_back("a");
}
void tick_b(void*)
{
    fired.push_back("b");
}

TEST(JosTimer, PeriodsOrderAndNoCatchUp)
{
    const uint64_t ms = _jos_counterfreq / 1000;
    jos_timer_t a = {0, 100, tick_a, "a", nullptr}, b = {0, 100, tick_b, "b", nullptr};
    timer_load(&a);
    timer_load(&b);
    uint64_t t0 = a.lastick;
    b.lastick = t0;
    fired.clear();
    timer_scan_at(t0 + 99 * ms, 1000);
    EXPECT_TRUE(fired.empty());
    EXPECT_EQ(_jos_timesec.load(), 1000);
    timer_scan_at(t0 + 100 * ms, 1001);
    EXPECT_EQ(fired, (std::vector<std::string>{"b", "a"}));  // newest first
    // Five periods late: one run, and the next one a full period later.
    fired.clear();
    timer_scan_at(t0 + 600 * ms, 1002);
    timer_scan_at(t0 + 699 * ms, 1002);
    EXPECT_EQ(fired.size(), 2u);
    timer_unload(&b);
    timer_scan_at(t0 + 700 * ms, 1003);
    EXPECT_EQ(fired.size(), 3u);
    timer_unload(&a);
}

void spin_until_told(jos_thread_t* td)
{
    td->td_arg0 = 1;
    while (!td->td_notifyexit)
        usleep(100);
}

TEST(JosThread, RegisterStartStop)
{
    ASSERT_EQ(thread_module.init(&_jos_kernel), 0);
    testing::internal::CaptureStdout();
    EXPECT_EQ(jos_thread_register(std::string(32, 'n').c_str(), 0, spin_until_told), nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Name too long\n");
    jos_thread_t* one = jos_thread_register("one", 0, spin_until_told);
    jos_thread_t* two = jos_thread_register("two", 99, spin_until_told);
    ASSERT_NE(one, nullptr);
    ASSERT_NE(two, nullptr);
    for (int i = 2; i < JOS_MAX_THREADS; i++)
        ASSERT_NE(jos_thread_register(("t" + std::to_string(i)).c_str(), 0, nullptr), nullptr);
    EXPECT_EQ(jos_thread_register("more", 0, spin_until_told), nullptr);
    // Only the two with a routine are started: empty the others' handles.
    for (jos_thread_t* td = two + 1; td < one + JOS_MAX_THREADS; td++)
        td->td_threadid = 1;
    jos_start_threads();
    ASSERT_TRUE([&] {
        for (int i = 0; i < 2000 && !(one->td_arg0 && two->td_arg0); i++)
            usleep(1000);
        return one->td_arg0 && two->td_arg0;
    }());
    for (jos_thread_t* td = two + 1; td < one + JOS_MAX_THREADS; td++)
        td->td_threadid = 0;
    testing::internal::CaptureStdout();
    jos_stop_threads();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "thread one exited!\nthread two exited!\n");
    EXPECT_EQ(one->td_signals.load(), JOS_TD_RELEASED | JOS_TD_RUNNING | JOS_TD_RETURNED);
    thread_module.fini(&_jos_kernel);
}

// A module that claims keys starting with its letter and counts the offers.
std::vector<std::string> offers;
std::vector<std::string> saved;
template <char L>
int cfg_ioctl(jos_cmdarg_t* ca)
{
    switch (ca->ca_cmd) {
    case JOS_CMD_CFGLINE:
        offers.push_back(std::string(1, L) + ":" + ca->ca_errmsg + "=" + ca->ca_arg);
        if (ca->ca_errmsg[0] != L)
            return 0;
        if (std::string(ca->ca_arg) == "bad") {
            ca->ca_errno = 22;
            std::snprintf(ca->ca_errmsg, sizeof(ca->ca_errmsg), "bad value");
        }
        return 1;
    case JOS_CMD_CFGLOADED:
        offers.push_back(std::string(1, L) + ":loaded");
        return 0;
    case JOS_CMD_CFGSAVE:
        jos_cmd_printf(ca, "%c_key %c value\n", L, L);
        return 0;
    }
    return 0;
}

TEST(JosConfig, LoadOffersLinesAndSaveRewrites)
{
    namespace fs = std::filesystem;
    std::string dir = fs::temp_directory_path() / ("josconf." + std::to_string(getpid()));
    fs::create_directories(dir + "/etc");
    setenv("VERIFYPATH", dir.c_str(), 1);
    EXPECT_EQ(std::string(jos_cfg_root()), dir + "/etc");
    std::ofstream(dir + "/etc/verify.conf") << "a1 x\n"
                                               "b1  y z\n"
                                               "b2 bad\n"
                                               "\tq1 n\n"
                                               "ENDCONFIG\n"
                                               "a9 never\n";
    jos_module_t a = mk("a", 0, init_ok<1>, nullptr, cfg_ioctl<'a'>),
                 b = mk("b", 1, init_ok<2>, nullptr, cfg_ioctl<'b'>);
    jos_module_t* tbl[] = {&a, &b};
    ASSERT_EQ(module_minit(tbl, 2), 0);
    offers.clear();
    testing::internal::CaptureStdout();
    jos_cfg_load();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "loadcfg(3): bad value\n");
    // The previous claimant is asked twice before the walk in start order.
    EXPECT_EQ(offers, (std::vector<std::string>{"a:a1=x", "a:b1=y z", "a:b1=y z", "a:b1=y z", "b:b1=y z",
                                                "b:b2=bad", "b:q1=n", "b:q1=n", "a:q1=n", "b:q1=n", "a:loaded",
                                                "b:loaded"}));

    jos_cfg_setdirty();
    cfg_timer(nullptr);
    EXPECT_EQ(jos_cfg_isdirty(), 0);
    std::ifstream in(dir + "/etc/verify.conf");
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    EXPECT_EQ(text, "a_key a value\nb_key b value\nENDCONFIG\n");
    EXPECT_FALSE(fs::exists(dir + "/etc/verify_new.conf"));
    fs::remove_all(dir);
}

TEST(JosCpu, LoadIsMeasuredEverySecondCall)
{
    std::string path = std::filesystem::temp_directory_path() / ("josstat." + std::to_string(getpid()));
    auto put = [&](const char* line) { std::ofstream(path) << line; };
    cpu_setstatfile(path.c_str());
    _cpurate = 0;
    put("cpu  100 0 100 100 0 0 0 0\n");
    cpu_timer(nullptr);  // baseline
    put("garbage\n");
    cpu_timer(nullptr);  // unreadable: nothing changes, the count stays
    put("cpu  130 10 100 300 100 5 5 0\n");
    cpu_timer(nullptr);  // busy 50 of 350
    EXPECT_EQ(_cpurate.load(), 14);
    put("cpu  200 10 100 300 100 5 5 0\n");
    cpu_timer(nullptr);  // new baseline, no figure
    EXPECT_EQ(_cpurate.load(), 14);
    put("cpu  300 10 100 300 100 5 5 0\n");
    cpu_timer(nullptr);
    EXPECT_EQ(_cpurate.load(), 100);
    cpu_setstatfile("/proc/stat");
    std::filesystem::remove(path);
}

}  // namespace
