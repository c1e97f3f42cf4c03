// Command table dispatch, reply accumulation and the argument/value helpers.

#include <gtest/gtest.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <string>
#include <utility>

#include "jos_cmds.h"

extern jos_module_t cmds_module;

namespace {

using Codes = std::initializer_list<int>;

TEST(JosCmdPrintf, KeepsRoomMinusOneAndNothingBelowTwo)
{
    // "hello" appended at pos to a reply of capacity rlen: room = rlen - pos.
    struct { int rlen, pos; bool result; int kept; } cases[] = {
        {16, 0, true, 5}, {10, 4, true, 5}, {8, 4, true, 3}, {2, 0, true, 1}, {0, 0, true, 0}, {1, 0, true, 0},
        {5, 4, true, 0}, {16, -4, true, 0}, {16, 20, true, 0}, {-1, 0, true, 0}, {16, 0, false, 0},
    };
    for (const auto& c : cases) {
        std::string buf(32, '#');
        jos_cmdarg_t ca{};
        ca.ca_result = c.result ? buf.data() : nullptr;
        ca.ca_rlen = c.rlen;
        ca.ca_pos = c.pos;
        EXPECT_EQ(jos_cmd_printf(&ca, "%s", "hello"), c.kept) << c.rlen << "/" << c.pos;
        EXPECT_EQ(ca.ca_pos, c.pos + c.kept);
        EXPECT_EQ(ca.ca_rlen, c.rlen);  // the capacity is not touched
        std::string want(32, '#');
        if (c.kept > 0)
            want.replace(c.pos, c.kept + 1, std::string("hello", c.kept) + '\0');
        EXPECT_EQ(buf, want) << c.rlen << "/" << c.pos;
    }
}

TEST(JosCmdPrintf, StreamModeWritesWholeText)
{
    char* mem = nullptr;
    size_t len = 0;
    jos_cmdarg_t ca{};
    ca.ca_flags = JOS_CAF_FILE;
    ca.ca_rlen = 2;  // irrelevant to a stream
    ASSERT_NE(ca.ca_file = open_memstream(&mem, &len), nullptr);
    EXPECT_EQ(jos_cmd_printf(&ca, "key=%s\n", "a long value"), 17);
    EXPECT_EQ(jos_cmd_printf(&ca, "n=%d\n", 42), 5);
    std::fclose(ca.ca_file);
    EXPECT_EQ(std::string(mem, len), "key=a long value\nn=42\n");
    std::free(mem);
}

int g_calls = 0;
std::string g_find_arg;
void h_reply(jos_cmdarg_t* ca) { g_calls++; jos_cmd_printf(ca, "ok"); ca->ca_rlen = ca->ca_pos + 1; }
void h_fail(jos_cmdarg_t* ca) { h_reply(ca); ca->ca_errno = 22; }
int stub_ioctl(jos_cmdarg_t* ca)  // fails for JOS_CMD_SET
{
    jos_cmd_printf(ca, "cmd=%d", ca->ca_cmd);
    ca->ca_rlen = ca->ca_pos;
    return ca->ca_cmd == JOS_CMD_SET ? -1 : 0;
}
jos_module_t g_mod_io = {"tmod", 0x09000000, 0, nullptr, nullptr, stub_ioctl, nullptr};
jos_module_t g_mod_noio = {"tnoio", 0x09000000, 0, nullptr, nullptr, nullptr, nullptr};
jos_module_t* stub_find(const char* name)
{
    g_find_arg = name;
    return g_find_arg == "tmod" ? &g_mod_io : g_find_arg == "tnoio" ? &g_mod_noio : nullptr;
}

// Makes its own command table unless one exists; module_find points at a stub.
class JosCmdDispatch : public ::testing::Test {
protected:
    bool owned_ = false;
    jos_module_t* (*saved_find_)(const char*) = nullptr;
    char buf_[32] = {};
    void SetUp() override
    {
        g_calls = 0;
        saved_find_ = std::exchange(_jos_kfntable.module_find, stub_find);
        owned_ = jos_cmd_register(JOS_CMD_MAX, nullptr) != 0;
        ASSERT_TRUE(!owned_ || cmds_module.init(nullptr) == 0);
    }
    void TearDown() override
    {
        _jos_kfntable.module_find = saved_find_;
        for (int code : Codes{1, 300, JOS_CMD_NOP, JOS_CMD_MAX})
            jos_cmd_unregister(code);
        if (owned_)
            cmds_module.fini(nullptr);
    }
    jos_cmdarg_t exec(int code, const char* mod = "")
    {
        jos_cmdarg_t ca{};
        ca.ca_cmd = code;
        ca.ca_rlen = sizeof(buf_);
        ca.ca_result = buf_;
        std::snprintf(ca.ca_errmsg, sizeof(ca.ca_errmsg), "%s", mod);
        EXPECT_EQ(jos_cmd_exec(&ca), 0);  // the outcome travels in the record
        return ca;
    }
};

TEST_F(JosCmdDispatch, RegisterRunUnregister)
{
    for (int code : Codes{0, -1, JOS_CMD_MAX + 1}) {
        EXPECT_EQ(jos_cmd_register(code, h_reply), -1) << code;
        EXPECT_EQ(jos_cmd_unregister(code), -1) << code;
    }
    for (int code : Codes{1, JOS_CMD_MAX}) {
        ASSERT_EQ(jos_cmd_register(code, h_reply), 0);
        jos_cmdarg_t ca = exec(code);
        EXPECT_EQ(ca.ca_errno, 0);
        EXPECT_STREQ(buf_, "ok");
        EXPECT_EQ(ca.ca_rlen, 3);  // the handler's length stands
        ASSERT_EQ(jos_cmd_unregister(code), 0);
        EXPECT_STREQ(exec(code).ca_errmsg, "NO_CMD");
    }
    // 511 is never dispatched, not even to a registered handler.
    ASSERT_EQ(jos_cmd_register(JOS_CMD_NOP, h_fail), 0);
    jos_cmdarg_t ca{};
    ca.ca_cmd = JOS_CMD_NOP;
    ca.ca_rlen = 77;
    const jos_cmdarg_t before = ca;
    EXPECT_EQ(jos_cmd_exec(&ca), 0);
    EXPECT_EQ(std::memcmp(&ca, &before, sizeof(ca)), 0);
    EXPECT_EQ(g_calls, 2);
}

TEST_F(JosCmdDispatch, ErrorWordsAndReplyLength)
{
    ASSERT_EQ(jos_cmd_register(300, h_fail), 0);
    // A handler error forces the reply length to 0; the module range keeps
    // whatever length the module set, even when its ioctl fails. -1: unchecked.
    struct { int code; const char* mod; int err; const char* word; int rlen; } cases[] = {
        {0, "", 2, "INV_CMD", 0}, {-1, "", 2, "INV_CMD", 0}, {JOS_CMD_MAX + 1, "", 2, "INV_CMD", 0},
        {JOS_CMD_MODFIRST - 1, "", 2, "INV_CMD", 0}, {JOS_CMD_MODLAST + 1, "", 2, "INV_CMD", 0},
        {JOS_CMD_CFGSAVE, "", 2, "INV_CMD", 0}, {JOS_CMD_EXIT, "", 2, "INV_CMD", 0}, {301, "", 2, "NO_CMD", 0},
        {300, "", 22, "", 0}, {JOS_CMD_STAT, "nosuch", 2, "MODULE_NEXIST", -1},
        {JOS_CMD_LIST, "tnoio", 2, "NO_FUNC", -1}, {JOS_CMD_SET, "tmod", 5, "IOCTL_FAIL", 8},
        {JOS_CMD_MODFIRST, "tmod", 0, "tmod", 8}, {JOS_CMD_MODLAST, "tmod", 0, "tmod", 8},
    };
    for (const auto& c : cases) {
        jos_cmdarg_t ca = exec(c.code, c.mod);
        EXPECT_EQ(ca.ca_errno, c.err) << c.code;
        EXPECT_STREQ(ca.ca_errmsg, c.word) << c.code;
        EXPECT_TRUE(c.rlen < 0 || ca.ca_rlen == c.rlen) << c.code << ": " << ca.ca_rlen;
        if (c.rlen == 8) {  // the record reached the ioctl as sent
            EXPECT_EQ(std::string(buf_, 8), "cmd=" + std::to_string(c.code));
        }
    }
    // An unterminated module name is read only up to the field's end.
    jos_cmdarg_t ca{};
    ca.ca_cmd = JOS_CMD_STAT;
    std::memset(ca.ca_errmsg, 'm', sizeof(ca.ca_errmsg));
    jos_cmd_exec(&ca);
    EXPECT_EQ(g_find_arg.size(), sizeof(ca.ca_errmsg) - 1);
    EXPECT_STREQ(ca.ca_errmsg, "MODULE_NEXIST");
    _jos_kfntable.module_find = nullptr;  // no registry lookup: no module exists
    EXPECT_STREQ(exec(JOS_CMD_STAT, "tmod").ca_errmsg, "MODULE_NEXIST");
}

TEST(JosCmdDispatchNoTable, FailsSafely)
{
    if (jos_cmd_register(JOS_CMD_MAX, nullptr) == 0)
        GTEST_SKIP() << "command table already allocated";
    EXPECT_EQ(jos_cmd_unregister(1), -1);
    jos_cmdarg_t ca{};
    ca.ca_cmd = 1;
    EXPECT_EQ(jos_cmd_exec(&ca), 0);
    EXPECT_STREQ(ca.ca_errmsg, "NO_CMD");
}

TEST(JosCmdArgs, NextargQuoteRulesAndTagvalLeadingSpaces)
{
    char* value = nullptr;
    // Quotes do not protect spaces: "x y" splits, and 'y"' (no '=') ends the scan before c=3.
    char t1[] = "a=1  b=\"x y\" c=3";
    char* cursor = t1;
    for (auto [tag, val] : {std::pair{"a", "1"}, {"b", "x"}, {nullptr, nullptr}}) {
        EXPECT_STREQ(jos_cmd_nextarg(cursor, &value, &cursor), tag);
        EXPECT_STREQ(value, val);
    }
    // Opening and closing quotes are dropped; a lone opening quote too.
    char t2[] = "k=\"v\" e= q=\" n=\"box last=1=2 ";
    cursor = t2;
    for (auto [tag, val] : {std::pair{"k", "v"}, {"e", ""}, {"q", ""}, {"n", "box"}, {"last", "1=2"}}) {
        EXPECT_STREQ(jos_cmd_nextarg(cursor, &value, &cursor), tag);
        EXPECT_STREQ(value, val) << tag;
    }
    EXPECT_EQ(jos_cmd_nextarg(cursor, &value, &cursor), nullptr);  // trailing space only
    value = t2;
    EXPECT_TRUE(jos_cmd_nextarg(nullptr, &value, &cursor) == nullptr && value == nullptr);
    // tagval keeps leading spaces in the tag and quotes in the value; "  c"
    // (no '=') yields no pair but the scan goes on.
    char t3[] = "  a=1 b=\"q\"  c d=4";
    char* tag = nullptr;
    cursor = t3;
    for (auto [t, v] : {std::pair{"  a", "1"}, {"b", "\"q\""}, {nullptr, nullptr}, {"d", "4"},
                        {nullptr, nullptr}}) {
        jos_cmd_tagval(&cursor, &tag, &value);
        EXPECT_STREQ(tag, t);
        EXPECT_STREQ(value, v);
    }
    char* none = nullptr;
    tag = value = t3;
    jos_cmd_tagval(&none, &tag, &value);
    EXPECT_TRUE(tag == nullptr && value == nullptr);
}

TEST(JosCmdValues, DigitsRangesAndLengths)
{
    // The number is stored even out of range, but not for non-digits (n stays -7).
    struct { const char* t; long min, max; int rc; long n; } cases[] = {
        {"10", 10, 20, 1, 10}, {"20", 10, 20, 1, 20}, {"21", 10, 20, 0, 21}, {"9", 10, 20, 0, 9},
        {"0123456789", 0, LONG_MAX, 1, 123456789}, {"9223372036854775807", 0, LONG_MAX, 1, LONG_MAX},
        {"99999999999999999999999999", 0, LONG_MAX, 0, LONG_MAX},  // saturates, never in range
        {"1x", 0, 100, 0, -7}, {"", 0, 100, 0, -7}, {"-1", -5, 5, 0, -7}, {" 1", 0, 100, 0, -7},
        {"/", 0, 100, 0, -7}, {":", 0, 100, 0, -7},
    };
    for (const auto& c : cases) {
        long n = -7;
        EXPECT_EQ(jos_cmd_isdigitin(c.t, c.min, c.max, &n), c.rc) << c.t;
        EXPECT_EQ(n, c.n) << c.t;
        EXPECT_EQ(jos_cmd_isdigit(c.t), c.n == -7 ? 0 : 1) << c.t;
    }
    EXPECT_EQ(jos_cmd_isdigit(nullptr), 0);
    EXPECT_EQ(jos_cmd_isdigitin("5", 0, 100, nullptr), 1);
    for (auto [t, rc] : {std::pair{"abc", 0}, {"abcdefghi", 0}, {"abcd", 1}, {"abcdefgh", 1}}) {
        char copy[16] = "zzz";
        EXPECT_EQ(jos_cmd_isstrin(t, 4, 8, copy), rc) << t;
        EXPECT_STREQ(copy, rc ? t : "zzz") << t;  // copied only on success
    }
    EXPECT_EQ(jos_cmd_isstrin("", 0, 8, nullptr), 1);
    EXPECT_EQ(jos_cmd_isstrin(nullptr, 0, 8, nullptr), 0);
}

TEST(JosCmdAddr, Str2ipAndParseip)
{
    // A plain address parses the same either way; failures write nothing (7 stays).
    struct { const char* text; int rc; uint32_t lo, hi; } cases[] = {
        {"10.1", 0, 0x0A000001u, 0x0A000001u}, {"1.2.65535", 0, 0x0102FFFFu, 0x0102FFFFu}, {"0", 0, 0, 0},
        {"1.16777215", 0, 0x01FFFFFFu, 0x01FFFFFFu}, {"4294967295", 0, 0xFFFFFFFFu, 0xFFFFFFFFu},
        {"255.255.255.255", 0, 0xFFFFFFFFu, 0xFFFFFFFFu}, {"1.2.3.4/32", 0, 0x01020304u, 0x01020304u},
        {"10.0.0.1-10.0.0.9", 0, 0x0A000001u, 0x0A000009u}, {"192.168.1.77/24", 0, 0xC0A80100u, 0xC0A801FFu},
        {"200.1.1.1/1", 0, 0x80000000u, 0xFFFFFFFFu}, {"any", -1, 0, 0xFFFFFFFFu},  // any: fails, range filled
        {"1.2.3.4.5", -1, 7, 7}, {"256.1.1.1", -1, 7, 7}, {"1.2.65536", -1, 7, 7}, {"1.16777216", -1, 7, 7},
        {"1.2.3.256", -1, 7, 7}, {"4294967296", -1, 7, 7}, {"18446744073709551617", -1, 7, 7}, {"", -1, 7, 7},
        {"1..2", -1, 7, 7}, {".1", -1, 7, 7}, {"1.", -1, 7, 7}, {"1.2.3.4 ", -1, 7, 7}, {"nothing", -1, 7, 7},
        {"1.2.3.4/0", -1, 7, 7}, {"1.2.3.4/33", -1, 7, 7}, {"1.2.3.4/", -1, 7, 7}, {"1.2.3.999/8", -1, 7, 7},
        {"1.2.3.4-", -1, 7, 7}, {"-1.2.3.4", -1, 7, 7},
    };
    for (const auto& c : cases) {
        char buf[32];
        std::snprintf(buf, sizeof(buf), "%s", c.text);
        uint32_t lo = 7, hi = 7;
        EXPECT_EQ(jos_cmd_parseip(buf, &lo, &hi), c.rc) << c.text;
        EXPECT_EQ(lo, c.lo) << c.text;
        EXPECT_EQ(hi, c.hi) << c.text;
        if (c.rc == 0) {  // the separator is cut off
            EXPECT_EQ(std::string(buf), std::string(c.text, std::strcspn(c.text, "-/")));
        }
        if (std::strpbrk(c.text, "-/") == nullptr && std::strcmp(c.text, "any") != 0) {
            uint32_t ip = 7;
            EXPECT_EQ(jos_cmd_str2ip(c.text, &ip), c.rc) << c.text;
            EXPECT_EQ(ip, c.lo) << c.text;
        }
    }
    EXPECT_EQ(jos_cmd_str2ip(nullptr, nullptr), -1);
}

TEST(JosCmdAddr, Macparse)
{
    const uint8_t want[6] = {0x00, 0x1a, 0x2b, 0xc3, 0xd4, 0xff};
    uint8_t mac[6] = {};
    for (const char* t : {"00-1a-2b-c3-d4-ff", "00:1A:2B:C3:D4:FF", "00.1a.2b.c3.d4.ff"}) {
        std::memset(mac, 0, sizeof(mac));
        EXPECT_EQ(jos_cmd_macparse(t, mac), 0) << t;
        EXPECT_EQ(std::memcmp(mac, want, 6), 0) << t;
    }
    for (const char* t : {"00_1a_2b_c3_d4_ff", "001a2bc3d4ff", "00:1a:2b-c3-d4-ff", "00:1a:2b:c3:d4", "00:",
                          "00", "0", "", static_cast<const char*>(nullptr)})
        EXPECT_EQ(jos_cmd_macparse(t, mac), -1) << (t ? t : "(null)");
    // A short string with nothing readable past its terminator (ASan checks).
    char* tight = new char[2]{'0', '\0'};
    EXPECT_EQ(jos_cmd_macparse(tight, mac), -1);
    delete[] tight;
}

TEST(JosCmdText, TrimlineAndNumberFormats)
{
    for (auto [in, out] : {std::pair{"   key=value   \r\nignored", "key=value"}, {"\t a\tb \t\n", "a b"},
                           {"  \t \r", ""}, {"x\ny  ", "x"}, {"", ""}}) {
        char buf[32];
        std::snprintf(buf, sizeof(buf), "%s", in);
        EXPECT_STREQ(jos_cmd_trimline(buf), out) << in;
    }
    struct { char* (*fn)(uint64_t, char*, size_t); uint64_t v; const char* want; } cases[] = {
        {jos_cmd_fmtbytes, 0, "0 "}, {jos_cmd_fmtbytes, 1023, "1023 "}, {jos_cmd_fmtbytes, 1024, "1.00K "},
        {jos_cmd_fmtbytes, (1u << 20) - 1, "1024.00K "}, {jos_cmd_fmtbytes, 1u << 20, "1.00M "},
        {jos_cmd_fmtbytes, 1u << 30, "1.00G "}, {jos_cmd_fmtbytes, uint64_t{5} << 40, "5120.00G "},
        {jos_cmd_fmtbps, 999, "999 "}, {jos_cmd_fmtbps, 1000, "1.00K "}, {jos_cmd_fmtbps, 999999, "1000.00K "},
        {jos_cmd_fmtbps, 1000000, "1.00M "}, {jos_cmd_fmtbps, 2500000000ULL, "2500.00M "},
    };
    for (const auto& c : cases) {
        char buf[32];
        EXPECT_STREQ(c.fn(c.v, buf, sizeof(buf)), c.want) << c.v;
    }
    char small[4];  // the buffer size bounds the output
    EXPECT_EQ(jos_cmd_fmtbytes(1024, small, sizeof(small)), small);
    EXPECT_STREQ(small, "1.0");
}

}  // namespace
