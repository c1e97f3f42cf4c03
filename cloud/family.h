// A family of appliances that report key=value texts on the device socket
// (cache appliances, log servers). Every such family is one descriptor plus
// the pieces written here once: the fixed pool of 2000 records with 128
// chains, the word parser, the port-pair counter, the list table written
// through the database writer and rebuilt from the pool, the disconnect
// thread, and the management commands (2050 statistics, 2052 remove, 2053
// set, 2055 list, 2057 accepted).
//
// A descriptor D supplies what differs between families:
//
//   rec_t                     the record; it has the common fields by name:
//                             license_id12[16], grpid, mapping, webport,
//                             sshport, outip, outport, actime, start, end,
//                             map_addr[128], lng[16], lat[16], sock, next
//   name, name2               pointers to the appliance's own name and the
//                             operator's display name
//   magic                     3-byte family magic and NUL
//   port_base                 first port pair is port_base/port_base+1
//   list_table, discon_table  "vtlog.xxx_list", "xxx_discon"
//   thread_name, thread_fail  the disconnect thread and the text printed
//                             when it cannot be registered
//   label_tomysql, label_load, label_create   diagnostics labels
//   create_sql, alter_sql     start-up statements (alter_sql may be empty)
//   select_sql, load_cols     start-up load: license_id12 first, then the
//                             columns of load_cols in order
//   remove_fmt, discon_fmt    "delete ..." and the disconnect-row insert
//   insert_sql(), update_sql()  "add" and "update" statements of a record
//   words                     report keys: target field and rule
//   has_tags, handle_tag()    bodies beginning with "tag" are messages
//                             (handle_tag needed only with has_tags)
//   mapping_clears            2053 with mapping clears the record's flag
//   mapping_send_error        printed when the mapping datagram fails, or null
//   sort_keys                 2055 sortname 1..12 (NONE: slot order)
//   search                    fields the 2055 search looks in
//   row                       fields of a 2055 row, in order
#pragma once

#include <mysql.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

#include "cloud.h"
#include "common.h"
#include "db_writer.h"
#include "ipe_pool.h"
#include "ipe_string.h"
#include "jos_cmds.h"
#include "jos_thread.h"
#include "metrics.h"
#include "sshport.h"

constexpr size_t FAM_POOL_SIZE = 2000;
constexpr size_t FAM_CHAINS = 128;
// An appliance that has not reported for this long counts as failed, and
// gets disconnect rows for an hour after its last report.
constexpr uint32_t FAM_SILENT = 15;
constexpr uint32_t FAM_DISCON_SPAN = 3600;
// The disconnect thread ticks every 100 ms and makes a pass every 150th tick.
constexpr int FAM_TICK_MS = 100;
constexpr uint32_t FAM_PASS_TICKS = 150;

// A field of a family record, found by offset: report words, load columns,
// sort keys, search fields and listed rows all name fields this way.
struct fam_field {
    enum kind_t : uint8_t { NONE, TEXT, U8, U16, U32, U64 };
    kind_t kind = NONE;
    uint16_t off = 0;
    uint16_t size = 0;
};

template <typename M>
constexpr fam_field::kind_t fam_kind()
{
    if constexpr (std::is_array_v<M>) {
        static_assert(std::is_same_v<std::remove_extent_t<M>, char>);
        return fam_field::TEXT;
    } else {
        static_assert(std::is_unsigned_v<M>);
        return sizeof(M) == 1 ? fam_field::U8 : sizeof(M) == 2 ? fam_field::U16 : sizeof(M) == 4 ? fam_field::U32
                                                                                                 : fam_field::U64;
    }
}

#define FAM_FIELD(T, m) \
    (fam_field{fam_kind<decltype(T::m)>(), static_cast<uint16_t>(offsetof(T, m)), static_cast<uint16_t>(sizeof(T::m))})

// How a report word lands on a known record: ID names the appliance,
// ALWAYS is overwritten by every report, CHANGE is overwritten and marks the
// record changed (its row is then written) when the value differs.
struct fam_word {
    const char* key;
    fam_field field;
    enum rule_t : uint8_t { ID, ALWAYS, CHANGE } rule;
};

