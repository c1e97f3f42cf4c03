// Game acceleration nodes: the latest report of every node, kept in memory
// only, listed and removed for the console. Reports arrive as "gamecloud_stat"
// texts on the device socket.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "cloud.h"
#include "common.h"
#include "ipe_pool.h"
#include "ipe_string.h"
#include "jos_cmds.h"
#include "metrics.h"

namespace {

struct gamecloud_t {
    char license_id12[16];
    char name[64];
    uint8_t enable;
    uint16_t grpid;
    uint32_t actime;
    uint32_t startm;
    uint32_t endtm;
    char l2tp_state[16];
    char inbps[8];
    char outbps[8];
    uint32_t ipcnt;
    uint32_t license_ipcnt;
    uint32_t maxipcnt;  // highest ipcnt while the node stays known
    uint32_t delay_cur;
    uint32_t delay_min;
    uint32_t delay_max;
    uint16_t waitime_left;
    char state[16];
    gamecloud_t* next;
};

constexpr size_t GAMECLOUD_POOL_SIZE = 2000;
// Every record under the pool's lock, the listing included (it copies).
ipe_pool<gamecloud_t, GAMECLOUD_POOL_SIZE, 128, &gamecloud_t::license_id12> _gc;

int gc_cmp(const gamecloud_t& x, const gamecloud_t& y, long key)
{
    auto num = [](uint32_t a, uint32_t b) { return a < b ? -1 : a > b ? 1 : 0; };
    switch (key) {
    case 1: return std::strcmp(x.license_id12, y.license_id12);
    case 2: return num(x.actime, y.actime);
    case 3: return num(x.ipcnt, y.ipcnt);
    case 4: return num(x.delay_cur, y.delay_cur);
    case 7: return std::strcmp(x.name, y.name);
    default: return 0;  // other keys leave the order as it is
    }
}

void gamecloud_list(jos_cmdarg_t* ca, const jos_cmd_args& a)
{
    const long page = std::clamp(a.num("page", 1), -2147483647L, 2147483647L);
    const long limit = std::clamp(a.num("limit", 20), -2147483647L, 2147483647L);
    const long sortname = a.num("sortname");
    const bool desc = a.num("sortdesc") != 0;
    const bool bygrp = a.has("grpid");
    const long grpid = a.num("grpid");
    const std::string sch = a.str("sch");
    std::vector<long> grps;
    std::string ug = a.str("usergrp");
    if (!ug.empty() && ug[0] != '0')
        for (size_t pos = 0; pos < ug.size() && grps.size() < 50;) {
            size_t end = ug.find(',', pos);
            if (end == std::string::npos)
                end = ug.size();
            grps.push_back(std::strtol(ug.substr(pos, end - pos).c_str(), nullptr, 10));
            pos = end + 1;
        }

    std::vector<gamecloud_t> nodes;
    int total;
    _gc.mtx.lock();
    _gc.each([&](const gamecloud_t* r) { nodes.push_back(*r); });
    total = static_cast<int>(_gc.count());
    _gc.mtx.unlock();

    // The exchange sort: every node against every later one.
    if (sortname != 0)
        for (size_t i = 0; i < nodes.size(); i++)
            for (size_t j = i + 1; j < nodes.size(); j++) {
                int c = gc_cmp(nodes[i], nodes[j], sortname);
                if (desc ? c < 0 : c > 0)
                    std::swap(nodes[i], nodes[j]);
            }

    const long long first = (static_cast<long long>(page) - 1) * limit;
    long long pos = 0;
    for (const gamecloud_t& r : nodes) {
        if (bygrp && r.grpid != grpid)
            continue;
        if (!grps.empty() && std::find(grps.begin(), grps.end(), r.grpid) == grps.end())
            continue;
        if (!sch.empty()) {
            char low[sizeof(r.name)];
            if (std::strstr(mystrtolower(r.license_id12, low, sizeof(low) - 1), sch.c_str()) == nullptr &&
                std::strstr(mystrtolower(r.name, low, sizeof(low) - 1), sch.c_str()) == nullptr)
                continue;
        }
        if (pos >= first && pos < first + limit)
            jos_cmd_printrow(ca, ' ', "%s %d %d %s %s %u %u %s %s %u %u %u %u %u %u %s %d %u \n", r.license_id12,
                             int(r.grpid), int(r.enable), r.l2tp_state, r.name, r.startm, r.endtm, r.inbps, r.outbps,
                             r.actime, r.ipcnt, r.license_ipcnt, r.delay_cur, r.delay_min, r.delay_max, r.state,
                             int(r.waitime_left), r.maxipcnt);
        pos++;
    }
    // No node ever counts as failed here.
    jos_cmd_printf(ca, "total=%d\n", total);
    jos_cmd_printf(ca, "fail=%d\n", 0);
}

int gamecloud_ioctl(jos_cmdarg_t* ca)
{
    if (ca->ca_cmd == JOS_CMD_EXIT)
        return 0;
    const jos_cmd_args a(ca);
    switch (ca->ca_cmd) {
    case JOS_CMD_STAT:
    case JOS_CMD_SET:
        break;
    case JOS_CMD_REMOVE: {
        if (!a.has("license_id12")) {
            jos_cmd_printf(ca, "Invalid value\n");
            break;
        }
        std::string id = a.str("license_id12", 15);
        _gc.mtx.lock();
        if (gamecloud_t* r = _gc.unlink(id.c_str()))
            _gc.release(r);
        _gc.mtx.unlock();
        jos_cmd_printf(ca, "ok");
        break;
    }
    case JOS_CMD_LIST:
        gamecloud_list(ca, a);
        break;
    default:
        return jos_cmd_notsupported(ca);
    }
    return jos_cmd_endreply(ca);
}

// Nodes known, and those whose state came within a gateway's silence limit.
void gamecloud_counts(size_t* known, size_t* online)
{
    const uint32_t now = now32();
    size_t silent = 0;
    _gc.mtx.lock();
    if (_gc.first() != nullptr)
        _gc.each([&](const gamecloud_t* r) { silent += r->actime + 60 < now; });
    *known = _gc.count();
    _gc.mtx.unlock();
    *online = *known - silent;
}

int gamecloud_minit(jos_kernel_t*)
{
    met_appliances("GAME", gamecloud_counts);
    return _gc.first() != nullptr ? 0 : _gc.init();
}

void gamecloud_mfini(jos_kernel_t*) {}

}  // namespace

