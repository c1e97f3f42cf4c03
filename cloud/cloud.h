// Gateway registry: the device record and pool, the datagram records of the
// appliance protocol, and the registry module's shared state.
#pragma once

#include <cstddef>
#include <cstdint>

#include "ipe_pool.h"
#include "jos.h"
#include "jos_timer.h"

class mysql_conn;

// ---------------------------------------------------------------------------
// Datagrams. Every datagram starts with a 3-byte family magic and a byte
// that is 0 when the daemon sends and not examined on receipt, a u16 type
// and a u16 whose meaning depends on the type; integers little-endian.
// ---------------------------------------------------------------------------

constexpr int CLOUD_DEVICE_PORT = 24567;
constexpr int CLOUD_MAXDGRAM = 2048;

enum : uint16_t {
    VTR_MAPPING = 1003,
    VTR_LNGLAT = 1008,
    VTR_STATUS = 10012,
    VTR_STATUS2 = 30004,
    VTR_STATUS3 = 50000,
    VTR_VTKEY = 20001,
    VTR_CMDARG = 40000,
};

struct cloud_hdr_t {
    char tag[4];
    uint16_t type;
    uint16_t arg16;  // devid, pad16 or arglen by type
};
static_assert(sizeof(cloud_hdr_t) == 8);

struct cloud_bdmapsetlnglat_t {
    char tag[4];
    uint16_t type;
    uint16_t pad16;
    char licenseid12[16];
    double longitude;
    double latitude;
};
static_assert(sizeof(cloud_bdmapsetlnglat_t) == 40);
static_assert(offsetof(cloud_bdmapsetlnglat_t, licenseid12) == 8);
static_assert(offsetof(cloud_bdmapsetlnglat_t, longitude) == 24);
static_assert(offsetof(cloud_bdmapsetlnglat_t, latitude) == 32);

struct devinfo_recv_bps_t {
    char tag[4];
    uint16_t type;
    uint16_t devid;
    uint32_t time;
    uint32_t sys_run;
    uint32_t ipaddr;
    uint32_t license_start;
    uint32_t license_end;
    uint32_t current_users;
    char license_id12[16];
    char license_id83[88];
    char version[64];
    char sys_name[64];
    uint64_t upbps;
    uint64_t downbps;
    uint32_t flowcont;
    uint32_t max_flowcont;
    uint32_t max_ipcnt;
    uint16_t grpid;
    uint16_t temp;
    char grpname[24];
};
static_assert(sizeof(devinfo_recv_bps_t) == 320);
static_assert(offsetof(devinfo_recv_bps_t, devid) == 6);
static_assert(offsetof(devinfo_recv_bps_t, time) == 8);
static_assert(offsetof(devinfo_recv_bps_t, sys_run) == 12);
static_assert(offsetof(devinfo_recv_bps_t, ipaddr) == 16);
static_assert(offsetof(devinfo_recv_bps_t, license_start) == 20);
static_assert(offsetof(devinfo_recv_bps_t, license_end) == 24);
static_assert(offsetof(devinfo_recv_bps_t, current_users) == 28);
static_assert(offsetof(devinfo_recv_bps_t, license_id12) == 32);
static_assert(offsetof(devinfo_recv_bps_t, license_id83) == 48);
static_assert(offsetof(devinfo_recv_bps_t, version) == 136);
static_assert(offsetof(devinfo_recv_bps_t, sys_name) == 200);
static_assert(offsetof(devinfo_recv_bps_t, upbps) == 264);
static_assert(offsetof(devinfo_recv_bps_t, downbps) == 272);
static_assert(offsetof(devinfo_recv_bps_t, flowcont) == 280);
static_assert(offsetof(devinfo_recv_bps_t, max_flowcont) == 284);
static_assert(offsetof(devinfo_recv_bps_t, max_ipcnt) == 288);
static_assert(offsetof(devinfo_recv_bps_t, grpid) == 292);
static_assert(offsetof(devinfo_recv_bps_t, temp) == 294);
static_assert(offsetof(devinfo_recv_bps_t, grpname) == 296);

