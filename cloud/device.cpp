// The gateway pool and its mirror in vtlog.cloud_device.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "cloud.h"
#include "common.h"
#include "ipe_string.h"
#include "jos_timer.h"

device_pool_t _devpool;
devlist_t* _lastobjchk;

int cloud_devpool_init()
{
    if (_devpool.init() != 0)
        return -1;
    _lastobjchk = _devpool.first();
    return 0;
}

int device_hash(const char* key)
{
    return static_cast<int>(device_pool_t::bucket(key));
}

devlist_t* device_find(const char* license_id12)
{
    return _devpool.find(license_id12);
}

const char* device_name(const devlist_t* dev)
{
    return dev->sys_name2[0] != '\0' ? dev->sys_name2 : dev->sys_name;
}

// The copy bound is size - 1, so at most size - 2 characters arrive: callers
// have always sized their buffers for that.
void device_getsysname(const char* license_id12, char* dest, int size, uint16_t* grpid)
{
    if (size <= 0)
        return;
    std::memset(dest, 0, static_cast<size_t>(size));
    const devlist_t* dev = device_find(license_id12);
    if (dev == nullptr)
        return;
    *grpid = dev->grpid;
    const char* name = device_name(dev);
    size_t n = std::strlen(name);
    size_t room = size >= 2 ? static_cast<size_t>(size - 2) : 0;
    std::memcpy(dest, name, n < room ? n : room);
}

devlist_t* device_upiport(const char* license_id12, const char* ip, uint16_t port)
{
    devlist_t* dev = device_find(license_id12);
    if (dev == nullptr)
        return nullptr;
    dev->outip = ipe_str2ip(ip);
    dev->outport = port;
    dev->time = now32();
    return dev;
}

void device_remove(const char* license_id12)
{
    _devpool.mtx.lock();
    devlist_t* dev = _devpool.unlink(license_id12);
    if (dev != nullptr) {
        cloud_devlist_tomysql(dev, "remove");
        _devpool.release(dev);
    }
    _devpool.mtx.unlock();
}

static const char* const DEV_INSERT =
    "insert into vtlog.cloud_device(devid, time, sys_run, ipaddr, sys_name, license_start, license_end, "
    "license_id12, license_id83, users, max_flowcont, max_ipcnt, upbps, downbps, flowcont, web_port, ssh_port, "
    "outip, outport, grpid, sys_name2, longitude, latitude, map_address, version) values(%u, %u, %u, %u, '%s', "
    "%u, %u, '%s', '%s', %u, %u, %u, %lu, %lu, %u, %d, %d, %u, %d, %d, '%s', %.12f, %.12f, '%s', '%s')";

static const char* const DEV_UPDATE =
    "update vtlog.cloud_device set devid=%u, time=%u, sys_run=%u, ipaddr=%u, sys_name='%s', license_start=%u, "
    "license_end=%u, license_id83='%s', users=%u, max_flowcont=%u, max_ipcnt=%u, upbps=%lu, downbps=%lu, "
    "flowcont=%u, web_port=%d, ssh_port=%d, outip=%u, outport=%d, grpid=%d, sys_name2='%s', longitude=%.12f, "
    "latitude=%.12f, map_address='%s', version='%s' where license_id12='%s'";

static void dev_nonedefaults(devlist_t* d)
{
    if (d->map_address[0] == '\0')
        std::snprintf(d->map_address, sizeof(d->map_address), "none");
    if (d->version[0] == '\0')
        std::snprintf(d->version, sizeof(d->version), "none");
}

static std::string dev_insert_sql(MYSQL* m, const devlist_t* d)
{
    return sqlf(m, DEV_INSERT, d->devid, d->time, d->sys_run, d->ipaddr, d->sys_name, d->license_start,
                d->license_end, d->license_id12, d->license_id83, d->current_users, d->max_flowcont, d->max_ipcnt,
                d->upbps, d->downbps, d->flowcont, int(d->webport), int(d->sshport), d->outip, int(d->outport),
                int(d->grpid), d->sys_name2, d->longitude, d->latitude, d->map_address, d->version);
}