// Field access by descriptor. Numbers are cut to the field's width.
uint64_t fam_get(const void* rec, const fam_field& f);
void fam_put(void* rec, const fam_field& f, uint64_t v);
const char* fam_text(const void* rec, const fam_field& f);
// Copies at most size - 1 characters of SRC into a text field.
void fam_puttext(void* rec, const fam_field& f, const char* src);
// Strings byte-wise, numbers unsigned; -1, 0 or 1.
int fam_cmp(const void* a, const void* b, const fam_field& f);
// A report value into its field: text bounded by the field, 64-bit numbers
// as unsigned decimal, narrower ones as a decimal int cut to the width.
void fam_putword(void* rec, const fam_field& f, const char* value);
// A column of the start-up load: numbers by plain decimal conversion to a
// 32-bit integer, so 64-bit fields come back with their low range only.
void fam_putcol(void* rec, const fam_field& f, const char* value);

// Calls FN(key, value) for every word of TEXT (changed in place) that reads
// as "key=value": words are split on single spaces; the key is what comes
// before the first '=' and must not be empty, the value the run of
// non-blank characters after it (leading blanks skipped) and must not be
// empty. Other words are skipped.
template <typename F>
void fam_words(char* text, F&& fn)
{
    char* save = nullptr;
    for (char* w = strtok_r(text, " ", &save); w != nullptr; w = strtok_r(nullptr, " ", &save)) {
        char* eq = std::strchr(w, '=');
        if (eq == nullptr || eq == w)
            continue;
        *eq = '\0';
        char* v = eq + 1;
        v += std::strspn(v, "\t\n\v\f\r");
        v[std::strcspn(v, "\t\n\v\f\r")] = '\0';
        if (*v != '\0')
            fn(static_cast<const char*>(w), static_cast<const char*>(v));
    }
}

// The upper bound of the mapping-port range (set with the gateways' range
// and changed by their range command, under the gateway registry's lock).
int fam_port_max();

// Sends a 520-byte text datagram (MAGIC and a NUL, type 40000, the text's
// length, the text) over SOCK to IP:PORT (host order). 0 or -1.
int fam_sendtext(int sock, const char* magic, uint32_t ip, uint16_t port, const char* text);

// Group filters of 2050 and 2055: usergrp, a comma list of at most 50 ids
// (empty or starting with "0": all groups), and grpid (absent: all groups).
struct fam_groups {
    std::vector<long> users;
    std::optional<long> grpid;

    explicit fam_groups(const jos_cmd_args& a);
    bool user(unsigned grp) const;
    bool group(unsigned grp) const { return !grpid || *grpid == static_cast<long>(grp); }
};

// Whole days from NOW to END, truncated toward zero (negative once past).
inline int64_t fam_daysleft(uint32_t end, uint32_t now)
{
    return (static_cast<int64_t>(end) - static_cast<int64_t>(now)) / 86400;
}

inline bool fam_expiring(uint32_t end, uint32_t now)
{
    return end != 0 && fam_daysleft(end, now) < 8;
}

// Tick of the disconnect threads: 100 ms, or discon_turn_ms= of
// /etc/cloud.conf (1..1000), which test runs shorten.
int fam_tick_ms();

template <class D>
struct family {
    using rec_t = typename D::rec_t;
    using pool_t = ipe_pool<rec_t, FAM_POOL_SIZE, FAM_CHAINS, &rec_t::license_id12>;
    static_assert(sizeof(rec_t::license_id12) == 16);

    static inline pool_t pool;
    static inline int stream = -1;         // the list table
    static inline int discon_stream = -1;  // the disconnect table
    // The port-pair counter, changed under the pool lock only.
    static inline int curwebport;
    static inline int cursshport;
    static inline jos_thread_t* td_discon;
    static inline int tick_ms = FAM_TICK_MS;

    static const char* name(const rec_t* r) { return (r->*D::name2)[0] != '\0' ? r->*D::name2 : r->*D::name; }

    // Calls FN with the record of ID under the pool lock; false when there
    // is none. FN must not block.
    template <typename F>
    static bool with(const char* id, F&& fn)
    {
        pool.mtx.lock();
        rec_t* r = pool.find(id);
        if (r != nullptr)
            fn(r);
        pool.mtx.unlock();
        return r != nullptr;
    }

