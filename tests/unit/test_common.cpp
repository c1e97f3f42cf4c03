// Settings files, statements, the account record and script; a database when one is given.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <tuple>

#include "common.h"
#include "jos.h"

namespace fs = std::filesystem;

namespace {

std::string slurp(const fs::path& p)
{
    std::ifstream f(p, std::ios::binary);
    return {std::istreambuf_iterator<char>(f), {}};
}

void spit(const fs::path& p, const std::string& text, mode_t mode = 0600)
{
    fs::create_directories(p.parent_path());
    std::ofstream(p, std::ios::binary | std::ios::trunc) << text;
    chmod(p.c_str(), mode);
}

template <typename F>
std::string captured(F fn)
{
    ::testing::internal::CaptureStdout();
    fn();
    return ::testing::internal::GetCapturedStdout();
}

// Each test runs under its own root with the database variables unset and
// msinfo at its defaults; afterwards root, variables and msinfo are back.
class CommonFiles : public ::testing::Test {
protected:
    void SetUp() override
    {
        char tmpl[] = "/tmp/common-test.XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        jos_setroot((root_ = tmpl).string());
        for (const char* n : {"CLOUD_DB_HOST", "CLOUD_DB_PORT", "CLOUD_DB_SOCKET", "CLOUD_DB_USER",
                              "CLOUD_DB_PASSWORD", "CLOUD_MAP_PASSWORD"}) {
            env_.emplace_back(n, getenv(n) ? std::optional<std::string>(getenv(n)) : std::nullopt);
            unsetenv(n);
        }
        mysqlinfo_init();
    }
    void TearDown() override
    {
        jos_setroot("");
        fs::remove_all(root_);
        for (auto& [n, v] : env_)
            v ? setenv(n, v->c_str(), 1) : unsetenv(n);
        mysqlinfo_init();
    }
    fs::path at(const char* abs) const { return root_ / (abs + 1); }

