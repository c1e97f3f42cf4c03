// Account record, statement formatting, log.conf, the OS account script,
// web port and text helpers; database round trips when a server is given.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "common.h"
#include "jos.h"

namespace fs = std::filesystem;

namespace {

std::string slurp(const fs::path& p)
{
    std::ifstream f(p, std::ios::binary);
    std::stringstream ss;
    ss << f.rdbuf();
    return ss.str();
}

void spit(const fs::path& p, const std::string& text, mode_t mode = 0600)
{
    fs::create_directories(p.parent_path());
    std::ofstream(p, std::ios::binary | std::ios::trunc) << text;
    chmod(p.c_str(), mode);
}

// Every test that touches files runs under its own root and leaves the
// process's root as it found it (empty).
class CommonRoot : public ::testing::Test {
protected:
    void SetUp() override
    {
        char tmpl[] = "/tmp/common-test.XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        root_ = tmpl;
        jos_setroot(root_.string());
    }
    void TearDown() override
    {
        jos_setroot("");
        std::error_code ec;
        fs::remove_all(root_, ec);
    }
    fs::path at(const char* abs) const { return root_ / (abs + 1); }

    fs::path root_;
};

// Unsets the database variables for one test and puts them back after.
class EnvGuard {
public:
    EnvGuard()
    {
        for (const char* n : names_) {
            const char* v = getenv(n);
            saved_.emplace_back(n, v ? std::optional<std::string>(v) : std::nullopt);
            unsetenv(n);
        }
    }
    ~EnvGuard()
    {
        for (auto& [n, v] : saved_) {
            if (v)
                setenv(n, v->c_str(), 1);
            else
                unsetenv(n);
        }
    }

private:
    static constexpr const char* names_[] = {"CLOUD_DB_HOST", "CLOUD_DB_PORT", "CLOUD_DB_SOCKET",
                                             "CLOUD_DB_USER", "CLOUD_DB_PASSWORD", "CLOUD_MAP_PASSWORD"};
    std::vector<std::pair<const char*, std::optional<std::string>>> saved_;
};

// ---------------------------------------------------------------------------
// log.conf
// ---------------------------------------------------------------------------

using CommonConfig = CommonRoot;

TEST_F(CommonConfig, GetconfigRemovesSpacesAndMatchesByPrefix)
{
    char v[64] = "";
    EXPECT_EQ(getconfig("key", 3, v, sizeof(v)), nullptr);  // no file
    spit(at("/usr/logd/bin/log.conf"), "#cloud_mapping_min_port=1\ncloud_mapping_min_port  =  20000\n"
                                       "cloud_mapping_max_port=30000\nkeyword\nkey=5\n");
    ASSERT_EQ(getconfig("cloud_mapping_min_port", 22, v, sizeof(v)), v);
    EXPECT_STREQ(v, "20000");
    // Prefix match over keylen characters; the comment line is skipped.
    ASSERT_NE(getconfig("cloud_mapping", 13, v, sizeof(v)), nullptr);
    EXPECT_STREQ(v, "20000");
    ASSERT_NE(getconfig("cloud_mapping_max_portXYZ", 22, v, sizeof(v)), nullptr);
    EXPECT_STREQ(v, "30000");
    // The first matching line has no "=": the search ends there.
    EXPECT_EQ(getconfig("key", 3, v, sizeof(v)), nullptr);
    EXPECT_EQ(getconfig("missing", 7, v, sizeof(v)), nullptr);
    char small[3] = {'x', 'x', 'x'};  // bounded and terminated
    ASSERT_NE(getconfig("cloud_mapping_min_port", 22, small, sizeof(small)), nullptr);
    EXPECT_STREQ(small, "20");
}

TEST_F(CommonConfig, SetconfigReplacesEveryMatchAndAppends)
{
    fs::path conf = at("/usr/logd/bin/log.conf");
    spit(conf, "# settings\nkey=1\nother=2\nkey = 3\nkeyboard=4\n");
    ASSERT_EQ(setconfig("key", "9"), 0);
    // Prefix over the key's length, no space removal: "key = 3" and
    // "keyboard=4" are both lines that begin with "key".
    EXPECT_EQ(slurp(conf), "# settings\nkey=9\nother=2\nkey=9\nkey=9\n");
    EXPECT_FALSE(fs::exists(conf.string() + ".tmp"));

    ASSERT_EQ(setconfig("new", "20000"), 0);
    const std::string want = "# settings\nkey=9\nother=2\nkey=9\nkey=9\nnew=20000\n";
    EXPECT_EQ(slurp(conf), want);
    // A line break in the value would smuggle in a second setting.
    EXPECT_EQ(setconfig("key", "1\nother=evil"), -1);
    EXPECT_EQ(slurp(conf), want);
}

TEST_F(CommonConfig, SetconfigWithoutFileFailsAndCreatesNothing)
{
    fs::path conf = at("/usr/logd/bin/log.conf");
    fs::create_directories(conf.parent_path());
    EXPECT_EQ(setconfig("key", "1"), -1);
    EXPECT_FALSE(fs::exists(conf));
    ASSERT_TRUE(fs::exists(conf.string() + ".tmp"));
    EXPECT_EQ(fs::file_size(conf.string() + ".tmp"), 0u);
}

// Lines longer than one read: the rest of such a line is never taken for
// a line of its own, and setconfig keeps it intact.
TEST_F(CommonConfig, LongLinesStayWhole)
{
    fs::path conf = at("/usr/logd/bin/log.conf");
    std::string longline = "#" + std::string(1021, 'a') + "key=5\n";  // "key=5" begins the 2nd read
    std::string other = "x=" + std::string(3000, 'b') + "\n";
    spit(conf, longline + other + "key=1\n");
    char v[16];
    ASSERT_NE(getconfig("key", 3, v, sizeof(v)), nullptr);
    EXPECT_STREQ(v, "1");

    ASSERT_EQ(setconfig("key", "2"), 0);
    EXPECT_EQ(slurp(conf), longline + other + "key=2\n");

    // A replaced over-long line goes as a whole.
    spit(conf, "key=" + std::string(2000, 'c') + "\nz=1\n");
    ASSERT_EQ(setconfig("key", "3"), 0);
    EXPECT_EQ(slurp(conf), "key=3\nz=1\n");
}

// ---------------------------------------------------------------------------
// Web port and text helpers
// ---------------------------------------------------------------------------

using CommonWebPort = CommonRoot;

TEST_F(CommonWebPort, ReadsFirstWebportLineWithEquals)
{
    EXPECT_EQ(upgrade_nginx_port(), 80);
    fs::path f = at("/usr/logd/www/vtupbags/webport.conf");
    spit(f, "WEBPORT=8080\n");
    EXPECT_EQ(upgrade_nginx_port(), 8080);
    spit(f, "# port\nWEBPORT 1\nMY_WEBPORT = 8443\nWEBPORT=9000\n");
    EXPECT_EQ(upgrade_nginx_port(), 8443);
    spit(f, "WEBPORT=70000\n");
    EXPECT_EQ(upgrade_nginx_port(), 70000 % 65536);
    spit(f, "PORT=81\nwebport=82\n");
    EXPECT_EQ(upgrade_nginx_port(), 80);
}

TEST(CommonText, LowerAndTrim)
{
    char d[16];
    memset(d, 'x', sizeof(d));
    EXPECT_STREQ(mystrtolower("ABCDEF", d, 3), "abc");
    EXPECT_STREQ(mystrtolower("AbC-\xc4Z09", d, 10), "abc-\xc4z09");  // only A..Z change
    trimall(" a b\nc \n\td ", d);
    EXPECT_STREQ(d, "abc\td");
}

TEST(CommonText, KeyConvertGb2312ToUtf8)
{
    char buf[32];
    key_convert("\xd6\xd0\xce\xc4", buf, sizeof(buf));
    EXPECT_STREQ(buf, "中文");
    key_convert("ab\xd6\xd0" "cd", buf, sizeof(buf));
    EXPECT_STREQ(buf, "ab中cd");

    // Bounded to size-1 bytes, never half a character.
    char small[5];
    memset(small, 'x', sizeof(small));
    key_convert("\xd6\xd0\xce\xc4", small, sizeof(small));
    EXPECT_STREQ(small, "中");

    // Stops at an invalid sequence and at the end of the first line.
    key_convert("\xd6\xd0\xff\xff\xce\xc4", buf, sizeof(buf));
    EXPECT_STREQ(buf, "中");
    key_convert("\xd6\xd0\nsecond", buf, sizeof(buf));
    EXPECT_STREQ(buf, "中");
}

// ---------------------------------------------------------------------------
// Statement formatting (no server needed)
// ---------------------------------------------------------------------------

TEST(CommonSqlFormat, EscapesTextValues)
{
    EXPECT_EQ(sqlf(nullptr, "insert into t values('%s')", "x'; drop table t; --"),
              "insert into t values('x\\'; drop table t; --')");
    EXPECT_EQ(sqlf(nullptr, "'%s'", "a\\b\"c\nd\re\x1a" "f"), "'a\\\\b\\\"c\\nd\\re\\Zf'");
    EXPECT_EQ(sqlf(nullptr, "'%s'", "\xd6\xd0\xbf'"), "'\xd6\xd0\xbf\\''");  // bytes pass as they are
    // Precision cuts the value before escaping, so a cut can never leave a
    // lone backslash that swallows the closing quote.
    EXPECT_EQ(sqlf(nullptr, "'%.3s'", "ab\\cd"), "'ab\\\\'");
    EXPECT_EQ(sqlf(nullptr, "[%5s|%-4s]", "a'", "b"), "[   a\\'|b   ]");
    // %c is a character of text too.
    EXPECT_EQ(sqlf(nullptr, "'%c%c'", int('\''), int('a')), "'\\'a'");

    std::string big(100000, '\'');
    std::string out = sqlf(nullptr, "%s", big);
    EXPECT_EQ(out.size(), 200000u);
}

TEST(CommonSqlFormat, FormatsNumbersByKind)
{
    EXPECT_EQ(sqlf(nullptr, "%d,%i,%5d,%-3d|,%05d", -7, 8, 42, 1, -3), "-7,8,   42,1  |,-0003");
    // Whole values whatever the length modifier, except that a signed
    // value under an unsigned conversion wraps to that width as in C.
    EXPECT_EQ(sqlf(nullptr, "%d %d", 1234567890123LL, 4294967295u), "1234567890123 4294967295");
    EXPECT_EQ(sqlf(nullptr, "%u %u %lu %hhu", -1, 7u, -1L, -1), "4294967295 7 18446744073709551615 255");
    EXPECT_EQ(sqlf(nullptr, "%lu %u", (unsigned long)(1ULL << 40), uint8_t(200)), "1099511627776 200");
    EXPECT_EQ(sqlf(nullptr, "%x %X %#x", 255u, 255, 16), "ff FF 0x10");
    EXPECT_EQ(sqlf(nullptr, "%.12f %g %.2e", 116.404, 0.25, 12345.0), "116.404000000000 0.25 1.23e+04");
    EXPECT_EQ(sqlf(nullptr, "%.1f %d '%s'", 3, 2.9, -3LL), "3.0 2 '-3'");
    EXPECT_EQ(sqlf(nullptr, "100%% %d%%", 5), "100% 5%");
}

TEST(CommonSqlFormat, OddSpecsAndArgumentCounts)
{
    EXPECT_EQ(sqlf(nullptr, "a=%d b=%s c=%u"), "a= b= c=");
    EXPECT_EQ(sqlf(nullptr, "a=%d", 1, 2, "x"), "a=1");
    EXPECT_EQ(sqlf(nullptr, "%d", "text"), "");          // text for a number
    EXPECT_EQ(sqlf(nullptr, "%d", 1e300), "");           // no integer
    EXPECT_EQ(sqlf(nullptr, "%n|%*d|%", 1, 2), "%n|%*d|%");  // not conversions: kept as text
    EXPECT_EQ(sqlf(nullptr, "%99999999999d", 1), "%99999999999d");
    EXPECT_EQ(sqlf(nullptr, "%.400f", 1.0).size(), 402u);
}

// The client library's escaping and ours agree byte for byte, so a
// statement built without a connection is still right for one.
TEST(CommonSqlFormat, LibraryAndFallbackEscapingAgree)
{
    MYSQL h;
    memset(&h, 0, sizeof(h));
    ASSERT_NE(mysql_init(&h), nullptr);
    ASSERT_NE(h.charset, nullptr);
    std::string all;
    for (int c = 1; c < 256; c++)
        all += char(c);
    EXPECT_EQ(sqlf(&h, "'%s'", all), sqlf(nullptr, "'%s'", all));
    mysql_close(&h);
}

// ---------------------------------------------------------------------------
// Account record and the OS account script
// ---------------------------------------------------------------------------

// msinfo is process-wide: after a test has filled it from its own files
// and variables, it is loaded again from the real ones.
class CommonMsinfo : public CommonRoot {
protected:
    void TearDown() override
    {
        CommonRoot::TearDown();
        mysqlinfo_init();
    }
};

using CommonDbInfo = CommonMsinfo;

TEST_F(CommonDbInfo, DefaultsFileAndEnvironment)
{
    EnvGuard env;
    mysqlinfo_init();
    EXPECT_STREQ(msinfo.mysql_user, "vtcloud");
    EXPECT_STREQ(msinfo.mysql_pass, "");
    EXPECT_STREQ(msinfo.mysql_map_user, "vantrelclouduser");
    EXPECT_EQ(strlen(msinfo.mysql_map_userpass), 32u);
    EXPECT_STREQ(msinfo.mysql_host, "localhost");
    EXPECT_EQ(msinfo.mysql_port, 3306u);
    EXPECT_STREQ(msinfo.mysql_socket, "");

    fs::path conf = at("/etc/cloud.db.conf");
    spit(conf, "# account\nhost = 127.0.0.1\nport=3307\nsocket=/run/db.sock\nuser=u1\n"
               "password=p w\r\nmap_password=mp\nunknown=1\nport=0\nport=65536\nport=12ab\n",
         0640);
    ::testing::internal::CaptureStdout();
    mysqlinfo_init();
    std::string out = ::testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("mysqlinfo_init: warning: " + conf.string() + " is readable by group or others"),
              std::string::npos);
    EXPECT_STREQ(msinfo.mysql_host, "127.0.0.1");
    EXPECT_EQ(msinfo.mysql_port, 3307u);  // invalid ports ignored
    EXPECT_STREQ(msinfo.mysql_socket, "/run/db.sock");
    EXPECT_STREQ(msinfo.mysql_user, "u1");
    EXPECT_STREQ(msinfo.mysql_pass, "p w");
    EXPECT_STREQ(msinfo.mysql_map_userpass, "mp");
    EXPECT_STREQ(msinfo.mysql_map_user, "vantrelclouduser");

