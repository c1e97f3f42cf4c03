// User application distribution: the operator publishes a list of user
// application groups or applications (usragp.txt under the package folder)
// for a set of gateways; the "usragp" thread lets at most five fetch it at
// once, each told by the device protocol at its next report; the gateways'
// answers close their entries. The groups and applications gateways report
// are kept in two rings of 2000 entries.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <string>
#include <vector>

#include "cloud.h"
#include "ipe_string.h"
#include "jos_cmds.h"
#include "jos_thread.h"

namespace {

struct usragpdevice_status_t {
    char license_id12[16];
    uint32_t boottime;
    int status;  // 0 waiting, 1 in progress, 2 done, 3 failed
    char error[128];
};

struct usragpinfo_t {
    char license_id12[16];
    char cname[512];
    char name[512];
    usragpinfo_t* next;
};

struct usrappinfo_t {
    char license_id12[16];
    char cname[32];
    char name[32];
    uint16_t nodettl;
    char tports[128];
    char uports[128];
    usrappinfo_t* next;
};

constexpr size_t USRAGP_SIZE = 2000;
constexpr int kInProgress = 5;
constexpr uint32_t kTimeout = 15;

// A ring of N entries: a new record overwrites the entry at the cursor,
// which then moves on; after N records the oldest entry is overwritten,
// in use or not. Deliberate.
template <typename T>
struct ring {
    std::vector<T> e = std::vector<T>(USRAGP_SIZE);
    size_t cursor = 0;
    T* take()
    {
        T* r = &e[cursor];
        cursor = (cursor + 1) % e.size();
        *r = T{};
        return r;
    }
};

// All three tables and both counts, under one lock.
std::mutex _mtx;
std::vector<usragpdevice_status_t> _devs(USRAGP_SIZE);
int _device_count;
int _syn_curr_cnt;
ring<usragpinfo_t> _agp;
ring<usrappinfo_t> _app;

// Sets or clears the "fetch the list" notice of a gateway in the registry.
void notice(const char* id, bool on)
{
    _devpool.mtx.lock();
    if (devlist_t* d = device_find(id))
        d->task_sta.x.usragp_syn = on ? 1 : 0;
    _devpool.mtx.unlock();
}

// The pacing thread: time-outs first, then starts while fewer than five
// are in progress.
void usragp_idle(jos_thread_t* td)
{
    {
        std::lock_guard lk(_mtx);
        _syn_curr_cnt = 0;
    }
    while (!td->td_notifyexit) {
        std::vector<std::pair<std::string, bool>> notices;
        {
            std::lock_guard lk(_mtx);
            const uint32_t now = now32();
            for (int i = 0; i < _device_count; i++) {
                usragpdevice_status_t& e = _devs[static_cast<size_t>(i)];
                if (e.status == 1 && now - e.boottime >= kTimeout) {
                    e.status = 3;
                    std::snprintf(e.error, sizeof(e.error), "ERR_TIMEOUT");
                    _syn_curr_cnt--;
                    notices.emplace_back(e.license_id12, false);
                }
                if (e.status == 0 && _syn_curr_cnt <= kInProgress - 1) {
                    _syn_curr_cnt++;
                    e.status = 1;
                    e.boottime = now;
                    notices.emplace_back(e.license_id12, true);
                }
            }
        }
        bool busy;
        {
            std::lock_guard lk(_mtx);
            busy = false;
            for (int i = 0; i < _device_count && !busy; i++)
                busy = _devs[static_cast<size_t>(i)].status <= 1;
        }
        for (const auto& [id, on] : notices)
            notice(id.c_str(), on);
        // Every 100 ms while a distribution runs, else once a second.
        jos_thread_wait(td, -1, busy ? 100 : 1000);
    }
}

// Splits a ';'-separated list.
std::vector<std::string> items(const std::string& list)
{
    std::vector<std::string> out;
    for (size_t pos = 0; pos < list.size();) {
        size_t end = list.find(';', pos);
        if (end == std::string::npos)
            end = list.size();
        if (end > pos)
            out.push_back(list.substr(pos, end - pos));
        pos = end + 1;
    }
    return out;
}

// The published list, written to a temporary name and renamed.
void write_list(const char* kind, const std::vector<std::string>& names)
{
    const std::string path = jos_path("/usr/logd/www/vtupbags/usragp.txt");
    const std::string part = path + ".new";
    FILE* f = std::fopen(part.c_str(), "we");
    if (f == nullptr)
        return;
    for (const std::string& n : names)
        std::fprintf(f, "%s %s\n", kind, n.c_str());
    bool ok = std::ferror(f) == 0;
    ok = std::fclose(f) == 0 && ok;
    if (!ok || std::rename(part.c_str(), path.c_str()) != 0)
        std::remove(part.c_str());
}

void usragp_distribute(jos_cmdarg_t* ca, const jos_cmd_args& a)
{
    const std::string device = a.str("device"), agp = a.str("agp_name"), app = a.str("app");
    if (device.empty() || (agp.empty() && app.empty())) {
        jos_cmd_printf(ca, "ERR_DEVICE\n");
        return;
    }
    std::vector<std::string> ids = items(device);
    if (ids.size() > USRAGP_SIZE) {
        std::printf("usragp: %zu devices in one distribution, the first %zu taken\n", ids.size(), USRAGP_SIZE);
        ids.resize(USRAGP_SIZE);
    }
    std::lock_guard lk(_mtx);
    _syn_curr_cnt = 0;
    _device_count = 0;
    std::fill(_devs.begin(), _devs.end(), usragpdevice_status_t{});
    for (const std::string& id : ids)
        ipe_fieldcpy(_devs[static_cast<size_t>(_device_count++)].license_id12, id.c_str(), 14);
    // Applications, when given, replace the groups.
    if (!app.empty())
        write_list("app", items(app));
    else
        write_list("agp", items(agp));
}

void usragp_show(jos_cmdarg_t* ca, const jos_cmd_args& a)
{
    if (a.num("showdevice") != 0) {
        std::vector<usragpdevice_status_t> devs;
        {
            std::lock_guard lk(_mtx);
            devs.assign(_devs.begin(), _devs.begin() + _device_count);
        }
        for (const usragpdevice_status_t& e : devs) {
            std::string name;
            bool known = false;
            _devpool.mtx.lock();
            if (const devlist_t* d = device_find(e.license_id12)) {
                known = true;
                name = device_name(d);
            }
            _devpool.mtx.unlock();
            if (known)
                jos_cmd_printrow(ca, ' ', "%s %d %s %s\n", e.license_id12, e.status, name.c_str(), e.error);
        }
        return;
    }
    const std::string id = a.str("license_id12");
    if (id.empty()) {
        jos_cmd_printf(ca, "ERR_LICID12_2");
        return;
    }
    std::lock_guard lk(_mtx);
    if (a.num("showapp") != 0) {
        for (const usrappinfo_t& e : _app.e)
            if (id == e.license_id12)
                jos_cmd_printrow(ca, ' ', "%s %s %s %u %s %s\n", e.license_id12, e.name, e.cname, unsigned(e.nodettl),
                                 e.tports, e.uports);
    } else {
        for (const usragpinfo_t& e : _agp.e)
            if (id == e.license_id12)
                jos_cmd_printrow(ca, ' ', "%s %s %s\n", e.license_id12, e.cname, e.name);
    }
}

void usragp_refresh(jos_cmdarg_t* ca, const jos_cmd_args& a)
{
    const std::string id = a.str("license_id12");
    if (id.empty()) {
        jos_cmd_printf(ca, "ERR_LICID12_1");
        return;
    }
    {
        std::lock_guard lk(_mtx);
        for (usragpinfo_t& e : _agp.e)
            if (id == e.license_id12)
                e = usragpinfo_t{};
        for (usrappinfo_t& e : _app.e)
            if (id == e.license_id12)
                e = usrappinfo_t{};
    }
    uint32_t ip = 0;
    uint16_t port = 0;
    bool known = false;
    _devpool.mtx.lock();
    if (const devlist_t* d = device_find(id.c_str())) {
        known = true;
        ip = d->outip;
        port = d->outport;
    }
    _devpool.mtx.unlock();
    if (!known) {
        jos_cmd_printf(ca, "ERR_NOOBJECT");
        return;
    }
    char text[128];
    std::snprintf(text, sizeof(text), "tag=%s licid12=%s", "usragp_request", id.c_str());
    jos_cmd_printf(ca, cloud_sendarg(ip, port, text) == 0 ? "ok" : "ERR_SEND");
}

int usragp_ioctl(jos_cmdarg_t* ca)
{
    if (ca->ca_cmd == JOS_CMD_EXIT)
        return 0;
    const jos_cmd_args a(ca);
    switch (ca->ca_cmd) {
    case JOS_CMD_STAT: {
        int cur, count;
        {
            std::lock_guard lk(_mtx);
            cur = _syn_curr_cnt;
            count = _device_count;
        }
        jos_cmd_printf(ca, "syn_curr_cnt=%d\n", cur);
        jos_cmd_printf(ca, "device_count=%d\n", count);
        break;
    }
    case JOS_CMD_REMOVE:
    case JOS_CMD_SET:
    case 2057:
        break;
    case JOS_CMD_LIST:
        usragp_show(ca, a);
        break;
    case 2056:
        usragp_distribute(ca, a);
        break;
    case 2058:
        usragp_refresh(ca, a);
        break;
    default:
        return jos_cmd_notsupported(ca);
    }
    return jos_cmd_endreply(ca);
}

int usragp_minit(jos_kernel_t*)
{
    std::error_code ec;
    std::filesystem::create_directories(jos_path("/usr/logd/www/vtupbags"), ec);
    if (jos_thread_register("usragp", 1, usragp_idle) == nullptr) {
        std::puts("fail to register usragp thread!");
        return -1;
    }
    return 0;
}

}  // namespace