    // Hands the row's statement to the writer: "add", "update" or "remove".
    // Callers hold the pool lock, so one appliance's statements reach the
    // writer in the order of its changes. No row is written for an empty
    // identifier.
    static void tomysql(const char* action, const rec_t* r)
    {
        if (r == nullptr || r->license_id12[0] == '\0')
            return;
        std::string sql;
        if (std::strcmp(action, "add") == 0)
            sql = D::insert_sql(r);
        else if (std::strcmp(action, "update") == 0)
            sql = D::update_sql(r);
        else if (std::strcmp(action, "remove") == 0)
            sql = sqlf(nullptr, D::remove_fmt, r->license_id12);
        else
            return;
        dbw_exec(stream, std::move(sql), D::label_tomysql);
    }

    // webport takes the counter's web port, sshport its SSH port; the
    // counter moves on by one, so an appliance's web port is the SSH port
    // of the one before it. That overlap is how these families have always
    // been numbered and is kept. The pair wraps to the base when the web
    // port reaches the range's upper bound; ports are never given back.
    static void alloc_pair(rec_t* r, int pmax)
    {
        r->webport = static_cast<uint16_t>(curwebport);
        r->sshport = static_cast<uint16_t>(cursshport);
        const int old = curwebport;
        curwebport = old + 1;
        if (curwebport >= pmax) {
            curwebport = D::port_base;
            cursshport = D::port_base + 1;
        } else {
            cursshport = old + 2;
        }
    }

    // One datagram of the family (LEN bytes with a NUL after them) from
    // IP:PORT, received on *SOCKP. No reply is sent to a report.
    static void receive(char* buf, int len, uint32_t ip, uint16_t port, const int* sockp)
    {
        if (len < 8) {
            met_dgram_dropped(buf, len);
            return;
        }
        const char* body = buf + 8;
        if constexpr (D::has_tags) {
            if (std::strncmp(body, "tag", 3) == 0) {
                char copy[1024];
                std::snprintf(copy, sizeof(copy), "%s", body);
                D::handle_tag(copy);
                return;
            }
        }
        if (std::strncmp(body, "RSA=", 4) == 0) {
            rsa_recv(buf, static_cast<size_t>(len));
            return;
        }
        std::string text(body, strnlen(body, static_cast<size_t>(len - 8)));
        rec_t s{};
        fam_words(text.data(), [&](const char* k, const char* v) {
            for (const fam_word& w : D::words)
                if (std::strcmp(k, w.key) == 0) {
                    fam_putword(&s, w.field, v);
                    break;
                }
        });
        // Without an identifier nothing is stored (a tagged body was
        // handled above).
        if (s.license_id12[0] == '\0') {
            met_dgram_dropped(buf, len);
            return;
        }
        const int pmax = fam_port_max();
        const uint32_t now = now32();
        const int sock = sockp != nullptr ? *sockp : -1;

        pool.mtx.lock();
        rec_t* r = pool.find(s.license_id12);
        if (r != nullptr) {
            bool changed = false;
            for (const fam_word& w : D::words) {
                if (w.rule == fam_word::ID)
                    continue;
                if (w.rule == fam_word::CHANGE) {
                    if (fam_cmp(r, &s, w.field) == 0)
                        continue;
                    changed = true;
                }
                std::memcpy(reinterpret_cast<char*>(r) + w.field.off, reinterpret_cast<const char*>(&s) + w.field.off,
                            w.field.size);
            }
            r->outip = ip;
            r->outport = port;
            r->actime = now;
            r->sock = sock;
            if (r->webport == 0 || r->sshport == 0) {
                alloc_pair(r, pmax);
                tomysql("update", r);
            } else if (changed) {
                tomysql("update", r);
            }
        } else if ((r = pool.alloc()) != nullptr) {
            s.outip = ip;
            s.outport = port;
            s.actime = now;
            s.sock = sock;
            *r = s;
            alloc_pair(r, pmax);
            pool.link(r);
            tomysql("add", r);
        }
        pool.mtx.unlock();
        if (r == nullptr)  // the pool is full
            met_dgram_dropped(buf, len);
    }

