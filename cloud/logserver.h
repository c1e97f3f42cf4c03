// Log servers (logserver.cpp): the record of one log server and the entry
// the receive loop hands "LOG" datagrams to.
#pragma once

#include <cstddef>
#include <cstdint>

#include "jos.h"

struct logsinfo_t {
    char license_id12[16];  // empty first byte: free slot
    char logsname[64];      // the server's own name
    char logsname2[64];     // display name set by the operator
    char ver[64];
    uint8_t grpid;
    uint8_t mapping;  // declared; the mapping instruction leaves it alone
    uint16_t webport;
    uint16_t sshport;
    uint32_t outip;  // source of the last report, host order
    uint32_t actime;  // time of the last report
    uint16_t outport;
    uint16_t pad16;
    uint32_t boot;
    uint32_t start;
    uint32_t end;  // 0: no end of service
    uint32_t bps;
    char map_addr[128];
    char lng[16];
    char lat[16];
    int sock;  // socket the last report came in on; -1 before one
    logsinfo_t* next;
};
static_assert(offsetof(logsinfo_t, grpid) == 208);
static_assert(offsetof(logsinfo_t, outip) == 216);
static_assert(offsetof(logsinfo_t, bps) == 240);
static_assert(offsetof(logsinfo_t, map_addr) == 244);
static_assert(offsetof(logsinfo_t, sock) == 404);

// A datagram with the "LOG" magic from the device socket: LEN bytes and a
// NUL after them, from OUTIP:OUTPORT (host order), received on *SOCKP.
void logserver_main(char* buf, int len, uint32_t outip, uint16_t outport, int* sockp);

extern jos_module_t logserver_module;
