// SSH tunnels reported by gateways (sshport.cpp), the public keys the
// appliances log in with (id_rsa.cpp), and the device log (log.cpp).
#pragma once

#include <cstddef>
#include <cstdint>

#include "cloud.h"
#include "ipe_pool.h"
#include "jos.h"

// ---------------------------------------------------------------------------
// Tunnels: one record per (gateway, bigport, minport).
// ---------------------------------------------------------------------------

struct sshport_t {
    char license_id12[16];
    uint16_t bigport;
    uint16_t minport;
    char cliip[16];
    char sysname[128];
    uint32_t borntime;
    uint32_t uptime;
    uint16_t grpid;
    uint16_t outport;  // declared, not filled in
    uint32_t outip;    // declared, not filled in
    sshport_t* next;
};

constexpr size_t SSHPORT_POOL_SIZE = 10240;
using sshport_pool_t = ipe_pool<sshport_t, SSHPORT_POOL_SIZE, 1024, &sshport_t::license_id12>;

// "sshmapport" and "sshportkill" results of the gateways (the whole text).
void sshport_handle(const char* body);
void sshport_remove(const char* body);
// A comma list of group ids into OUT (at most MAX); 0 for "" or "0...".
int usergrp_toarray(const char* text, int* out, int max);
extern jos_module_t sshport_module;

// ---------------------------------------------------------------------------
// Key store: the collecting file authorized_keys_tmp and the live file
// authorized_keys under /root/.ssh.
// ---------------------------------------------------------------------------

constexpr size_t RSA_POOL_SIZE = 4000;
constexpr size_t RSA_KEY_MAX = 640;

struct rsa_pool_t {
    uint64_t count;  // times received; 0: free
    char rsa[RSA_KEY_MAX];
};

struct _ssh_idrsa_t {
    char tag[4];
    uint16_t type;
    uint16_t pad16;
    char rsa[RSA_KEY_MAX];
};
static_assert(sizeof(_ssh_idrsa_t) == 648);
static_assert(offsetof(_ssh_idrsa_t, rsa) == 8);

int rsa_init();
int rsa_load();
// A key datagram of LEN bytes (NUL after them): "VTR" carries the key from
// byte 8, "FRB" and "LOG" after the first '=' of their text.
void rsa_recv(const char* dgram, size_t len);
// The collection becomes the live file (temporary name, renamed, 0600).
int rsa_rename();
// The live file from the collection, only when it is missing.
void rsa_publish_if_missing();
// True for one complete public-key line of a known type: no options, no
// line break, base64 key material.
bool rsa_key_valid(const char* key);

// ---------------------------------------------------------------------------
// Device log: lines about gateways, written in batches to cloud_otherlog.
// ---------------------------------------------------------------------------

constexpr size_t LOG_POOL_SIZE = 2000;

int log_init();
// Queues TEXT about DEV; the caller holds the registry lock.
void log_add(const devlist_t* dev, const char* text);
// Hands the pending lines to the database writer.
void log_inserttable();