    // The table rewritten from the pool: delete, then one "add" per record
    // in slot order. Columns that "update" never writes (actime, traffic
    // figures, outip) come back with the pool's present values.
    static void rebuild(mysql_conn& c)
    {
        std::vector<std::string> stmts;
        pool.mtx.lock();
        dbw_cut(stream);
        if (pool.first() != nullptr)
            pool.each([&](const rec_t* r) { stmts.push_back(D::insert_sql(r)); });
        pool.mtx.unlock();
        if (c.query_repair(std::string("delete from ") + D::list_table, D::list_table) != 0)
            return;
        dbw_run_all(c, stmts, D::list_table);
    }

    static void load(mysql_conn& c)
    {
        if (c.query_repair(D::select_sql, D::list_table) != 0) {
            std::printf("%s: %s\n", D::label_load, c.error());
            return;
        }
        MYSQL_RES* res = mysql_store_result(c.get());
        if (res == nullptr) {
            std::printf("%s: %s\n", D::label_load, c.error());
            return;
        }
        pool.mtx.lock();
        while (MYSQL_ROW row = mysql_fetch_row(res)) {
            // The table has no key: a repeated identifier (written by hand)
            // would give the appliance two records; the first row wins.
            if (row[0] == nullptr || row[0][0] == '\0')
                continue;
            char id[16];
            ipe_fieldcpy(id, row[0]);
            if (pool.find(id) != nullptr)
                continue;
            rec_t* r = pool.alloc();
            if (r == nullptr)
                break;
            std::memcpy(r->license_id12, id, sizeof(id));
            for (size_t i = 0; i < D::load_cols.size(); i++)
                fam_putcol(r, D::load_cols[i], row[i + 1]);
            // Ports, source port, socket and the verification text are not
            // in the table's load: the first report after a start gives
            // the appliance a fresh pair.
            r->sock = -1;
            pool.link(r);
        }
        pool.mtx.unlock();
        mysql_free_result(res);
    }

    // Start-up: tables, pool, load, thread. Runs on the main thread before
    // the threads start, with its own connection.
    static int init()
    {
        pool.mtx.word = 0;
        mysql_conn c;
        if (!c.ok()) {
            std::printf("%s: %s\n", D::label_create, "mysql connect error");
        } else if (c.query(D::create_sql) != 0) {
            std::printf("%s: %s\n", D::label_create, c.error());
        } else {
            for (const char* sql : D::alter_sql)
                c.query(sql);  // fails harmlessly once the column exists
        }
        if (pool.first() == nullptr && pool.init() != 0)
            return -1;
        curwebport = D::port_base;
        cursshport = D::port_base + 1;
        stream = dbw_stream(D::list_table, rebuild);
        discon_stream = dbw_stream((std::string("vtlog.") + D::discon_table).c_str());
        if (c.ok())
            load(c);
        tick_ms = fam_tick_ms();
        met_appliances(D::magic, counts);
        td_discon = jos_thread_register(D::thread_name, 0, discon);
        if (td_discon == nullptr) {
            std::puts(D::thread_fail);
            return -1;
        }
        return 0;
    }

    // One row per silent appliance per pass during the first hour of its
    // silence; the reader of the table groups them.
    static void discon_pass(jos_thread_t* td)
    {
        const uint32_t now = now32();
        for (size_t i = 0; i < FAM_POOL_SIZE && !td->td_notifyexit; i++) {
            pool.mtx.lock();
            const rec_t* r = pool.slot(i);
            if (pool_t::inuse(r) && r->actime + FAM_SILENT < now && r->actime + FAM_DISCON_SPAN >= now)
                dbw_exec(discon_stream,
                         sqlf(nullptr, D::discon_fmt, r->license_id12, int(r->grpid), name(r), r->actime,
                              static_cast<long>(now)),
                         "");
            pool.mtx.unlock();
        }
    }

    static void discon(jos_thread_t* td)
    {
        dbw_exec(discon_stream, discontable_sql(D::discon_table), "");
        // A pass every FAM_PASS_TICKS ticks; the thread sleeps the whole
        // interval at once (a stop still wakes it).
        while (!td->td_notifyexit) {
            jos_thread_wait(td, -1, tick_ms * FAM_PASS_TICKS);
            if (!td->td_notifyexit)
                discon_pass(td);
        }
    }

    // ---------------------------------------------------------------------
    // Management commands. Every record is copied or changed under the
    // pool lock; replies are formatted after it is released.
    // ---------------------------------------------------------------------

