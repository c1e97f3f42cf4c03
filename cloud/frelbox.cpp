// The cache-appliance registry: "FRB" reports from the device socket, the
// pool mirrored into vtlog.frelbox_list, the "frelbox_discon" thread, the
// verification strings of the FRBPWD messages, and the commands of module
// "frelbox". Everything but the table below is the family code of family.h.
#include "frelbox.h"

#include <array>
#include <cstdio>
#include <cstring>
#include <string>

#include "als_upgrade.h"
#include "family.h"

namespace {

using F = frbinfo_t;

// What the cache appliances do differently from the other families.
struct frb_desc {
    using rec_t = frbinfo_t;
    static constexpr auto name = &F::frname;
    static constexpr auto name2 = &F::frname2;
    static constexpr char magic[4] = "FRB";
    static constexpr int port_base = 30000;
    static constexpr const char* list_table = "vtlog.frelbox_list";
    static constexpr const char* discon_table = "frelbox_discon";
    static constexpr const char* thread_name = "frelbox_discon";
    static constexpr const char* thread_fail = "fail to register frb_getdisconinfo thread!";
    static constexpr const char* label_tomysql = "frb_tomysql";
    static constexpr const char* label_load = "frb_load";
    static constexpr const char* label_create = "frb_createtable";

    static constexpr const char* create_sql =
        "create table if not exists vtlog.frelbox_list(license_id12 varchar(16) not null default '', frname "
        "varchar(128) not null default '', frname2 varchar(128) not null default '', grpid int(4) not null default "
        "'0', actime bigint(4) not null default '0', start bigint(4) not null default '0', end bigint(4) not null "
        "default '0', flow bigint(4) not null default '0', bdw bigint(4) not null default '0', bpsout bigint(8) not "
        "null default '0', bpsin bigint(8) not null default '0', boot bigint(4) not null default '0', cpurate int(2) "
        "not null default '0', cpudesc varchar(128) not null default '', diskio varchar(128) not null default '', "
        "pused varchar(128) not null default '',map_addr varchar(128) not null default '',lng varchar(16) not null "
        "default '',lat varchar(16) not null default '',mem varchar(16) not null default '',board varchar(64) not "
        "null default '',ver varchar(64) not null default '',outip bigint(4) not null default '0',webport int(2) not "
        "null default '0',sshport int(2) not null default '0')engine=myisam";
    // Tables made before the mapping ports existed get their columns.
    static constexpr std::array<const char*, 2> alter_sql = {
        "alter table vtlog.frelbox_list add webport int(2) not null default '0'",
        "alter table vtlog.frelbox_list add sshport int(2) not null default '0'",
    };

    static constexpr const char* select_sql =
        "select license_id12, frname, frname2,grpid, actime, start, end, flow, bdw, bpsout, bpsin, boot, cpurate, "
        "cpudesc, diskio, pused, map_addr, lng, lat, ver, board, mem, outip from vtlog.frelbox_list";
    // The columns after license_id12, in the order of the select.
    static constexpr std::array<fam_field, 22> load_cols = {
        FAM_FIELD(F, frname),  FAM_FIELD(F, frname2), FAM_FIELD(F, grpid),   FAM_FIELD(F, actime),
        FAM_FIELD(F, start),   FAM_FIELD(F, end),     FAM_FIELD(F, flow),    FAM_FIELD(F, bdw),
        FAM_FIELD(F, bpsout),  FAM_FIELD(F, bpsin),   FAM_FIELD(F, boot),    FAM_FIELD(F, cpurate),
        FAM_FIELD(F, cpudesc), FAM_FIELD(F, diskio),  FAM_FIELD(F, pused),   FAM_FIELD(F, map_addr),
        FAM_FIELD(F, lng),     FAM_FIELD(F, lat),     FAM_FIELD(F, ver),     FAM_FIELD(F, board),
        FAM_FIELD(F, mem),     FAM_FIELD(F, outip),
    };

    static constexpr const char* remove_fmt = "delete from vtlog.frelbox_list where license_id12='%s'";
    static constexpr const char* discon_fmt =
        "insert into vtlog.frelbox_discon(license_id12, grpid, name, time, uptime)values('%s', %d, '%s', %u, %ld)";
    static std::string insert_sql(const F* r);
    static std::string update_sql(const F* r);

