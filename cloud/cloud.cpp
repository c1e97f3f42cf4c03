// The registry module: start-up, the "cloud" receive thread and the handlers
// of the gateway datagrams.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "backup.h"
#include "cloud.h"
#include "cloudconf.h"
#include "common.h"
#include "db_writer.h"
#include "frelbox.h"
#include "ipe_string.h"
#include "jos_cmds.h"
#include "jos_thread.h"
#include "jos_timer.h"
#include "lnglat.h"
#include "logserver.h"
#include "metrics.h"
#include "sshport.h"
#include "table_relay.h"
#include "wxcmd.h"

int sock = -1;
uint32_t _cloud_device_update0;
uint32_t _cloud_device_update1;
uint32_t _cloud_device_update2;
uint32_t _cloud_device_update3;
uint32_t _cloud_device_update_count;
uint32_t _equalcount;
uint32_t _defgrp = GRP_NONE;
int _weixin_notify_discon;
int _http_port;

static jos_thread_t* _td;
static int _device_port = CLOUD_DEVICE_PORT;
// Receive buffer of the device socket: about 8000 status reports.
static constexpr int CLOUD_RCVBUF = 8 << 20;

// Copies a text field of a received datagram into a record field. The
// receive buffer ends in a NUL, so the source is always terminated; the
// copy is bounded by the destination.
static void dg_copy(char* dst, size_t size, const char* src)
{
    size_t n = strnlen(src, size - 1);
    std::memcpy(dst, src, n);
    dst[n] = '\0';
}

int cloud_sendarg(uint32_t ip, uint16_t port, const char* text)
{
    cldarg_t a{};
    std::memcpy(a.tag, "VTR", 4);
    a.type = VTR_CMDARG;
    a.arglen = sizeof(cldarg_t);
    dg_copy(a.argstr, sizeof(a.argstr), text);
    return cloud_sendto(sock, &a, sizeof(a), ip, port);
}

void device_usragp_fileinfo(devlist_t* dev)
{
    char text[128];
    std::snprintf(text, sizeof(text), "tag=%s httpport=%d", "usragp_file", _http_port);
    if (cloud_sendarg(dev->outip, dev->outport, text) != 0)
        std::puts("ERR_SEND");
    dev->task_sta.pad8 = 0;
}

namespace {

// A disconnect notice decided under the registry lock and written after
// it: the file is not written while the lock is held.
struct pending_notice {
    const char* word = nullptr;
    char id[sizeof(devlist_t::license_id12)];
    char name[sizeof(devlist_t::sys_name)];
    uint32_t time;

    void set(const char* w, const devlist_t* d)
    {
        word = w;
        std::memcpy(id, d->license_id12, sizeof(id));
        std::snprintf(name, sizeof(name), "%s", device_name(d));
        time = d->time;
    }
    void write() const
    {
        if (word != nullptr)
            vantrel_notice(word, id, name, time);
    }
};

}  // namespace

void cloud_silence_check()
{
    pending_notice n;
    _devpool.mtx.lock();
    devlist_t* p = _lastobjchk;
    if (p == nullptr || p > _devpool.last())
        p = _devpool.first();
    if (device_pool_t::inuse(p) && p->loaded == 0 && p->time + 60 < now32() && p->stat <= DEV_STAT_UP) {
        p->stat = DEV_STAT_SILENT;
        if (_weixin_notify_discon)
            n.set("vantrel_discount", p);
    }
    _lastobjchk = p == _devpool.last() ? _devpool.first() : p + 1;
    _devpool.mtx.unlock();
    n.write();
}

