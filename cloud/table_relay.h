// Pushes of named tables to gateways: the IP table and the URL/DNS group
// table (table_relay.cpp). Both are one implementation with two sets of
// names; everything lives in memory.
#pragma once

#include <cstdint>

#include "jos.h"

struct table_relay;
extern table_relay _iptable;
extern table_relay _urldnsgrp;

// A gateway's report of the table it holds ("updateiptable" /
// "urldnsgrpinfo") and its answer to a push ("iptablestatus" /
// "urldnsgrpstatus"): the whole text.
void relay_handle(table_relay& r, const char* text);
void relay_status(table_relay& r, const char* text);
// At a gateway's heartbeat: sends it a waiting push, if there is one and
// fewer than five are in flight.
void relay_heartbeat(table_relay& r, const char* license_id12, uint32_t ip, uint16_t port);
void relay_setgrp(table_relay& r, const char* license_id12, uint16_t grpid, const char* sysname);
void relay_remove(table_relay& r, const char* license_id12);

extern jos_module_t iptable_module;
extern jos_module_t urldnsgrp_module;
