// Mapping ports: one range, handed out in pairs by a rotating value.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "cloud.h"
#include "cloudconf.h"
#include "common.h"

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
    int start = _mapping_port_min;
    if (c.query_repair("select max(ssh_port) from vtlog.cloud_device", "vtlog.cloud_device") == 0) {
        if (MYSQL_RES* res = mysql_store_result(c.get())) {
            MYSQL_ROW row = mysql_fetch_row(res);
            if (row != nullptr && row[0] != nullptr && std::atoi(row[0]) < _mapping_port_max)
                start = std::atoi(row[0]);
            mysql_free_result(res);
        }
    }
    std::printf("_minport=%d\n", _mapping_port_min);
    _current_port_alloc = start != 0 ? start : _mapping_port_min;
    std::printf("_current_port_alloc=%d\n", _current_port_alloc);
}

// Lets forwarded ports be reached from outside, once.
void cloud_gateway_config()
{
    std::string path = jos_path("/etc/ssh/sshd_config");
    if (FILE* f = std::fopen(path.c_str(), "r")) {
        char line[1024];
        bool done = false;
        while (!done && std::fgets(line, sizeof(line), f) != nullptr)
            done = std::strstr(line, "GatewayPorts yes") != nullptr;
        std::fclose(f);
        if (done)
            return;
    }
    FILE* f = std::fopen(path.c_str(), "a");
    if (f == nullptr)
        return;
    std::fputs("GatewayPorts yes\n", f);
    std::fclose(f);
    cloudconf_run("cloud_gateway_config", cloudconf_get("sshd_restart", "systemctl restart ssh"));
}