    // Owner-only file: no warning. A value too long for its field is
    // refused, not cut.
    spit(conf, "user=" + std::string(40, 'u') + "\npassword=ok\n", 0600);
    ::testing::internal::CaptureStdout();
    mysqlinfo_init();
    out = ::testing::internal::GetCapturedStdout();
    EXPECT_EQ(out.find("readable by group"), std::string::npos);
    EXPECT_STREQ(msinfo.mysql_user, "vtcloud");
    EXPECT_STREQ(msinfo.mysql_pass, "ok");

    // The environment overrides the file.
    setenv("CLOUD_DB_USER", "envuser", 1);
    setenv("CLOUD_DB_PORT", "4406", 1);
    setenv("CLOUD_MAP_PASSWORD", "envmap", 1);
    mysqlinfo_init();
    EXPECT_STREQ(msinfo.mysql_user, "envuser");
    EXPECT_STREQ(msinfo.mysql_pass, "ok");
    EXPECT_EQ(msinfo.mysql_port, 4406u);
    EXPECT_STREQ(msinfo.mysql_map_userpass, "envmap");
}

using CommonAddUser = CommonMsinfo;

TEST_F(CommonAddUser, WritesPrivateScriptAndOpensBackupDir)
{
    EnvGuard env;
    mysqlinfo_init();
    snprintf(msinfo.mysql_map_userpass, sizeof(msinfo.mysql_map_userpass), "Pw.1-x_Y");
    fs::path script = at("/tmp/clouduser");
    fs::create_directories(script.parent_path());
    // Whatever was planted at the script's path is replaced, not followed.
    spit(root_ / "victim", "keep");
    fs::create_symlink(root_ / "victim", script);

    ::testing::internal::CaptureStdout();
    cloud_adduser();
    std::string out = ::testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("cloud_adduser: not run under a test root: " + script.string()), std::string::npos);
    EXPECT_EQ(slurp(root_ / "victim"), "keep");
    ASSERT_FALSE(fs::is_symlink(script));
    EXPECT_EQ(slurp(script), "#!/bin/sh\nval=`cat /etc/passwd | grep vantrelclouduser`\n"
                             "[ \"${val}\" = \"\" ] && /usr/sbin/useradd -m vantrelclouduser\n"
                             "echo \"vantrelclouduser:Pw.1-x_Y\" | /usr/sbin/chpasswd");
    struct stat st;
    ASSERT_EQ(stat(script.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0700u);
    ASSERT_EQ(stat(at("/usr/logdata/vtconf").c_str(), &st), 0);
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    EXPECT_EQ(st.st_mode & 07777, 0777u);
}

