#include "wxcmd.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>

#include "cloud.h"
#include "common.h"
#include "db_writer.h"
#include "jos_cmds.h"
#include "jos_mgmt.h"
#include "jos_thread.h"
#include "jos_timer.h"
#include "sshport.h"

wxcmdinfo_t _wci;

// Written under the device's name, then renamed: the collector only takes
// names ending in ".ok", so it never sees a half-written notice.
void vantrel_notice(const char* word, const char* license_id12, const char* name, uint32_t time)
{
    // The identifier comes from the appliance and names a file: never let
    // it leave the spool directory.
    std::string id = license_id12;
    if (id.empty() || id == "." || id == ".." || id.find('/') != std::string::npos)
        return;
    std::string dir = jos_path("/usr/logdata/tmp/weixin");
    std::error_code ec;
    if (!std::filesystem::exists(dir, ec))
        std::filesystem::create_directories(dir, ec);
    std::string path = dir + "/" + id;
    FILE* f = std::fopen(path.c_str(), "w");
    if (f == nullptr)
        return;
    std::fprintf(f, "vantrel_type=%s\n", word);
    std::fprintf(f, "lic12=%s\n", license_id12);
    std::fprintf(f, "time=%u\n", time);
    std::fprintf(f, "name=%s", name);
    std::fclose(f);
    std::rename(path.c_str(), (path + ".ok").c_str());
}

// Silent devices are recorded once per sweep during their first hour of
// silence; temporary ones are removed after an hour.
void getdisconinfo(jos_thread_t* td)
{
    const int stream = dbw_stream("vtlog.device_discon");
    dbw_exec(stream, discontable_sql("device_discon"), "");
    const uint32_t now = now32();
    for (size_t i = 0; i < DEV_POOL_SIZE && !td->td_notifyexit; i++) {
        _devpool.mtx.lock();
        devlist_t* d = _devpool.slot(i);
        if (!device_pool_t::inuse(d)) {
            _devpool.mtx.unlock();
            continue;
        }
        if (std::strncmp(d->license_id12, "TEMP", 4) == 0) {
            char id[sizeof(d->license_id12)];
            std::memcpy(id, d->license_id12, sizeof(id));
            bool expired = d->time + 3600 < now;
            _devpool.mtx.unlock();
            if (expired)
                device_remove(id);
            continue;
        }
        if (d->time + 60 < now && d->time + 3600 >= now)
            dbw_exec(stream, sqlf(nullptr,
                                  "insert into vtlog.device_discon(license_id12, grpid, name, time, uptime)values('%s', "
                                  "%d, '%s', %u, %ld)",
                                  d->license_id12, int(d->grpid), device_name(d), d->time,
                                  static_cast<long>(_jos_timesec.load())));
        _devpool.mtx.unlock();
    }
    log_inserttable();
}

static void wci_reset()
{
    _wci.cmd[0] = '\0';
    _wci.send = 0;
    _wci.succ = 0;
    _wci.fail = 0;
}

void wci_result(jos_cmdarg_t* ca)
{
    jos_cmd_printf(ca, "send=%d\nsucc=%d\nfail=%d\n", _wci.send.load(), _wci.succ.load(), _wci.fail.load());
    wci_reset();
}

// Each line starts a new count. "device=" names one target by the 12
// characters after it.
void wci_update(jos_cmdarg_t* ca, const char* line)
{
    wci_reset();
    std::snprintf(_wci.cmd, sizeof(_wci.cmd), "%.63s", line);
    if (*line == '\0')
        return;
    char target[13] = "";
    if (const char* p = std::strstr(line, "device="))
        std::snprintf(target, sizeof(target), "%s", p + 7);
    for (size_t i = 0; i < DEV_POOL_SIZE; i++) {
        _devpool.mtx.lock();
        const devlist_t* d = _devpool.slot(i);
        bool hit = device_pool_t::inuse(d) &&
                   (target[0] == '\0' || std::strncmp(d->license_id12, target, 12) == 0);
        if (hit) {
            char text[1024];
            std::snprintf(text, sizeof(text), "tag=%s license_id12=%s %s", "wxdeny", d->license_id12, line);
            if (cloud_sendarg(d->outip, d->outport, text) != 0)
                _wci.fail++;
            _wci.send++;
        }
        _devpool.mtx.unlock();
        if (hit && target[0] != '\0')
            break;
    }
    jos_cmd_printf(ca, "ok");
}

void wci_answer(const char* argstr)
{
    if (std::strstr(argstr, "return=0") != nullptr)
        _wci.succ++;
    else if (std::strstr(argstr, "return=-1") != nullptr)
        _wci.fail++;
}

// The relay file is read for the client only if it could read it itself:
// a regular file it owns (any regular file for root), of bounded size. A
// FIFO or device is refused without being waited on.
static FILE* wxcmd_open(const std::string& file)
{
    long uid = jos_mgmt_peeruid();
    if (uid < 0)
        return nullptr;
    int fd = open(file.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0)
        return nullptr;
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_size > WXCMD_FILE_MAX ||
        (uid != 0 && static_cast<long>(st.st_uid) != uid)) {
        close(fd);
        return nullptr;
    }
    FILE* f = fdopen(fd, "r");
    if (f == nullptr)
        close(fd);
    return f;
}

int wxcmd_main(jos_cmdarg_t* ca)
{
    long wxcmd = 0;
    long status = 0;
    std::string file;
    char* value = nullptr;
    char* cursor = nullptr;
    for (char* tag = jos_cmd_nextarg(ca->ca_arg, &value, &cursor); tag != nullptr;
         tag = jos_cmd_nextarg(cursor, &value, &cursor)) {
        if (std::strcmp(tag, "wxcmd") == 0)
            wxcmd = std::strtol(value, nullptr, 10);
        else if (std::strcmp(tag, "file") == 0)
            file = value;
        else if (std::strcmp(tag, "wxcmdstatus") == 0)
            status = std::strtol(value, nullptr, 10);
    }
    if (status != 0) {
        wci_result(ca);
        return 0;
    }
    if (wxcmd == 0 || file.empty())
        return -1;
    std::error_code ec;
    if (!std::filesystem::exists(file, ec)) {
        jos_cmd_printf(ca, "ERR_NOCMD");
        return -1;
    }
    FILE* f = wxcmd_open(file);
    if (f == nullptr) {
        jos_cmd_printf(ca, "ERR_NOCMD");
        return 0;
    }
    // Bounded by lines and bytes (the file may grow while it is read), and
    // left at once when the daemon is told to stop.
    char line[1024];
    long bytes = 0;
    for (int n = 0; n < WXCMD_LINES_MAX && bytes < WXCMD_FILE_MAX && !_jos_exitflag &&
                    std::fgets(line, sizeof(line), f) != nullptr;
         n++) {
        bytes += static_cast<long>(std::strlen(line));
        for (char* p = line; *p != '\0'; p++)
            if (*p == '\n')
                *p = '\0';
        wci_update(ca, line);
    }
    std::fclose(f);
    return 0;
}
