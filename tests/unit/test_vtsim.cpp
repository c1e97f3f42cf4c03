// The simulator's datagram helpers, the /proc/net/udp drops and the malformed set.
#include "../../tools/vtsim/vtsim_proto.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstring>

namespace {

using namespace vtsim;
using bytes = std::vector<uint8_t>;

// Little-endian numbers as {OFF, BYTES, WANT}, text fields as {OFF, SIZE, WANT}.
void expect_fields(const bytes& b, std::initializer_list<std::array<uint32_t, 3>> nums,
                   std::initializer_list<std::tuple<size_t, size_t, std::string>> texts = {})
{
    for (auto [off, n, want] : nums) {
        uint32_t v = 0;
        for (uint32_t i = n; i-- > 0;)
            v = v << 8 | b.at(off + i);
        EXPECT_EQ(v, want) << "at " << off;
    }
    for (auto& [off, size, want] : texts)
        EXPECT_EQ(get_str(reinterpret_cast<const char*>(&b.at(off)), size), want) << "at " << off;
}
incoming classify(const bytes& b) { return vtsim::classify(b.data(), b.size()); }

TEST(Vtsim, IdentifiersNamesAndHosts)
{
    for (auto [prefix, index, want] : {std::tuple<const char*, long, const char*>{"SIM", 1, "SIM000000001"},
                                       {"", 42, "000000000042"}, {"ABCDEFGHIJK", 9, "ABCDEFGHIJK9"},
                                       {"SIM", 1000000000, ""}, {"ABCDEFGHIJK", 10, ""}, {"ABCDEFGHIJKL", 1, ""},
                                       {"SIM", -1, ""}})
        EXPECT_EQ(make_ident(prefix, index), want) << prefix << index;
    EXPECT_EQ(ident_index(make_ident("GW", 98765), "GW"), 98765);
    for (const char* bad : {"GW0000000123", "SIM00000012x", "SIM00000012", "SIM0000000123"})
        EXPECT_EQ(ident_index(bad, "SIM"), -1) << bad;
    EXPECT_TRUE(prefix_ok("SIM") && prefix_ok(""));
    for (const char* bad : {"A B", "A=B", "ABCDEFGHIJKL", "\xc4\xe3"})
        EXPECT_FALSE(prefix_ok(bad)) << bad;
    EXPECT_EQ(expand_name("%d-%d", 12), "12-12");
    EXPECT_EQ(expand_name("100%% %s%n%x end%", 3), "100% %s%n%x end%");  // never reads arguments
    EXPECT_TRUE(host_is_loopback("127.255.255.254", nullptr) && !host_is_loopback(nullptr, nullptr));
    for (const char* bad : {"128.0.0.1", "0.0.0.0", "localhost", "127.1", "::1", "", "127.0.0.1 "})
        EXPECT_FALSE(host_is_loopback(bad, nullptr)) << bad;
}

// Text longer than its field is cut with the NUL inside the field.
TEST(Vtsim, RecordsAtWireOffsets)
{
    bytes b = bytes_of(build_status({.id = "SIM000000001", .type = VTR_STATUS3, .devid = 0x1234,
                                     .license_start = 0x01020304, .current_users = 77, .license_id83 = "",
                                     .version = "V1.0.0", .sys_name = std::string(100, 'n'),
                                     .upbps = 0x0102030405060708ull, .max_ipcnt = 500, .temp = 0x0141,
                                     .grpname = std::string(30, 'g')}));
    ASSERT_EQ(b.size(), 320u);
    EXPECT_EQ(std::memcmp(b.data(), "VTR\0", 4), 0);
    expect_fields(b, {{4, 2, 50000}, {6, 2, 0x1234}, {20, 4, 0x01020304}, {28, 4, 77}, {264, 4, 0x05060708},
                      {268, 4, 0x01020304}, {288, 4, 500}, {294, 2, 0x0141}},
                  {{32, 16, "SIM000000001"}, {136, 64, "V1.0.0"}, {200, 64, std::string(63, 'n')},
                   {296, 24, std::string(23, 'g')}});
    bytes l = bytes_of(build_lnglat("SIM000000002", 116.5, -39.25));
    ASSERT_EQ(l.size(), 40u);
    expect_fields(l, {{4, 2, 1008}}, {{8, 16, "SIM000000002"}});
    const double lnglat[] = {116.5, -39.25};
    EXPECT_EQ(std::memcmp(l.data() + 24, lnglat, 16), 0);
    std::string md5 = fake_md5("SIM000000002");  // stable hex, one per identifier
    EXPECT_EQ(md5.find_first_not_of("0123456789abcdef"), std::string::npos);
    EXPECT_NE(md5, fake_md5("SIM000000001"));
    bytes k = bytes_of(build_vtkey("SIM000000002", md5));
    ASSERT_EQ(k.size(), 56u);
    expect_fields(k, {{4, 2, 20001}}, {{8, 16, "SIM000000002"}, {24, 32, md5}});  // md5 fills its field
    bytes c = bytes_of(build_cmdarg(std::string(600, 'x')));
    ASSERT_EQ(c.size(), 520u);
    expect_fields(c, {{4, 2, 40000}, {6, 2, 520}}, {{8, 512, std::string(511, 'x')}});
    bytes m = bytes_of(build_mapping("SIM000000005", 24569, 24570, 1, 0, 8080, "map.example"));
    ASSERT_EQ(m.size(), 112u);
    expect_fields(m, {{6, 2, 24569}, {8, 2, 24570}, {10, 1, 1}, {11, 1, 0}, {12, 2, 8080}},
                  {{14, 18, "SIM000000005"}, {48, 64, "map.example"}});
    EXPECT_EQ(classify(m).kind, incoming::MAPPING);
    EXPECT_EQ(format_mapping(classify(m).map),
              "mapping web=24569 ssh=24570 webenable=1 sshenable=0 hostport=8080 maphost=map.example");
}

// Only "VTR" datagrams of exactly the size the daemon sends are commands.
TEST(Vtsim, DecodesCommandsOfExactSizeOnly)
{
    bytes c = bytes_of(build_cmdarg("tag=rootpassreset license_id12x=BAD license_id12=SIM000000003 password=p'w e="));
    incoming in = classify(c);
    EXPECT_EQ(in.kind, incoming::COMMAND);
    EXPECT_EQ(in.id, "SIM000000003");  // whole keys only
    EXPECT_EQ(token_value(in.text, "password"), "p'w");
    EXPECT_EQ(token_value(in.text, "e") + token_value(in.text, "missing"), "");
    EXPECT_EQ(classify(bytes_of(build_cmdarg("tag=sshportkill licid12=SIM000000004"))).id, "SIM000000004");
    bytes longer = c, other = c;
    longer.push_back(0);
    other[0] = 'F';
    for (const bytes& b : {bytes(c.begin(), c.end() - 1), longer, other})
        EXPECT_EQ(classify(b).kind, incoming::OTHER) << b.size();
    EXPECT_EQ(classify(no_nul(VTR_CMDARG, 520)).text.size(), 512u);  // bounded by its field
    // Short buffers are safe and typed only when the header is complete.
    EXPECT_EQ(classify(bytes{'V', 'T'}).type, 0);
    EXPECT_EQ(classify(bytes(c.begin(), c.begin() + 8)).type, VTR_CMDARG);
    EXPECT_EQ(printable(std::string("a b\n\0\xc4\\", 7)), "a b\\x0a\\x00\\xc4\\\\");
    ASSERT_TRUE(parse_hex("0x5654 52 00 1c:27-fF", c));  // pairs, optional separators
    EXPECT_EQ(c, (bytes{0x56, 0x54, 0x52, 0, 0x1c, 0x27, 0xff}));
    EXPECT_FALSE(parse_hex("565", c) || parse_hex("5 6", c) || parse_hex("zz", c));
}

TEST(Vtsim, DropsOfEverySocketOnThePort)
{
    const char* proc =
        "   sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid  timeout inode ref pointer drops\n"
        "  101: 00000000:5FF7 00000000:0000 07 00000000:00000000 00:00000000 00000000     0        0 1111 2 0000000000000000 12\n"
        "  102: 0100007F:A1B2 00000000:0000 07 00000000:00000000 00:00000000 00000000     0        0 2222 2 0000000000000000 900\n"
        "  103: 00000000:5FF7 00000000:0000 07 00000000:00000000 00:00000000 00000000     0        0 3333 2 0000000000000000 30\n"
        "  garbage line\n"
        "  104: 00000000:5FF7 00000000:0000 07 drops-not-a-number\n"
        "  7: 00000000000000000000000000000000:5FF7 00000000000000000000000000000000:0000 07 "
        "00000000:00000000 00:00000000 00000000  0 0 4444 2 0000000000000000 100\n";  // IPv6
    EXPECT_EQ(udp_drops(proc, 24567), 142);  // 0x5FF7, three sockets (SO_REUSEPORT)
    EXPECT_EQ(udp_drops(proc, 0xA1B2), 900);
    EXPECT_EQ(udp_drops(proc, 24565), -1);
    EXPECT_EQ(udp_drops("  0: 00000000:5FF7 x 5\n", 24567), -1);  // the title line never matches
}

// Every full status report of the set names a BAD... gateway so that tests
// can find what it created; a 13-character identifier is among them.
TEST(Vtsim, MalformedSetCoversItsShapes)
{
    bool empty = false, over = false, no_nul_max = false, long_id = false;
    for (const auto& d : bad_datagrams()) {
        const bytes& b = d.bytes;
        EXPECT_LE(b.size(), MAX_UDP_PAYLOAD) << d.label;
        empty |= b.empty();
        over |= b.size() > size_t(CLOUD_MAXDGRAM);
        no_nul_max |= b.size() == size_t(CLOUD_MAXDGRAM) && std::count(b.begin(), b.end(), 0) == 0;
        uint16_t type = classify(b).type;
        if (b.size() == 320 && b[3] == 0 && (type == VTR_STATUS || type == VTR_STATUS2 || type == VTR_STATUS3)) {
            std::string id = get_str(reinterpret_cast<const char*>(&b[32]), 16);
            EXPECT_TRUE(id.empty() || id.rfind("BAD", 0) == 0) << d.label << ": " << id;
            long_id |= id.size() == 13;
        }
    }
    EXPECT_TRUE(empty && over && no_nul_max && long_id);
}

}  // namespace