TEST_F(CommonAddUser, RefusesShellCharacters)
{
    EnvGuard env;
    mysqlinfo_init();
    fs::path script = at("/tmp/clouduser");
    const std::pair<const char*, const char*> bad[] = {
        {"vantrelclouduser", "x`id`"}, {"vantrelclouduser", "a b"}, {"vantrelclouduser", "$(id)"},
        {"vantrelclouduser", ""},      {"u'x", "pw"},              {"-rf", "pw"},
    };
    for (auto [user, pass] : bad) {
        snprintf(msinfo.mysql_map_user, sizeof(msinfo.mysql_map_user), "%s", user);
        snprintf(msinfo.mysql_map_userpass, sizeof(msinfo.mysql_map_userpass), "%s", pass);
        ::testing::internal::CaptureStdout();
        cloud_adduser();
        ::testing::internal::GetCapturedStdout();
        EXPECT_FALSE(fs::exists(script)) << user << " " << pass;
    }
    EXPECT_TRUE(fs::is_directory(at("/usr/logdata/vtconf")));  // still prepared
}

// ---------------------------------------------------------------------------
// Against a real server
// ---------------------------------------------------------------------------

class CommonDb : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (!getenv("CLOUD_DB_USER"))
            GTEST_SKIP() << "no database: set CLOUD_DB_* (scripts/mariadb.sh start DIR; eval \"$(scripts/mariadb.sh env DIR)\")";
        mysqlinfo_init();
        suffix_ = std::to_string(getpid());
    }

    // All rows of a statement's result, each column as bytes.
    static std::vector<std::vector<std::string>> rows(mysql_conn& c, const std::string& sql)
    {
        std::vector<std::vector<std::string>> r;
        EXPECT_EQ(c.query(sql), 0) << sql << ": " << c.error();
        MYSQL_RES* res = mysql_store_result(c.get());
        if (!res)
            return r;
        unsigned n = mysql_num_fields(res);
        while (MYSQL_ROW row = mysql_fetch_row(res)) {
            unsigned long* len = mysql_fetch_lengths(res);
            std::vector<std::string> v;
            for (unsigned i = 0; i < n; i++)
                v.emplace_back(row[i] ? std::string(row[i], len[i]) : std::string("NULL"));
            r.push_back(std::move(v));
        }
        mysql_free_result(res);
        return r;
    }

    std::string suffix_;
};

