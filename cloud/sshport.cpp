// SSH tunnels that gateways open towards the server: the table of those
// they report, close requests, and the ageing that asks a tunnel to close
// at 30 minutes (or one minute without a refresh) and forgets it at 31.
#include "sshport.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "cloudconf.h"
#include "ipe_string.h"
#include "jos_cmds.h"
#include "jos_thread.h"

namespace {

constexpr uint32_t kStale = 60;     // seconds without a refresh
constexpr uint32_t kOld = 1800;     // close requests from this age on
constexpr uint32_t kForget = 1860;  // freed at this age, whatever the gateway says
constexpr int kPassTicks = 150;     // 100 ms ticks between passes

// All records under the pool's lock, by every thread.
sshport_pool_t _sp;
int _sshport_count;  // tunnels added since start; never lowered

sshport_t* sp_find(const char* id, int bigport, int minport)
{
    return _sp.find_if(id, [&](const sshport_t* r) { return r->bigport == bigport && r->minport == minport; });
}

void sp_update(const char* id, const char* portinfo)
{
    // BIGPORT:CLIIP:MINPORT; further fields are ignored.
    std::string v = portinfo;
    std::string f[3];
    for (int i = 0, at = 0; i < 3 && at <= static_cast<int>(v.size()); i++) {
        size_t colon = v.find(':', static_cast<size_t>(at));
        f[i] = v.substr(static_cast<size_t>(at), colon == std::string::npos ? std::string::npos : colon - at);
        if (colon == std::string::npos)
            break;
        at = static_cast<int>(colon) + 1;
    }
    const uint16_t big = static_cast<uint16_t>(std::atoi(f[0].c_str()));
    const uint16_t min = static_cast<uint16_t>(std::atoi(f[2].c_str()));
    char name[128];
    uint16_t grp = 0;
    _devpool.mtx.lock();
    device_getsysname(id, name, sizeof(name), &grp);
    _devpool.mtx.unlock();

    const uint32_t now = now32();
    _sp.mtx.lock();
    sshport_t* r = sp_find(id, big, min);
    if (r == nullptr) {
        r = _sp.alloc();
        if (r != nullptr) {
            ipe_fieldcpy(r->license_id12, id);
            r->borntime = now;
            r->bigport = big;
            r->minport = min;
            _sp.link(r);
            _sshport_count++;
        }
    }
    if (r != nullptr) {
        r->uptime = now;
        ipe_fieldcpy(r->cliip, f[1].c_str());
        ipe_fieldcpy(r->sysname, name);
        r->grpid = grp;
    }
    _sp.mtx.unlock();
}

void sshport_release(const char* id, int bigport, int minport)
{
    _sp.mtx.lock();
    if (sshport_t* r = sp_find(id, bigport, minport)) {
        _sp.unlink_record(r);
        _sp.release(r);
    }
    _sp.mtx.unlock();
}

// Asks the gateway to close the tunnel. The caller holds nothing.
void sp_send(const sshport_t& t)
{
    uint32_t ip = 0;
    uint16_t port = 0;
    bool known = false;
    _devpool.mtx.lock();
    if (const devlist_t* d = device_find(t.license_id12)) {
        known = true;
        ip = d->outip;
        port = d->outport;
    }
    _devpool.mtx.unlock();
    if (!known)
        return;
    char text[512];
    std::snprintf(text, sizeof(text), "tag=%s license_id12=%s cliip=%s bigport=%d minport=%d", "sshportkill",
                  t.license_id12, t.cliip, int(t.bigport), int(t.minport));
    if (cloud_sendarg(ip, port, text) != 0)
        perror("send");
}

// One ageing pass: decisions under the lock, close requests after it.
void sp_pass(jos_thread_t* td)
{
    std::vector<sshport_t> close;
    _sp.mtx.lock();
    for (size_t i = 0; i < SSHPORT_POOL_SIZE && !td->td_notifyexit; i++) {
        sshport_t* r = _sp.slot(i);
        if (!sshport_pool_t::inuse(r))
            continue;
        const uint32_t now = now32();
        if (now - r->uptime >= kStale || now - r->borntime >= kOld)
            close.push_back(*r);
        if (now - r->borntime >= kForget) {
            _sp.unlink_record(r);
            _sp.release(r);
        }
    }
    _sp.mtx.unlock();
    for (const sshport_t& t : close)
        sp_send(t);
}

// Ticks of 100 ms (sshidle_turn_ms= in /etc/cloud.conf shortens them for
// tests), a pass every 150th.
void sshidle(jos_thread_t* td)
{
    const int turn = std::clamp(cloudconf_int("sshidle_turn_ms", 100), 1, 1000);
    // The whole interval at once (a stop still wakes the thread).
    while (!td->td_notifyexit) {
        jos_thread_wait(td, -1, turn * kPassTicks);
        if (!td->td_notifyexit)
            sp_pass(td);
    }
}

int sp_ioctl(jos_cmdarg_t* ca)
{
    if (ca->ca_cmd == JOS_CMD_EXIT)
        return 0;
    const jos_cmd_args a(ca);
    switch (ca->ca_cmd) {
    case JOS_CMD_REMOVE: {
        std::string id = a.str("license_id12", 15);
        sshport_t t{};
        bool found = false;
        _sp.mtx.lock();
        if (const sshport_t* r = sp_find(id.c_str(), int(a.num("bigport")), int(a.num("minport")))) {
            t = *r;
            found = true;
        }
        _sp.mtx.unlock();
        if (found)
            sp_send(t);
        jos_cmd_printf(ca, "ok");
        break;
    }
    case JOS_CMD_LIST: {
        int grps[32];
        int n = usergrp_toarray(a.str("usergrp").c_str(), grps, 32);
        std::vector<sshport_t> rows;
        _sp.mtx.lock();
        _sp.each([&](const sshport_t* r) {
            bool in = n == 0;
            for (int i = 0; i < n && !in; i++)
                in = grps[i] == r->grpid;
            if (in)
                rows.push_back(*r);
        });
        _sp.mtx.unlock();
        for (const sshport_t& r : rows)
            jos_cmd_printrow(ca, ' ', "%s %s %d %d %d %s %u %u\n", r.license_id12, r.sysname, int(r.grpid),
                             int(r.bigport), int(r.minport), r.cliip, r.borntime, r.uptime);
        break;
    }
    default:
        return jos_cmd_notsupported(ca);
    }
    return jos_cmd_endreply(ca);
}

int sp_minit(jos_kernel_t*)
{
    // A failed allocation leaves the module without records; the thread
    // still starts.
    if (_sp.first() == nullptr && _sp.init() != 0)
        std::printf("%s: malloc error\n", "sp_minit");
    if (jos_thread_register("sshidle", 1, sshidle) == nullptr) {
        std::puts("fail to register sshidle hread!");
        return -1;
    }
    return 0;
}

void sp_mfinit(jos_kernel_t*) {}

}  // namespace