    // Traffic figures, memory and load change with every report and are
    // never a reason to write the row.
    static constexpr fam_word words[] = {
        {"cpurate", FAM_FIELD(F, cpurate), fam_word::ALWAYS},
        {"cpu", FAM_FIELD(F, cpudesc), fam_word::CHANGE},
        {"board", FAM_FIELD(F, board), fam_word::CHANGE},
        {"mem", FAM_FIELD(F, mem), fam_word::ALWAYS},
        {"boot", FAM_FIELD(F, boot), fam_word::CHANGE},
        {"name", FAM_FIELD(F, frname), fam_word::CHANGE},
        {"ver", FAM_FIELD(F, ver), fam_word::CHANGE},
        {"key", FAM_FIELD(F, license_id12), fam_word::ID},
        {"license_id12", FAM_FIELD(F, license_id12), fam_word::ID},
        {"bdw", FAM_FIELD(F, bdw), fam_word::CHANGE},
        {"start", FAM_FIELD(F, start), fam_word::CHANGE},
        {"end", FAM_FIELD(F, end), fam_word::CHANGE},
        {"bpsout", FAM_FIELD(F, bpsout), fam_word::ALWAYS},
        {"bpsin", FAM_FIELD(F, bpsin), fam_word::ALWAYS},
        {"flow", FAM_FIELD(F, flow), fam_word::ALWAYS},
        {"diskio", FAM_FIELD(F, diskio), fam_word::ALWAYS},
        {"pused", FAM_FIELD(F, pused), fam_word::ALWAYS},
    };

    static constexpr bool has_tags = true;
    static void handle_tag(char* body) { frelbox_handle_ex(body); }

    static constexpr bool mapping_clears = true;
    static constexpr const char* mapping_send_error = "send error";

    static constexpr std::array<fam_field, 13> sort_keys = {
        fam_field{},          FAM_FIELD(F, license_id12), FAM_FIELD(F, actime), FAM_FIELD(F, start),
        FAM_FIELD(F, end),    FAM_FIELD(F, bdw),          FAM_FIELD(F, flow),   FAM_FIELD(F, bpsout),
        FAM_FIELD(F, bpsin),  FAM_FIELD(F, boot),         FAM_FIELD(F, ver),    FAM_FIELD(F, cpurate),
        FAM_FIELD(F, frname2),
    };
    static constexpr std::array<fam_field, 3> search = {FAM_FIELD(F, license_id12), FAM_FIELD(F, frname),
                                                        FAM_FIELD(F, ver)};
    static constexpr std::array<fam_field, 27> row = {
        FAM_FIELD(F, license_id12), FAM_FIELD(F, grpid),   FAM_FIELD(F, cpurate), FAM_FIELD(F, cpudesc),
        FAM_FIELD(F, board),        FAM_FIELD(F, mem),     FAM_FIELD(F, boot),    FAM_FIELD(F, frname),
        FAM_FIELD(F, ver),          FAM_FIELD(F, bdw),     FAM_FIELD(F, start),   FAM_FIELD(F, end),
        FAM_FIELD(F, bpsin),        FAM_FIELD(F, bpsout),  FAM_FIELD(F, flow),    FAM_FIELD(F, diskio),
        FAM_FIELD(F, pused),        FAM_FIELD(F, outip),   FAM_FIELD(F, outport), FAM_FIELD(F, actime),
        FAM_FIELD(F, map_addr),     FAM_FIELD(F, lng),     FAM_FIELD(F, lat),     FAM_FIELD(F, frname2),
        FAM_FIELD(F, verify),       FAM_FIELD(F, webport), FAM_FIELD(F, sshport),
    };
};

using frb = family<frb_desc>;

std::string frb_desc::insert_sql(const F* r)
{
    return sqlf(nullptr,
                "insert into vtlog.frelbox_list(license_id12, frname, frname2,grpid, actime, start, end, flow, bdw, "
                "bpsout, bpsin, boot, cpurate, cpudesc, diskio, pused, map_addr, lng, lat, mem, board, ver, outip, "
                "webport, sshport)values('%s', '%s', '%s', %d, %u, %u, %u, %u,%u, %lu, %lu, %u, %d, '%s', '%s', "
                "'%s', '%s', '%s', '%s', '%s', '%s', '%s', %u, %d, %d)",
                r->license_id12, r->frname, r->frname2, int(r->grpid), r->actime, r->start, r->end, r->flow,
                unsigned(r->bdw), r->bpsout, r->bpsin, r->boot, int(r->cpurate), r->cpudesc, r->diskio, r->pused,
                r->map_addr, r->lng, r->lat, r->mem, r->board, r->ver, r->outip, int(r->webport), int(r->sshport));
}

// Does not write actime, flow, bpsout, bpsin, cpurate, diskio, pused, mem
// or outip: those columns keep what the insert wrote.
std::string frb_desc::update_sql(const F* r)
{
    return sqlf(nullptr,
                "update vtlog.frelbox_list set frname2='%s', grpid=%d, map_addr='%s', lng='%s', lat='%s', "
                "frname='%s', start=%u, end=%u, bdw=%d, boot=%u, cpudesc='%s', board='%s', ver='%s', webport=%d, "
                "sshport=%d where license_id12='%s'",
                r->frname2, int(r->grpid), r->map_addr, r->lng, r->lat, r->frname, r->start, r->end, int(r->bdw),
                r->boot, r->cpudesc, r->board, r->ver, int(r->webport), int(r->sshport), r->license_id12);
}

}  // namespace

