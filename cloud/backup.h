// Configuration backups and application-package upgrades (backup.cpp) and
// the application inventory (appup.cpp): the records of the backup socket,
// the backup list and the inventory record.
#pragma once

#include <cstddef>
#include <cstdint>

#include "cloud.h"
#include "ipe_pool.h"
#include "jos.h"

constexpr int CLOUD_BACKUP_PORT = 24565;

enum : uint16_t {
    VTR_ECHO = 1009,
    VTR_PING = 10015,
    VTR_BACKUPINFO = 10016,
    VTR_BACKUP_OK = 10017,     // written under its time-stamped name
    VTR_BACKUP_FAIL1 = 10018,
    VTR_BACKUP_FAIL2 = 10019,
    VTR_BACKUP_NAMED = 10020,  // written under the name it reports
    VTR_APPINFO = 30001,
    VTR_APPUPGRADE = 30002,    // the order, and the appliance's acknowledgement
    VTR_APPUP_LOG = 30003,
};

struct cloud_ping_t {
    char tag[4];
    uint16_t type;
    uint16_t pad16;
    char license_id12[16];
};
static_assert(sizeof(cloud_ping_t) == 24);
static_assert(offsetof(cloud_ping_t, type) == 4);
static_assert(offsetof(cloud_ping_t, license_id12) == 8);

struct cloud_backupinfo_t {
    char tag[4];
    uint16_t type;
    uint8_t needbackup;
    uint8_t needappup;
    uint32_t fl_ctime;
    uint32_t pad32;
    char license_id12[16];
    char filename[32];
};
static_assert(sizeof(cloud_backupinfo_t) == 64);
static_assert(offsetof(cloud_backupinfo_t, needbackup) == 6);
static_assert(offsetof(cloud_backupinfo_t, needappup) == 7);
static_assert(offsetof(cloud_backupinfo_t, fl_ctime) == 8);
static_assert(offsetof(cloud_backupinfo_t, pad32) == 12);
static_assert(offsetof(cloud_backupinfo_t, license_id12) == 16);
static_assert(offsetof(cloud_backupinfo_t, filename) == 32);

struct cloud_backup_log_t {
    char tag[4];
    uint16_t type;
    uint16_t task_id;
    char license_id12[16];
    char filename[32];
    char errors[128];
};
static_assert(sizeof(cloud_backup_log_t) == 184);
static_assert(offsetof(cloud_backup_log_t, task_id) == 6);
static_assert(offsetof(cloud_backup_log_t, license_id12) == 8);
static_assert(offsetof(cloud_backup_log_t, filename) == 24);
static_assert(offsetof(cloud_backup_log_t, errors) == 56);

struct cloud_appupgradeinfo_t {
    char tag[4];
    uint16_t type;
    uint16_t nginx_port;
    char license_id12[16];
    char packet_name[64];
};
static_assert(sizeof(cloud_appupgradeinfo_t) == 88);
static_assert(offsetof(cloud_appupgradeinfo_t, nginx_port) == 6);
static_assert(offsetof(cloud_appupgradeinfo_t, license_id12) == 8);
static_assert(offsetof(cloud_appupgradeinfo_t, packet_name) == 24);

struct cloud_appup_log_t {
    char tag[4];
    uint16_t type;
    uint16_t pad16;
    char license_id12[16];
    char errors[128];
};
static_assert(sizeof(cloud_appup_log_t) == 152);
static_assert(offsetof(cloud_appup_log_t, license_id12) == 8);
static_assert(offsetof(cloud_appup_log_t, errors) == 24);

struct cloud_appinfo_t {
    char tag[4];
    uint16_t type;
    uint16_t pad16;
    char license_id12[16];
    char app_name[64];
    char app_cname[64];
    char app_version[32];
    char app_status[16];
};
static_assert(sizeof(cloud_appinfo_t) == 200);
static_assert(offsetof(cloud_appinfo_t, license_id12) == 8);
static_assert(offsetof(cloud_appinfo_t, app_name) == 24);
static_assert(offsetof(cloud_appinfo_t, app_cname) == 88);
static_assert(offsetof(cloud_appinfo_t, app_version) == 152);
static_assert(offsetof(cloud_appinfo_t, app_status) == 184);

// Type 40000 on the backup socket: the command-text datagram of the device
// socket (cldarg_t), text from offset 8. Replies are always 520 bytes.

// ---------------------------------------------------------------------------
// Backup list: one record per appliance that pinged, appended and never
// removed; guarded, with the two counters, by _backup_mtx.
// ---------------------------------------------------------------------------

struct cloud_backuplist_t {
    char tag[4];
    uint16_t type;
    uint8_t needbackup;
    uint8_t needappup;
    uint32_t fl_ctime;
    uint16_t nginx_port;
    uint16_t appupcheck;
    uint32_t appupcheck_time;
    uint16_t appup_over;
    uint16_t backup_over;
    uint32_t backupcheck_time;
    uint32_t appup_times;
    char license_id12[16];
    char filename[32];
    char packet_name[64];
};

constexpr size_t BACKUP_LIST_SIZE = 2000;

int backup_auto(const char* license_id12, const char* cname);
// Gateways whose backup has started and not finished.
int backup_inflight();
void appup_upgrade_over(const char* license_id12);
extern jos_module_t backup_module;

// ---------------------------------------------------------------------------
// Application inventory (appup.cpp): one record per appliance and
// application, chained by appliance.
// ---------------------------------------------------------------------------

struct appup_t {
    char license_id12[16];
    char sysname[64];
    char app_name[64];
    char app_cname[64];
    char app_version[32];
    char app_status[16];
    uint16_t grpid;
    uint16_t mask;  // start request: 0 none, 1 asked by an operator, 2 delivered
    uint32_t time;
    appup_t* next;
};

constexpr size_t APPUP_POOL_SIZE = 204800;
using appup_pool_t = ipe_pool<appup_t, APPUP_POOL_SIZE, 1024, &appup_t::license_id12>;

int appup_init();
// The upsert of one report; the record (a copy, taken under the inventory
// lock) when there is one.
bool appup_update(const cloud_appinfo_t* info, appup_t* out = nullptr);
bool appup_splitfill(const char* text, appup_t* out = nullptr);
int appup_setstartmask(const char* license_id12, const char* app_name, const char* state);
void appup_startlog(const char* text);
// Marks a delivered start request of the record named by INFO; true when
// one was waiting (the record is copied to OUT).
bool appup_takestart(const char* license_id12, const char* app_name, appup_t* out);
// Names and groups of the appliances from vtlog.cloud_device, on C.
void appup_sysname_update(class mysql_conn& c);
// The inventory listing of command 2055.
void appup_list(jos_cmdarg_t* ca, long page, long limit, const char* sch, const char* usergrp, long reverse);
uint32_t appup_getcount();