struct cloud_vtkey_t {
    char tag[4];
    uint16_t type;
    uint16_t pad16;
    char license_id12[16];
    char md5str[32];
};
static_assert(sizeof(cloud_vtkey_t) == 56);
static_assert(offsetof(cloud_vtkey_t, license_id12) == 8);
static_assert(offsetof(cloud_vtkey_t, md5str) == 24);

struct cldarg_t {
    char tag[4];
    uint16_t type;
    uint16_t arglen;
    char argstr[512];
};
static_assert(sizeof(cldarg_t) == 520);
static_assert(offsetof(cldarg_t, argstr) == 8);

struct _mapping_port_t {
    char tag[4];
    uint16_t type;
    uint16_t webport;
    uint16_t sshport;
    uint8_t webenable;
    uint8_t sshenable;
    uint16_t hostport;
    char licenseid12[18];
    char res[16];
    char maphost[64];
};
static_assert(sizeof(_mapping_port_t) == 112);
static_assert(offsetof(_mapping_port_t, webport) == 6);
static_assert(offsetof(_mapping_port_t, sshport) == 8);
static_assert(offsetof(_mapping_port_t, webenable) == 10);
static_assert(offsetof(_mapping_port_t, sshenable) == 11);
static_assert(offsetof(_mapping_port_t, hostport) == 12);
static_assert(offsetof(_mapping_port_t, licenseid12) == 14);
static_assert(offsetof(_mapping_port_t, res) == 32);
static_assert(offsetof(_mapping_port_t, maphost) == 48);

// ---------------------------------------------------------------------------
// The device record: one per gateway ever heard or remembered.
// ---------------------------------------------------------------------------

enum : uint8_t {
    DEV_STAT_LOADED = 0,  // loaded from the table, not heard yet
    DEV_STAT_UP = 1,
    DEV_STAT_SILENT = 2,
};

enum : uint8_t {
    PASSRESET_IDLE = 0,
    PASSRESET_REQUESTED = 1,
    PASSRESET_SENT = 20,
    PASSRESET_FAILED = 30,
    PASSRESET_CONFIRMED = 40,
};

constexpr uint16_t GRP_NONE = 10000;

// The registry's clock: the daemon's time in whole seconds, as records keep it.
inline uint32_t now32()
{
    return static_cast<uint32_t>(jos_time());
}

struct devlist_t {
    char tag[4];
    uint16_t type;
    uint16_t devid;
    uint32_t time;
    uint32_t sys_run;
    uint32_t ipaddr;
    uint32_t license_start;
    uint32_t license_end;
    uint32_t current_users;
    uint32_t max_users;
    char license_id12[16];
    char license_id83[88];
    char sys_name[64];
    uint64_t upbps;
    uint64_t downbps;
    uint32_t flowcont;
    uint32_t max_flowcont;
    uint32_t max_ipcnt;
    uint16_t grpid;
    uint8_t temp;
    uint8_t cpu;
    uint32_t outip;
    uint16_t outport;
    uint16_t webport;
    uint16_t sshport;
    char sys_name2[62];
    double longitude;
    double latitude;
    uint8_t mapping;
    uint8_t webenable;
    uint8_t sshenable;
    uint8_t loaded;
    uint8_t passreset;
    uint32_t resettime;
    uint8_t mfadminpass;
    union {
        uint8_t pad8;
        struct {
            uint8_t usragp_syn : 1;
        } x;
    } task_sta;
    uint8_t isequal;
    char oripass[32];
    char password[128];  // crypt text: room for a full SHA-512 salt
    char map_address[160];
    char version[64];
    char maphost[64];
    uint16_t hostport;
    uint8_t stat;
    uint32_t equtime;
    char grpname[24];
    char info[128];
    char md5str[33];  // last key digest reported, kept for table rebuilds
    devlist_t* next;
};