    fs::path root_;
    std::vector<std::pair<const char*, std::optional<std::string>>> env_;
};

TEST_F(CommonFiles, GetconfigRemovesSpacesAndMatchesByPrefix)
{
    char v[64] = "";
    EXPECT_EQ(getconfig("key", 3, v, sizeof(v)), nullptr);  // no file
    spit(at("/usr/logd/bin/log.conf"), "#cloud_mapping_min_port=1\ncloud_mapping_min_port  =  20000\n"
                                       "cloud_mapping_max_port=30000\nkeyword\nkey=5\n");
    // Prefix match over keylen characters, the comment line skipped; the
    // first line matching "key" has no "=": the search ends there.
    for (auto [key, len, want] : {std::tuple<const char*, int, const char*>{"cloud_mapping_min_port", 22, "20000"},
                                  {"cloud_mapping", 13, "20000"}, {"cloud_mapping_max_portXYZ", 22, "30000"},
                                  {"key", 3, nullptr}, {"missing", 7, nullptr}})
        EXPECT_STREQ(getconfig(key, len, v, sizeof(v)) ? v : nullptr, want) << key;
    char small[3] = {'x', 'x', 'x'};  // bounded and terminated
    ASSERT_NE(getconfig("cloud_mapping_min_port", 22, small, sizeof(small)), nullptr);
    EXPECT_STREQ(small, "20");
    // The rest of a line longer than one read is not a line of its own.
    spit(at("/usr/logd/bin/log.conf"), "#" + std::string(1021, 'a') + "key=5\nkey=1\n");
    ASSERT_NE(getconfig("key", 3, v, sizeof(v)), nullptr);
    EXPECT_STREQ(v, "1");
}

TEST_F(CommonFiles, SetconfigReplacesEveryMatchAndAppends)
{
    fs::path conf = at("/usr/logd/bin/log.conf");
    fs::create_directories(conf.parent_path());
    EXPECT_EQ(setconfig("key", "1"), -1);  // no file: none is made up, only an empty .tmp left
    EXPECT_FALSE(fs::exists(conf));
    EXPECT_TRUE(fs::exists(conf.string() + ".tmp") && fs::file_size(conf.string() + ".tmp") == 0);
    // Prefix over the key's length, no space removal: "key = 3" and
    // "keyboard=4" are both lines that begin with "key".
    spit(conf, "# settings\nkey=1\nother=2\nkey = 3\nkeyboard=4\n");
    ASSERT_EQ(setconfig("key", "9"), 0);
    EXPECT_EQ(slurp(conf), "# settings\nkey=9\nother=2\nkey=9\nkey=9\n");
    ASSERT_EQ(setconfig("new", "20000"), 0);
    const std::string want = "# settings\nkey=9\nother=2\nkey=9\nkey=9\nnew=20000\n";
    EXPECT_EQ(slurp(conf), want);
    EXPECT_EQ(setconfig("key", "1\nother=evil"), -1);  // a line break would smuggle in a setting
    EXPECT_EQ(slurp(conf), want);
    // Lines longer than one read are kept intact, or replaced whole.
    std::string head = "#" + std::string(1021, 'a') + "key=5\nx=" + std::string(3000, 'b') + "\n";
    spit(conf, head + "key=1\n");
    ASSERT_EQ(setconfig("key", "2"), 0);
    EXPECT_EQ(slurp(conf), head + "key=2\n");
    spit(conf, "key=" + std::string(2000, 'c') + "\nz=1\n");
    ASSERT_EQ(setconfig("key", "3"), 0);
    EXPECT_EQ(slurp(conf), "key=3\nz=1\n");
}

TEST_F(CommonFiles, WebPortIsTheFirstWebportLineWithEquals)
{
    EXPECT_EQ(upgrade_nginx_port(), 80);  // no file
    for (auto [text, port] : {std::pair<const char*, int>{"WEBPORT=8080\n", 8080},
                              {"# port\nWEBPORT 1\nMY_WEBPORT = 8443\nWEBPORT=9000\n", 8443},
                              {"WEBPORT=70000\n", 70000 % 65536}, {"PORT=81\nwebport=82\n", 80}}) {
        spit(at("/usr/logd/www/vtupbags/webport.conf"), text);
        EXPECT_EQ(upgrade_nginx_port(), port) << text;
    }
}

// GB2312 to UTF-8, bounded to size-1 bytes and never half a character, up
// to an invalid sequence or the end of the first line.
TEST(CommonText, KeyConvertGb2312ToUtf8)
{
    for (auto [text, size, want] : {std::tuple<const char*, int, const char*>{"\xd6\xd0\xce\xc4", 32, "中文"},
                                    {"ab\xd6\xd0" "cd", 32, "ab中cd"}, {"\xd6\xd0\xce\xc4", 5, "中"},
                                    {"\xd6\xd0\xff\xff\xce\xc4", 32, "中"}, {"\xd6\xd0\nsecond", 32, "中"}}) {
        char buf[32];
        memset(buf, 'x', sizeof(buf));
        key_convert(text, buf, size);
        EXPECT_STREQ(buf, want) << size;
    }
}

TEST(CommonSqlFormat, TextEscapedNumbersByKind)
{
    EXPECT_EQ(sqlf(nullptr, "values('%s')", "x'; drop table t; --"), "values('x\\'; drop table t; --')");
    EXPECT_EQ(sqlf(nullptr, "'%s'", "a\\b\"c\nd\re\x1a" "f"), "'a\\\\b\\\"c\\nd\\re\\Zf'");
    EXPECT_EQ(sqlf(nullptr, "'%s'", "\xd6\xd0\xbf'"), "'\xd6\xd0\xbf\\''");  // bytes pass as they are
    // Precision cuts before escaping: never a lone backslash eating the quote.
    EXPECT_EQ(sqlf(nullptr, "'%.3s' [%5s|%-4s]", "ab\\cd", "a'", "b"), "'ab\\\\' [   a\\'|b   ]");
    EXPECT_EQ(sqlf(nullptr, "'%c%c'", int('\''), int('a')), "'\\'a'");  // %c is text too
    EXPECT_EQ(sqlf(nullptr, "%s", std::string(100000, '\'')).size(), 200000u);
    EXPECT_EQ(sqlf(nullptr, "%d,%i,%5d,%-3d|,%05d,%#x", -7, 8, 42, 1, -3, 16), "-7,8,   42,1  |,-0003,0x10");
    // Whole values whatever the length modifier, except that a signed value
    // under an unsigned conversion wraps to that width as in C.
    EXPECT_EQ(sqlf(nullptr, "%d %d", 1234567890123LL, 4294967295u), "1234567890123 4294967295");
    EXPECT_EQ(sqlf(nullptr, "%u %u %lu %hhu", -1, 7u, -1L, -1), "4294967295 7 18446744073709551615 255");
    EXPECT_EQ(sqlf(nullptr, "%.12f %.1f %d '%s' %d%%", 116.404, 3, 2.9, -3LL, 5), "116.404000000000 3.0 2 '-3' 5%");
    // Odd specifications and argument counts never read past the values.
    EXPECT_EQ(sqlf(nullptr, "a=%d b=%s c=%u", "text"), "a= b= c=");
    EXPECT_EQ(sqlf(nullptr, "a=%d", 1, 2, "x"), "a=1");
    EXPECT_EQ(sqlf(nullptr, "%d|%n|%*d|%", 1e300, 1, 2), "|%n|%*d|%");  // not conversions: kept as text
    EXPECT_EQ(sqlf(nullptr, "%99999999999d|%.400f", 1, 1.0), "%99999999999d|1." + std::string(400, '0'));
}

TEST_F(CommonFiles, DbInfoDefaultsFileAndEnvironment)
{
    auto info = [] {  // user|pass|map user|map password|host|port|socket
        return std::string(msinfo.mysql_user) + "|" + msinfo.mysql_pass + "|" + msinfo.mysql_map_user + "|" +
               msinfo.mysql_map_userpass + "|" + msinfo.mysql_host + "|" + std::to_string(msinfo.mysql_port) + "|" +
               msinfo.mysql_socket;
    };
    std::string map_pass = msinfo.mysql_map_userpass;
    EXPECT_EQ(info(), "vtcloud||vantrelclouduser|" + map_pass + "|localhost|3306|");
    fs::path conf = at("/etc/cloud.db.conf");
    spit(conf, "# account\nhost = 127.0.0.1\nport=3307\nsocket=/run/db.sock\nuser=u1\n"
               "password=p w\r\nmap_password=mp\nunknown=1\nport=0\nport=65536\nport=12ab\n", 0640);
    EXPECT_NE(captured(mysqlinfo_init).find(conf.string() + " is readable by group or others"), std::string::npos);
    EXPECT_EQ(info(), "u1|p w|vantrelclouduser|mp|127.0.0.1|3307|/run/db.sock");  // bad ports ignored
    // Owner-only: no warning. A value too long for its field is refused, not
    // cut. The environment overrides the file.
    spit(conf, "user=" + std::string(40, 'u') + "\npassword=ok\n", 0600);
    EXPECT_EQ(captured(mysqlinfo_init).find("readable by group"), std::string::npos);
    EXPECT_EQ(info(), "vtcloud|ok|vantrelclouduser|" + map_pass + "|localhost|3306|");
    for (auto [n, v] :
         {std::pair{"CLOUD_DB_USER", "envuser"}, {"CLOUD_DB_PORT", "4406"}, {"CLOUD_MAP_PASSWORD", "envmap"}})
        setenv(n, v, 1);
    mysqlinfo_init();
    EXPECT_EQ(info(), "envuser|ok|vantrelclouduser|envmap|localhost|4406|");
}

TEST_F(CommonFiles, AddUserWritesPrivateScriptOfSafeNamesOnly)
{
    fs::path script = at("/tmp/clouduser");
    fs::create_directories(script.parent_path());  // so that only the names stop the script
    for (auto [user, pass] : {std::pair<const char*, const char*>{"vantrelclouduser", "x`id`"},
                              {"vantrelclouduser", "a b"}, {"vantrelclouduser", "$(id)"},
                              {"vantrelclouduser", ""}, {"u'x", "pw"}, {"-rf", "pw"}}) {
        snprintf(msinfo.mysql_map_user, sizeof(msinfo.mysql_map_user), "%s", user);
        snprintf(msinfo.mysql_map_userpass, sizeof(msinfo.mysql_map_userpass), "%s", pass);
        captured(cloud_adduser);
        EXPECT_FALSE(fs::exists(script)) << user << " " << pass;
    }
    EXPECT_TRUE(fs::is_directory(at("/usr/logdata/vtconf")));  // still prepared
    mysqlinfo_init();
    snprintf(msinfo.mysql_map_userpass, sizeof(msinfo.mysql_map_userpass), "Pw.1-x_Y");
    spit(root_ / "victim", "keep");
    fs::create_symlink(root_ / "victim", script);  // replaced, not followed
    EXPECT_NE(captured(cloud_adduser).find("not run under a test root: " + script.string()), std::string::npos);
    EXPECT_EQ(slurp(root_ / "victim"), "keep");
    ASSERT_FALSE(fs::is_symlink(script));
    EXPECT_EQ(slurp(script), "#!/bin/sh\nval=`cat /etc/passwd | grep vantrelclouduser`\n"
                             "[ \"${val}\" = \"\" ] && /usr/sbin/useradd -m vantrelclouduser\n"
                             "echo \"vantrelclouduser:Pw.1-x_Y\" | /usr/sbin/chpasswd");
    EXPECT_EQ(fs::status(script).permissions(), fs::perms::owner_all);
    EXPECT_EQ(fs::status(at("/usr/logdata/vtconf")).permissions(), fs::perms::all);
}

// Against a real server, in a table of this process dropped however the test ends.
using rows_t = std::vector<std::vector<std::string>>;

class CommonDb : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (!getenv("CLOUD_DB_USER"))
            GTEST_SKIP() << "no database: set CLOUD_DB_* (scripts/mariadb.sh start DIR, then its env)";
        mysqlinfo_init();
        ASSERT_TRUE(c_.emplace().ok()) << "check CLOUD_DB_*";
    }
    void TearDown() override
    {
        if (c_ && !name_.empty())
            c_->query("drop table if exists vtlog." + name_);
    }
    std::string table(const char* prefix) { return name_ = prefix + std::to_string(getpid()); }
    // Every row of the result, each column as bytes; with REPAIR by query_repair.
    rows_t rows(const std::string& sql, const char* repair = nullptr)
    {
        EXPECT_EQ(repair ? c_->query_repair(sql, repair) : c_->query(sql), 0) << sql << ": " << c_->error();
        rows_t r;
        MYSQL_RES* res = mysql_store_result(c_->get());
        for (MYSQL_ROW row; res && (row = mysql_fetch_row(res));) {
            r.emplace_back();
            for (unsigned i = 0; i < mysql_num_fields(res); i++)
                r.back().emplace_back(row[i] ? std::string(row[i], mysql_fetch_lengths(res)[i]) : "NULL");
        }
        mysql_free_result(res);
        return r;
    }

    std::optional<mysql_conn> c_;
    std::string name_;
};