    // Records in the pool, and those that reported within FAM_SILENT.
    static void counts(size_t* known, size_t* online)
    {
        const uint32_t now = now32();
        size_t silent = 0;
        pool.mtx.lock();
        if (pool.first() != nullptr)
            pool.each([&](const rec_t* r) { silent += r->actime + FAM_SILENT < now; });
        *known = pool.count();
        pool.mtx.unlock();
        *online = *known - silent;
    }

    static void cmd_stat(jos_cmdarg_t* ca, const jos_cmd_args& a)
    {
        fam_groups g(a);
        const uint32_t now = now32();
        int fail = 0, exp = 0, inuse = 0;
        pool.mtx.lock();
        if (pool.first() != nullptr)
            pool.each([&](const rec_t* r) {
                if (!g.user(r->grpid) || !g.group(r->grpid))
                    return;
                fail += r->actime + FAM_SILENT < now;
                exp += fam_expiring(r->end, now);
            });
        inuse = static_cast<int>(pool.count());
        pool.mtx.unlock();
        jos_cmd_printf(ca, "device_pool=%d/%d[total/use]\n", static_cast<int>(FAM_POOL_SIZE), inuse);
        jos_cmd_printf(ca, "device_total=%d\n", inuse);
        jos_cmd_printf(ca, "device_fail=%d\n", fail);
        jos_cmd_printf(ca, "device_exp=%d\n", exp);
    }

    static void cmd_remove(jos_cmdarg_t* ca, const jos_cmd_args& a)
    {
        if (!a.has("license_id12")) {
            jos_cmd_printf(ca, "Invalid value\n");
            return;
        }
        std::string id = a.str("license_id12", 15);
        pool.mtx.lock();
        if (rec_t* r = pool.first() != nullptr ? pool.unlink(id.c_str()) : nullptr) {
            tomysql("remove", r);
            pool.release(r);
        }
        pool.mtx.unlock();
        jos_cmd_printf(ca, "ok");
    }

    static void cmd_set(jos_cmdarg_t* ca, const jos_cmd_args& a)
    {
        if (!a.has("license_id12")) {
            jos_cmd_printf(ca, "Invalid license\n");
            return;
        }
        std::string id = a.str("license_id12", 15);
        struct {
            bool send = false;
            int sock = -1;
            uint32_t ip = 0;
            uint16_t port = 0;
            char text[512];
        } m;
        pool.mtx.lock();
        rec_t* r = pool.first() != nullptr ? pool.find(id.c_str()) : nullptr;
        if (r != nullptr && a.num("mapping") != 0) {
            // The mapping instruction: the new ports go to the appliance
            // and its row; the other settings of the command are ignored.
            r->webport = static_cast<uint16_t>(a.num("webport"));
            r->sshport = static_cast<uint16_t>(a.num("sshport"));
            if (D::mapping_clears)
                r->mapping = 0;
            m.send = true;
            m.sock = r->sock;
            m.ip = r->outip;
            m.port = r->outport;
            std::snprintf(m.text, sizeof(m.text), "mapping=1 webport=%d sshport=%d", int(r->webport),
                          int(r->sshport));
            tomysql("update", r);
        } else if (r != nullptr) {
            r->grpid = static_cast<decltype(r->grpid)>(a.num("grpid"));
            ipe_fieldcpy(r->map_addr, a.str("address").c_str());
            ipe_fieldcpy(r->*D::name2, a.str("sysname").c_str());
            ipe_fieldcpy(r->lng, a.str("lng").c_str());
            ipe_fieldcpy(r->lat, a.str("lat").c_str());
            tomysql("update", r);
        }
        pool.mtx.unlock();
        if (m.send) {
            rsa_rename();
            const int sent = fam_sendtext(m.sock, D::magic, m.ip, m.port, m.text);
            if constexpr (D::mapping_send_error != nullptr) {
                if (sent != 0)
                    std::puts(D::mapping_send_error);
            }
        }
        jos_cmd_printf(ca, "ok");
    }