// Resolves a group name on the writer's connection, so the receive loop
// never waits for the database: the group id lands in the record (if it
// still carries that name) when the answer comes, and the row follows with
// an update. The last row of the answer wins. COUNTED: the report already
// wrote and counted an update of this device.
static void cloud_grplookup(const char* license_id12, const char* name, bool counted)
{
    std::string id = license_id12;
    std::string grpname = name;
    dbw_call(dbw_stream("vtlog.cloud_grp"), [id, grpname, counted](mysql_conn& c) {
        if (c.query(sqlf(c.get(), "select grpid from vtlog.cloud_grp where grpname='%s'", grpname)) != 0)
            return;
        long grp = -1;
        if (MYSQL_RES* res = mysql_store_result(c.get())) {
            while (MYSQL_ROW row = mysql_fetch_row(res))
                if (row[0] != nullptr)
                    grp = std::strtol(row[0], nullptr, 10);
            mysql_free_result(res);
        }
        if (grp < 0)
            return;
        _devpool.mtx.lock();
        devlist_t* d = device_find(id.c_str());
        if (d != nullptr && grpname == d->grpname) {
            d->grpid = static_cast<uint16_t>(grp);
            _cloud_device_update3++;
            cloud_devlist_tomysql(d, "update");
            if (!counted)
                _cloud_device_update_count++;
        }
        _devpool.mtx.unlock();
    });
}

// The limit texts start afresh with the user limit; the connection limit is
// appended to it, or stands alone.
static void cloud_limits(devlist_t* d)
{
    bool users = d->max_ipcnt != 0 && d->current_users >= d->max_ipcnt;
    bool flows = d->max_flowcont != 0 && d->flowcont >= d->max_flowcont;
    if (users) {
        d->equtime = now32();
        std::snprintf(d->info, sizeof(d->info), "用户数=最大用户数%d/%d;", static_cast<int>(d->current_users),
                      static_cast<int>(d->max_ipcnt));
    }
    if (flows) {
        if (!users)
            d->info[0] = '\0';
        d->equtime = now32();
        size_t len = std::strlen(d->info);
        std::snprintf(d->info + len, sizeof(d->info) - len, "连接数=最大连接数%u/%u;", d->flowcont,
                      d->max_flowcont);
    }
    if (users || flows) {
        if (d->isequal == 0)
            _equalcount++;
        d->isequal = 1;
    }
}

