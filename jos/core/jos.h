// The jos runtime: command record, module record, kernel record and the
// services every module reaches through them.
#pragma once

#include <atomic>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <string>
#include <string_view>

// ---------------------------------------------------------------------------
// Command record: the argument of every ioctl and, unchanged, the 208-byte
// wire record of the management socket (native little-endian layout).
// ---------------------------------------------------------------------------

union jos_ptru32_t {
    void* ptr;
    uint32_t u32;
};

struct jos_cmdarg_t {
    int32_t ca_cmd;        // command code
    int32_t ca_alen;       // argument length in the segment, < 65536
    char* ca_arg;          // argument text (the daemon's own copy)
    int32_t ca_shmid;      // System V segment of the client, > 0
    int8_t ca_getdesc;
    int8_t ca_eof;
    uint16_t ca_flags;     // JOS_CAF_FILE: reply goes to ca_file
    FILE* ca_file;
    int32_t ca_errno;      // 0 or an errno-style code
    char ca_errmsg[120];   // request: module name; reply: error word
    uint32_t ca_index1;
    uint32_t ca_index2;
    int32_t ca_retval;
    int32_t ca_pos;        // reply bytes written so far
    int32_t ca_rlen;       // request: reply capacity; reply: reply length
    char* ca_result;       // reply area
    int32_t ca_cookie;
    int32_t ca_pad0;
    jos_ptru32_t ca_ptru32; // result of get-variable / get-pointer
    uint32_t ca_curtime;
    int32_t ca_pad1;
};

static_assert(sizeof(jos_cmdarg_t) == 208);
static_assert(offsetof(jos_cmdarg_t, ca_cmd) == 0);
static_assert(offsetof(jos_cmdarg_t, ca_alen) == 4);
static_assert(offsetof(jos_cmdarg_t, ca_arg) == 8);
static_assert(offsetof(jos_cmdarg_t, ca_shmid) == 16);
static_assert(offsetof(jos_cmdarg_t, ca_getdesc) == 20);
static_assert(offsetof(jos_cmdarg_t, ca_eof) == 21);
static_assert(offsetof(jos_cmdarg_t, ca_flags) == 22);
static_assert(offsetof(jos_cmdarg_t, ca_file) == 24);
static_assert(offsetof(jos_cmdarg_t, ca_errno) == 32);
static_assert(offsetof(jos_cmdarg_t, ca_errmsg) == 36);
static_assert(offsetof(jos_cmdarg_t, ca_index1) == 156);
static_assert(offsetof(jos_cmdarg_t, ca_index2) == 160);
static_assert(offsetof(jos_cmdarg_t, ca_retval) == 164);
static_assert(offsetof(jos_cmdarg_t, ca_pos) == 168);
static_assert(offsetof(jos_cmdarg_t, ca_rlen) == 172);
static_assert(offsetof(jos_cmdarg_t, ca_result) == 176);
static_assert(offsetof(jos_cmdarg_t, ca_cookie) == 184);
static_assert(offsetof(jos_cmdarg_t, ca_ptru32) == 192);
static_assert(offsetof(jos_cmdarg_t, ca_curtime) == 200);

enum : uint16_t {
    JOS_CAF_FILE = 1,    // replies are written to ca_file
    JOS_CAF_CONFIG = 2,  // record built by the configuration loader
};

// Command codes.
enum : int32_t {
    JOS_CMD_MAX = 512,          // global commands are 1..512
    JOS_CMD_NOP = 511,
    JOS_CMD_MODLIST = 387,
    JOS_CMD_MODSTAT = 388,
    JOS_CMD_MODFIRST = 2048,    // module commands are 2048..2058
    JOS_CMD_STAT = 2050,
    JOS_CMD_REMOVE = 2052,
    JOS_CMD_SET = 2053,
    JOS_CMD_LIST = 2055,
    JOS_CMD_MODLAST = 2058,
    JOS_CMD_CFGSAVE = 4096,
    JOS_CMD_CFGLINE = 4097,
    JOS_CMD_GETVAR = 4099,
    JOS_CMD_GETPTR = 4100,
    JOS_CMD_EXIT = 4128,
    JOS_CMD_CFGLOADED = 4129,
};

constexpr int JOS_ARGBUF_SIZE = 65536;

// ---------------------------------------------------------------------------
// Modules and the kernel record.
// ---------------------------------------------------------------------------

struct jos_kernel_t;

