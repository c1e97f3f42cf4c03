// The gateway pool and its mirror in vtlog.cloud_device.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "cloud.h"
#include "common.h"
#include "db_writer.h"
#include "ipe_string.h"
#include "jos_timer.h"

device_pool_t _devpool;
devlist_t* _lastobjchk;

static int _dev_stream = -1;
static void cloud_device_rebuild(mysql_conn& c);

int cloud_devpool_init()
{
    if (_devpool.init() != 0)
        return -1;
    _lastobjchk = _devpool.first();
    _dev_stream = dbw_stream("vtlog.cloud_device", cloud_device_rebuild);
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

static const char* const DEV_SETKEY = "update vtlog.cloud_device set md5str='%s' where license_id12='%s'";

static void dev_nonedefaults(devlist_t* d)
{
    if (d->map_address[0] == '\0')
        std::snprintf(d->map_address, sizeof(d->map_address), "none");
    if (d->version[0] == '\0')
        std::snprintf(d->version, sizeof(d->version), "none");
}

// Statements are formatted without a connection: the formatter escapes for
// latin1, the character set of every connection of the daemon.
static std::string dev_insert_sql(const devlist_t* d)
{
    return sqlf(nullptr, DEV_INSERT, d->devid, d->time, d->sys_run, d->ipaddr, d->sys_name, d->license_start,
                d->license_end, d->license_id12, d->license_id83, d->current_users, d->max_flowcont, d->max_ipcnt,
                d->upbps, d->downbps, d->flowcont, int(d->webport), int(d->sshport), d->outip, int(d->outport),
                int(d->grpid), d->sys_name2, d->longitude, d->latitude, d->map_address, d->version);
}

static std::string dev_update_sql(const devlist_t* d)
{
    return sqlf(nullptr, DEV_UPDATE, d->devid, d->time, d->sys_run, d->ipaddr, d->sys_name, d->license_start,
                d->license_end, d->license_id83, d->current_users, d->max_flowcont, d->max_ipcnt, d->upbps,
                d->downbps, d->flowcont, int(d->webport), int(d->sshport), d->outip, int(d->outport), int(d->grpid),
                d->sys_name2, d->longitude, d->latitude, d->map_address, d->version, d->license_id12);
}

// Callers hold the registry lock (or run before the threads start), so the
// statements of one device reach the writer in the order of its changes.
int cloud_devlist_tomysql(devlist_t* dev, const char* word)
{
    std::string w = word != nullptr ? word : "";
    if (dev != nullptr && w == "remove")
        return dbw_exec(_dev_stream,
                        sqlf(nullptr, "delete from vtlog.cloud_device where license_id12='%s'", dev->license_id12));
    if (dev != nullptr && w == "insert") {
        dev_nonedefaults(dev);
        return dbw_exec(_dev_stream, dev_insert_sql(dev), "");
    }
    if (dev != nullptr && w == "update") {
        dev_nonedefaults(dev);
        return dbw_exec(_dev_stream, dev_update_sql(dev));
    }
    dbw_rebuild(_dev_stream);
    return 0;
}

void device_setkey(const char* license_id12, const char* md5, uint32_t ip, uint16_t port)
{
    _devpool.mtx.lock();
    if (devlist_t* d = device_find(license_id12)) {
        d->outip = ip;
        d->outport = port;
        d->time = now32();
        std::snprintf(d->md5str, sizeof(d->md5str), "%s", md5);
    }
    // Known or not, the row (if any) takes the digest.
    dbw_exec(_dev_stream, sqlf(nullptr, DEV_SETKEY, md5, license_id12));
    _devpool.mtx.unlock();
}

// The whole table rewritten from the pool: delete, then one insert per
// device in slot order. Key digests are not in the inserted columns; a
// device's digest comes back from its last key report, or from the row the
// table had, so a rebuild loses none.
static void cloud_device_rebuild(mysql_conn& c)
{
    std::vector<std::pair<std::string, std::string>> keys;  // id, digest as the table had them
    if (c.query("select license_id12, md5str from vtlog.cloud_device where md5str<>'none'") == 0) {
        if (MYSQL_RES* res = mysql_store_result(c.get())) {
            while (MYSQL_ROW row = mysql_fetch_row(res))
                if (row[0] != nullptr && row[1] != nullptr)
                    keys.emplace_back(row[0], row[1]);
            mysql_free_result(res);
        }
    } else if (mysql_conn::lost(c.errnum())) {
        return;
    }

    std::vector<std::string> stmts;
    _devpool.mtx.lock();
    dbw_cut(_dev_stream);
    for (auto& [id, md5] : keys)
        if (devlist_t* d = device_find(id.c_str()); d != nullptr && d->md5str[0] == '\0')
            std::snprintf(d->md5str, sizeof(d->md5str), "%s", md5.c_str());
    _devpool.each([&](devlist_t* d) {
        dev_nonedefaults(d);
        stmts.push_back(dev_insert_sql(d));
    });
    _devpool.each([&](const devlist_t* d) {
        if (d->md5str[0] != '\0')
            stmts.push_back(sqlf(nullptr, DEV_SETKEY, d->md5str, d->license_id12));
    });
    _devpool.mtx.unlock();

    if (c.query_repair("delete from vtlog.cloud_device", "vtlog.cloud_device") != 0)
        return;
    dbw_run_all(c, stmts, "vtlog.cloud_device");
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

int cloud_devpool_load(mysql_conn& c)
{
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
    std::vector<std::string> ports;
    _devpool.mtx.lock();
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
            ports.push_back(sqlf(nullptr,
                                 "update vtlog.cloud_device set web_port=%d, ssh_port=%d where license_id12='%s'", p,
                                 q, d->license_id12));
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
    _devpool.mtx.unlock();
    mysql_free_result(res);
    // Run on the caller's connection: at start-up before anything else
    // writes, at a range change as part of the writer's job.
    dbw_run_all(c, ports, "vtlog.cloud_device");
    return 0;
}