static void cloud_status(char* buf, uint32_t ip, uint16_t port)
{
    const auto* r = reinterpret_cast<const devinfo_recv_bps_t*>(buf);
    // 13 characters or more never enter the pool, nor does an empty name,
    // which would mark the slot free.
    if (r->license_id12[12] != '\0' || r->license_id12[0] == '\0') {
        met_dgram_dropped(buf, sizeof(*r));
        return;
    }
    const uint32_t now = now32();

    _devpool.mtx.lock();
    devlist_t* d = device_find(r->license_id12);
    bool isnew = false;
    bool changed = false;
    if (d == nullptr) {
        d = _devpool.alloc();
        if (d == nullptr) {
            _devpool.mtx.unlock();
            met_dgram_dropped(buf, sizeof(*r));
            return;
        }
        d->sys_name2[0] = '\0';
        isnew = true;
    }
    if (d->webport == 0 || d->sshport == 0) {
        int p, q;
        cloud_port_alloc(&p, &q);
        d->webport = static_cast<uint16_t>(p);
        d->sshport = static_cast<uint16_t>(q);
        _cloud_device_update0++;
        changed = true;
    }
    d->loaded = 0;
    dg_copy(d->license_id12, sizeof(d->license_id12), r->license_id12);
    d->devid = r->devid;
    d->time = now;
    d->sys_run = r->sys_run;
    d->ipaddr = r->ipaddr;
    dg_copy(d->sys_name, sizeof(d->sys_name), r->sys_name);
    if (d->license_start != r->license_start || d->license_end != r->license_end) {
        d->license_start = r->license_start;
        d->license_end = r->license_end;
        _cloud_device_update1++;
        changed = true;
    }
    dg_copy(d->license_id83, sizeof(d->license_id83), r->license_id83);
    d->current_users = r->current_users;
    if (d->current_users > d->max_users)
        d->max_users = d->current_users;
    d->max_flowcont = r->max_flowcont;
    d->max_ipcnt = r->max_ipcnt;
    d->upbps = r->upbps;
    d->downbps = r->downbps;
    d->flowcont = r->flowcont;
    d->outip = ip;
    d->outport = port;
    cloud_limits(d);

    char version[sizeof(d->version)];
    dg_copy(version, sizeof(version), r->version);
    if (std::strcmp(version, d->version) != 0) {
        std::memcpy(d->version, version, sizeof(version));
        _cloud_device_update2++;
        changed = true;
    }
    d->temp = static_cast<uint8_t>(r->temp & 0xff);
    pending_notice n;
    struct {
        char id[sizeof(devlist_t::license_id12)] = "";
        char name[sizeof(devlist_t::sys_name)] = "";
        void set(const char* i, const char* nm)
        {
            std::snprintf(id, sizeof(id), "%s", i);
            std::snprintf(name, sizeof(name), "%s", nm);
        }
    } newdev;  // the backup schedule of a new gateway is set up after the lock
    if (d->stat == DEV_STAT_SILENT && _weixin_notify_discon)
        n.set("vantrel_up", d);
    d->stat = DEV_STAT_UP;

    char grpname[sizeof(d->grpname)];
    dg_copy(grpname, sizeof(grpname), r->grpname);
    bool lookup = false;
    if (grpname[0] != '\0') {
        lookup = d->grpid == GRP_NONE;
        if (std::strcmp(d->grpname, grpname) != 0) {
            std::memcpy(d->grpname, grpname, sizeof(grpname));
            lookup = true;
        }
    } else if (d->grpname[0] != '\0') {
        d->grpid = GRP_NONE;
        d->grpname[0] = '\0';
    }

    if (isnew) {
        if (grpname[0] == '\0')
            d->grpid = static_cast<uint16_t>(_defgrp);
        _devpool.link(d);
        cloud_devlist_tomysql(d, "insert");
        newdev.set(d->license_id12, d->sys_name);
    } else if (changed) {
        cloud_devlist_tomysql(d, "update");
        _cloud_device_update_count++;
    }
    if (lookup)
        cloud_grplookup(d->license_id12, grpname, isnew || changed);

    if (d->passreset == PASSRESET_SENT && now - d->resettime >= 60)
        d->passreset = PASSRESET_FAILED;
    if (d->passreset == PASSRESET_REQUESTED) {
        char text[512];
        std::snprintf(text, sizeof(text), "tag=%s license_id12=%s password=%s oripass=%s mfadminpass=%d",
                      "rootpassreset", d->license_id12, d->password, d->oripass, d->mfadminpass);
        d->passreset = cloud_sendarg(ip, port, text) == 0 ? PASSRESET_SENT : PASSRESET_FAILED;
    }
    if (d->task_sta.pad8 != 0)
        device_usragp_fileinfo(d);
    _devpool.mtx.unlock();
    n.write();
    relay_heartbeat(_iptable, r->license_id12, ip, port);
    relay_heartbeat(_urldnsgrp, r->license_id12, ip, port);
    if (newdev.id[0] != '\0')
        backup_auto(newdev.id, newdev.name);
}

void cpuinfo_handle(const char* argstr)
{
    char tag[31] = "";
    char id[16] = "";
    long cpurate = 0;
    long rmadmin = 0;
    long cronfile = 0;
    ipe_eachword(argstr, [&](const char* k, const char* v) {
        if (std::strcmp(k, "tag") == 0)
            std::snprintf(tag, sizeof(tag), "%s", v);
        else if (std::strcmp(k, "license_id12") == 0)
            std::snprintf(id, sizeof(id), "%s", v);
        else if (std::strcmp(k, "cpurate") == 0)
            cpurate = std::strtol(v, nullptr, 10);
        else if (std::strcmp(k, "rmadmin") == 0)
            rmadmin = std::strtol(v, nullptr, 10);
        else if (std::strcmp(k, "cronfile") == 0)
            cronfile = std::strtol(v, nullptr, 10);
    }, " ", 1023);
    // The caller holds the registry lock.
    devlist_t* d = device_find(id);
    if (d == nullptr)
        return;
    if (std::strcmp(tag, "cpuinfo") != 0) {
        d->passreset = PASSRESET_CONFIRMED;
        return;
    }
    d->cpu = static_cast<uint8_t>(cpurate);
    std::string text;
    if (rmadmin != 0)
        text = "删除admin用户;";
    if (cronfile != 0)
        text += "删除/etc/cron/tabs文件";
    if (!text.empty())
        log_add(d, text.c_str());
}