frbinfo_t* frb_find(const char* license_id12)
{
    return frb::pool.find(license_id12);
}

void frb_lock()
{
    frb::pool.mtx.lock();
}

void frb_unlock()
{
    frb::pool.mtx.unlock();
}

bool frb_copy(const char* license_id12, frbinfo_t* out)
{
    return frb::with(license_id12, [&](const frbinfo_t* r) { *out = *r; });
}

int frb_hash(const char* text)
{
    return static_cast<int>(frb::pool_t::bucket(text));
}

void frb_tomysql(const char* action, const frbinfo_t* rec)
{
    frb::tomysql(action, rec);
}

void frelbox_main(char* buf, int len, uint32_t outip, uint16_t outport, int* sockp)
{
    frb::receive(buf, len, outip, outport, sockp);
}

// "tag=VALUE rest...": VALUE picks the handler, which gets the rest.
void frelbox_handle_ex(char* body)
{
    if (std::strncmp(body, "tag", 3) != 0)
        return;
    char* rest = body + std::strlen(body);
    if (char* sp = std::strchr(body, ' ')) {
        *sp = '\0';
        rest = sp + 1;
    }
    const char* eq = std::strchr(body, '=');
    if (eq == nullptr)
        return;
    if (std::strcmp(eq + 1, "FRBPWD") == 0)
        frelbox_pwd(rest);
    else if (std::strcmp(eq + 1, "frb_upgrade") == 0)
        frelbox_upgrade_log(rest);
}

// The string is stored for the front end to show; the daemon never checks
// it, writes no row and sends no answer.
void frelbox_pwd(char* text)
{
    char id[16] = "";
    char verify[64] = "";
    fam_words(text, [&](const char* k, const char* v) {
        if (std::strcmp(k, "licenseid") == 0)
            ipe_fieldcpy(id, v);
        else if (std::strcmp(k, "verify") == 0)
            ipe_fieldcpy(verify, v);
    });
    if (id[0] == '\0' || verify[0] == '\0')
        return;
    frb::with(id, [&](frbinfo_t* r) { std::memcpy(r->verify, verify, sizeof(verify)); });
}

static int frb_minit(jos_kernel_t*)
{
    return frb::init();
}

static void frb_mfini(jos_kernel_t*) {}

static int frb_ioctl(jos_cmdarg_t* ca)
{
    return frb::ioctl(ca);
}

jos_module_t frelbox_module = {"frelbox", 0x09000000, -1, frb_minit, frb_mfini, frb_ioctl, nullptr};
