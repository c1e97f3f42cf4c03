// Configuration readers. The first byte picks the reader, the second its
// key; the rest is the file, written under the private root before the
// reader runs:
//   g  getconfig (log.conf)          s  setconfig (log.conf; third byte is
//   d  /etc/cloud.db.conf                the value's length, value follows)
//   c  /etc/cloud.conf               w  webport.conf
//   v  verify.conf                   h  /etc/ssh/sshd_config
// Any other first byte picks a reader by its value.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "cloud.h"
#include "cloudconf.h"
#include "common.h"
#include "fuzz_common.h"
#include "jos.h"
#include "jos_config.h"
#include "lnglat.h"

extern jos_module_t cpu_module;
extern jos_module_t dbf_module;
extern jos_module_t thread_module;

namespace {

constexpr const char* LOGCONF = "/usr/logd/bin/log.conf";

// Rewriting a file keeps every line it does not replace (a line starting
// with DROPPED is replaced).
void check_kept(std::string_view before, std::string_view after, std::string_view dropped, const char* what)
{
    if (!fuzz::enforced("config-lines"))
        return;
    std::vector<std::string> now = fuzz::lines(after);
    std::set<std::string> have(now.begin(), now.end());
    for (const std::string& line : fuzz::lines(before)) {
        if (!dropped.empty() && line.compare(0, dropped.size(), dropped) == 0)
            continue;
        if (have.count(line) == 0)
            fuzz::fail("config-lines", "%s lost the line \"%.200s\"", what, line.c_str());
    }
}

template <size_t N>
void check_field(const char (&field)[N], const char* name)
{
    if (strnlen(field, N) == N)
        fuzz::fail("dbconf", "%s not terminated", name);
}

void read_getconfig(uint8_t k, std::string_view file)
{
    static const struct {
        const char* key;
        int keylen, size;
    } keys[] = {{"cloud_mapping_min_port", 22, 64}, {"cloud_mapping_max_port", 22, 64},
                {"cloud_weixin_relation_obj", 25, 256}, {"cloud", 5, 1}, {"", 0, 16}};
    const auto& key = keys[k % std::size(keys)];
    fuzz::put_file(LOGCONF, file);
    // Exactly the caller's size, so that a write past it is reported.
    char* value = new char[size_t(key.size)];
    getconfig(key.key, key.keylen, value, key.size);
    delete[] value;
}

void read_setconfig(uint8_t k, std::string_view rest)
{
    static const char* const keys[] = {"cloud_mapping_min_port", "cloud_mapping_max_port", "cloud_weixin_relation_obj",
                                       "a"};
    const char* key = keys[k % std::size(keys)];
    size_t vlen = rest.empty() ? 0 : static_cast<uint8_t>(rest[0]);
    rest.remove_prefix(rest.empty() ? 0 : 1);
    vlen = std::min(vlen, rest.size());
    std::string value(rest.substr(0, vlen));
    value.resize(std::strlen(value.c_str()));
    std::string_view file = rest.substr(vlen);
    fuzz::put_file(LOGCONF, file);
    if (setconfig(key, value.c_str()) != 0)
        return;
    std::string after = fuzz::get_file(LOGCONF);
    // fgets and fputs stop at a NUL: a file holding one is not text.
    if (file.find('\0') != std::string_view::npos)
        return;
    check_kept(file, after, key, "setconfig");
    std::vector<std::string> now = fuzz::lines(after);
    if (fuzz::enforced("config-lines") && std::find(now.begin(), now.end(), std::string(key) + "=" + value) == now.end())
        fuzz::fail("config-lines", "setconfig wrote no line %s=%s", key, value.c_str());
}

void read_dbconf(std::string_view file)
{
    fuzz::put_file("/etc/cloud.db.conf", file);
    mysqlinfo_init();
    check_field(msinfo.mysql_user, "user");
    check_field(msinfo.mysql_pass, "password");
    check_field(msinfo.mysql_map_user, "map user");
    check_field(msinfo.mysql_map_userpass, "map password");
    check_field(msinfo.mysql_host, "host");
    check_field(msinfo.mysql_socket, "socket");
    if (msinfo.mysql_port < 1 || msinfo.mysql_port > 65535)
        fuzz::fail("dbconf", "port %u", msinfo.mysql_port);
}

void read_cloudconf(uint8_t k, std::string_view file)
{
    static const char* const keys[] = {"device_port", "db_queue_max", "lnglat_turn_us", "sshd_restart",
                                       "amap_host",   "device_defgrp", "d"};
    const char* key = keys[k % std::size(keys)];
    fuzz::put_file("/etc/cloud.conf", file);
    int n = cloudconf_int(key, 7);
    if (n != 7 && (n < 0 || n > 65535))
        fuzz::fail("cloudconf", "%s read as %d", key, n);
    long turn = lnglat_turn_period(cloudconf_get(key, ""));
    if (turn < 1 || turn > 1000000)
        fuzz::fail("cloudconf", "turn period %ld", turn);
}

void read_webport(std::string_view file)
{
    fuzz::put_file("/usr/logd/www/vtupbags/webport.conf", file);
    int port = upgrade_nginx_port();
    if (port < 0 || port > 65535)
        fuzz::fail("webport", "port %d", port);
}

void read_sshd(std::string_view file)
{
    fuzz::put_file("/etc/ssh/sshd_config", file);
    cloud_gateway_config();
    std::string after = fuzz::get_file("/etc/ssh/sshd_config");
    check_kept(file, after, "", "cloud_gateway_config");
    std::vector<std::string> now = fuzz::lines(after);
    if (fuzz::enforced("config-lines") && file.find("GatewayPorts yes") == std::string_view::npos &&
        std::find(now.begin(), now.end(), "GatewayPorts yes") == now.end())
        fuzz::fail("config-lines", "no GatewayPorts line added");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    for (const char* env : {"CLOUD_DB_HOST", "CLOUD_DB_PORT", "CLOUD_DB_SOCKET", "CLOUD_DB_USER", "CLOUD_DB_PASSWORD",
                            "CLOUD_MAP_PASSWORD", "VERIFYPATH"})
        unsetenv(env);
    fuzz::make_root();
    if (cloud_devpool_init() != 0)
        __builtin_trap();
    // verify.conf lines are offered to every module with an ioctl.
    for (jos_module_t* m : {&cloud_module, &cpu_module, &dbf_module, &thread_module})
        module_register(m);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 2)
        return 0;
    std::string_view file(reinterpret_cast<const char*>(data) + 2, size - 2);
    const uint8_t key = data[1];
    static const char readers[] = "gsdcwvh";
    char r = std::strchr(readers, data[0]) != nullptr && data[0] != 0 ? char(data[0]) : readers[data[0] % 7];
    switch (r) {
    case 'g': read_getconfig(key, file); break;
    case 's': read_setconfig(key, file); break;
    case 'd': read_dbconf(file); break;
    case 'c': read_cloudconf(key, file); break;
    case 'w': read_webport(file); break;
    case 'v':
        fuzz::put_file("/verify/etc/verify.conf", file);
        jos_cfg_load();
        break;
    case 'h': read_sshd(file); break;
    }
    return 0;
}