void return_handle(const char* argstr, const char* ip, uint16_t port)
{
    char tag[1024] = "";
    char id[16] = "";
    ipe_eachword(argstr, [&](const char* k, const char* v) {
        if (std::strcmp(k, "tag") == 0)
            std::snprintf(tag, sizeof(tag), "%s", v);
        else if (std::strcmp(k, "license_id12") == 0 || std::strcmp(k, "licid12") == 0)
            std::snprintf(id, sizeof(id), "%s", v);
    }, " ", 1023);
    if (id[0] == '\0')
        return;
    _devpool.mtx.lock();
    devlist_t* d = device_find(id);
    if (d != nullptr) {
        d->outip = ipe_str2ip(ip);
        d->outport = port;
        d->time = now32();
        if (std::strcmp(tag, "rootpassreset") == 0 || std::strcmp(tag, "cpuinfo") == 0)
            cpuinfo_handle(argstr);
    }
    _devpool.mtx.unlock();
    if (d == nullptr)
        return;
    if (std::strcmp(tag, "wxdeny") == 0)
        wci_answer(argstr);
    else if (std::strcmp(tag, "sshmapport") == 0)
        sshport_handle(argstr);
    else if (std::strcmp(tag, "sshportkill") == 0)
        sshport_remove(argstr);
    else if (std::strcmp(tag, "gamecloud_stat") == 0)
        gamecloud_main(argstr);
    else if (std::strcmp(tag, "updateiptable") == 0)
        relay_handle(_iptable, argstr);
    else if (std::strcmp(tag, "iptablestatus") == 0)
        relay_status(_iptable, argstr);
    else if (std::strcmp(tag, "urldnsgrpinfo") == 0)
        relay_handle(_urldnsgrp, argstr);
    else if (std::strcmp(tag, "urldnsgrpstatus") == 0)
        relay_status(_urldnsgrp, argstr);
    else if (std::strcmp(tag, "usragp_request") == 0 || std::strcmp(tag, "usrapp_request") == 0 ||
             std::strcmp(tag, "usragp_log") == 0)
        usragp_recv(argstr);
}

void cloud_dgram(char* buf, int len, uint32_t ip, uint16_t port)
{
    met_dgram(buf, len);
    if (std::memcmp(buf, "FRB", 3) == 0) {
        frelbox_main(buf, len, ip, port, &sock);
        return;
    }
    if (std::memcmp(buf, "LOG", 3) == 0) {
        logserver_main(buf, len, ip, port, &sock);
        return;
    }
    if (std::memcmp(buf, "VTR", 3) != 0)
        return;
    const auto* h = reinterpret_cast<const cloud_hdr_t*>(buf);
    switch (h->type) {
    case VTR_LNGLAT: {
        const auto* m = reinterpret_cast<const cloud_bdmapsetlnglat_t*>(buf);
        char id[sizeof(m->licenseid12)];
        dg_copy(id, sizeof(id), m->licenseid12);
        _devpool.mtx.lock();
        if (devlist_t* d = device_find(id)) {
            d->longitude = m->longitude;
            d->latitude = m->latitude;
            d->time = now32();
        }
        _devpool.mtx.unlock();
        break;
    }
    case VTR_STATUS:
    case VTR_STATUS2:
    case VTR_STATUS3:
        cloud_status(buf, ip, port);
        break;
    case VTR_VTKEY: {
        const auto* k = reinterpret_cast<const cloud_vtkey_t*>(buf);
        char id[sizeof(k->license_id12)];
        char md5[sizeof(k->md5str) + 1];
        dg_copy(id, sizeof(id), k->license_id12);
        dg_copy(md5, sizeof(md5), k->md5str);
        device_setkey(id, md5, ip, port);
        break;
    }
    case VTR_CMDARG: {
        const auto* a = reinterpret_cast<const cldarg_t*>(buf);
        char ipstr[INET_ADDRSTRLEN];
        in_addr in{htonl(ip)};
        inet_ntop(AF_INET, &in, ipstr, sizeof(ipstr));
        return_handle(a->argstr, ipstr, port);
        break;
    }
    default:
        break;
    }
}