int usergrp_toarray(const char* text, int* out, int max)
{
    if (text == nullptr || text[0] == '\0' || text[0] == '0')
        return 0;
    int n = 0;
    std::string list = text;
    for (size_t pos = 0; pos <= list.size() && n < max;) {
        size_t end = list.find(',', pos);
        if (end == std::string::npos)
            end = list.size();
        out[n++] = std::atoi(list.substr(pos, end - pos).c_str());
        pos = end + 1;
    }
    return n;
}

void sshport_handle(const char* body)
{
    if (_sp.first() == nullptr)
        return;
    char id[16] = "";
    ipe_eachword(body, [&](const char* k, const char* v) {
        if (std::strcmp(k, "license_id12") == 0)
            ipe_fieldcpy(id, v, 15);
        else if (std::strcmp(k, "portinfo") == 0 && id[0] != '\0')
            sp_update(id, v);
    });
}

void sshport_remove(const char* body)
{
    if (_sp.first() == nullptr)
        return;
    char id[16] = "";
    int big = 0, min = 0;
    ipe_eachword(body, [&](const char* k, const char* v) {
        if (std::strcmp(k, "license_id12") == 0)
            ipe_fieldcpy(id, v, 15);
        else if (std::strcmp(k, "bigport") == 0)
            big = std::atoi(v);
        else if (std::strcmp(k, "minport") == 0)
            min = std::atoi(v);
    });
    if (id[0] != '\0')
        sshport_release(id, big, min);
}

jos_module_t sshport_module = {"sshport", 0x09000000, -1, sp_minit, sp_mfinit, sp_ioctl, nullptr};
