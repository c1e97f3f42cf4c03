// Database access and small helpers shared by every module.
#pragma once

#include <mysql.h>

#include <cstdint>
#include <initializer_list>
#include <string>

// The database account and the operating-system account appliances use.
// Filled once by mysqlinfo_init from /etc/cloud.db.conf (under the root)
// and the CLOUD_DB_* environment, read-only afterwards.
struct mysqlinfo_t {
    char mysql_user[32];
    char mysql_pass[32];
    char mysql_map_user[32];
    char mysql_map_userpass[48];
    char mysql_host[64];
    unsigned mysql_port;
    char mysql_socket[108];
};

extern mysqlinfo_t msinfo;

void mysqlinfo_init();

// Initialises the caller's handle and connects (latin1, no default
// database). 0 or -1; on -1 the handle has been closed already.
int my_mysql_connect(MYSQL* m);

// One connection, closed when it goes out of scope.
class mysql_conn {
public:
    mysql_conn();
    ~mysql_conn();
    mysql_conn(const mysql_conn&) = delete;
    mysql_conn& operator=(const mysql_conn&) = delete;

    bool ok() const { return ok_; }
    MYSQL* get() { return &m_; }
    // Runs a statement; 0 or the server's error number.
    int query(const std::string& sql);
    // The same, and on error 1194 (crashed table) repairs TABLE
    // ("repair table TABLE") and runs the statement once more.
    int query_repair(const std::string& sql, const char* table);
    // "repair table TABLE", reading its status answer.
    void repair(const char* table);
    // The server found the table crashed (in use, or when opening it).
    static bool crashed(int err);
    // The connection is gone (or the server going away): the outcome of the
    // statement that got ERR is unknown.
    static bool lost(unsigned err);
    unsigned errnum() { return mysql_errno(&m_); }
    const char* error() { return mysql_error(&m_); }

private:
    MYSQL m_;
    bool ok_ = false;
};

// One value for sqlf: text values are escaped for the connection, numbers
// are formatted by their conversion.
struct sql_arg {
    enum kind_t { TEXT, SIGNED, UNSIGNED, REAL } kind;
    const char* s = nullptr;
    long long i = 0;
    unsigned long long u = 0;
    double d = 0;

    sql_arg(const char* v) : kind(TEXT), s(v ? v : "") {}
    sql_arg(char* v) : kind(TEXT), s(v ? v : "") {}
    sql_arg(const std::string& v) : kind(TEXT), s(v.c_str()) {}
    sql_arg(int v) : kind(SIGNED), i(v) {}
    sql_arg(long v) : kind(SIGNED), i(v) {}
    sql_arg(long long v) : kind(SIGNED), i(v) {}
    sql_arg(unsigned v) : kind(UNSIGNED), u(v) {}
    sql_arg(unsigned long v) : kind(UNSIGNED), u(v) {}
    sql_arg(unsigned long long v) : kind(UNSIGNED), u(v) {}
    sql_arg(uint16_t v) : kind(UNSIGNED), u(v) {}
    sql_arg(uint8_t v) : kind(UNSIGNED), u(v) {}
    sql_arg(double v) : kind(REAL), d(v) {}
};

// Formats a statement: printf conversions in FMT take the values in order;
// every %s value is escaped with mysql_real_escape_string for M, so a quote
// in a value is stored as sent. This is the only way statements are built.
std::string sql_vformat(MYSQL* m, const char* fmt, std::initializer_list<sql_arg> args);

template <typename... A>
std::string sqlf(MYSQL* m, const char* fmt, const A&... a)
{
    return sql_vformat(m, fmt, {sql_arg(a)...});
}

// The statement that creates a disconnect-history table; empty for a name
// that is not a plain identifier.
std::string discontable_sql(const char* table);
void creatediscontable(const char* table);

char* getconfig(const char* key, int keylen, char* value, int size);
int setconfig(const char* key, const char* value);

// Asks for a receive buffer of BYTES on the UDP socket SOCK (root may go
// past the system's cap); says in one line, under WHO, when the kernel
// granted less. -1 when neither request was taken.
int cloud_rcvbuf(int sock, int bytes, const char* who);
// The job sockets' set-up (backup, firmware upgrade): a UDP socket with
// SO_REUSEPORT and a receive buffer of BYTES, bound to any address and PORT.
// Failures are printed as perror does ("socket", "bind": -1 back) and, for
// SO_REUSEPORT, as REUSE_FAILED or, when that is null, by perror (the
// socket is used anyway).
int cloud_udp_bind(int port, int bytes, const char* who, const char* reuse_failed);
// Sends LEN bytes over SOCK to IP:PORT (host order): 0 when the whole
// datagram left, else -1.
int cloud_sendto(int sock, const void* data, size_t len, uint32_t ip, uint16_t port);

void cloud_adduser();
int upgrade_nginx_port();
char* mystrtolower(const char* src, char* dst, int max);
void trimall(const char* src, char* dst);
void key_convert(const char* text, char* buf, int size);