constexpr size_t DEV_POOL_SIZE = 2000;
using device_pool_t = ipe_pool<devlist_t, DEV_POOL_SIZE, 128, &devlist_t::license_id12>;

// The registry (device.cpp).
extern device_pool_t _devpool;
extern devlist_t* _lastobjchk;

int cloud_devpool_init();
// Gateways in the pool, and those that reported within the last minute.
void cloud_counts(size_t* known, size_t* online);
int device_hash(const char* key);
devlist_t* device_find(const char* license_id12);
void device_getsysname(const char* license_id12, char* dest, int size, uint16_t* grpid);
devlist_t* device_upiport(const char* license_id12, const char* ip, uint16_t port);
void device_remove(const char* license_id12);
// The name shown for a device: the operator's display name when set.
const char* device_name(const devlist_t* dev);

// Persistence (device.cpp). Writes go through the database writer: the
// word "insert", "update" or "remove" hands one statement over, anything
// else (or no record) asks for the whole table to be rewritten.
int cloud_devlist_tomysql(devlist_t* dev, const char* word);
// Fills the pool from the table on C; takes the registry lock itself.
int cloud_devpool_load(mysql_conn& c);
// Key report: records the digest and hands its table update over.
void device_setkey(const char* license_id12, const char* md5, uint32_t ip, uint16_t port);

// Mapping ports (mapping.cpp).
extern int _mapping_port_min;
extern int _mapping_port_max;
extern int _current_port_alloc;
void cloud_minport_set();
// The allocation restarts at the largest SSH port of the table on C.
void cloud_minport_from(mysql_conn& c);
// Hands out the next pair: web port first, SSH port second.
void cloud_port_alloc(int* web, int* ssh);
void cloud_gateway_config();
// Range and group settings (2056) and the mapping of one device (2057).
void cloud_cmd_ranges(jos_cmdarg_t* ca, long defgrp, long grpreset, long oldgrp, bool notify_given, long notify,
                      long minport, long maxport);
void cloud_cmd_mapping(jos_cmdarg_t* ca, const char* license_id12, const char* maphost, long hostport, long webport,
                       long sshport, long webenable, long sshenable);

// Management commands of the registry (device_cmds.cpp).
int cloud_ioctl(jos_cmdarg_t* ca);

// Receive loop and its handlers (cloud.cpp).
extern int sock;
extern uint32_t _cloud_device_update0;
extern uint32_t _cloud_device_update1;
extern uint32_t _cloud_device_update2;
extern uint32_t _cloud_device_update3;
extern uint32_t _cloud_device_update_count;
extern uint32_t _equalcount;
extern uint32_t _defgrp;
extern int _weixin_notify_discon;
extern int _http_port;

void cloud_main(struct jos_thread_t* td);
// Handles one received datagram (LEN bytes, NUL after them) from IP:PORT.
void cloud_dgram(char* buf, int len, uint32_t ip, uint16_t port);
// One turn of the silence scan.
void cloud_silence_check();
void return_handle(const char* argstr, const char* ip, uint16_t port);
void cpuinfo_handle(const char* argstr);
// A gateway's report of its user application groups and applications, or
// of a distribution's outcome (usragp.cpp).
void usragp_recv(const char* text);
extern jos_module_t usragp_module;
// A game acceleration node's report (gamecloud.cpp).
void gamecloud_main(const char* text);
extern jos_module_t gamecloud_module;
// Sends a 520-byte command datagram with TEXT to IP:PORT (host order).
int cloud_sendarg(uint32_t ip, uint16_t port, const char* text);
void device_usragp_fileinfo(devlist_t* dev);

// Geolocation thread (lnglat.cpp) and the disconnect sweep it runs (wxcmd.cpp).
void updatelnglat(jos_thread_t* td);
void getdisconinfo(jos_thread_t* td);

extern jos_module_t cloud_module;