// The connection is latin1, so GBK bytes go in and come back as they are;
// each value twice: escaped by the client library, then by the fallback.
TEST_F(CommonDb, HostileTextReadsBackByteIdentical)
{
    std::string t = "vtlog." + table("common_rt_");
    ASSERT_EQ(c_->query("create table " + t + "(id int, v varchar(255)) character set latin1"), 0) << c_->error();
    rows_t want;
    for (std::string v :
         {"x'; drop table t; --", "a\\b\"c\nd\re\x1a" "f", "\xd6\xd0\xce\xc4\\'", "\xbf'\xbf\\", "'", "\\"})
        for (MYSQL* m : {c_->get(), static_cast<MYSQL*>(nullptr)}) {
            ASSERT_EQ(c_->query("insert into " + t + sqlf(m, " values(%d,'%s')", int(want.size()), v)), 0);
            want.push_back({v});
        }
    EXPECT_EQ(rows("select v from " + t + " order by id"), want);
}

TEST_F(CommonDb, CreatesDisconnectTable)
{
    std::string name = table("common_dc_");
    ::testing::internal::CaptureStdout();
    creatediscontable(name.c_str());
    creatediscontable(name.c_str());  // exists already: no error
    creatediscontable("x;drop table y");
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "creatediscontable: invalid table name\n");
    EXPECT_EQ(rows("show columns from vtlog." + name),
              (rows_t{{"license_id12", "varchar(16)", "NO", "", "", ""}, {"grpid", "int(2)", "NO", "", "0", ""},
                      {"name", "varchar(128)", "NO", "", "", ""}, {"time", "bigint(4)", "NO", "", "0", ""},
                      {"uptime", "bigint(4)", "NO", "", "0", ""}}));
    EXPECT_EQ(rows("select engine from information_schema.tables where table_name='" + name + "'"),
              rows_t{{"MyISAM"}});
}

