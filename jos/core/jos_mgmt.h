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
extern jos_module_t mgmt_module;
