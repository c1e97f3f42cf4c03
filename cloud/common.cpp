// Database access and small helpers shared by every module: the account
// record, connections, the one statement formatter, the disconnect-history
// tables, the log.conf settings file, the appliances' OS account, the web
// port lookup and a few text helpers.
#include "common.h"

#include <errmsg.h>
#include <mysqld_error.h>
#include <fcntl.h>
#include <iconv.h>
#include <spawn.h>
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>

#include "jos.h"

extern char** environ;

mysqlinfo_t msinfo;

namespace {

// Built-in password of the appliances' OS account; cloud.db.conf
// (map_password=) or CLOUD_MAP_PASSWORD replace it per installation.
constexpr char kMapUserPass[] = "Qm7rT2xVb9LkE4nZ8wHc3PjD6sYf1GaU";
static_assert(sizeof(kMapUserPass) == 33);

// "Table ... is marked as crashed and should be repaired" when the table
// is opened (the storage engine's error number, passed through).
constexpr int kCrashedOnOpen = 145;

constexpr unsigned kConnectTimeout = 3;  // seconds
// Per packet, not per statement. Long enough for "repair table" on a large
// table, short enough that a hung server frees the thread eventually.
constexpr unsigned kReadTimeout = 30;
constexpr unsigned kWriteTimeout = 10;

// Lines of log.conf and webport.conf: fgets with 1023 keeps at most 1022
// characters of a line per read.
constexpr int kLineMax = 1023;

struct file_closer {
    void operator()(FILE* f) const { fclose(f); }
};
using file_ptr = std::unique_ptr<FILE, file_closer>;

std::atomic<bool> _vtlog_created{false};

// Copies SRC into DST[SIZE] when it fits; a value that does not fit is
// refused rather than cut (a cut password or socket path is never right).
template <size_t N>
bool set_field(char (&dst)[N], const char* src, const char* what)
{
    size_t n = strlen(src);
    if (n >= N) {
        printf("mysqlinfo_init: warning: %s too long, ignored\n", what);
        return false;
    }
    memcpy(dst, src, n + 1);
    return true;
}

// 1..65535, decimal, nothing else.
bool parse_port(const char* s, unsigned* port)
{
    if (*s < '0' || *s > '9')
        return false;
    unsigned long v = 0;
    for (; *s; s++) {
        if (*s < '0' || *s > '9')
            return false;
        v = v * 10 + unsigned(*s - '0');
        if (v > 65535)
            return false;
    }
    if (v == 0)
        return false;
    *port = unsigned(v);
    return true;
}

void set_value(const char* key, const char* val)
{
    if (!strcmp(key, "host"))
        set_field(msinfo.mysql_host, val, "host");
    else if (!strcmp(key, "socket"))
        set_field(msinfo.mysql_socket, val, "socket");
    else if (!strcmp(key, "user"))
        set_field(msinfo.mysql_user, val, "user");
    else if (!strcmp(key, "password"))
        set_field(msinfo.mysql_pass, val, "password");
    else if (!strcmp(key, "map_password"))
        set_field(msinfo.mysql_map_userpass, val, "map_password");
    else if (!strcmp(key, "port")) {
        if (!parse_port(val, &msinfo.mysql_port))
            printf("mysqlinfo_init: warning: invalid port '%s' ignored\n", val);
    }
}

bool is_blank(char c)
{
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

// key=value lines; blanks around key and value are dropped, so a password
// can neither begin nor end with one. "#" starts a comment line.
void read_db_conf()
{
    std::string path = jos_path("/etc/cloud.db.conf");
    file_ptr f(fopen(path.c_str(), "re"));
    if (!f)
        return;
    struct stat st;
    if (fstat(fileno(f.get()), &st) == 0 && (st.st_mode & 077) != 0)
        printf("mysqlinfo_init: warning: %s is readable by group or others\n", path.c_str());

    char line[1024];
    bool at_start = true;
    while (fgets(line, sizeof(line), f.get())) {
        // An over-long line is ignored whole, not read as several lines.
        bool first = at_start;
        at_start = strchr(line, '\n') != nullptr;
        if (!first || (!at_start && !feof(f.get())))
            continue;
        char* s = line;
        while (is_blank(*s))
            s++;
        if (*s == '#' || *s == '\0')
            continue;
        char* eq = strchr(s, '=');
        if (!eq)
            continue;
        char* kend = eq;
        while (kend > s && is_blank(kend[-1]))
            kend--;
        *kend = '\0';
        char* v = eq + 1;
        while (is_blank(*v))
            v++;
        size_t n = strlen(v);
        while (n > 0 && is_blank(v[n - 1]))
            v[--n] = '\0';
        set_value(s, v);
    }
}

// Escapes LEN bytes for a statement. Used when there is no connection to
// ask. Matches what the client library does for a single-byte character
// set such as latin1 (the only one our connections use): in latin1 no
// byte can be part of a multi-byte character, so escaping byte by byte is
// exact. It would NOT be safe for GBK or Big5 connections.
void escape_manual(std::string& out, const char* s, size_t len)
{
    for (size_t i = 0; i < len; i++) {
        char c = s[i];
        switch (c) {
        case '\0': out += "\\0"; break;
        case '\n': out += "\\n"; break;
        case '\r': out += "\\r"; break;
        case '\\': out += "\\\\"; break;
        case '\'': out += "\\'"; break;
        case '"': out += "\\\""; break;
        case '\032': out += "\\Z"; break;
        default: out += c; break;
        }
    }
}

void escape_append(std::string& out, MYSQL* m, const char* s, size_t len)
{
    // A handle that was never initialised has no character set; the
    // library would dereference it.
    if (m && m->charset) {
        std::string tmp(2 * len + 1, '\0');
        unsigned long n = mysql_real_escape_string(m, tmp.data(), s, (unsigned long)len);
        if (n != (unsigned long)-1 && n <= 2 * len) {
            out.append(tmp.data(), n);
            return;
        }
    }
    escape_manual(out, s, len);
}

// Appends snprintf(CONV, v) whatever its length.
template <typename T>
void append_num(std::string& out, const char* conv, T v)
{
    char buf[128];
    int n = snprintf(buf, sizeof(buf), conv, v);
    if (n < 0)
        return;
    if (size_t(n) < sizeof(buf)) {
        out.append(buf, size_t(n));
        return;
    }
    size_t at = out.size();
    out.resize(at + size_t(n) + 1);
    n = snprintf(out.data() + at, size_t(n) + 1, conv, v);
    out.resize(n < 0 ? at : at + size_t(n));
}

// One parsed conversion: "%" flags width .precision length conv.
struct conv_spec {
    bool minus = false, plus = false, space = false, hash = false, zero = false;
    int width = -1;      // -1: none
    int prec = -1;       // -1: none
    int lenbits = 32;    // integer width the length modifier implies
    char conv = 0;
};

// Widths and precisions beyond this are treated as a malformed conv.
constexpr int kMaxWidth = 65535;

// Parses after the '%'; returns the position after the conversion
// character, or null when the conv is malformed or unsupported.
const char* parse_spec(const char* p, conv_spec& cs)
{
    for (;; p++) {
        if (*p == '-') cs.minus = true;
        else if (*p == '+') cs.plus = true;
        else if (*p == ' ') cs.space = true;
        else if (*p == '#') cs.hash = true;
        else if (*p == '0') cs.zero = true;
        else break;
    }
    auto number = [&](int& out) {
        out = 0;
        while (*p >= '0' && *p <= '9') {
            out = out * 10 + (*p++ - '0');
            if (out > kMaxWidth)
                return false;
        }
        return true;
    };
    if (*p >= '1' && *p <= '9' && !number(cs.width))
        return nullptr;
    if (*p == '.') {
        p++;
        if (!number(cs.prec))
            return nullptr;
    }
    if (p[0] == 'h' && p[1] == 'h') cs.lenbits = 8, p += 2;
    else if (p[0] == 'h') cs.lenbits = 16, p++;
    else if (p[0] == 'l' && p[1] == 'l') cs.lenbits = 64, p += 2;
    else if (p[0] == 'l' || p[0] == 'z' || p[0] == 'j' || p[0] == 't' || p[0] == 'q') cs.lenbits = 64, p++;
    else if (p[0] == 'L') p++;
    if (!*p || !strchr("diuoxXfFeEgGaAcs", *p))
        return nullptr;
    cs.conv = *p++;
    return p;
}

// Rebuilds the conv for snprintf with LEN ("ll" or "") and CONV.
std::string build_spec(const conv_spec& cs, const char* len, char conv, bool allow_hash)
{
    std::string s = "%";
    if (cs.minus) s += '-';
    if (cs.plus) s += '+';
    if (cs.space) s += ' ';
    if (cs.hash && allow_hash) s += '#';
    if (cs.zero) s += '0';
    if (cs.width >= 0) s += std::to_string(cs.width);
    if (cs.prec >= 0) s += '.' + std::to_string(cs.prec);
    s += len;
    s += conv;
    return s;
}

// A real as a signed integer, or false when it has none.
bool real_to_ll(double d, long long* v)
{
    if (!(d >= -9223372036854775808.0 && d < 9223372036854775808.0))
        return false;
    *v = (long long)d;
    return true;
}

// The unsigned value C would print for a signed argument under a length
// modifier of BITS.
unsigned long long as_unsigned(long long v, int bits)
{
    switch (bits) {
    case 8: return (unsigned char)v;
    case 16: return (unsigned short)v;
    case 32: return (unsigned int)v;
    default: return (unsigned long long)v;
    }
}

// Pads an escaped text to the conv's width; the width counts the bytes of
// the value as stored, as printf would.
void append_text(std::string& out, MYSQL* m, const conv_spec& cs, const char* s, size_t len)
{
    size_t pad = (cs.width > 0 && size_t(cs.width) > len) ? size_t(cs.width) - len : 0;
    if (!cs.minus)
        out.append(pad, ' ');
    escape_append(out, m, s, len);
    if (cs.minus)
        out.append(pad, ' ');
}

void format_one(std::string& out, MYSQL* m, const conv_spec& cs, const sql_arg& a)
{
    switch (cs.conv) {
    case 's': {
        if (a.kind == sql_arg::TEXT) {
            // Precision cuts the value before escaping: cutting escaped text
            // could leave a lone backslash in front of the closing quote.
            size_t len = cs.prec >= 0 ? strnlen(a.s, size_t(cs.prec)) : strlen(a.s);
            append_text(out, m, cs, a.s, len);
        } else {
            // A number is its own text; nothing in it needs escaping.
            std::string t;
            if (a.kind == sql_arg::SIGNED) append_num(t, "%lld", a.i);
            else if (a.kind == sql_arg::UNSIGNED) append_num(t, "%llu", a.u);
            else append_num(t, "%g", a.d);
            size_t len = cs.prec >= 0 && size_t(cs.prec) < t.size() ? size_t(cs.prec) : t.size();
            append_text(out, m, cs, t.data(), len);
        }
        return;
    }
    case 'c': {
        // The character could be a quote or a NUL: escape it like text.
        char c;
        if (a.kind == sql_arg::TEXT) {
            if (!*a.s)
                return;
            c = a.s[0];
        } else if (a.kind == sql_arg::SIGNED) {
            c = char(a.i);
        } else if (a.kind == sql_arg::UNSIGNED) {
            c = char(a.u);
        } else {
            long long v;
            if (!real_to_ll(a.d, &v))
                return;
            c = char(v);
        }
        conv_spec plain = cs;
        plain.prec = -1;
        append_text(out, m, plain, &c, 1);
        return;
    }
    case 'd':
    case 'i': {
        // The whole value, whatever the length modifier says: narrowing a
        // 64-bit id to an int would store the wrong number.
        if (a.kind == sql_arg::SIGNED) {
            append_num(out, build_spec(cs, "ll", 'd', false).c_str(), a.i);
        } else if (a.kind == sql_arg::UNSIGNED) {
            append_num(out, build_spec(cs, "ll", 'u', false).c_str(), a.u);
        } else if (a.kind == sql_arg::REAL) {
            long long v;
            if (real_to_ll(a.d, &v))
                append_num(out, build_spec(cs, "ll", 'd', false).c_str(), v);
        }
        return;  // text for a number: nothing
    }
    case 'u':
    case 'o':
    case 'x':
    case 'X': {
        unsigned long long v;
        if (a.kind == sql_arg::UNSIGNED) {
            v = a.u;
        } else if (a.kind == sql_arg::SIGNED) {
            // As C does: -1 under "%u" is 4294967295, under "%lu" 2^64-1.
            v = as_unsigned(a.i, cs.lenbits);
        } else if (a.kind == sql_arg::REAL) {
            long long t;
            if (!real_to_ll(a.d, &t))
                return;
            v = as_unsigned(t, cs.lenbits);
        } else {
            return;
        }
        append_num(out, build_spec(cs, "ll", cs.conv, cs.conv != 'u').c_str(), v);
        return;
    }
    default: {  // f F e E g G a A
        double d;
        if (a.kind == sql_arg::REAL) d = a.d;
        else if (a.kind == sql_arg::SIGNED) d = double(a.i);
        else if (a.kind == sql_arg::UNSIGNED) d = double(a.u);
        else return;
        append_num(out, build_spec(cs, "", cs.conv, true).c_str(), d);
        return;
    }
    }
}

}  // namespace

void mysqlinfo_init()
{
    memset(&msinfo, 0, sizeof(msinfo));
    set_field(msinfo.mysql_user, "vtcloud", "user");
    set_field(msinfo.mysql_map_user, "vantrelclouduser", "map user");
    set_field(msinfo.mysql_map_userpass, kMapUserPass, "map_password");
    set_field(msinfo.mysql_host, "localhost", "host");
    msinfo.mysql_port = 3306;
    // mysql_pass and mysql_socket stay empty: the password has to come
    // from the account file or the environment.

    read_db_conf();

    static const struct {
        const char* env;
        const char* key;
    } overrides[] = {
        {"CLOUD_DB_HOST", "host"},
        {"CLOUD_DB_PORT", "port"},
        {"CLOUD_DB_SOCKET", "socket"},
        {"CLOUD_DB_USER", "user"},
        {"CLOUD_DB_PASSWORD", "password"},
        {"CLOUD_MAP_PASSWORD", "map_password"},
    };
    for (const auto& o : overrides)
        if (const char* v = getenv(o.env))
            set_value(o.key, v);
}

int my_mysql_connect(MYSQL* m)
{
    if (!m || !mysql_init(m))
        return -1;
    unsigned ct = kConnectTimeout, rt = kReadTimeout, wt = kWriteTimeout;
    mysql_options(m, MYSQL_SET_CHARSET_NAME, "latin1");
    mysql_options(m, MYSQL_OPT_CONNECT_TIMEOUT, &ct);
    mysql_options(m, MYSQL_OPT_READ_TIMEOUT, &rt);
    mysql_options(m, MYSQL_OPT_WRITE_TIMEOUT, &wt);
    // The client library takes the socket only for host "localhost" and
    // TCP otherwise, so passing both is harmless.
    const char* host = msinfo.mysql_host[0] ? msinfo.mysql_host : nullptr;
    const char* sock = msinfo.mysql_socket[0] ? msinfo.mysql_socket : nullptr;
    if (!mysql_real_connect(m, host, msinfo.mysql_user, msinfo.mysql_pass, nullptr, msinfo.mysql_port,
                            sock, 0)) {
        mysql_close(m);
        return -1;
    }
    // The first connection of the process makes sure vtlog exists. Until
    // it succeeds every connect tries again; two threads racing here both
    // run a harmless "if not exists".
    if (!_vtlog_created.load(std::memory_order_acquire)) {
        if (mysql_query(m, "create database if not exists vtlog") == 0)
            _vtlog_created.store(true, std::memory_order_release);
        else
            printf("my_mysql_connect: create database vtlog: %s\n", mysql_error(m));
    }
    return 0;
}

mysql_conn::mysql_conn()
{
    // Zeroed so that errnum()/error() read defined fields even when the
    // connect failed and the handle was closed.
    memset(&m_, 0, sizeof(m_));
    ok_ = my_mysql_connect(&m_) == 0;
}

mysql_conn::~mysql_conn()
{
    if (ok_)
        mysql_close(&m_);
}

int mysql_conn::query(const std::string& sql)
{
    if (!ok_)
        return CR_SERVER_GONE_ERROR;
    if (mysql_real_query(&m_, sql.data(), (unsigned long)sql.size()) == 0)
        return 0;
    unsigned e = mysql_errno(&m_);
    return e ? int(e) : -1;
}

bool mysql_conn::crashed(int err)
{
    // A crashed MyISAM table found in use is 1194. MariaDB reports the
    // same condition found while opening the table ("marked as crashed
    // and should be repaired") with the storage engine's number 145
    // instead, so both lead to the repair.
    return err == ER_CRASHED_ON_USAGE || err == kCrashedOnOpen;
}

bool mysql_conn::lost(unsigned err)
{
    return (err >= CR_MIN_ERROR && err <= CR_MAX_ERROR) || err == ER_SERVER_SHUTDOWN || err == ER_CONNECTION_KILLED;
}

void mysql_conn::repair(const char* table)
{
    printf("query_repair: %s crashed, repairing\n", table);
    if (query(std::string("repair table ") + table) == 0) {
        // "repair table" answers with a status table; it must be read
        // before the connection takes another statement.
        if (MYSQL_RES* res = mysql_store_result(&m_))
            mysql_free_result(res);
    } else {
        printf("query_repair: repair table %s: %s\n", table, error());
    }
}

int mysql_conn::query_repair(const std::string& sql, const char* table)
{
    int r = query(sql);
    if (!crashed(r) || !table || !*table)
        return r;
    repair(table);
    return query(sql);
}

std::string sql_vformat(MYSQL* m, const char* fmt, std::initializer_list<sql_arg> args)
{
    std::string out;
    if (!fmt)
        return out;
    const sql_arg* next = args.begin();
    const sql_arg* end = args.end();
    const char* p = fmt;
    while (*p) {
        const char* pct = strchr(p, '%');
        if (!pct) {
            out.append(p);
            break;
        }
        out.append(p, size_t(pct - p));
        if (pct[1] == '%') {
            out += '%';
            p = pct + 2;
            continue;
        }
        conv_spec cs;
        const char* after = parse_spec(pct + 1, cs);
        if (!after) {
            // Not a conversion we know: keep the '%' as text and go on.
            out += '%';
            p = pct + 1;
            continue;
        }
        p = after;
        if (next == end)
            continue;  // missing value: the conv prints nothing
        format_one(out, m, cs, *next++);
    }
    return out;
}

std::string discontable_sql(const char* table)
{
    // TABLE is an identifier, not a value: it cannot be escaped, so callers
    // pass one of the compile-time family names only. Anything else is
    // refused here rather than pasted into a statement.
    size_t n = table ? strlen(table) : 0;
    if (n == 0 || n > 64 || strspn(table, "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_") != n)
        return "";
    std::string sql = "create table if not exists vtlog.";
    sql += table;
    sql += "(license_id12 varchar(16) not null default '', grpid int(2) not null default '0',"
           "name varchar(128) not null default '', time bigint(4) not null default '0', "
           "uptime bigint(4) not null default '0')engine=myisam";
    return sql;
}

void creatediscontable(const char* table)
{
    std::string sql = discontable_sql(table);
    if (sql.empty()) {
        printf("creatediscontable: invalid table name\n");
        return;
    }
    mysql_conn c;
    if (!c.ok())
        return;
    if (c.query(sql) != 0)
        printf("%s\n", c.error());
}

char* getconfig(const char* key, int keylen, char* value, int size)
{
    if (!key || !value || size < 1 || keylen < 0)
        return nullptr;
    std::string path = jos_path("/usr/logd/bin/log.conf");
    file_ptr f(fopen(path.c_str(), "re"));
    if (!f)
        return nullptr;
    char line[1024], clean[1024];
    bool at_start = true;  // the piece fgets returned begins a line
    while (fgets(line, kLineMax, f.get())) {
        bool first = at_start;
        at_start = strchr(line, '\n') != nullptr;
        // The rest of an over-long line is not a line of its own.
        if (!first || line[0] == '#')
            continue;
        trimall(line, clean);
        if (strncmp(clean, key, size_t(keylen)) != 0)
            continue;
        const char* eq = strchr(clean, '=');
        if (!eq)
            return nullptr;
        snprintf(value, size_t(size), "%s", eq + 1);
        return value;
    }
    return nullptr;
}

int setconfig(const char* key, const char* value)
{
    if (!key || !*key || !value)
        return -1;
    // One setting per line: a line break in either would write a second
    // line of the caller's choosing.
    if (strpbrk(key, "\r\n") || strpbrk(value, "\r\n"))
        return -1;
    std::string path = jos_path("/usr/logd/bin/log.conf");
    std::string tmppath = path + ".tmp";
    file_ptr out(fopen(tmppath.c_str(), "we"));
    if (!out)
        return -1;
    file_ptr in(fopen(path.c_str(), "re"));
    if (!in)
        return -1;  // the empty .tmp stays; log.conf is not created

    size_t klen = strlen(key);
    char line[1024];
    bool matched = false;
    bool at_start = true;   // the piece begins a line
    bool dropping = false;  // inside a replaced over-long line
    while (fgets(line, kLineMax, in.get())) {
        bool first = at_start;
        at_start = strchr(line, '\n') != nullptr;
        if (!first) {
            if (!dropping)
                fputs(line, out.get());
            continue;
        }
        dropping = false;
        if (strncmp(line, key, klen) == 0) {
            fprintf(out.get(), "%s=%s\n", key, value);
            matched = true;
            dropping = !at_start;
        } else {
            fputs(line, out.get());
        }
    }
    // A last line without its newline must not take the new one in.
    if (!matched)
        fprintf(out.get(), "%s%s=%s\n", at_start ? "" : "\n", key, value);
    in.reset();
    // A short write (full disk) must not replace the settings with half of
    // them.
    bool bad = ferror(out.get()) != 0;
    if (fclose(out.release()) != 0 || bad) {
        unlink(tmppath.c_str());
        return -1;
    }
    // rename replaces log.conf in one step: a reader never finds it
    // missing or half written.
    if (rename(tmppath.c_str(), path.c_str()) != 0)
        return -1;
    return 0;
}

namespace {

// Account names and passwords go into a shell script, so only characters
// no shell gives a meaning to are accepted; a leading '-' would read as an
// option to grep or useradd.
bool script_safe(const char* s)
{
    size_t n = strlen(s);
    return n > 0 && s[0] != '-' &&
           strspn(s, "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789._-") == n;
}

bool write_all(int fd, const std::string& s)
{
    size_t off = 0;
    while (off < s.size()) {
        ssize_t w = write(fd, s.data() + off, s.size() - off);
        if (w < 0) {
            if (errno == EINTR)
                continue;
            return false;
        }
        off += size_t(w);
    }
    return true;
}

// Runs "/bin/sh PATH" and waits; the exit status or -1.
int run_script(const std::string& path)
{
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
#if defined(__GLIBC__) && (__GLIBC__ > 2 || (__GLIBC__ == 2 && __GLIBC_MINOR__ >= 34))
    // The daemon's sockets are no business of the script.
    posix_spawn_file_actions_addclosefrom_np(&fa, 3);
#endif
    char arg0[] = "sh";
    std::string arg1 = path;
    char* argv[] = {arg0, arg1.data(), nullptr};
    pid_t pid;
    int rc = posix_spawn(&pid, "/bin/sh", &fa, nullptr, argv, environ);
    posix_spawn_file_actions_destroy(&fa);
    if (rc != 0) {
        printf("cloud_adduser: cannot run /bin/sh: %s\n", strerror(rc));
        return -1;
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR)
            return -1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

void write_adduser_script()
{
    const char* user = msinfo.mysql_map_user;
    const char* pass = msinfo.mysql_map_userpass;
    if (!script_safe(user) || !script_safe(pass)) {
        printf("cloud_adduser: account name or password has characters outside [A-Za-z0-9._-], "
               "script not written\n");
        return;
    }
    std::string path = jos_path("/tmp/clouduser");
    std::string text;
    text += "#!/bin/sh\nval=`cat /etc/passwd | grep " + std::string(user) + "`\n";
    text += "[ \"${val}\" = \"\" ] && /usr/sbin/useradd -m " + std::string(user) + "\n";
    text += "echo \"" + std::string(user) + ":" + pass + "\" | /usr/sbin/chpasswd";

    // The script holds the account's password: owner only (0700), never
    // world-readable. It lives in a world-writable directory, so whatever
    // is there (a planted file or symlink) is removed and the file created
    // afresh, refusing to follow links.
    std::error_code ec;
    std::filesystem::create_directories(std::filesystem::path(path).parent_path(), ec);
    if (unlink(path.c_str()) != 0 && errno != ENOENT) {
        printf("cloud_adduser: cannot replace %s: %s\n", path.c_str(), strerror(errno));
        return;
    }
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0700);
    if (fd < 0) {
        printf("cloud_adduser: cannot create %s: %s\n", path.c_str(), strerror(errno));
        return;
    }
    bool ok = fchmod(fd, 0700) == 0 && write_all(fd, text);
    if (close(fd) != 0)
        ok = false;
    if (!ok) {
        printf("cloud_adduser: cannot write %s\n", path.c_str());
        return;
    }
    // The script stays in place after it ran.
    if (jos_hasroot()) {
        printf("cloud_adduser: not run under a test root: %s\n", path.c_str());
        return;
    }
    int rc = run_script(path);
    if (rc != 0)
        printf("cloud_adduser: %s exited with %d\n", path.c_str(), rc);
}

}  // namespace

int cloud_rcvbuf(int sock, int bytes, const char* who)
{
    if (setsockopt(sock, SOL_SOCKET, SO_RCVBUFFORCE, &bytes, sizeof(bytes)) != 0 &&
        setsockopt(sock, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof(bytes)) != 0)
        return -1;
    int granted = 0;
    socklen_t glen = sizeof(granted);
    // Linux reports twice the size it was asked for (half is bookkeeping).
    if (getsockopt(sock, SOL_SOCKET, SO_RCVBUF, &granted, &glen) == 0 && granted / 2 < bytes)
        printf("%s: receive buffer is %d bytes, %d asked for; raise the cap with "
               "\"sysctl -w net.core.rmem_max=%d\" or run as root\n",
               who, granted / 2, bytes, bytes);
    return 0;
}

int cloud_udp_bind(int port, int bytes, const char* who, const char* reuse_failed)
{
    int s = socket(AF_INET, SOCK_DGRAM, 0);
    if (s < 0) {
        perror("socket");
        return -1;
    }
    int one = 1;
    if (setsockopt(s, SOL_SOCKET, SO_REUSEPORT, &one, sizeof(one)) != 0)
        reuse_failed != nullptr ? (void)puts(reuse_failed) : perror("setsockopt");
    cloud_rcvbuf(s, bytes, who);
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(INADDR_ANY);
    sa.sin_port = htons(static_cast<uint16_t>(port));
    if (bind(s, reinterpret_cast<sockaddr*>(&sa), sizeof(sa)) != 0) {
        perror("bind");
        close(s);
        return -1;
    }
    return s;
}

int cloud_sendto(int sock, const void* data, size_t len, uint32_t ip, uint16_t port)
{
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_addr.s_addr = htonl(ip);
    to.sin_port = htons(port);
    ssize_t n = sendto(sock, data, len, 0, reinterpret_cast<sockaddr*>(&to), sizeof(to));
    return n == static_cast<ssize_t>(len) ? 0 : -1;
}

void cloud_adduser()
{
    write_adduser_script();

    // Backups land here and the web front end, running under its own
    // account, reads and writes them: the directory is open to all.
    std::string dir = jos_path("/usr/logdata/vtconf");
    std::error_code ec;
    std::filesystem::create_directories(dir, ec);
    if (chmod(dir.c_str(), 0777) != 0)
        printf("cloud_adduser: chmod %s: %s\n", dir.c_str(), strerror(errno));
}

int upgrade_nginx_port()
{
    std::string path = jos_path("/usr/logd/www/vtupbags/webport.conf");
    file_ptr f(fopen(path.c_str(), "re"));
    if (!f)
        return 80;
    char line[1024];
    while (fgets(line, kLineMax, f.get())) {
        if (!strstr(line, "WEBPORT"))
            continue;
        const char* eq = strchr(line, '=');
        if (!eq)
            continue;
        // The number as atoi reads it, reduced modulo 65536 digit by digit
        // so that no length of number can overflow.
        const char* s = eq + 1;
        while (*s == ' ' || (*s >= '\t' && *s <= '\r'))
            s++;
        bool neg = false;
        if (*s == '+' || *s == '-')
            neg = *s++ == '-';
        unsigned v = 0;
        for (; *s >= '0' && *s <= '9'; s++)
            v = (v * 10 + unsigned(*s - '0')) % 65536;
        if (neg)
            v = (65536 - v) % 65536;
        return int(v);
    }
    return 80;
}

char* mystrtolower(const char* src, char* dst, int max)
{
    int i = 0;
    for (; i < max && src[i]; i++) {
        char c = src[i];
        dst[i] = (c >= 'A' && c <= 'Z') ? char(c - 'A' + 'a') : c;
    }
    dst[i] = '\0';
    return dst;
}

void trimall(const char* src, char* dst)
{
    for (; *src; src++)
        if (*src != ' ' && *src != '\n')
            *dst++ = *src;
    *dst = '\0';
}

void key_convert(const char* text, char* buf, int size)
{
    if (!text || !buf || size < 1)
        return;
    iconv_t cd = iconv_open("UTF-8", "GB2312");
    if (cd == (iconv_t)-1)
        return;
    char* in = const_cast<char*>(text);
    size_t inleft = strlen(text);
    char* out = buf;
    size_t outleft = size_t(size) - 1;
    // Stops at the first invalid or incomplete sequence, or when the
    // buffer is full; iconv never writes half a character.
    iconv(cd, &in, &inleft, &out, &outleft);
    iconv_close(cd);
    *out = '\0';
    // One line only.
    if (char* nl = strchr(buf, '\n'))
        *nl = '\0';
}
