#include "db.h"

#include <mysql.h>

#include <cstdlib>
#include <stdexcept>

namespace {

const char* env(const char* name, const char* def)
{
    const char* v = std::getenv(name);
    return v != nullptr && *v != '\0' ? v : def;
}

struct conn {
    MYSQL m;
    conn()
    {
        mysql_init(&m);
        mysql_options(&m, MYSQL_SET_CHARSET_NAME, "latin1");
        const char* sockp = std::getenv("CLOUD_DB_SOCKET");
        if (mysql_real_connect(&m, env("CLOUD_DB_HOST", "localhost"), env("CLOUD_DB_USER", "root"),
                               env("CLOUD_DB_PASSWORD", ""), nullptr,
                               static_cast<unsigned>(std::atoi(env("CLOUD_DB_PORT", "3306"))),
                               sockp != nullptr && *sockp != '\0' ? sockp : nullptr, 0) == nullptr) {
            std::string err = mysql_error(&m);
            mysql_close(&m);
            throw std::runtime_error("test database: " + err);
        }
    }
    ~conn() { mysql_close(&m); }
    void run(const std::string& sql)
    {
        if (mysql_real_query(&m, sql.data(), sql.size()) != 0)
            throw std::runtime_error("test database: " + sql + ": " + mysql_error(&m));
    }
};

}  // namespace

void db_exec(const std::string& sql)
{
    conn c;
    c.run(sql);
    if (MYSQL_RES* r = mysql_store_result(&c.m))
        mysql_free_result(r);
}

std::vector<db_row> db_rows(const std::string& sql)
{
    conn c;
    c.run(sql);
    std::vector<db_row> out;
    MYSQL_RES* r = mysql_store_result(&c.m);
    if (r == nullptr)
        return out;
    unsigned n = mysql_num_fields(r);
    while (MYSQL_ROW row = mysql_fetch_row(r)) {
        unsigned long* lens = mysql_fetch_lengths(r);
        db_row v;
        for (unsigned i = 0; i < n; i++)
            v.push_back(row[i] ? std::optional<std::string>(std::string(row[i], lens[i])) : std::nullopt);
        out.push_back(std::move(v));
    }
    mysql_free_result(r);
    return out;
}

std::string db_value(const std::string& sql)
{
    auto rows = db_rows(sql);
    return rows.empty() || rows[0].empty() || !rows[0][0] ? "" : *rows[0][0];
}

std::string device_row(const std::string& id, const std::string& cols)
{
    auto rows = db_rows("select " + cols + " from vtlog.cloud_device where license_id12='" + id + "'");
    if (rows.empty())
        return "<none>";
    std::string out;
    for (size_t i = 0; i < rows[0].size(); i++)
        out += (i ? "|" : "") + rows[0][i].value_or("NULL");
    return out;
}

void db_reset()
{
    db_exec("create database if not exists vtlog");
    db_exec("drop table if exists vtlog.cloud_device");
    db_exec("drop table if exists vtlog.device_discon");
    db_exec("delete from vtlog.cloud_grp");
    db_exec("delete from vtlog.cloud_backup");
}
