// Cache appliances (frelbox.cpp): the record of one appliance and what the
// other modules use of the registry.
#pragma once

#include <cstdint>

#include "jos.h"

struct frbinfo_t {
    char license_id12[16];  // empty first byte: free slot
    char cpudesc[64];
    char board[64];
    char mem[16];
    char frname[64];   // the appliance's own name
    char frname2[64];  // display name set by the operator
    char ver[64];
    uint8_t grpid;
    uint8_t cpurate;
    uint8_t pad8;
    uint8_t mapping;
    uint16_t webport;
    uint16_t sshport;
    uint32_t pad32;
    uint16_t bdw;
    uint16_t outport;  // source of the last report, host order
    uint32_t outip;
    uint32_t actime;  // time of the last report
    uint32_t boot;
    uint32_t start;
    uint32_t end;  // 0: no end of service
    uint32_t flow;
    uint64_t bpsout;
    uint64_t bpsin;
    char diskio[128];
    char pused[128];
    char map_addr[128];
    char lng[16];
    char lat[16];
    char verify[64];  // from the appliance's FRBPWD message, shown only
    int sock;         // socket the last report came in on; -1 before one
    frbinfo_t* next;
};

// The appliance of LICENSE_ID12, or null. Callers hold the registry lock
// (frb_lock).
frbinfo_t* frb_find(const char* license_id12);
void frb_lock();
void frb_unlock();
// Copies the appliance's record under the lock; false when it is unknown.
bool frb_copy(const char* license_id12, frbinfo_t* out);
// Bucket 0..127 of an identifier.
int frb_hash(const char* text);
// Hands the row's "add", "update" or "remove" to the writer (lock held).
void frb_tomysql(const char* action, const frbinfo_t* rec);

// A datagram with the "FRB" magic from the device socket: LEN bytes and a
// NUL after them, from OUTIP:OUTPORT (host order), received on *SOCKP.
void frelbox_main(char* buf, int len, uint32_t outip, uint16_t outport, int* sockp);
// A body beginning with "tag" (changed in place).
void frelbox_handle_ex(char* body);
// The words after "tag=FRBPWD": "licenseid" and "verify".
void frelbox_pwd(char* text);

extern jos_module_t frelbox_module;