// Drops a test table however the test ends.
struct table_guard {
    mysql_conn& c;
    std::string name;
    ~table_guard()
    {
        if (MYSQL_RES* res = mysql_store_result(c.get()))
            mysql_free_result(res);
        c.query("drop table if exists " + name);
    }
};

TEST_F(CommonDb, ConnectsWithLatin1AndFailsFast)
{
    MYSQL m;
    ASSERT_EQ(my_mysql_connect(&m), 0) << "check CLOUD_DB_*";
    EXPECT_STREQ(mysql_character_set_name(&m), "latin1");
    mysql_close(&m);

    // A port nobody listens on fails at once, and the handle is closed.
    msinfo.mysql_port = 1;
    snprintf(msinfo.mysql_host, sizeof(msinfo.mysql_host), "127.0.0.1");
    mysql_conn bad;
    EXPECT_FALSE(bad.ok());
    EXPECT_NE(bad.query("select 1"), 0);
    mysqlinfo_init();
}

TEST_F(CommonDb, HostileTextReadsBackByteIdentical)
{
    mysql_conn c;
    ASSERT_TRUE(c.ok());
    std::string t = "vtlog.common_rt_" + suffix_;
    table_guard g{c, t};
    ASSERT_EQ(c.query("create table " + t + "(id int, v varchar(255)) character set latin1"), 0) << c.error();
    const std::vector<std::string> values = {
        "x'; drop table t; --", "a\\b\"c\nd\re\x1a" "f", "\xd6\xd0\xce\xc4\\'", "\xbf'\xbf\\", "'", "\\",
    };
    int id = 0;
    // Each value twice: escaped by the library, then by the fallback.
    for (const auto& v : values) {
        ASSERT_EQ(c.query("insert into " + t + sqlf(c.get(), " values(%d,'%s')", id++, v)), 0) << c.error();
        ASSERT_EQ(c.query("insert into " + t + sqlf(nullptr, " values(%d,'%s')", id++, v)), 0) << c.error();
    }
    auto r = rows(c, "select id, v from " + t + " order by id");
    ASSERT_EQ(r.size(), 2 * values.size());
    for (size_t i = 0; i < r.size(); i++)
        EXPECT_EQ(r[i][1], values[i / 2]) << "row " << i;
}

