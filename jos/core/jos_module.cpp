// Module registry: builds the chain from the module table, starts modules in
// ascending level, stops them in reverse, and keeps the module watchers.
#include <sys/utsname.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "jos.h"
#include "jos_cmds.h"
#include "jos_config.h"
#include "jos_delaymb.h"
#include "jos_object.h"
#include "jos_thread.h"
#include "jos_timer.h"

static jos_module_t* _mod_head;
static jos_modnotify_t* _notify_head;
static jos_modnotify_t* _notify_tail;

jos_kernel_t _jos_kernel = {
    0x60F0, 1, 0, 0, 0, 0, 0, 0, 4096, 0, 65536, 4096, 0, nullptr, &_jos_kfntable,
};

int jos_getrel()
{
    return 1;
}

kfn_table_t _jos_kfntable = {
    module_register,
    module_unregister,
    module_list,
    module_find,
    notify_load,
    notify_unload,
    std::malloc,
    std::free,
    timer_load,
    timer_unload,
    jos_thread_register,
    jos_cfg_setdirty,
    jos_cfg_cleardirty,
    jos_cfg_root,
    jos_cmd_register,
    jos_cmd_unregister,
    objclass_load,
    objclass_unload,
    objnotify_load,
    objnotify_unload,
    object_notify,
    object_findclass,
    nullptr,
    nullptr,
    nullptr,
    jos_dmbdrop,
    jos_getrel,
};

jos_module_t* module_list()
{
    return _mod_head;
}

jos_module_t* module_find(const char* name)
{
    if (name == nullptr)
        return nullptr;
    for (jos_module_t* m = _mod_head; m != nullptr; m = m->next)
        if (std::strcmp(m->name, name) == 0)
            return m;
    return nullptr;
}

// Fails when the record or its name is already chained, or it has no init.
static int module_insert(jos_module_t* mod)
{
    if (mod->init == nullptr)
        return -1;
    for (jos_module_t* m = _mod_head; m != nullptr; m = m->next)
        if (m == mod || std::strcmp(m->name, mod->name) == 0)
            return -1;
    jos_module_t** pp = &_mod_head;
    while (*pp != nullptr && (*pp)->level <= mod->level)
        pp = &(*pp)->next;
    mod->next = *pp;
    *pp = mod;
    return 0;
}

static void module_reverse()
{
    jos_module_t* prev = nullptr;
    jos_module_t* m = _mod_head;
    while (m != nullptr) {
        jos_module_t* next = m->next;
        m->next = prev;
        prev = m;
        m = next;
    }
    _mod_head = prev;
}

// Calls fini of every loaded module, highest level first; the chain order is
// restored afterwards. Status is left as it is.
static void module_finiall()
{
    module_reverse();
    for (jos_module_t* m = _mod_head; m != nullptr; m = m->next)
        if (m->fini != nullptr && m->status == 0)
            m->fini(&_jos_kernel);
    module_reverse();
}

void module_notify(jos_module_t* mod, int event)
{
    for (jos_modnotify_t* w = _notify_head; w != nullptr; w = w->next)
        if (std::strcmp(w->modname, mod->name) == 0)
            w->notify(event, mod);
}

int module_register(jos_module_t* mod)
{
    if (module_insert(mod) != 0)
        return -1;
    module_notify(mod, 1);
    return 0;
}

int module_unregister(jos_module_t* mod)
{
    for (jos_module_t** pp = &_mod_head; *pp != nullptr; pp = &(*pp)->next) {
        if (*pp != mod)
            continue;
        *pp = mod->next;
        mod->next = nullptr;
        // Unloading notifies the watchers by their own name, not by the
        // watched module's name; loading does the opposite.
        for (jos_modnotify_t* w = _notify_head; w != nullptr; w = w->next)
            if (std::strcmp(w->name, mod->name) == 0)
                w->notify(2, mod);
        break;
    }
    return 0;
}

void module_notifyexit()
{
    jos_cmdarg_t ca{};
    module_reverse();
    for (jos_module_t* m = _mod_head; m != nullptr; m = m->next) {
        if (m->ioctl == nullptr)
            continue;
        ca = jos_cmdarg_t{};
        ca.ca_cmd = JOS_CMD_EXIT;
        m->ioctl(&ca);
    }
    module_reverse();
}

static jos_ptru32_t module_getslot(jos_module_t* mod, int cmd, const char* var)
{
    jos_cmdarg_t ca{};
    if (mod == nullptr || mod->ioctl == nullptr)
        return ca.ca_ptru32;
    ca.ca_cmd = cmd;
    std::snprintf(ca.ca_errmsg, sizeof(ca.ca_errmsg), "%s", var);
    ca.ca_ptru32.ptr = nullptr;
    if (mod->ioctl(&ca) != 0)
        ca.ca_ptru32.ptr = nullptr;
    return ca.ca_ptru32;
}

