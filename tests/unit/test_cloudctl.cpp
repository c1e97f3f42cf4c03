// cloudctl's reading of the daemon's listings: values in units, JSON text,
// rows under columns, tables and JSON lines.
#include "../../tools/cloudctl/cloudctl_rows.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>

namespace {

constexpr auto TXT = cloudctl_unit::text, NUM = cloudctl_unit::number, IP = cloudctl_unit::ipv4,
               TIME = cloudctl_unit::time, DUR = cloudctl_unit::duration, RATE = cloudctl_unit::rate;

struct utc {
    utc()
    {
        setenv("TZ", "UTC", 1);
        tzset();
    }
};

// Every unit at its edges; what is not a number of its range stays as it is.
TEST(CloudctlFormat, ValuesInUnits)
{
    utc tz;
    const struct {
        const char* value;
        cloudctl_unit unit;
        const char* want;
    } cases[] = {
        {"167772161", IP, "10.0.0.1"},
        {"4294967295", IP, "255.255.255.255"},
        {"4294967296", IP, "4294967296"},
        {"10.0.0.1", IP, "10.0.0.1"},
        {"", IP, ""},
        {"0", TIME, "-"},
        {"1700000000", TIME, "2023-11-14 22:13:20"},
        {"-1", TIME, "-1"},
        {"0", DUR, "0s"},
        {"59", DUR, "59s"},
        {"725", DUR, "12m 5s"},
        {"3600", DUR, "1h 0m"},
        {"273600", DUR, "3d 4h"},
        {"999", RATE, "999 bit/s"},
        {"1000", RATE, "1.0 kbit/s"},
        {"1234567", RATE, "1.2 Mbit/s"},
        {"999999", RATE, "1.0 Mbit/s"},
        {"18446744073709551615", RATE, "18.4 Ebit/s"},
        {"18446744073709551616", RATE, "18446744073709551616"},
        {"12k", RATE, "12k"},
        {"167772161", NUM, "167772161"},
        {"167772161", TXT, "167772161"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(cloudctl_human(c.value, c.unit), c.want) << c.value;
}

// Output stays valid JSON whatever the bytes: well-formed UTF-8 passes,
// anything else is escaped byte by byte.
TEST(CloudctlFormat, JsonEscaping)
{
    const struct {
        std::string in;
        const char* want;
    } strings[] = {
        {"plain", R"("plain")"},
        {"a\"b\\c", R"("a\"b\\c")"},
        {std::string("l1\nl2\r\t\x01\x7f") + '\0', R"("l1\u000al2\u000d\u0009\u0001\u007f\u0000")"},
        {"caf\xc3\xa9 \xe4\xb8\xad \xf0\x9f\x98\x80", "\"caf\xc3\xa9 \xe4\xb8\xad \xf0\x9f\x98\x80\""},
        {"\xc4\xe3\xba\xc3", R"("\u00c4\u00e3\u00ba\u00c3")"},  // GBK
        {"\xe4\xb8", R"("\u00e4\u00b8")"},                         // cut short
        {"\xc0\xaf", R"("\u00c0\u00af")"},                         // overlong
        {"\xed\xa0\x80", R"("\u00ed\u00a0\u0080")"},               // surrogate
        {"\xf4\x90\x80\x80", R"("\u00f4\u0090\u0080\u0080")"},     // past U+10FFFF
        {"\xff", R"("\u00ff")"},
    };
    for (const auto& c : strings)
        EXPECT_EQ(cloudctl_json_string(c.in), c.want) << c.in;

    const struct {
        const char* value;
        cloudctl_unit unit;
        const char* want;
    } values[] = {
        {"12", NUM, "12"},     {"-3.25", NUM, "-3.25"},       {"0", IP, "0"},       {"007", NUM, "\"007\""},
        {"1.", NUM, "\"1.\""}, {"1e5", NUM, "\"1e5\""},       {"-", NUM, "\"-\""},  {"", RATE, "\"\""},
        {"12", TXT, "\"12\""}, {"116.400000000000", NUM, "116.400000000000"},
    };
    for (const auto& c : values)
        EXPECT_EQ(cloudctl_json_value(c.value, c.unit), c.want) << c.value;
}

// The free column takes the words beyond one per column, an empty value
// stays an empty cell, name=value and short lines pass as they are, each
// part opens at its daemon header, and a part that opens at the top puts
// its header before its first row.
TEST(CloudctlRows, ListingsAsTables)
{
    utc tz;
    const std::vector<cloudctl_part> last = {{"", {{"id", TXT}, {"up", TIME}, {"rest", TXT}}}};
    EXPECT_EQ(cloudctl_table("count=1\nS1 0 x|y 1.bin\nS2  z\nshort\n", last),
              "count=1\n"
              "id  up  rest\n"
              "S1  -   x|y 1.bin\n"
              "S2      z\n"
              "short\n");
    EXPECT_EQ(cloudctl_table("", last), "id  up  rest\n");

    const std::vector<cloudctl_part> parts = {{"id n", {{"ID", NUM}, {"NAME", TXT}}, ' ', 0},
                                              {"t x y", {{"T", NUM}, {"X", IP}, {"Y", TXT}}}};
    EXPECT_EQ(cloudctl_table("before\nid n\ntwo words 1\nt x y\n7 167772161 b\n8  c\nend=1\n", parts),
              "before\n"
              "ID         NAME\ntwo words  1\n"
              "T  X         Y\n7  10.0.0.1  b\n8            c\nend=1\n");
    EXPECT_EQ(cloudctl_table("1 2 3\n", parts), "1 2 3\n");  // no header: no part

    // A free name and an error with a blank in one line: the numbers
    // between them place the split. Rows may end in one blank more.
    const cloudctl_part relay = {"", {{"id", TXT}, {"name", TXT}, {"grp", NUM}, {"err", TXT}}, ' ', 1, true};
    const cloudctl_part trailing = {"", {{"id", TXT}, {"name", TXT}, {"n", NUM}}, ' ', 1, false, true};
    const struct {
        cloudctl_part part;
        const char* line;
        std::vector<std::string> cells;
    } splits[] = {
        {relay, "A front door 3 time out", {"A", "front door", "3", "time out"}},
        {relay, "A gw 3 ", {"A", "gw", "3", ""}},
        {relay, "A 2 3 4", {"A", "2", "3", "4"}},
        {trailing, "A big gw 5 ", {"A", "big gw", "5"}},
        {trailing, "A  5 ", {"A", "", "5"}},
        {{"", {{"a", TXT}, {"b", TXT}}, '|'}, "x y|z|w", {"x y", "z|w"}},
    };
    for (const auto& c : splits) {
        auto lines = cloudctl_parse(std::string(c.line) + "\n", {c.part});
        ASSERT_EQ(lines.size(), 2u) << c.line;
        EXPECT_EQ(lines[1].cells, c.cells) << c.line;
    }
}

// One object per row with the raw values, name=value lines as objects of
// their own, headers and bare words left out.
TEST(CloudctlRows, JsonLines)
{
    const std::vector<cloudctl_part> parts = {
        {"ip|name|t", {{"ip", IP}, {"name", TXT}, {"t", TIME}}, '|'}};
    EXPECT_EQ(cloudctl_json("ok\nip|name|t\n167772161|say \"hi\"\\|0\ntotal=2\npool=3/4[a b]\n=x\n", parts),
              "{\"ip\":167772161,\"name\":\"say \\\"hi\\\"\\\\\",\"t\":0}\n"
              "{\"total\":2}\n"
              "{\"pool\":\"3/4[a b]\"}\n");
    EXPECT_EQ(cloudctl_json("a=1\nb=x y\n", {}), "{\"a\":1}\n{\"b\":\"x y\"}\n");
}

}  // namespace
