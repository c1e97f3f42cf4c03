#include "fuzz_common.h"

#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <new>
#include <sstream>

#include "cloud.h"
#include "db_writer.h"
#include "jos.h"
#include "jos_timer.h"
#include "wxcmd.h"

namespace fs = std::filesystem;

namespace fuzz {

namespace {

std::string _root;
// Inputs since the notice spool was last emptied.
unsigned _notices;

void remove_root()
{
    std::error_code ec;
    if (!_root.empty())
        fs::remove_all(_root, ec);
}

template <size_t N>
void check_text(const devlist_t* d, const char (&field)[N], const char* name)
{
    if (strnlen(field, N) == N)
        fail("registry", "device %.16s: %s not terminated", d->license_id12, name);
}

}  // namespace

const std::string& make_root()
{
    if (!_root.empty())
        return _root;
    // In memory where the machine has it: the notices and keys the targets
    // write are created and renamed thousands of times a second.
    const char* tmp = std::getenv("TMPDIR");
    std::error_code shm_ec;
    const char* base = tmp != nullptr && *tmp != '\0' ? tmp : fs::is_directory("/dev/shm", shm_ec) ? "/dev/shm" : "/tmp";
    std::string templ = std::string(base) + "/cloud-fuzz.XXXXXX";
    if (mkdtemp(templ.data()) == nullptr) {
        std::perror("mkdtemp");
        std::abort();
    }
    _root = templ;
    std::atexit(remove_root);
    jos_setroot(_root);
    std::error_code ec;
    for (const char* dir : {"/etc", "/etc/ssh", "/usr/logd/bin", "/usr/logd/www/vtupbags", "/usr/logdata/tmp",
                            "/verify/etc", "/tmp"})
        fs::create_directories(jos_path(dir), ec);
    return _root;
}

bool put_file(const char* abs, std::string_view text)
{
    std::string path = jos_path(abs);
    std::error_code ec;
    fs::create_directories(fs::path(path).parent_path(), ec);
    FILE* f = std::fopen(path.c_str(), "wb");
    if (f == nullptr)
        return false;
    bool ok = std::fwrite(text.data(), 1, text.size(), f) == text.size();
    return std::fclose(f) == 0 && ok;
}

std::string get_file(const char* abs)
{
    std::ifstream in(jos_path(abs), std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

std::vector<std::string_view> split(std::string_view data, std::string_view sep)
{
    std::vector<std::string_view> out;
    for (;;) {
        size_t at = data.find(sep);
        out.push_back(data.substr(0, at));
        if (at == std::string_view::npos)
            return out;
        data.remove_prefix(at + sep.size());
    }
}

std::vector<std::string> lines(std::string_view text)
{
    std::vector<std::string> out;
    while (!text.empty()) {
        size_t nl = text.find('\n');
        out.emplace_back(text.substr(0, nl));
        if (nl == std::string_view::npos)
            break;
        text.remove_prefix(nl + 1);
    }
    return out;
}

void fill_writer_queue()
{
    const int stream = dbw_stream("vtlog.fuzz");
    while (dbw_exec(stream, "") == 0) {
    }
}

void set_clock(uint32_t t)
{
    // The daemon's time is the system's plus a step: the step is set so
    // that the time reads T now (it keeps running from there).
    jos_clock_step(int64_t{t} - jos_time());
}

void registry_reset(bool notify)
{
    std::vector<std::string> ids;
    _devpool.each([&](const devlist_t* d) {
        ids.emplace_back(d->license_id12, strnlen(d->license_id12, sizeof(d->license_id12)));
    });
    for (const std::string& id : ids)
        device_remove(id.c_str());
    if (_devpool.count() != 0)
        fail("registry", "%u devices left after removing all", _devpool.count());
    _lastobjchk = _devpool.first();
    _equalcount = 0;
    _defgrp = GRP_NONE;
    _weixin_notify_discon = notify ? 1 : 0;
    _mapping_port_min = 24569;
    _mapping_port_max = 34567;
    _current_port_alloc = _mapping_port_min;
    _wci.cmd[0] = '\0';
    _wci.send = 0;
    _wci.succ = 0;
    _wci.fail = 0;
    if (++_notices >= 512) {
        _notices = 0;
        std::error_code ec;
        fs::remove_all(jos_path("/usr/logdata/tmp/weixin"), ec);
    }
}

void feed_dgram(std::string_view bytes, uint32_t ip, uint16_t port)
{
    // Allocated at its exact size so that a read past the NUL is reported;
    // aligned as the receive loop's static buffer is.
    static char* buf = new (std::align_val_t{16}) char[CLOUD_MAXDGRAM + 1];
    if (bytes.empty())
        return;  // recvfrom returned nothing: the loop goes on
    size_t n = bytes.size() < size_t(CLOUD_MAXDGRAM) ? bytes.size() : size_t(CLOUD_MAXDGRAM);
    std::memset(buf, 0, CLOUD_MAXDGRAM + 1);
    std::memcpy(buf, bytes.data(), n);
    buf[n] = '\0';
    cloud_dgram(buf, int(n), ip, port);
}

std::string status_report(uint16_t type, const char* id, const char* version, const char* name,
                          const char* grpname, uint32_t users, uint32_t max_users)
{
    devinfo_recv_bps_t r{};
    std::memcpy(r.tag, "VTR", 4);
    r.type = type;
    r.devid = 7;
    r.time = 1700000000;
    r.sys_run = 3600;
    r.ipaddr = 0xc0a80101;
    r.license_start = 1690000000;
    r.license_end = 1710000000;
    r.current_users = users;
    std::snprintf(r.license_id12, sizeof(r.license_id12), "%s", id);
    std::snprintf(r.license_id83, sizeof(r.license_id83), "%s-83", id);
    std::snprintf(r.version, sizeof(r.version), "%s", version);
    std::snprintf(r.sys_name, sizeof(r.sys_name), "%s", name);
    r.upbps = 1000000;
    r.downbps = 8000000;
    r.flowcont = 500;
    r.max_flowcont = 1000;
    r.max_ipcnt = max_users;
    r.temp = 45;
    std::snprintf(r.grpname, sizeof(r.grpname), "%s", grpname);
    return std::string(reinterpret_cast<const char*>(&r), sizeof(r));
}

std::string lnglat_report(const char* id, double lng, double lat)
{
    cloud_bdmapsetlnglat_t m{};
    std::memcpy(m.tag, "VTR", 4);
    m.type = VTR_LNGLAT;
    std::snprintf(m.licenseid12, sizeof(m.licenseid12), "%s", id);
    m.longitude = lng;
    m.latitude = lat;
    return std::string(reinterpret_cast<const char*>(&m), sizeof(m));
}

std::string key_report(const char* id, const char* md5)
{
    cloud_vtkey_t k{};
    std::memcpy(k.tag, "VTR", 4);
    k.type = VTR_VTKEY;
    std::snprintf(k.license_id12, sizeof(k.license_id12), "%s", id);
    std::memcpy(k.md5str, md5, strnlen(md5, sizeof(k.md5str)));
    return std::string(reinterpret_cast<const char*>(&k), sizeof(k));
}

std::string text_dgram(std::string_view text)
{
    cldarg_t a{};
    std::memcpy(a.tag, "VTR", 4);
    a.type = VTR_CMDARG;
    a.arglen = sizeof(a);
    std::memcpy(a.argstr, text.data(), text.size() < sizeof(a.argstr) ? text.size() : sizeof(a.argstr) - 1);
    return std::string(reinterpret_cast<const char*>(&a), sizeof(a));
}

void check_registry()
{
    if (!enforced("registry"))
        return;
    uint32_t used = 0;
    for (size_t i = 0; i < DEV_POOL_SIZE; i++) {
        const devlist_t* d = _devpool.slot(i);
        if (!device_pool_t::inuse(d))
            continue;
        used++;
        size_t idlen = strnlen(d->license_id12, sizeof(d->license_id12));
        if (idlen > 12)
            fail("registry", "slot %zu: identifier of %zu characters", i, idlen);
        if (device_find(d->license_id12) != d)
            fail("registry", "slot %zu (%.16s) not found under its own key", i, d->license_id12);
        check_text(d, d->license_id83, "license_id83");
        check_text(d, d->sys_name, "sys_name");
        check_text(d, d->sys_name2, "sys_name2");
        check_text(d, d->oripass, "oripass");
        check_text(d, d->password, "password");
        check_text(d, d->map_address, "map_address");
        check_text(d, d->version, "version");
        check_text(d, d->maphost, "maphost");
        check_text(d, d->grpname, "grpname");
        check_text(d, d->info, "info");
        check_text(d, d->md5str, "md5str");
    }
    if (used != _devpool.count())
        fail("registry", "%u slots in use, pool counts %u", used, _devpool.count());
    // Chains hold only records in use, each in its own chain, no cycles.
    for (unsigned b = 0; b < 128; b++) {
        size_t n = 0;
        for (const devlist_t* d = _devpool.chain(b); d != nullptr; d = d->next) {
            if (++n > DEV_POOL_SIZE)
                fail("registry", "chain %u does not end", b);
            if (!device_pool_t::inuse(d) || device_pool_t::bucket(d->license_id12) != b)
                fail("registry", "chain %u holds a free or misplaced record", b);
        }
    }
}

bool enforced(const char* name)
{
    const char* known = std::getenv("CLOUD_FUZZ_KNOWN");
    if (known == nullptr)
        return true;
    std::string_view k = known;
    for (std::string_view w : split(k, ","))
        if (w == name)
            return false;
    return true;
}

void fail(const char* oracle, const char* fmt, ...)
{
    std::fprintf(stderr, "\n==ORACLE %s: ", oracle);
    va_list ap;
    va_start(ap, fmt);
    std::vfprintf(stderr, fmt, ap);
    va_end(ap);
    std::fputs("\n", stderr);
    std::abort();
}

}  // namespace fuzz
