// The log-server registry: "LOG" reports from the device socket, the pool
// mirrored into vtlog.logserver_list, the "logserver_discon" thread, and
// the commands of module "logserver". Everything but the table below is
// the family code of family.h.
#include "logserver.h"

#include <array>
#include <string>

#include "family.h"

namespace {

using L = logsinfo_t;

// What the log servers do differently from the other families.
struct logs_desc {
    using rec_t = logsinfo_t;
    static constexpr auto name = &L::logsname;
    static constexpr auto name2 = &L::logsname2;
    static constexpr char magic[4] = "LOG";
    static constexpr int port_base = 31000;
    static constexpr const char* list_table = "vtlog.logserver_list";
    static constexpr const char* discon_table = "logserver_discon";
    static constexpr const char* thread_name = "logserver_discon";
    static constexpr const char* thread_fail = "fail to register logs_getdisconinfo thread!";
    static constexpr const char* label_tomysql = "logs_tomysql";
    static constexpr const char* label_load = "logs_load";
    static constexpr const char* label_create = "logs_createtable";

    static constexpr const char* create_sql =
        "create table if not exists vtlog.logserver_list(license_id12 varchar(16) not null default '', logsname "
        "varchar(128) not null default '', logsname2 varchar(128) not null default '', grpid int(4) not null "
        "default '0', actime bigint(4) not null default '0', start bigint(4) not null default '0', end bigint(4) not "
        "null default '0', bps bigint(4) not null default '0', boot bigint(4) not null default '0', map_addr "
        "varchar(128) not null default '',lng varchar(16) not null default '',lat varchar(16) not null default "
        "'',ver varchar(64) not null default '',outip bigint(4) not null default '0',webport int(2) not null "
        "default '0',sshport int(2) not null default '0')engine=myisam default charset=utf8";
    // The table has had its port columns from the start.
    static constexpr std::array<const char*, 0> alter_sql = {};

    static constexpr const char* select_sql =
        "select license_id12, logsname, logsname2,grpid, actime, start, end, bps, boot, map_addr, lng, lat, ver, "
        "outip from vtlog.logserver_list";
    // The columns after license_id12, in the order of the select.
    static constexpr std::array<fam_field, 13> load_cols = {
        FAM_FIELD(L, logsname), FAM_FIELD(L, logsname2), FAM_FIELD(L, grpid),    FAM_FIELD(L, actime),
        FAM_FIELD(L, start),    FAM_FIELD(L, end),       FAM_FIELD(L, bps),      FAM_FIELD(L, boot),
        FAM_FIELD(L, map_addr), FAM_FIELD(L, lng),       FAM_FIELD(L, lat),      FAM_FIELD(L, ver),
        FAM_FIELD(L, outip),
    };

    static constexpr const char* remove_fmt = "delete from vtlog.logserver_list where license_id12='%s'";
    static constexpr const char* discon_fmt =
        "insert into vtlog.logserver_discon(license_id12, grpid, name, time, uptime)values('%s', %d, '%s', %u, "
        "%ld)";
    static std::string insert_sql(const L* r);
    static std::string update_sql(const L* r);

    // Only "key" names a log server. The throughput figure changes with
    // every report and is never a reason to write the row.
    static constexpr fam_word words[] = {
        {"boot", FAM_FIELD(L, boot), fam_word::CHANGE},
        {"name", FAM_FIELD(L, logsname), fam_word::CHANGE},
        {"ver", FAM_FIELD(L, ver), fam_word::CHANGE},
        {"key", FAM_FIELD(L, license_id12), fam_word::ID},
        {"start", FAM_FIELD(L, start), fam_word::CHANGE},
        {"end", FAM_FIELD(L, end), fam_word::CHANGE},
        {"bps", FAM_FIELD(L, bps), fam_word::ALWAYS},
    };

    // A body beginning with "tag" is a report like any other.
    static constexpr bool has_tags = false;

    // The mapping instruction keeps the record's flag and says nothing when
    // it cannot be sent.
    static constexpr bool mapping_clears = false;
    static constexpr const char* mapping_send_error = nullptr;

    // 5, 6, 7 and 11 have no key here: slot order.
    static constexpr std::array<fam_field, 13> sort_keys = {
        fam_field{},          FAM_FIELD(L, license_id12), FAM_FIELD(L, actime), FAM_FIELD(L, start),
        FAM_FIELD(L, end),    fam_field{},                fam_field{},          fam_field{},
        FAM_FIELD(L, bps),    FAM_FIELD(L, boot),         FAM_FIELD(L, ver),    fam_field{},
        FAM_FIELD(L, logsname2),
    };
    static constexpr std::array<fam_field, 2> search = {FAM_FIELD(L, license_id12), FAM_FIELD(L, logsname)};
    static constexpr std::array<fam_field, 15> row = {
        FAM_FIELD(L, license_id12), FAM_FIELD(L, grpid),   FAM_FIELD(L, boot),     FAM_FIELD(L, logsname),
        FAM_FIELD(L, ver),          FAM_FIELD(L, start),   FAM_FIELD(L, end),      FAM_FIELD(L, bps),
        FAM_FIELD(L, outip),        FAM_FIELD(L, outport), FAM_FIELD(L, actime),   FAM_FIELD(L, map_addr),
        FAM_FIELD(L, lng),          FAM_FIELD(L, lat),     FAM_FIELD(L, logsname2),
    };
};

using logs = family<logs_desc>;

std::string logs_desc::insert_sql(const L* r)
{
    return sqlf(nullptr,
                "insert into vtlog.logserver_list(license_id12, logsname, logsname2, grpid, actime, start, end, bps, "
                "boot, map_addr, lng, lat, ver, outip, webport, sshport)values('%s', '%s', '%s', %d, %u, %u, %u, "
                "%u,%u, '%s', '%s', '%s', '%s', %u, %d, %d)",
                r->license_id12, r->logsname, r->logsname2, int(r->grpid), r->actime, r->start, r->end, r->bps,
                r->boot, r->map_addr, r->lng, r->lat, r->ver, r->outip, int(r->webport), int(r->sshport));
}

// Does not write actime, bps or outip: those columns keep what the insert
// wrote.
std::string logs_desc::update_sql(const L* r)
{
    return sqlf(nullptr,
                "update vtlog.logserver_list set logsname2='%s', grpid=%d, map_addr='%s', lng='%s', lat='%s', "
                "logsname='%s', start=%u, end=%u, boot=%u, ver='%s', webport=%d, sshport=%d where "
                "license_id12='%s'",
                r->logsname2, int(r->grpid), r->map_addr, r->lng, r->lat, r->logsname, r->start, r->end, r->boot,
                r->ver, int(r->webport), int(r->sshport), r->license_id12);
}

}  // namespace

void logserver_main(char* buf, int len, uint32_t outip, uint16_t outport, int* sockp)
{
    logs::receive(buf, len, outip, outport, sockp);
}

static int logs_minit(jos_kernel_t*)
{
    return logs::init();
}

static void logs_mfini(jos_kernel_t*) {}

static int logs_ioctl(jos_cmdarg_t* ca)
{
    return logs::ioctl(ca);
}

jos_module_t logserver_module = {"logserver", 0x09000000, -1, logs_minit, logs_mfini, logs_ioctl, nullptr};