    static void print_row(jos_cmdarg_t* ca, const rec_t* r)
    {
        // Every value is followed by a blank, the last one by the line end.
        for (size_t i = 0; i < D::row.size(); i++) {
            const fam_field& f = D::row[i];
            const bool last = i + 1 == D::row.size();
            if (f.kind == fam_field::TEXT)
                jos_cmd_printrow(ca, ' ', last ? "%s\n" : "%s ", fam_text(r, f));
            else if (f.kind == fam_field::U64)
                jos_cmd_printrow(ca, ' ', last ? "%lu\n" : "%lu ", static_cast<unsigned long>(fam_get(r, f)));
            else
                jos_cmd_printrow(ca, ' ', last ? "%u\n" : "%u ", static_cast<unsigned>(fam_get(r, f)));
        }
    }

    static bool search(const rec_t* r, const std::string& sch)
    {
        char low[129];
        for (const fam_field& f : D::search)
            if (std::strstr(mystrtolower(fam_text(r, f), low, 128), sch.c_str()) != nullptr)
                return true;
        return false;
    }

    static void cmd_list(jos_cmdarg_t* ca, const jos_cmd_args& a)
    {
        // Bounded so that the page arithmetic cannot overflow.
        const long long page = std::clamp(a.num("page", 0), -2147483647L, 2147483647L);
        const long long limit = std::clamp(a.num("limit", 0), -2147483647L, 2147483647L);
        const long sortname = a.num("sortname");
        // Without sortdesc the order is ascending; a value other than 0 or
        // 1 leaves the slot order.
        const long sortdesc = a.num("sortdesc", 0);
        const long expire = a.num("expire");
        const std::string sch = a.str("sch");
        fam_groups g(a);

        std::vector<rec_t> snap;
        snap.reserve(FAM_POOL_SIZE);
        pool.mtx.lock();
        if (pool.first() != nullptr)
            pool.each([&](const rec_t* r) { snap.push_back(*r); });
        pool.mtx.unlock();
        std::vector<const rec_t*> unit;
        unit.reserve(snap.size());
        for (const rec_t& r : snap)
            unit.push_back(&r);

        if (sortname >= 1 && sortname <= 12 && (sortdesc == 0 || sortdesc == 1) &&
            D::sort_keys[sortname].kind != fam_field::NONE) {
            // The exchange sort the list has always used: each position
            // against every later one.
            const fam_field& key = D::sort_keys[sortname];
            for (size_t i = 0; i < unit.size(); i++)
                for (size_t j = i + 1; j < unit.size(); j++) {
                    int c = fam_cmp(unit[i], unit[j], key);
                    if (sortdesc == 1 ? c < 0 : c > 0)
                        std::swap(unit[i], unit[j]);
                }
        }

        const uint32_t now = now32();
        const long long first = (page - 1) * limit, last = page * limit;
        long long index = 0;
        int fail = 0, exp = 0;
        for (const rec_t* r : unit) {
            if (!g.user(r->grpid))
                continue;
            if (expire == 1 && r->end == 0)
                continue;
            const int64_t days = fam_daysleft(r->end, now);
            exp += fam_expiring(r->end, now);
            fail += static_cast<int64_t>(now) - r->actime >= FAM_SILENT;
            if (!g.group(r->grpid))
                continue;
            if (!sch.empty() && !search(r, sch))
                continue;
            if (expire == 1 && days > 7)
                continue;
            const long long pos = index++;
            if (expire != 2 && (pos < first || pos >= last))
                continue;
            print_row(ca, r);
        }
        jos_cmd_printf(ca, "total=%d\n", static_cast<int>(index));
        jos_cmd_printf(ca, "fail=%d\n", fail);
        jos_cmd_printf(ca, "exp=%d\n", exp);
    }

    static int ioctl(jos_cmdarg_t* ca)
    {
        if (ca->ca_cmd == JOS_CMD_EXIT)
            return 0;
        const jos_cmd_args a(ca);
        switch (ca->ca_cmd) {
        case JOS_CMD_STAT:
            cmd_stat(ca, a);
            break;
        case JOS_CMD_REMOVE:
            cmd_remove(ca, a);
            break;
        case JOS_CMD_SET:
            cmd_set(ca, a);
            break;
        case JOS_CMD_LIST:
            cmd_list(ca, a);
            break;
        case 2057:
            break;
        default:
            return jos_cmd_notsupported(ca);
        }
        return jos_cmd_endreply(ca);
    }
};