// A table marked crashed (index header state flag 2 at byte 26) as a killed
// server leaves it is repaired and the statement run again; only when the
// server's files are ours and it does not repair by itself.
TEST_F(CommonDb, QueryRepairRepairsCrashedTable)
{
    std::string t = "vtlog." + table("common_crash_");
    ASSERT_EQ(c_->query("create table " + t + "(a int) engine=myisam"), 0) << c_->error();
    ASSERT_EQ(c_->query_repair("insert into " + t + " values(1)", t.c_str()), 0) << c_->error();
    rows_t dir = rows("select @@datadir, @@myisam_recover_options");
    fs::path myi = fs::path(dir.at(0).at(0)) / "vtlog" / (name_ + ".MYI");
    if (dir[0][1] != "OFF" || access(myi.c_str(), W_OK) != 0)
        GTEST_SKIP() << "server data not writable here or auto-recovery on";
    ASSERT_EQ(c_->query("flush tables " + t), 0);
    std::string index = slurp(myi);
    index.at(26) |= 2;
    std::ofstream(myi, std::ios::binary | std::ios::trunc) << index;
    int e = c_->query("select count(*) from " + t);
    EXPECT_TRUE(e == 145 || e == 1194) << e << " " << c_->error();
    rows_t count;
    EXPECT_NE(captured([&] { count = rows("select count(*) from " + t, t.c_str()); }).find("crashed"),
              std::string::npos);
    EXPECT_EQ(count, rows_t{{"1"}});
}

}  // namespace