void gamecloud_main(const char* text)
{
    gamecloud_t in{};
    unsigned enable = 0;
    ipe_eachword(text, [&](const char* k, const char* v) {
        const unsigned n = static_cast<unsigned>(std::atoi(v));
        if (std::strcmp(k, "license_id12") == 0) ipe_fieldcpy(in.license_id12, v, 15);
        else if (std::strcmp(k, "enable") == 0) enable = n;
        else if (std::strcmp(k, "startm") == 0) in.startm = n;
        else if (std::strcmp(k, "endtm") == 0) in.endtm = n;
        else if (std::strcmp(k, "l2tp_state") == 0) ipe_fieldcpy(in.l2tp_state, v, 15);
        else if (std::strcmp(k, "inbps") == 0) ipe_fieldcpy(in.inbps, v, 7);
        else if (std::strcmp(k, "outbps") == 0) ipe_fieldcpy(in.outbps, v, 7);
        else if (std::strcmp(k, "ipcnt") == 0) in.ipcnt = n;
        else if (std::strcmp(k, "license_ipcnt") == 0) in.license_ipcnt = n;
        else if (std::strcmp(k, "delay_cur") == 0) in.delay_cur = n;
        else if (std::strcmp(k, "delay_min") == 0) in.delay_min = n;
        else if (std::strcmp(k, "delay_max") == 0) in.delay_max = n;
        else if (std::strcmp(k, "state") == 0) ipe_fieldcpy(in.state, v, 14);
        else if (std::strcmp(k, "waitime_left") == 0) in.waitime_left = static_cast<uint16_t>(n);
    });
    if (enable > 1 || in.license_id12[0] == '\0' || _gc.first() == nullptr)
        return;
    in.enable = static_cast<uint8_t>(enable);
    char name[64];
    _devpool.mtx.lock();
    device_getsysname(in.license_id12, name, sizeof(name), &in.grpid);
    _devpool.mtx.unlock();
    ipe_fieldcpy(in.name, name);
    in.actime = now32();

    _gc.mtx.lock();
    gamecloud_t* r = _gc.find(in.license_id12);
    if (r == nullptr) {
        r = _gc.alloc();
        if (r == nullptr) {
            _gc.mtx.unlock();
            return;
        }
        in.maxipcnt = in.ipcnt;
        in.next = nullptr;
        *r = in;
        _gc.link(r);
    } else {
        gamecloud_t* next = r->next;
        const uint32_t maxip = std::max(r->maxipcnt, in.ipcnt);
        *r = in;
        r->next = next;
        r->maxipcnt = maxip;
    }
    _gc.mtx.unlock();
}

jos_module_t gamecloud_module = {"gamecloud", 0x09000000, -1, gamecloud_minit, gamecloud_mfini, gamecloud_ioctl,
                                 nullptr};
