// The device log: notable events gateways report about themselves, queued
// as lines and written in batches into vtlog.cloud_otherlog. A line that
// was written keeps its entry, so the log takes 2000 lines in the life of
// the process; after that further lines are dropped until a restart.
#include <errno.h>
#include <mysqld_error.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <vector>

#include "common.h"
#include "db_writer.h"
#include "ipe_string.h"
#include "sshport.h"

namespace {

struct loginfo_t {
    char license_id12[16];
    char name[64];
    uint32_t ntime;
    uint16_t grpid;
    char log[128];
    loginfo_t* next;
};

const char* const kCreate =
    "create table if not exists vtlog.cloud_otherlog(id int not null auto_increment primary key, license_id12 "
    "varchar(16) not null default '', name varchar(64) not null default '', time bigint(4) not null default '0', "
    "grpid int(2) not null default '0', log varchar(128) not null default '')engine=MyISAM";

loginfo_t* _base;
loginfo_t* _freelist;
loginfo_t* _head;  // pending, newest first
loginfo_t* _tail;
int _logcount;  // lines ever queued
std::mutex _mtx;

}  // namespace

int log_init()
{
    std::lock_guard lk(_mtx);
    if (_base != nullptr)
        return 0;
    _base = static_cast<loginfo_t*>(std::calloc(LOG_POOL_SIZE, sizeof(loginfo_t)));
    if (_base == nullptr)
        return -1;
    for (size_t i = LOG_POOL_SIZE; i-- > 0;) {
        _base[i].next = _freelist;
        _freelist = &_base[i];
    }
    return 0;
}

void log_add(const devlist_t* dev, const char* text)
{
    if (text == nullptr || dev == nullptr)
        return;
    std::lock_guard lk(_mtx);
    loginfo_t* e = _freelist;
    if (e == nullptr)
        return;
    _freelist = e->next;
    std::memset(e, 0, sizeof(*e));
    ipe_fieldcpy(e->license_id12, dev->license_id12);
    e->ntime = now32();
    e->grpid = dev->grpid;
    ipe_fieldcpy(e->name, device_name(dev));
    ipe_fieldcpy(e->log, text);
    e->next = _head;
    _head = e;
    if (_tail == nullptr)
        _tail = e;
    _logcount++;
}

void log_inserttable()
{
    // The pending lines as one batch, newest first.
    auto batch = std::make_shared<std::vector<loginfo_t>>();
    {
        std::lock_guard lk(_mtx);
        for (loginfo_t* e = _head; e != nullptr; e = e->next)
            batch->push_back(*e);
        _head = _tail = nullptr;
    }
    if (batch->empty())
        return;
    // Written entries stay taken. A dropped table is created again and
    // its line written once more; a job run again after a lost connection
    // goes on from the first line not yet written.
    auto done = std::make_shared<size_t>(0);
    dbw_call(dbw_stream("vtlog.cloud_otherlog"), [batch, done](mysql_conn& c) {
        for (; *done < batch->size(); ++*done) {
            const loginfo_t& e = (*batch)[*done];
            std::string sql = sqlf(c.get(),
                                   "insert into vtlog.cloud_otherlog(license_id12, name, time, grpid, log)values('%s', "
                                   "'%s', %u, %d, '%s')",
                                   e.license_id12, e.name, e.ntime, int(e.grpid), e.log);
            int rc = c.query(sql);
            if (rc == ER_NO_SUCH_TABLE) {
                if (c.query(kCreate) != 0)
                    std::printf("%s\n", c.error());
                rc = c.query(sql);
            }
            if (rc != 0 && mysql_conn::lost(c.errnum()))
                return;
        }
    });
}