struct jos_module_t {
    const char* name;
    uint32_t level;
    int status;                       // -1 not loaded, 0 loaded
    int (*init)(jos_kernel_t*);
    void (*fini)(jos_kernel_t*);
    int (*ioctl)(jos_cmdarg_t*);
    jos_module_t* next;
};

struct jos_modnotify_t {
    const char* name;
    const char* modname;
    void (*notify)(int event, jos_module_t* mod);
    jos_modnotify_t* next;
};

struct jos_thread_t;
struct jos_timer_t;
struct jos_objclass_t;
struct jos_objnotify_t;
struct jos_dmbhdr_t;

using jos_cmdfn_t = void (*)(jos_cmdarg_t*);
using jos_routine_t = void (*)(jos_thread_t*);

struct kfn_table_t {
    int (*module_register)(jos_module_t*);
    int (*module_unregister)(jos_module_t*);
    jos_module_t* (*module_list)();
    jos_module_t* (*module_find)(const char*);
    void (*notify_load)(jos_modnotify_t*);
    void (*notify_unload)(jos_modnotify_t*);
    void* (*malloc)(size_t);
    void (*free)(void*);
    void (*timer_load)(jos_timer_t*);
    void (*timer_unload)(jos_timer_t*);
    jos_thread_t* (*thread_register)(const char*, int, jos_routine_t);
    void (*cfg_markdirty)();
    void (*cfg_cleardirty)();
    const char* (*cfg_root)();
    int (*cmd_load)(int, jos_cmdfn_t);
    int (*cmd_unload)(int);
    int (*objclass_load)(jos_objclass_t*);
    int (*objclass_unload)(jos_objclass_t*);
    int (*objnotify_load)(jos_objnotify_t*);
    int (*objnotify_unload)(jos_objnotify_t*);
    void (*object_notify)(const char*, uint32_t, uint32_t);
    jos_objclass_t* (*object_findclass)(const char*);
    void* mgmt_evtpost;
    void* mgmt_evtfull;
    void* pkt_xmit;
    void (*delaymb_drop)(jos_dmbhdr_t*, uint32_t);
    int (*get_release)();
};

struct jos_kernel_t {
    uint16_t flags;
    uint8_t version;
    uint8_t pad8;
    uint8_t bsd_major;
    uint8_t bsd_minor;
    uint16_t mdisk_size;
    uint16_t max_filesz;
    uint16_t zfs_arcmax;
    uint32_t max_client;
    uint32_t boottime;
    uint32_t file_poolsz;
    uint32_t file_tblsz;
    int argc;
    char** argv;
    kfn_table_t* fntable;
};

extern jos_kernel_t _jos_kernel;
extern kfn_table_t _jos_kfntable;

// Registry (jos_module.cpp).
int module_minit(jos_module_t* const* table, size_t count);
void module_mfini();
int module_register(jos_module_t* mod);
int module_unregister(jos_module_t* mod);
void module_notify(jos_module_t* mod, int event);
void module_notifyexit();
jos_module_t* module_list();
jos_module_t* module_find(const char* name);
uint32_t module_getvar(jos_module_t* mod, const char* var);
void* module_getptr(jos_module_t* mod, const char* var);
void notify_load(jos_modnotify_t* w);
void notify_unload(jos_modnotify_t* w);
int jos_getrel();

// The module table of the daemon, in link order (cloud/module_table.cpp).
extern jos_module_t* const _module_data[];
extern const size_t _module_count;

// ---------------------------------------------------------------------------
// Paths: every fixed path of the daemon is resolved under the root given
// with -r (empty for the real file system).
// ---------------------------------------------------------------------------

void jos_setroot(std::string_view root);
bool jos_hasroot();
std::string jos_path(std::string_view abs);

// ---------------------------------------------------------------------------
// Spin lock: one 32-bit word, taken by exchange with 1, released by
// exchange with 0. Every pool has its own.
// ---------------------------------------------------------------------------

struct jos_spin_t {
    std::atomic<uint32_t> word{0};
    void lock() {
        while (word.exchange(1, std::memory_order_acquire) != 0)
            while (word.load(std::memory_order_relaxed) != 0) {
            }
    }
    void unlock() { word.exchange(0, std::memory_order_release); }
};

// Exit flag, set by SIGINT/SIGTERM/SIGUSR1/SIGUSR2 only.
extern volatile std::sig_atomic_t _jos_exitflag;

// Physical memory through /dev/mem (read-write and read-only).
void* jos_mmap(long phys, size_t len);
void* jos_mmapro(long phys, size_t len);