int cloud_devlist_tomysql(devlist_t* dev, const char* word)
{
    mysql_conn c;
    if (!c.ok()) {
        std::puts("mysql connect error");
        return -1;
    }
    std::string w = word != nullptr ? word : "";
    if (dev != nullptr && w == "remove")
        return c.query(sqlf(c.get(), "delete from vtlog.cloud_device where license_id12='%s'", dev->license_id12)) ==
                       0
                   ? 0
                   : -1;
    if (dev != nullptr && w == "insert") {
        dev_nonedefaults(dev);
        if (c.query(dev_insert_sql(c.get(), dev)) != 0) {
            std::printf("%s\n", c.error());
            return -1;
        }
        return 0;
    }
    if (dev != nullptr && w == "update") {
        dev_nonedefaults(dev);
        const devlist_t* d = dev;
        std::string sql = sqlf(c.get(), DEV_UPDATE, d->devid, d->time, d->sys_run, d->ipaddr, d->sys_name,
                               d->license_start, d->license_end, d->license_id83, d->current_users, d->max_flowcont,
                               d->max_ipcnt, d->upbps, d->downbps, d->flowcont, int(d->webport), int(d->sshport),
                               d->outip, int(d->outport), int(d->grpid), d->sys_name2, d->longitude, d->latitude,
                               d->map_address, d->version, d->license_id12);
        return c.query(sql) == 0 ? 0 : -1;
    }
    // Anything else rewrites the whole table from the pool.
    c.query_repair("delete from vtlog.cloud_device", "vtlog.cloud_device");
    for (size_t i = 0; i < DEV_POOL_SIZE; i++) {
        devlist_t* d = _devpool.slot(i);
        if (!device_pool_t::inuse(d))
            continue;
        dev_nonedefaults(d);
        if (c.query(dev_insert_sql(c.get(), d)) != 0)
            return -1;
    }
    return 0;
}

// Copies a column value cut at its first blank or '|'.
static void dev_copyname(char* dst, size_t size, const char* src)
{
    size_t n = std::strcspn(src, " |");
    if (n >= size)
        n = size - 1;
    std::memcpy(dst, src, n);
    dst[n] = '\0';
}

static void dev_copy(char* dst, size_t size, const char* src)
{
    std::snprintf(dst, size, "%s", src != nullptr ? src : "");
}

static uint32_t col_u32(const char* v)
{
    return v != nullptr ? static_cast<uint32_t>(std::strtoull(v, nullptr, 10)) : 0;
}

static double col_dbl(const char* v)
{
    return v != nullptr ? std::strtod(v, nullptr) : 0.0;
}

int cloud_devpool_load()
{
    mysql_conn c;
    if (!c.ok()) {
        std::printf("1: %s error\n", "cloud_devpool_load");
        return -1;
    }
    const char* sel =
        "select license_id12, grpid, web_port, ssh_port, sys_name2, sys_name, ipaddr, sys_run, license_start, "
        "license_end, license_id83, time,longitude, latitude, outip, map_address, version, max_ipcnt, max_flowcont "
        "from vtlog.cloud_device";
    if (int err = c.query_repair(sel, "vtlog.cloud_device"); err != 0) {
        std::printf("2: %s error(%d)\n", "cloud_devpool_load", err);
        return -1;
    }
    MYSQL_RES* res = mysql_store_result(c.get());
    if (res == nullptr) {
        std::printf("3: %s error\n", "cloud_devpool_load");
        return -1;
    }
    while (MYSQL_ROW row = mysql_fetch_row(res)) {
        if (row[0] == nullptr || row[0][0] == '\0' || std::strlen(row[0]) > 12)
            continue;
        devlist_t* d = device_find(row[0]);
        if (d == nullptr) {
            d = _devpool.alloc();
            if (d == nullptr)
                continue;
            dev_copy(d->license_id12, sizeof(d->license_id12), row[0]);
            _devpool.link(d);
        }
        d->grpid = static_cast<uint16_t>(col_u32(row[1]));
        d->webport = static_cast<uint16_t>(col_u32(row[2]));
        d->sshport = static_cast<uint16_t>(col_u32(row[3]));
        if (d->webport < 1024) {
            // The table gets the pair as allocated, the record one more on
            // each port, until the next update write evens them out.
            int p, q;
            cloud_port_alloc(&p, &q);
            c.query(sqlf(c.get(), "update vtlog.cloud_device set web_port=%d, ssh_port=%d where license_id12='%s'",
                         p, q, d->license_id12));
            d->webport = static_cast<uint16_t>(p + 1);
            d->sshport = static_cast<uint16_t>(q + 1);
        }
        if (row[4] != nullptr)
            dev_copyname(d->sys_name2, sizeof(d->sys_name2), row[4]);
        if (row[5] != nullptr)
            dev_copyname(d->sys_name, sizeof(d->sys_name), row[5]);
        d->ipaddr = col_u32(row[6]);
        d->sys_run = col_u32(row[7]);
        d->license_start = col_u32(row[8]);
        d->license_end = col_u32(row[9]);
        if (row[10] != nullptr)
            dev_copy(d->license_id83, sizeof(d->license_id83), row[10]);
        d->time = col_u32(row[11]);
        d->longitude = col_dbl(row[12]);
        d->latitude = col_dbl(row[13]);
        d->outip = col_u32(row[14]);
        dev_copy(d->map_address, sizeof(d->map_address), row[15]);
        dev_copy(d->version, sizeof(d->version), row[16]);
        d->max_ipcnt = col_u32(row[17]);
        d->max_flowcont = col_u32(row[18]);
        d->stat = DEV_STAT_LOADED;
        d->mapping = 0;
        d->loaded = 1;
    }
    mysql_free_result(res);
    return 0;
}
