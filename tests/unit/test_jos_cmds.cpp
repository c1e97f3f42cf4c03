// Command table dispatch, reply accumulation and the argument/value helpers.

#include <gtest/gtest.h>

#include <climits>
#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <string>

#include "jos_cmds.h"

int cmds_minit(jos_kernel_t*);
void cmds_mfini(jos_kernel_t*);
extern jos_module_t cmds_module;

namespace {

// A record whose reply area is a buffer of the given capacity.
struct Reply {
    jos_cmdarg_t ca{};
    std::string buf;
    explicit Reply(int cap) : buf(static_cast<size_t>(cap) + 16, '#')
    {
        ca.ca_result = buf.data();
        ca.ca_rlen = cap;
    }
    std::string text() const { return std::string(buf.data(), static_cast<size_t>(ca.ca_pos)); }
};

TEST(JosCmdPrintf, AccumulatesAcrossCalls)
{
    Reply r(64);
    EXPECT_EQ(jos_cmd_printf(&r.ca, "a=%d\n", 1), 4);
    EXPECT_EQ(jos_cmd_printf(&r.ca, "%s", "bb"), 2);
    EXPECT_EQ(jos_cmd_printf(&r.ca, "%s", ""), 0);
    EXPECT_EQ(r.ca.ca_pos, 6);
    EXPECT_STREQ(r.buf.c_str(), "a=1\nbb");
    EXPECT_EQ(r.ca.ca_rlen, 64);  // capacity is not touched
}

TEST(JosCmdPrintf, TruncatesToCapacityMinusOne)
{
    Reply r(8);
    EXPECT_EQ(jos_cmd_printf(&r.ca, "%s", "0123456789"), 7);
    EXPECT_EQ(r.ca.ca_pos, 7);
    EXPECT_EQ(r.text(), "0123456");
    EXPECT_EQ(r.buf[7], '\0');
    EXPECT_EQ(r.buf[8], '#');  // nothing beyond the capacity
    // Room is now 1: later output is dropped without touching the buffer.
    EXPECT_EQ(jos_cmd_printf(&r.ca, "x"), 0);
    EXPECT_EQ(r.ca.ca_pos, 7);
    EXPECT_EQ(r.buf[7], '\0');

    // A cut in the middle of the reply keeps room - 1 of what is left.
    Reply p(10);
    EXPECT_EQ(jos_cmd_printf(&p.ca, "abcde"), 5);
    EXPECT_EQ(jos_cmd_printf(&p.ca, "fghijkl"), 4);
    EXPECT_EQ(p.ca.ca_pos, 9);
    EXPECT_STREQ(p.buf.c_str(), "abcdefghi");
}

TEST(JosCmdPrintf, RoomBelowTwoWritesNothing)
{
    for (int cap : {0, 1}) {
        Reply r(cap);
        EXPECT_EQ(jos_cmd_printf(&r.ca, "hello"), 0);
        EXPECT_EQ(r.ca.ca_pos, 0);
        EXPECT_EQ(r.buf[0], '#');
    }
    Reply r(2);
    EXPECT_EQ(jos_cmd_printf(&r.ca, "hello"), 1);
    EXPECT_STREQ(r.buf.c_str(), "h");
}

TEST(JosCmdPrintf, RejectsBrokenRecords)
{
    Reply r(16);
    r.ca.ca_pos = -4;
    EXPECT_EQ(jos_cmd_printf(&r.ca, "x"), 0);
    r.ca.ca_pos = 20;  // past the capacity
    EXPECT_EQ(jos_cmd_printf(&r.ca, "x"), 0);
    r.ca.ca_pos = 0;
    r.ca.ca_rlen = -1;
    EXPECT_EQ(jos_cmd_printf(&r.ca, "x"), 0);
    r.ca.ca_rlen = 16;
    r.ca.ca_result = nullptr;
    EXPECT_EQ(jos_cmd_printf(&r.ca, "x"), 0);
    EXPECT_EQ(r.ca.ca_pos, 0);
    EXPECT_EQ(r.buf[0], '#');
}

TEST(JosCmdPrintf, StreamModeWritesWholeText)
{
    FILE* f = std::tmpfile();
    ASSERT_NE(f, nullptr);
    jos_cmdarg_t ca{};
    ca.ca_flags = JOS_CAF_FILE;
    ca.ca_file = f;
    ca.ca_rlen = 2;  // capacity is irrelevant to a stream
    EXPECT_EQ(jos_cmd_printf(&ca, "key=%s\n", "a long value"), 17);
    EXPECT_EQ(jos_cmd_printf(&ca, "n=%d\n", 42), 5);
    EXPECT_EQ(ca.ca_pos, 0);
    std::rewind(f);
    char got[64] = {};
    size_t n = std::fread(got, 1, sizeof(got) - 1, f);
    std::fclose(f);
    EXPECT_EQ(std::string(got, n), "key=a long value\nn=42\n");
}

int g_calls = 0;
void h_reply(jos_cmdarg_t* ca)
{
    g_calls++;
    jos_cmd_printf(ca, "ok");
    ca->ca_rlen = ca->ca_pos + 1;
}
void h_fail(jos_cmdarg_t* ca)
{
    g_calls++;
    jos_cmd_printf(ca, "partial");
    ca->ca_rlen = ca->ca_pos;
    ca->ca_errno = 22;
}

// Uses the live table when the registry already made one, else its own.
class JosCmdDispatch : public ::testing::Test {
protected:
    bool owned_ = false;
    void SetUp() override
    {
        g_calls = 0;
        if (jos_cmd_register(JOS_CMD_MAX, nullptr) != 0) {
            ASSERT_EQ(cmds_module.init(nullptr), 0);
            owned_ = true;
        }
    }
    void TearDown() override
    {
        for (int code : std::initializer_list<int>{1, 300, 301, JOS_CMD_NOP, JOS_CMD_MAX})
            jos_cmd_unregister(code);
        if (owned_)
            cmds_module.fini(nullptr);
    }
    static jos_cmdarg_t record(int code, int rlen, char* buf)
    {
        jos_cmdarg_t ca{};
        ca.ca_cmd = code;
        ca.ca_rlen = rlen;
        ca.ca_result = buf;
        return ca;
    }
};

TEST_F(JosCmdDispatch, RegisterBounds)
{
    EXPECT_EQ(jos_cmd_register(0, h_reply), -1);
    EXPECT_EQ(jos_cmd_register(-1, h_reply), -1);
    EXPECT_EQ(jos_cmd_register(JOS_CMD_MAX + 1, h_reply), -1);
    EXPECT_EQ(jos_cmd_unregister(0), -1);
    EXPECT_EQ(jos_cmd_unregister(JOS_CMD_MAX + 1), -1);
    EXPECT_EQ(jos_cmd_register(1, h_reply), 0);
    EXPECT_EQ(jos_cmd_register(JOS_CMD_MAX, h_reply), 0);

    char buf[16];
    for (int code : std::initializer_list<int>{1, JOS_CMD_MAX}) {
        jos_cmdarg_t ca = record(code, sizeof(buf), buf);
        EXPECT_EQ(jos_cmd_exec(&ca), 0);
        EXPECT_EQ(ca.ca_errno, 0);
        EXPECT_STREQ(buf, "ok");
        EXPECT_EQ(ca.ca_rlen, 3);
    }
    EXPECT_EQ(g_calls, 2);
}

TEST_F(JosCmdDispatch, HandlerErrorClearsReplyLength)
{
    ASSERT_EQ(jos_cmd_register(300, h_fail), 0);
    char buf[32];
    jos_cmdarg_t ca = record(300, sizeof(buf), buf);
    EXPECT_EQ(jos_cmd_exec(&ca), 0);
    EXPECT_EQ(g_calls, 1);
    EXPECT_EQ(ca.ca_errno, 22);
    EXPECT_EQ(ca.ca_rlen, 0);
}

TEST_F(JosCmdDispatch, EmptySlotAndUnregister)
{
    char buf[32];
    ASSERT_EQ(jos_cmd_register(301, h_reply), 0);
    ASSERT_EQ(jos_cmd_unregister(301), 0);
    jos_cmdarg_t ca = record(301, sizeof(buf), buf);
    EXPECT_EQ(jos_cmd_exec(&ca), 0);
    EXPECT_EQ(g_calls, 0);
    EXPECT_EQ(ca.ca_errno, 2);
    EXPECT_EQ(ca.ca_rlen, 0);
    EXPECT_STREQ(ca.ca_errmsg, "NO_CMD");
}

TEST_F(JosCmdDispatch, InvalidCodes)
{
    char buf[32];
    for (int code : std::initializer_list<int>{0, -1, JOS_CMD_MAX + 1, JOS_CMD_MODFIRST - 1, JOS_CMD_MODLAST + 1,
                     JOS_CMD_CFGSAVE, JOS_CMD_EXIT}) {
        jos_cmdarg_t ca = record(code, sizeof(buf), buf);
        EXPECT_EQ(jos_cmd_exec(&ca), 0);
        EXPECT_EQ(ca.ca_errno, 2) << code;
        EXPECT_EQ(ca.ca_rlen, 0) << code;
        EXPECT_STREQ(ca.ca_errmsg, "INV_CMD") << code;
    }
}

TEST_F(JosCmdDispatch, NopLeavesRecordAlone)
{
    // Even a handler in slot 511 is never called.
    ASSERT_EQ(jos_cmd_register(JOS_CMD_NOP, h_fail), 0);
    char buf[32];
    jos_cmdarg_t ca = record(JOS_CMD_NOP, sizeof(buf), buf);
    std::snprintf(ca.ca_errmsg, sizeof(ca.ca_errmsg), "cloud");
    jos_cmdarg_t before = ca;
    EXPECT_EQ(jos_cmd_exec(&ca), 0);
    EXPECT_EQ(g_calls, 0);
    EXPECT_EQ(std::memcmp(&ca, &before, sizeof(ca)), 0);
}

TEST(JosCmdDispatchNoTable, FailsSafely)
{
    // Only meaningful when nothing else built the table.
    if (jos_cmd_register(JOS_CMD_MAX, nullptr) == 0)
        GTEST_SKIP() << "command table already allocated";
    EXPECT_EQ(jos_cmd_unregister(1), -1);
    jos_cmdarg_t ca{};
    ca.ca_cmd = 1;
    ca.ca_rlen = 10;
    EXPECT_EQ(jos_cmd_exec(&ca), 0);
    EXPECT_EQ(ca.ca_errno, 2);
    EXPECT_STREQ(ca.ca_errmsg, "NO_CMD");
}

// Module range: module_find is pointed at a stub for the test's duration.
int g_ioctl_ret = 0;
std::string g_seen_name;
int stub_ioctl(jos_cmdarg_t* ca)
{
    g_seen_name = ca->ca_errmsg;
    jos_cmd_printf(ca, "cmd=%d", ca->ca_cmd);
    ca->ca_rlen = ca->ca_pos;
    return g_ioctl_ret;
}
jos_module_t g_mod_io = {"tmod", 0x09000000, 0, nullptr, nullptr, stub_ioctl, nullptr};
jos_module_t g_mod_noio = {"tnoio", 0x09000000, 0, nullptr, nullptr, nullptr, nullptr};
std::string g_find_arg;
jos_module_t* stub_find(const char* name)
{
    g_find_arg = name;
    if (std::strcmp(name, "tmod") == 0)
        return &g_mod_io;
    if (std::strcmp(name, "tnoio") == 0)
        return &g_mod_noio;
    return nullptr;
}

class JosCmdModuleRange : public ::testing::Test {
protected:
    jos_module_t* (*saved_)(const char*) = nullptr;
    void SetUp() override
    {
        saved_ = _jos_kfntable.module_find;
        _jos_kfntable.module_find = stub_find;
        g_ioctl_ret = 0;
        g_seen_name.clear();
        g_find_arg.clear();
    }
    void TearDown() override { _jos_kfntable.module_find = saved_; }
    static jos_cmdarg_t record(int code, const char* mod, int rlen, char* buf)
    {
        jos_cmdarg_t ca{};
        ca.ca_cmd = code;
        ca.ca_rlen = rlen;
        ca.ca_result = buf;
        std::snprintf(ca.ca_errmsg, sizeof(ca.ca_errmsg), "%s", mod);
        return ca;
    }
};

TEST_F(JosCmdModuleRange, DeliversToIoctl)
{
    char buf[32];
    for (int code : std::initializer_list<int>{JOS_CMD_MODFIRST, JOS_CMD_STAT, JOS_CMD_MODLAST}) {
        jos_cmdarg_t ca = record(code, "tmod", sizeof(buf), buf);
        EXPECT_EQ(jos_cmd_exec(&ca), 0);
        EXPECT_EQ(ca.ca_errno, 0);
        EXPECT_EQ(g_seen_name, "tmod");
        EXPECT_EQ(std::string(buf, static_cast<size_t>(ca.ca_rlen)), "cmd=" + std::to_string(code));
    }
}

TEST_F(JosCmdModuleRange, Failures)
{
    char buf[32];
    jos_cmdarg_t ca = record(JOS_CMD_STAT, "nosuch", sizeof(buf), buf);
    jos_cmd_exec(&ca);
    EXPECT_EQ(ca.ca_errno, 2);
    EXPECT_STREQ(ca.ca_errmsg, "MODULE_NEXIST");

    ca = record(JOS_CMD_LIST, "tnoio", sizeof(buf), buf);
    jos_cmd_exec(&ca);
    EXPECT_EQ(ca.ca_errno, 2);
    EXPECT_STREQ(ca.ca_errmsg, "NO_FUNC");

    // A failing ioctl keeps the reply length the module set.
    g_ioctl_ret = -1;
    ca = record(JOS_CMD_SET, "tmod", sizeof(buf), buf);
    jos_cmd_exec(&ca);
    EXPECT_EQ(ca.ca_errno, 5);
    EXPECT_STREQ(ca.ca_errmsg, "IOCTL_FAIL");
    EXPECT_EQ(ca.ca_rlen, 8);

    // Without a registry lookup at all, no module exists.
    _jos_kfntable.module_find = nullptr;
    ca = record(JOS_CMD_STAT, "tmod", sizeof(buf), buf);
    jos_cmd_exec(&ca);
    EXPECT_STREQ(ca.ca_errmsg, "MODULE_NEXIST");
}

TEST_F(JosCmdModuleRange, UnterminatedNameIsBounded)
{
    char buf[32];
    jos_cmdarg_t ca = record(JOS_CMD_STAT, "", sizeof(buf), buf);
    std::memset(ca.ca_errmsg, 'm', sizeof(ca.ca_errmsg));
    jos_cmd_exec(&ca);
    EXPECT_EQ(g_find_arg.size(), sizeof(ca.ca_errmsg) - 1);
    EXPECT_STREQ(ca.ca_errmsg, "MODULE_NEXIST");
}

TEST(JosCmdNextarg, QuotedValueSplitsAtSpace)
{
    char text[] = "a=1  b=\"x y\" c=3";
    char* value = nullptr;
    char* cursor = nullptr;
    char* tag = jos_cmd_nextarg(text, &value, &cursor);
    ASSERT_NE(tag, nullptr);
    EXPECT_STREQ(tag, "a");
    EXPECT_STREQ(value, "1");
    tag = jos_cmd_nextarg(cursor, &value, &cursor);
    ASSERT_NE(tag, nullptr);
    EXPECT_STREQ(tag, "b");
    EXPECT_STREQ(value, "x");
    // 'y"' has no '=': the scan ends there and c=3 is never reached.
    EXPECT_EQ(jos_cmd_nextarg(cursor, &value, &cursor), nullptr);
}

TEST(JosCmdNextarg, QuotesAndEdges)
{
    char text[] = "name=\"box one\"x k=1";
    char* value = nullptr;
    char* cursor = nullptr;
    // A value "box: only the opening quote to drop.
    EXPECT_STREQ(jos_cmd_nextarg(text, &value, &cursor), "name");
    EXPECT_STREQ(value, "box");
    EXPECT_EQ(jos_cmd_nextarg(cursor, &value, &cursor), nullptr);  // one"x

    char t2[] = "k=\"v\" e= q=\" last=1=2 ";
    EXPECT_STREQ(jos_cmd_nextarg(t2, &value, &cursor), "k");
    EXPECT_STREQ(value, "v");
    EXPECT_STREQ(jos_cmd_nextarg(cursor, &value, &cursor), "e");
    EXPECT_STREQ(value, "");
    EXPECT_STREQ(jos_cmd_nextarg(cursor, &value, &cursor), "q");
    EXPECT_STREQ(value, "");
    EXPECT_STREQ(jos_cmd_nextarg(cursor, &value, &cursor), "last");
    EXPECT_STREQ(value, "1=2");
    EXPECT_EQ(jos_cmd_nextarg(cursor, &value, &cursor), nullptr);  // trailing space only

    char empty[] = "   ";
    EXPECT_EQ(jos_cmd_nextarg(empty, &value, &cursor), nullptr);
    value = empty;
    EXPECT_EQ(jos_cmd_nextarg(nullptr, &value, &cursor), nullptr);
    EXPECT_EQ(value, nullptr);
}

TEST(JosCmdTagval, KeepsLeadingSpacesNoQuotes)
{
    char text[] = "  a=1 b=\"q\"  c d=4";
    char* cursor = text;
    char* tag = nullptr;
    char* value = nullptr;
    jos_cmd_tagval(&cursor, &tag, &value);
    EXPECT_STREQ(tag, "  a");
    EXPECT_STREQ(value, "1");
    jos_cmd_tagval(&cursor, &tag, &value);
    EXPECT_STREQ(tag, "b");
    EXPECT_STREQ(value, "\"q\"");
    jos_cmd_tagval(&cursor, &tag, &value);  // "  c": no '='
    EXPECT_EQ(tag, nullptr);
    EXPECT_EQ(value, nullptr);
    jos_cmd_tagval(&cursor, &tag, &value);
    EXPECT_STREQ(tag, "d");
    EXPECT_STREQ(value, "4");
    jos_cmd_tagval(&cursor, &tag, &value);
    EXPECT_EQ(tag, nullptr);
    EXPECT_EQ(value, nullptr);

    char* none = nullptr;
    tag = value = text;
    jos_cmd_tagval(&none, &tag, &value);
    EXPECT_EQ(tag, nullptr);
    EXPECT_EQ(value, nullptr);
}

TEST(JosCmdValues, IsDigit)
{
    EXPECT_EQ(jos_cmd_isdigit("0123456789"), 1);
    for (const char* t : {"", "12a", "-1", " 1", "/", ":"})
        EXPECT_EQ(jos_cmd_isdigit(t), 0) << t;
    EXPECT_EQ(jos_cmd_isdigit(nullptr), 0);
}

TEST(JosCmdValues, IsDigitIn)
{
    long n = -7;
    EXPECT_EQ(jos_cmd_isdigitin("10", 10, 20, &n), 1);
    EXPECT_EQ(n, 10);
    EXPECT_EQ(jos_cmd_isdigitin("20", 10, 20, &n), 1);
    EXPECT_EQ(jos_cmd_isdigitin("21", 10, 20, &n), 0);
    EXPECT_EQ(n, 21);  // stored even out of range
    EXPECT_EQ(jos_cmd_isdigitin("9", 10, 20, &n), 0);
    EXPECT_EQ(n, 9);
    n = -7;
    EXPECT_EQ(jos_cmd_isdigitin("1x", 0, 100, &n), 0);
    EXPECT_EQ(n, -7);  // not all digits: untouched
    EXPECT_EQ(jos_cmd_isdigitin("5", 0, 100, nullptr), 1);
    // Huge digit strings saturate and are never in range.
    EXPECT_EQ(jos_cmd_isdigitin("99999999999999999999999999", 0, LONG_MAX, &n), 0);
    EXPECT_EQ(n, LONG_MAX);
    EXPECT_EQ(jos_cmd_isdigitin("9223372036854775807", 0, LONG_MAX, &n), 1);
    EXPECT_EQ(n, LONG_MAX);
}

TEST(JosCmdValues, IsStrIn)
{
    char copy[16];
    std::memset(copy, 'z', sizeof(copy));
    EXPECT_EQ(jos_cmd_isstrin("abc", 4, 8, copy), 0);
    EXPECT_EQ(copy[0], 'z');  // no copy on failure
    EXPECT_EQ(jos_cmd_isstrin("abcdefghi", 4, 8, copy), 0);
    EXPECT_EQ(jos_cmd_isstrin("abcd", 4, 8, copy), 1);
    EXPECT_STREQ(copy, "abcd");
    EXPECT_EQ(jos_cmd_isstrin("abcdefgh", 4, 8, copy), 1);
    EXPECT_STREQ(copy, "abcdefgh");
    EXPECT_EQ(jos_cmd_isstrin("", 0, 8, nullptr), 1);
    EXPECT_EQ(jos_cmd_isstrin(nullptr, 0, 8, copy), 0);
}

TEST(JosCmdAddr, Str2ipShorthand)
{
    struct Case {
        const char* text;
        uint32_t want;
    } ok[] = {
        {"10.1", 0x0A000001u},       {"1.2.3.4", 0x01020304u},
        {"1.2.65535", 0x0102FFFFu},  {"1.16777215", 0x01FFFFFFu},
        {"4294967295", 0xFFFFFFFFu}, {"0", 0u},
        {"255.255.255.255", 0xFFFFFFFFu},
    };
    for (const auto& c : ok) {
        uint32_t ip = 0xDEADBEEF;
        EXPECT_EQ(jos_cmd_str2ip(c.text, &ip), 0) << c.text;
        EXPECT_EQ(ip, c.want) << c.text;
    }
    const char* bad[] = {"1.2.3.4.5", "256.1.1.1", "1.2.65536", "1.16777216", "1.2.3.256",
                         "4294967296", "99999999999999999999", "", "1..2", ".1", "1.",
                         "1.2.3.4 ", "a.b.c.d", "1,2,3,4", "-1"};
    for (const char* t : bad) {
        uint32_t ip = 0xDEADBEEF;
        EXPECT_EQ(jos_cmd_str2ip(t, &ip), -1) << t;
        EXPECT_EQ(ip, 0xDEADBEEFu) << t;  // nothing written on failure
    }
    EXPECT_EQ(jos_cmd_str2ip(nullptr, nullptr), -1);
}

TEST(JosCmdAddr, ParseipForms)
{
    struct Case {
        const char* text;
        const char* left;  // the text after the separator was cut off
        uint32_t lo, hi;
    } cases[] = {
        {"10.0.0.1-10.0.0.9", "10.0.0.1", 0x0A000001u, 0x0A000009u},
        {"192.168.1.77/24", "192.168.1.77", 0xC0A80100u, 0xC0A801FFu},
        {"1.2.3.4/32", "1.2.3.4", 0x01020304u, 0x01020304u},
        {"200.1.1.1/1", "200.1.1.1", 0x80000000u, 0xFFFFFFFFu},
        {"8.8.4.4", "8.8.4.4", 0x08080404u, 0x08080404u},
    };
    for (const auto& c : cases) {
        char buf[32];
        std::snprintf(buf, sizeof(buf), "%s", c.text);
        uint32_t lo = 7;
        uint32_t hi = 7;
        EXPECT_EQ(jos_cmd_parseip(buf, &lo, &hi), 0) << c.text;
        EXPECT_EQ(lo, c.lo) << c.text;
        EXPECT_EQ(hi, c.hi) << c.text;
        EXPECT_STREQ(buf, c.left);
    }
}

TEST(JosCmdAddr, ParseipFailuresAndAny)
{
    for (const char* t : {"1.2.3.4/0", "1.2.3.4/33", "1.2.3.4/", "1.2.3.4/x", "1.2.3.999/8",
                          "1.2.3.4-", "-1.2.3.4", "1.2.3.4-x", "", "nothing"}) {
        char buf[32];
        std::snprintf(buf, sizeof(buf), "%s", t);
        uint32_t lo = 7;
        uint32_t hi = 7;
        EXPECT_EQ(jos_cmd_parseip(buf, &lo, &hi), -1) << t;
        EXPECT_EQ(lo, 7u) << t;
        EXPECT_EQ(hi, 7u) << t;
    }
    char any[] = "any";
    uint32_t lo = 7;
    uint32_t hi = 7;
    EXPECT_EQ(jos_cmd_parseip(any, &lo, &hi), -1);
    EXPECT_EQ(lo, 0u);
    EXPECT_EQ(hi, 0xFFFFFFFFu);
}

TEST(JosCmdAddr, Macparse)
{
    const uint8_t want[6] = {0x00, 0x1a, 0x2b, 0xc3, 0xd4, 0xff};
    for (const char* t : {"00-1a-2b-c3-d4-ff", "00:1A:2B:C3:D4:FF", "00.1a.2b.c3.d4.ff"}) {
        uint8_t mac[6] = {};
        EXPECT_EQ(jos_cmd_macparse(t, mac), 0) << t;
        EXPECT_EQ(std::memcmp(mac, want, 6), 0) << t;
    }
    uint8_t mac[6] = {1, 1, 1, 1, 1, 1};
    for (const char* t : {"00_1a_2b_c3_d4_ff", "001a2bc3d4ff", "00:1a:2b-c3-d4-ff",
                          "00:1a:2b:c3:d4", "00:", "0", "", "00"}) {
        EXPECT_EQ(jos_cmd_macparse(t, mac), -1) << t;
    }
    EXPECT_EQ(jos_cmd_macparse(nullptr, mac), -1);
    // A two-character string in a buffer with nothing after the terminator
    // must not be read past its end (ASan catches this).
    char* tight = new char[2];
    std::memcpy(tight, "0", 2);
    EXPECT_EQ(jos_cmd_macparse(tight, mac), -1);
    delete[] tight;
}

TEST(JosCmdText, Trimline)
{
    char a[] = "   key=value   \r\nignored";
    EXPECT_STREQ(jos_cmd_trimline(a), "key=value");
    char b[] = "\t a\tb \t\n";
    EXPECT_STREQ(jos_cmd_trimline(b), "a b");
    char c[] = "  \t \r";
    EXPECT_STREQ(jos_cmd_trimline(c), "");
    char d[] = "x\ny  ";
    EXPECT_STREQ(jos_cmd_trimline(d), "x");
    char e[] = "";
    EXPECT_STREQ(jos_cmd_trimline(e), "");
    char f[] = "plain";
    EXPECT_EQ(jos_cmd_trimline(f), f);
}

TEST(JosCmdText, Fmtbytes)
{
    char buf[32];
    EXPECT_STREQ(jos_cmd_fmtbytes(0, buf, sizeof(buf)), "0 ");
    EXPECT_STREQ(jos_cmd_fmtbytes(1023, buf, sizeof(buf)), "1023 ");
    EXPECT_STREQ(jos_cmd_fmtbytes(1024, buf, sizeof(buf)), "1.00K ");
    EXPECT_STREQ(jos_cmd_fmtbytes((1u << 20) - 1, buf, sizeof(buf)), "1024.00K ");
    EXPECT_STREQ(jos_cmd_fmtbytes(1u << 20, buf, sizeof(buf)), "1.00M ");
    EXPECT_STREQ(jos_cmd_fmtbytes(1u << 30, buf, sizeof(buf)), "1.00G ");
    EXPECT_STREQ(jos_cmd_fmtbytes(uint64_t{5} << 40, buf, sizeof(buf)), "5120.00G ");
    // The buffer size bounds the output.
    char small[4];
    EXPECT_EQ(jos_cmd_fmtbytes(1024, small, sizeof(small)), small);
    EXPECT_STREQ(small, "1.0");
}

TEST(JosCmdText, Fmtbps)
{
    char buf[32];
    EXPECT_STREQ(jos_cmd_fmtbps(999, buf, sizeof(buf)), "999 ");
    EXPECT_STREQ(jos_cmd_fmtbps(1000, buf, sizeof(buf)), "1.00K ");
    EXPECT_STREQ(jos_cmd_fmtbps(999999, buf, sizeof(buf)), "1000.00K ");
    EXPECT_STREQ(jos_cmd_fmtbps(1000000, buf, sizeof(buf)), "1.00M ");
    EXPECT_STREQ(jos_cmd_fmtbps(2500000000ULL, buf, sizeof(buf)), "2500.00M ");
}

}  // namespace