void cloud_main(jos_thread_t* td)
{
    sock = socket(AF_INET, SOCK_DGRAM, 0);
    if (sock < 0) {
        std::puts("socket error");
        std::exit(-1);
    }
    int one = 1;
    if (setsockopt(sock, SOL_SOCKET, SO_REUSEPORT, &one, sizeof(one)) != 0)
        std::puts("setsockopt error");
    // After a power cut or a restart a whole fleet reports within seconds:
    // room for several thousand reports. Root may go past the system's cap
    // on receive buffers; others get what the cap allows, and are told.
    if (cloud_rcvbuf(sock, CLOUD_RCVBUF, "cloud_main") != 0) {
        std::puts("set recvbuf error");
        return;
    }
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(INADDR_ANY);
    sa.sin_port = htons(static_cast<uint16_t>(_device_port));
    if (bind(sock, reinterpret_cast<sockaddr*>(&sa), sizeof(sa)) != 0) {
        std::puts("fail to bind ");
        close(sock);
        std::exit(-1);
    }

    // Room for the largest datagram, its NUL, and every record read at a
    // fixed offset: short datagrams read as zeros past their end.
    static char buf[CLOUD_MAXDGRAM + 1];
    int prevlen = CLOUD_MAXDGRAM;
    // The silence scan checks one slot per 20 ms turn. A quiet socket is
    // waited on for five turns at once and the five checks are made
    // together: the scan keeps its pace, the thread wakes a fifth as often.
    uint64_t turn_ns = jos_counter();
    while (!td->td_notifyexit) {
        const uint64_t now_ns = jos_counter();
        uint64_t turns = (now_ns - turn_ns) / 20000000ULL;
        turns = turns < 1 ? 1 : turns > 5 ? 5 : turns;
        turn_ns = now_ns;
        for (uint64_t i = 0; i < turns; i++)
            cloud_silence_check();
        int rc = jos_thread_wait(td, sock, 100);
        if (rc < 0)
            return;
        if (rc == 0)
            continue;
        std::memset(buf, 0, static_cast<size_t>(prevlen) + 1);
        sockaddr_in from{};
        socklen_t flen = sizeof(from);
        ssize_t n = recvfrom(sock, buf, CLOUD_MAXDGRAM, 0, reinterpret_cast<sockaddr*>(&from), &flen);
        if (n < 1) {
            prevlen = CLOUD_MAXDGRAM;
            continue;
        }
        prevlen = static_cast<int>(n);
        buf[n] = '\0';
        cloud_dgram(buf, static_cast<int>(n), ntohl(from.sin_addr.s_addr), ntohs(from.sin_port));
    }
    close(sock);
}

static const char* const DEV_CREATE =
    "create table if not exists vtlog.cloud_device(devid int(2), time int(4), sys_run bigint(4), ipaddr bigint(4), "
    "sys_name varchar(64) default '', sys_name2 varchar(64) default '',license_start bigint(4), license_end "
    "bigint(4),license_id12 varchar(16), license_id83 varchar(100),max_flowcont bigint(4), max_ipcnt "
    "bigint(4),users int(2), flowcont bigint(4), upbps bigint(4), downbps bigint(4), outip varchar(16), outport "
    "int(2), mapping_web int(2) default '0', mapping_ssh int(2) default '0', web_port int(2) default '0', ssh_port "
    "int(2) default '0', grpid int(2) default '0')ENGINE=MyISAM default charset=latin1";

// The widening of map_address runs before its addition: a new table has
// varchar(128) after the first start and varchar(512) from the second on.
static const char* const DEV_MIGRATE[] = {
    "alter table vtlog.cloud_device modify map_address varchar(512)",
    "alter table vtlog.cloud_device drop upbytes",
    "alter table vtlog.cloud_device drop downbytes",
    "alter table vtlog.cloud_device drop mapping_ssh",
    "alter table vtlog.cloud_device drop mapping_web",
    "alter table vtlog.cloud_device drop mapping_time",
    "alter table vtlog.cloud_device add longitude double not null default '0'",
    "alter table vtlog.cloud_device add latitude double not null default '0'",
    "alter table vtlog.cloud_device add map_address varchar(128) not null default 'none'",
    "alter table vtlog.cloud_device add version varchar(64) not null default 'none'",
    "alter table vtlog.cloud_device add md5str varchar(64) not null default 'none'",
    "alter table vtlog.cloud_device modify upbps bigint(8)",
    "alter table vtlog.cloud_device modify downbps bigint(8)",
};