void usragp_recv(const char* text)
{
    if (std::strstr(text, "return") != nullptr)
        return;
    std::string tag, id, cname, name, uports, tports, nodettl, error;
    bool has_cname = false, has_name = false, has_uports = false, has_tports = false, has_error = false;
    ipe_eachword(text, [&](const char* k, const char* v) {
        if (std::strcmp(k, "tag") == 0) tag = v;
        else if (std::strcmp(k, "license_id12") == 0) id = v;
        else if (std::strcmp(k, "cname") == 0) cname = v, has_cname = true;
        else if (std::strcmp(k, "name") == 0) name = v, has_name = true;
        else if (std::strcmp(k, "uports") == 0) uports = v, has_uports = true;
        else if (std::strcmp(k, "tports") == 0) tports = v, has_tports = true;
        else if (std::strcmp(k, "nodettl") == 0) nodettl = v;
        else if (std::strcmp(k, "error") == 0) error = v, has_error = true;
    });
    if (id.empty())
        return;
    std::lock_guard lk(_mtx);
    if (tag == "usrapp_request") {
        if (!has_name || !has_cname || !has_tports || !has_uports)
            return;
        usrappinfo_t* e = nullptr;
        for (usrappinfo_t& x : _app.e)
            if (id == x.license_id12 && name == x.name && e == nullptr)
                e = &x;
        if (e == nullptr) {
            e = _app.take();
            ipe_fieldcpy(e->license_id12, id.c_str());
            ipe_fieldcpy(e->cname, cname.c_str());
            ipe_fieldcpy(e->name, name.c_str());
        }
        e->nodettl = static_cast<uint16_t>(std::atoi(nodettl.c_str()));
        ipe_fieldcpy(e->tports, tports.c_str(), 126);
        ipe_fieldcpy(e->uports, uports.c_str(), 126);
        return;
    }
    if (has_error) {
        for (int i = 0; i < _device_count; i++) {
            usragpdevice_status_t& e = _devs[static_cast<size_t>(i)];
            if (id != e.license_id12)
                continue;
            if (error.rfind("OK", 0) == 0 || error.rfind("NO", 0) == 0) {
                e.status = error[0] == 'O' ? 2 : 3;
                _syn_curr_cnt--;
            }
            ipe_fieldcpy(e.error, error.c_str(), 126);
            return;
        }
        return;
    }
    if (!has_cname || !has_name)
        return;
    for (const usragpinfo_t& x : _agp.e)
        if (id == x.license_id12 && cname == x.cname)
            return;
    usragpinfo_t* e = _agp.take();
    ipe_fieldcpy(e->license_id12, id.c_str());
    ipe_fieldcpy(e->cname, cname.c_str());
    ipe_fieldcpy(e->name, name.c_str());
}

jos_module_t usragp_module = {"usragp", 0x09000000, -1, usragp_minit, nullptr, usragp_ioctl, nullptr};
