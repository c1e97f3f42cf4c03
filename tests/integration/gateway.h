// A gateway as the tests play it: its own UDP socket on loopback, the
// datagrams of the appliance protocol, and the commands sent back to it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "cloud.h"

class test_gateway {
public:
    explicit test_gateway(int daemon_port);
    ~test_gateway();
    test_gateway(const test_gateway&) = delete;
    test_gateway& operator=(const test_gateway&) = delete;

    uint16_t port() const { return port_; }

    // A status report with sensible values; tests change fields before send.
    static devinfo_recv_bps_t status(const std::string& id, uint16_t type = VTR_STATUS);
    void send(const void* data, size_t len) const;
    template <typename T>
    void send(const T& rec) const
    {
        send(&rec, sizeof(rec));
    }
    void send_lnglat(const std::string& id, double lng, double lat) const;
    void send_key(const std::string& id, const std::string& md5) const;
    void send_result(const std::string& text) const;

    // The text of the next command datagram, if one comes within LIMIT_MS.
    std::optional<std::string> command(int limit_ms = 3000) const;

private:
    int fd_ = -1;
    int daemon_port_;
    uint16_t port_ = 0;
};

// An appliance of a text family (cache appliance "FRB", log server "LOG"):
// its own UDP socket on loopback, text datagrams to the daemon under the
// family's magic, and the raw datagrams the daemon sends back.
class test_appliance {
public:
    test_appliance(int daemon_port, const char* magic);
    ~test_appliance();
    test_appliance(const test_appliance&) = delete;
    test_appliance& operator=(const test_appliance&) = delete;

    uint16_t port() const { return port_; }
    // MAGIC and a NUL, type 40000, the body's length, the body.
    void send(const std::string& body) const;
    // The next datagram, if one comes within LIMIT_MS.
    std::optional<std::string> recv(int limit_ms) const;

private:
    int fd_ = -1;
    int daemon_port_;
    uint16_t port_ = 0;
    char magic_[4] = {};
};
