// Mapping ports: one range, handed out in pairs by a rotating value.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "cloud.h"
#include "cloudconf.h"
#include "common.h"
#include "db_writer.h"
#include "jos_cmds.h"

int _mapping_port_min = 24569;
int _mapping_port_max = 34567;
int _current_port_alloc;

void cloud_port_alloc(int* web, int* ssh)
{
    int p = _current_port_alloc;
    int q = p + 1 >= _mapping_port_max ? _mapping_port_min : p + 1;
    _current_port_alloc = q + 1 >= _mapping_port_max ? _mapping_port_min : q + 1;
    *web = p;
    *ssh = q;
}

// The start value is the largest SSH port in use, not one past it.
void cloud_minport_set()
{
    char val[64];
    if (getconfig("cloud_mapping_min_port", 22, val, sizeof(val)) != nullptr)
        _mapping_port_min = std::atoi(val);
    if (getconfig("cloud_mapping_max_port", 22, val, sizeof(val)) != nullptr)
        _mapping_port_max = std::atoi(val);

    mysql_conn c;
    if (!c.ok()) {
        _current_port_alloc = 0;
        std::puts("mysql init error");
        std::exit(-1);
    }
    cloud_minport_from(c);
}

void cloud_minport_from(mysql_conn& c)
{
    bool have = false;
    int largest = 0;
    if (c.query_repair("select max(ssh_port) from vtlog.cloud_device", "vtlog.cloud_device") == 0) {
        if (MYSQL_RES* res = mysql_store_result(c.get())) {
            MYSQL_ROW row = mysql_fetch_row(res);
            if (row != nullptr && row[0] != nullptr) {
                have = true;
                largest = std::atoi(row[0]);
            }
            mysql_free_result(res);
        }
    }
    _devpool.mtx.lock();
    int start = have && largest < _mapping_port_max ? largest : _mapping_port_min;
    _current_port_alloc = start != 0 ? start : _mapping_port_min;
    const int pmin = _mapping_port_min, alloc = _current_port_alloc;
    _devpool.mtx.unlock();
    std::printf("_minport=%d\n", pmin);
    std::printf("_current_port_alloc=%d\n", alloc);
}

// Lets forwarded ports be reached from outside, once.
void cloud_gateway_config()
{
    std::string path = jos_path("/etc/ssh/sshd_config");
    bool ended = true;  // the file ends in a newline (or is empty or missing)
    if (FILE* f = std::fopen(path.c_str(), "r")) {
        char line[1024];
        bool done = false;
        while (!done && std::fgets(line, sizeof(line), f) != nullptr) {
            done = std::strstr(line, "GatewayPorts yes") != nullptr;
            ended = std::strchr(line, '\n') != nullptr;
        }
        std::fclose(f);
        if (done)
            return;
    }
    FILE* f = std::fopen(path.c_str(), "a");
    if (f == nullptr)
        return;
    // Its own line, also after a last line without a newline.
    std::fputs(ended ? "GatewayPorts yes\n" : "\nGatewayPorts yes\n", f);
    std::fclose(f);
    cloudconf_run("cloud_gateway_config", cloudconf_get("sshd_restart", "systemctl restart ssh"));
}

void cloud_cmd_ranges(jos_cmdarg_t* ca, long defgrp, long grpreset, long oldgrp, bool notify_given, long notify,
                      long minport, long maxport)
{
    // The receive loop reads these settings under the registry lock.
    _devpool.mtx.lock();
    if (notify_given)
        _weixin_notify_discon = static_cast<int>(notify);
    if (minport == 0 && maxport == 0) {
        if (grpreset == 0) {
            _defgrp = static_cast<uint32_t>(defgrp);
        } else {
            _devpool.each([&](devlist_t* d) {
                if (d->grpid == oldgrp)
                    d->grpid = 0;
            });
        }
        _devpool.mtx.unlock();
        jos_cmd_printf(ca, "ok");
        return;
    }
    if (minport < 0 || maxport < 0 || minport > 65535 || maxport > 65535) {
        _devpool.mtx.unlock();
        jos_cmd_printf(ca, "Invalid port\n");
        return;
    }
    _mapping_port_min = static_cast<int>(minport);
    _mapping_port_max = static_cast<int>(maxport);
    _devpool.mtx.unlock();
    setconfig("cloud_mapping_min_port", std::to_string(minport).c_str());
    setconfig("cloud_mapping_max_port", std::to_string(maxport).c_str());
    // Every device gets a fresh pair from the new range at the reload. The
    // writer does it in order after the writes queued before, and again
    // from the start should the connection drop half-way.
    dbw_call(dbw_stream("vtlog.cloud_device"), [](mysql_conn& c) {
        if (c.query("update vtlog.cloud_device set web_port=0, ssh_port=0") != 0)
            return;
        cloud_minport_from(c);
        cloud_devpool_load(c);
    });
    jos_cmd_printf(ca, "ok");
}

void cloud_cmd_mapping(jos_cmdarg_t* ca, const char* license_id12, const char* maphost, long hostport, long webport,
                       long sshport, long webenable, long sshenable)
{
    _devpool.mtx.lock();
    devlist_t* d = device_find(license_id12);
    if (d == nullptr) {
        _devpool.mtx.unlock();
        jos_cmd_printf(ca, "ok");
        return;
    }
    d->webport = static_cast<uint16_t>(webport);
    d->sshport = static_cast<uint16_t>(sshport);
    d->webenable = static_cast<uint8_t>(webenable);
    d->sshenable = static_cast<uint8_t>(sshenable);
    std::snprintf(d->maphost, sizeof(d->maphost), "%.63s", maphost);
    d->hostport = static_cast<uint16_t>(hostport);
    d->mapping = 0;

    _mapping_port_t m{};
    std::memcpy(m.tag, "VTR", 4);
    m.type = VTR_MAPPING;
    m.webport = d->webport;
    m.sshport = d->sshport;
    m.webenable = d->webenable;
    m.sshenable = d->sshenable;
    m.hostport = d->hostport;
    std::snprintf(m.licenseid12, sizeof(m.licenseid12), "%s", d->license_id12);
    std::memcpy(m.maphost, d->maphost, sizeof(m.maphost));
    if (cloud_sendto(sock, &m, sizeof(m), d->outip, d->outport) != 0)
        std::puts("send error");
    cloud_devlist_tomysql(d, "update");
    _devpool.mtx.unlock();
    jos_cmd_printf(ca, "ok");
}
