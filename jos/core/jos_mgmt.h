// Management socket and the main loop of the daemon.
#pragma once

#include "jos.h"

struct jos_mgsock_t;
using jos_sockfn_t = void (*)(jos_mgsock_t*);

struct jos_mgsock_t {
    int sock;           // -1: slot free
    jos_sockfn_t func;  // called when sock is readable
    void* data;
};

constexpr int JOS_MGSOCK_SLOTS = 4;

int jos_mgmt_addsock(int sock, jos_sockfn_t fn, void* data);
void jos_mgmt_rmvsock(int slot);
void jos_mgmt_run();
// The user id of the client whose command is running (from SO_PEERCRED);
// -1 outside a command from the socket.
long jos_mgmt_peeruid();
// Called after every command from the socket with MODULE as the client
// named it and the nanoseconds the command took; null: nobody listens.
extern void (*jos_mgmt_cmdhook)(const jos_cmdarg_t* ca, const char* module, uint64_t ns);
extern jos_module_t mgmt_module;