TEST_F(CommonDb, CreatesDisconnectTable)
{
    std::string name = "common_dc_" + suffix_;
    mysql_conn c;
    ASSERT_TRUE(c.ok());
    table_guard g{c, "vtlog." + name};
    ::testing::internal::CaptureStdout();
    creatediscontable(name.c_str());
    creatediscontable(name.c_str());  // exists already: no error
    creatediscontable("x;drop table y");
    std::string out = ::testing::internal::GetCapturedStdout();
    EXPECT_EQ(out, "creatediscontable: invalid table name\n");
    auto cols = rows(c, "show columns from vtlog." + name);
    const std::vector<std::vector<std::string>> want = {
        {"license_id12", "varchar(16)", "NO", "", "", ""}, {"grpid", "int(2)", "NO", "", "0", ""},
        {"name", "varchar(128)", "NO", "", "", ""},        {"time", "bigint(4)", "NO", "", "0", ""},
        {"uptime", "bigint(4)", "NO", "", "0", ""},
    };
    EXPECT_EQ(cols, want);
    auto eng = rows(c, "select engine from information_schema.tables where table_schema='vtlog' and table_name='" +
                           name + "'");
    ASSERT_EQ(eng.size(), 1u);
    EXPECT_EQ(eng[0][0], "MyISAM");
}