static int cloud_minit(jos_kernel_t*)
{
    rsa_init();
    mysqlinfo_init();
    cloud_minport_set();
    {
        mysql_conn c;
        if (c.ok() && c.query(DEV_CREATE) == 0)
            for (const char* sql : DEV_MIGRATE)
                c.query(sql);
    }
    cloud_gateway_config();
    if (cloud_devpool_init() != 0) {
        std::printf("%s error: malloc error\n", "cloud_devpool_init");
        std::printf("1: %s error\n", "cloud_init");
        std::exit(-1);
    }
    {
        mysql_conn c;
        if (!c.ok()) {
            std::puts("msyql connect error");
            std::printf("1: %s error\n", "cloud_init");
            std::exit(-1);
        }
        c.query("repair table vtlog.cloud_device");
        if (MYSQL_RES* res = mysql_store_result(c.get()))
            mysql_free_result(res);
    }
    {
        mysql_conn c;
        if (!c.ok()) {
            std::printf("2:%s error\n", "cloud_init");
            std::exit(-1);
        }
        if (c.query("repair table vtlog.cloud_device") != 0) {
            std::puts("repair fail");
            std::exit(-1);
        }
        if (MYSQL_RES* res = mysql_store_result(c.get()))
            mysql_free_result(res);
    }
    {
        mysql_conn c;
        if (!c.ok()) {
            std::printf("1: %s error\n", "cloud_devpool_load");
            std::printf("3:%s error\n", "cloud_init");
            std::exit(-1);
        }
        if (cloud_devpool_load(c) < 0) {
            std::printf("3:%s error\n", "cloud_init");
            std::exit(-1);
        }
    }
    cloud_adduser();

    _defgrp = GRP_NONE;
    if (FILE* f = std::fopen(jos_path("/etc/cloud.conf").c_str(), "r")) {
        char line[1024];
        while (std::fgets(line, sizeof(line), f) != nullptr) {
            char key[1024];
            int grp;
            if (std::strstr(line, "device_defgrp=") != nullptr && std::sscanf(line, "%1023[^=]=%d", key, &grp) == 2) {
                _defgrp = static_cast<uint32_t>(grp);
                break;
            }
        }
        std::fclose(f);
    }
    _device_port = cloudconf_int("device_port", CLOUD_DEVICE_PORT);
    _http_port = upgrade_nginx_port();
    if (log_init() != 0)
        std::puts("log_init: malloc error");

    char obj[256];
    if (getconfig("cloud_weixin_relation_obj", 25, obj, sizeof(obj)) != nullptr && std::strstr(obj, "discon"))
        _weixin_notify_discon = 1;
    std::printf("weixin_notify_discon: %d\n", _weixin_notify_discon);

    _td = jos_thread_register("cloud", 1, cloud_main);
    if (_td == nullptr) {
        std::puts("fail to register cloud thread!");
        return -1;
    }
    if (jos_thread_register("updatelnglat", 2, updatelnglat) == nullptr) {
        std::puts("fail to register updatelnglat thread!");
        return -1;
    }
    lnglat_init();
    _devpool.mtx.word = 0;
    met_appliances("VTR", cloud_counts);
    dbw_start(static_cast<size_t>(std::max(0, cloudconf_int("db_queue_max", 0))));
    return 0;
}

// Every thread that hands statements over has stopped by now: let the
// writer finish the queue, for at most ten seconds.
static void cloud_mfini(jos_kernel_t*)
{
    dbw_stop(10000);
}

jos_module_t cloud_module = {"cloud", 0x09000000, -1, cloud_minit, cloud_mfini, cloud_ioctl, nullptr};
