#include "gateway.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>

#include "daemon.h"

test_gateway::test_gateway(int daemon_port) : daemon_port_(daemon_port)
{
    fd_ = loopback_udp(&port_, "gateway socket");
}

test_gateway::~test_gateway()
{
    close(fd_);
}

devinfo_recv_bps_t test_gateway::status(const std::string& id, uint16_t type)
{
    devinfo_recv_bps_t r{};
    std::memcpy(r.tag, "VTR", 3);
    r.type = type;
    r.devid = 7;
    r.sys_run = 3600;
    r.ipaddr = 0xC0A80101;
    r.license_start = 1700000000;
    r.license_end = 1800000000;
    r.current_users = 12;
    std::snprintf(r.license_id12, sizeof(r.license_id12), "%s", id.c_str());
    std::snprintf(r.license_id83, sizeof(r.license_id83), "LONG-%s", id.c_str());
    std::snprintf(r.version, sizeof(r.version), "V2.1.0");
    std::snprintf(r.sys_name, sizeof(r.sys_name), "gw-%s", id.c_str());
    r.upbps = 5000000000ULL;
    r.downbps = 7000000000ULL;
    r.flowcont = 300;
    r.max_flowcont = 1000;
    r.max_ipcnt = 100;
    r.temp = 0x1234;
    return r;
}

void test_gateway::send(const void* data, size_t len) const
{
    send_loopback(fd_, daemon_port_, data, len, "gateway send");
}

void test_gateway::send_lnglat(const std::string& id, double lng, double lat) const
{
    cloud_bdmapsetlnglat_t m{};
    std::memcpy(m.tag, "VTR", 3);
    m.type = VTR_LNGLAT;
    std::snprintf(m.licenseid12, sizeof(m.licenseid12), "%s", id.c_str());
    m.longitude = lng;
    m.latitude = lat;
    send(m);
}

void test_gateway::send_key(const std::string& id, const std::string& md5) const
{
    cloud_vtkey_t k{};
    std::memcpy(k.tag, "VTR", 3);
    k.type = VTR_VTKEY;
    std::snprintf(k.license_id12, sizeof(k.license_id12), "%s", id.c_str());
    std::memcpy(k.md5str, md5.data(), std::min(md5.size(), sizeof(k.md5str)));
    send(k);
}

void test_gateway::send_result(const std::string& text) const
{
    cldarg_t a{};
    std::memcpy(a.tag, "VTR", 3);
    a.type = VTR_CMDARG;
    a.arglen = sizeof(a);
    std::snprintf(a.argstr, sizeof(a.argstr), "%s", text.c_str());
    send(a);
}

std::optional<std::string> test_gateway::command(int limit_ms) const
{
    pollfd p = {fd_, POLLIN, 0};
    if (poll(&p, 1, limit_ms) != 1)
        return std::nullopt;
    char buf[2048] = {};
    ssize_t n = recv(fd_, buf, sizeof(buf) - 1, 0);
    if (n != static_cast<ssize_t>(sizeof(cldarg_t)))
        return std::string(buf, n > 0 ? static_cast<size_t>(n) : 0);
    const auto* a = reinterpret_cast<const cldarg_t*>(buf);
    if (std::memcmp(a->tag, "VTR\0", 4) != 0 || a->type != VTR_CMDARG || a->arglen != sizeof(cldarg_t))
        return "bad command header";
    return std::string(a->argstr, strnlen(a->argstr, sizeof(a->argstr)));
}

test_appliance::test_appliance(int daemon_port, const char* magic) : daemon_port_(daemon_port)
{
    std::memcpy(magic_, magic, 3);
    fd_ = loopback_udp(&port_, "appliance socket");
}

test_appliance::~test_appliance()
{
    close(fd_);
}

void test_appliance::send(const std::string& body) const
{
    std::string d(magic_, 4);
    d += "\x40\x9c";
    d += static_cast<char>(body.size() & 0xff);
    d += static_cast<char>((body.size() >> 8) & 0xff);
    d += body;
    send_loopback(fd_, daemon_port_, d.data(), d.size(), "appliance send");
}

std::optional<std::string> test_appliance::recv(int limit_ms) const
{
    pollfd p = {fd_, POLLIN, 0};
    if (poll(&p, 1, limit_ms) != 1)
        return std::nullopt;
    char buf[2048];
    ssize_t n = ::recv(fd_, buf, sizeof(buf), 0);
    return std::string(buf, n > 0 ? static_cast<size_t>(n) : 0);
}
