// Firmware upgrade tasks for gateways (upgrade.cpp): the records of the
// upgrade socket and the table of appliances that announce themselves.
#pragma once

#include <cstddef>
#include <cstdint>

#include "ipe_pool.h"
#include "jos.h"

constexpr int CLOUD_UPGRADE_PORT = 24566;

enum : uint16_t {
    VTR_UP_ANNOUNCE = 10010,  // cloud_ping_t layout
    VTR_UP_ORDER = 10011,
    VTR_UP_PROGRESS = 10012,
    VTR_UP_SUCC = 10013,
    VTR_UP_FAIL = 10014,
};

struct cloud_upgradeinfo_t {
    char tag[4];
    uint16_t type;
    uint16_t task_id;
    char license_id12[16];
    char packet_name[62];
    uint16_t ngnix_port;
};
static_assert(sizeof(cloud_upgradeinfo_t) == 88);
static_assert(offsetof(cloud_upgradeinfo_t, task_id) == 6);
static_assert(offsetof(cloud_upgradeinfo_t, license_id12) == 8);
static_assert(offsetof(cloud_upgradeinfo_t, packet_name) == 24);
static_assert(offsetof(cloud_upgradeinfo_t, ngnix_port) == 86);

struct cloud_upgrade_log_t {
    char tag[4];
    uint16_t type;
    uint16_t task_id;
    char license_id12[16];
    char last_ver[64];
    char errors[128];
};
static_assert(sizeof(cloud_upgrade_log_t) == 216);
static_assert(offsetof(cloud_upgrade_log_t, task_id) == 6);
static_assert(offsetof(cloud_upgrade_log_t, license_id12) == 8);
static_assert(offsetof(cloud_upgrade_log_t, last_ver) == 24);
static_assert(offsetof(cloud_upgrade_log_t, errors) == 88);

struct cloud_ipportinfo_t {
    uint32_t outip;
    uint16_t outport;
    uint16_t task_id;
    uint16_t ifupgrade;
    uint16_t nginx_port;
    uint16_t up_times;
    uint16_t pad16;
    uint32_t lastup;
    char license_id12[16];
    char packet_name[64];
    cloud_ipportinfo_t* next;
};

constexpr size_t UPGRADE_POOL_SIZE = 2000;
using upgrade_pool_t = ipe_pool<cloud_ipportinfo_t, UPGRADE_POOL_SIZE, 128, &cloud_ipportinfo_t::license_id12>;

// Downloads in flight (the count may drift below zero) and appliances in
// the table of the running campaigns.
struct upgrade_counts_t {
    int inflight;
    int listed;
};
upgrade_counts_t upgrade_counts();

extern jos_module_t upgrade_module;