TEST_F(CommonDb, QueryRepairRepairsCrashedTable)
{
    mysql_conn c;
    ASSERT_TRUE(c.ok());
    std::string t = "vtlog.common_crash_" + suffix_;
    table_guard g{c, t};
    ASSERT_EQ(c.query("create table " + t + "(a int) engine=myisam"), 0) << c.error();
    ASSERT_EQ(c.query_repair("insert into " + t + " values(1)", t.c_str()), 0) << c.error();

    // Mark the table crashed in its index header (state flag 2 at byte
    // 26), as a server killed during a write leaves it. Only possible when
    // the server's files are ours and it does not repair by itself.
    auto dir = rows(c, "select @@datadir, @@myisam_recover_options");
    ASSERT_EQ(dir.size(), 1u);
    fs::path myi = fs::path(dir[0][0]) / "vtlog" / ("common_crash_" + suffix_ + ".MYI");
    if (dir[0][1] != "OFF" || access(myi.c_str(), W_OK) != 0)
        GTEST_SKIP() << "server data not writable here or auto-recovery on";
    ASSERT_EQ(c.query("flush tables " + t), 0);
    {
        std::fstream f(myi, std::ios::in | std::ios::out | std::ios::binary);
        f.seekg(26);
        char b = 0;
        f.read(&b, 1);
        b |= 2;
        f.seekp(26);
        f.write(&b, 1);
    }
    std::string sel = "select count(*) from " + t;
    int e = c.query(sel);
    EXPECT_TRUE(e == 145 || e == 1194) << e << " " << c.error();
    ::testing::internal::CaptureStdout();
    e = c.query_repair(sel, t.c_str());
    std::string out = ::testing::internal::GetCapturedStdout();
    ASSERT_EQ(e, 0) << c.error();
    EXPECT_NE(out.find("crashed"), std::string::npos);
    MYSQL_RES* res = mysql_store_result(c.get());
    ASSERT_NE(res, nullptr);
    MYSQL_ROW row = mysql_fetch_row(res);
    ASSERT_NE(row, nullptr);
    EXPECT_STREQ(row[0], "1");
    mysql_free_result(res);
}

}  // namespace