uint32_t module_getvar(jos_module_t* mod, const char* var)
{
    return module_getslot(mod, JOS_CMD_GETVAR, var).u32;
}

void* module_getptr(jos_module_t* mod, const char* var)
{
    return module_getslot(mod, JOS_CMD_GETPTR, var).ptr;
}

void notify_load(jos_modnotify_t* w)
{
    w->next = nullptr;
    if (_notify_tail != nullptr)
        _notify_tail->next = w;
    else
        _notify_head = w;
    _notify_tail = w;
}

void notify_unload(jos_modnotify_t* w)
{
    jos_modnotify_t* prev = nullptr;
    for (jos_modnotify_t* p = _notify_head; p != nullptr; prev = p, p = p->next) {
        if (p != w)
            continue;
        if (prev != nullptr)
            prev->next = p->next;
        else
            _notify_head = p->next;
        if (_notify_tail == p)
            _notify_tail = prev;
        p->next = nullptr;
        return;
    }
}

// 387: one line per module in chain order. The zero flag on %p is part of
// the reply format.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat"
static void module_cmd_list(jos_cmdarg_t* ca)
{
    for (jos_module_t* m = _mod_head; m != nullptr; m = m->next)
        jos_cmd_printf(ca, "%-12s %-2d %08x %08p %08p %08p\n", m->name, m->status, m->level,
                       reinterpret_cast<void*>(m->init), reinterpret_cast<void*>(m->fini),
                       reinterpret_cast<void*>(m->ioctl));
    ca->ca_rlen = ca->ca_pos;
}
#pragma GCC diagnostic pop

// 388 name=MODULE: the statistics request to every module of that name.
static void module_cmd_stat(jos_cmdarg_t* ca)
{
    char* value = nullptr;
    char* cursor = nullptr;
    char* name = nullptr;
    for (char* tag = jos_cmd_nextarg(ca->ca_arg, &value, &cursor); tag != nullptr;
         tag = jos_cmd_nextarg(cursor, &value, &cursor)) {
        if (std::strcmp(tag, "name") == 0) {
            name = value;
            break;
        }
    }
    if (name == nullptr || *name == '\0') {
        ca->ca_errno = 22;
        std::snprintf(ca->ca_errmsg, sizeof(ca->ca_errmsg), "NO_MODULE");
        return;
    }
    ca->ca_cmd = JOS_CMD_STAT;
    for (jos_module_t* m = _mod_head; m != nullptr; m = m->next)
        if (m->ioctl != nullptr && std::strcmp(m->name, name) == 0)
            m->ioctl(ca);
    ca->ca_rlen = ca->ca_pos;
}

// The OS release is read as "M.m...": the first and third characters. A
// two-digit major release therefore yields a wrong minor; that is kept.
static int module_readrelease()
{
    struct utsname u;
    if (uname(&u) != 0) {
        std::printf("fail to get kern.osrelease: %d\n", errno);
        return -1;
    }
    char rel[128] = {};
    std::snprintf(rel, sizeof(rel), "%s", u.release);
    _jos_kernel.bsd_major = static_cast<uint8_t>(rel[0] - '0');
    _jos_kernel.bsd_minor = static_cast<uint8_t>(rel[2] - '0');
    return 0;
}

int module_minit(jos_module_t* const* table, size_t count)
{
    if (module_readrelease() != 0)
        return -1;
    _notify_head = _notify_tail = nullptr;
    _mod_head = nullptr;
    for (size_t i = 0; i < count; i++) {
        table[i]->next = nullptr;
        if (module_insert(table[i]) != 0) {
            std::printf("PANIC: fail to add module \"%s\"\n", table[i]->name ? table[i]->name : "");
            return -1;
        }
    }
    for (jos_module_t* m = _mod_head; m != nullptr; m = m->next)
        m->status = -1;
    for (jos_module_t* m = _mod_head; m != nullptr; m = m->next) {
        if (m->init(&_jos_kernel) != 0) {
            std::printf("PANIC: fail to load module \"%s\"\n", m->name);
            module_finiall();
            return -1;
        }
        m->status = 0;
        module_notify(m, 1);
    }
    jos_cmd_register(JOS_CMD_MODLIST, module_cmd_list);
    jos_cmd_register(JOS_CMD_MODSTAT, module_cmd_stat);
    if (jos_hasroot())
        jos_cmd_register(JOS_CMD_CLOCKSTEP, jos_cmd_clockstep);
    return 0;
}

void module_mfini()
{
    module_finiall();
}
