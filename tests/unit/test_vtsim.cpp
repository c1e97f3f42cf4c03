// Unit tests for the simulator's datagram helpers: identifiers, builders at
// their wire offsets, decoding of what the daemon sends, the drop counter
// of /proc/net/udp, hex input and the malformed set.
#include "../../tools/vtsim/vtsim_proto.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <set>
#include <string>
#include <vector>

namespace {

using namespace vtsim;

template <typename T>
std::vector<uint8_t> raw(const T& rec)
{
    return bytes_of(rec);
}

uint32_t le32(const std::vector<uint8_t>& b, size_t off)
{
    return b[off] | b[off + 1] << 8 | b[off + 2] << 16 | static_cast<uint32_t>(b[off + 3]) << 24;
}

uint16_t le16(const std::vector<uint8_t>& b, size_t off)
{
    return static_cast<uint16_t>(b[off] | b[off + 1] << 8);
}

std::string text_at(const std::vector<uint8_t>& b, size_t off, size_t size)
{
    return get_str(reinterpret_cast<const char*>(b.data() + off), size);
}

TEST(VtsimIdent, PrefixAndPaddedIndexMakeTwelveCharacters)
{
    EXPECT_EQ(make_ident("SIM", 1), "SIM000000001");
    EXPECT_EQ(make_ident("SIM", 999999999), "SIM999999999");
    EXPECT_EQ(make_ident("SIM", 1000000000), "");  // ten digits do not fit
    EXPECT_EQ(make_ident("", 42), "000000000042");
    EXPECT_EQ(make_ident("ABCDEFGHIJK", 9), "ABCDEFGHIJK9");
    EXPECT_EQ(make_ident("ABCDEFGHIJK", 10), "");
    EXPECT_EQ(make_ident("ABCDEFGHIJKL", 1), "");
    EXPECT_EQ(make_ident("SIM", -1), "");

    EXPECT_EQ(ident_index("SIM000000123", "SIM"), 123);
    EXPECT_EQ(ident_index(make_ident("GW", 98765), "GW"), 98765);
    EXPECT_EQ(ident_index("SIM000000123", "GW"), -1);
    EXPECT_EQ(ident_index("SIM00000012x", "SIM"), -1);
    EXPECT_EQ(ident_index("SIM00000012", "SIM"), -1);
    EXPECT_EQ(ident_index("SIM0000000123", "SIM"), -1);

    EXPECT_TRUE(prefix_ok("SIM"));
    EXPECT_TRUE(prefix_ok(""));
    EXPECT_FALSE(prefix_ok("A B"));
    EXPECT_FALSE(prefix_ok("A=B"));
    EXPECT_FALSE(prefix_ok("ABCDEFGHIJKL"));
    EXPECT_FALSE(prefix_ok("\xc4\xe3"));
}

TEST(VtsimIdent, NameTemplatesNeverReadArguments)
{
    EXPECT_EQ(expand_name("sim-gw-%d", 7), "sim-gw-7");
    EXPECT_EQ(expand_name("%d-%d", 12), "12-12");
    EXPECT_EQ(expand_name("100%% %d", 3), "100% 3");
    EXPECT_EQ(expand_name("%s%n%x", 1), "%s%n%x");
    EXPECT_EQ(expand_name("end%", 1), "end%");
    EXPECT_EQ(expand_name("", 1), "");
}

TEST(VtsimIdent, LoopbackHostsOnly)
{
    for (const char* ok : {"127.0.0.1", "127.0.0.2", "127.255.255.254"})
        EXPECT_TRUE(host_is_loopback(ok, nullptr)) << ok;
    for (const char* bad : {"128.0.0.1", "10.0.0.1", "0.0.0.0", "localhost", "127.1", "::1", "", "127.0.0.1 "})
        EXPECT_FALSE(host_is_loopback(bad, nullptr)) << bad;
    EXPECT_FALSE(host_is_loopback(nullptr, nullptr));
}

TEST(VtsimBuild, StatusReportFieldsAtWireOffsets)
{
    status_params p;
    p.id = "SIM000000001";
    p.type = VTR_STATUS3;
    p.devid = 0x1234;
    p.current_users = 77;
    p.license_start = 0x01020304;
    p.version = "V1.0.0";
    p.sys_name = std::string(100, 'n');  // longer than the 64-byte field
    p.upbps = 0x0102030405060708ull;
    p.max_ipcnt = 500;
    p.temp = 0x0141;
    p.grpname = "a group name longer than the field";
    auto b = raw(build_status(p));
    ASSERT_EQ(b.size(), 320u);
    EXPECT_EQ(std::memcmp(b.data(), "VTR\0", 4), 0);
    EXPECT_EQ(le16(b, 4), 50000);
    EXPECT_EQ(le16(b, 6), 0x1234);
    EXPECT_EQ(le32(b, 20), 0x01020304u);
    EXPECT_EQ(le32(b, 28), 77u);
    EXPECT_EQ(text_at(b, 32, 16), "SIM000000001");
    EXPECT_EQ(text_at(b, 136, 64), "V1.0.0");
    EXPECT_EQ(text_at(b, 200, 64), std::string(63, 'n'));
    EXPECT_EQ(b[263], 0);  // cut with the NUL inside the field
    EXPECT_EQ(b[264], 0x08);
    EXPECT_EQ(b[271], 0x01);
    EXPECT_EQ(le32(b, 288), 500u);
    EXPECT_EQ(le16(b, 294), 0x0141);
    EXPECT_EQ(text_at(b, 296, 24), std::string(p.grpname, 0, 23));
    EXPECT_EQ(b[319], 0);
}

TEST(VtsimBuild, OtherRecordsAtWireOffsets)
{
    auto l = raw(build_lnglat("SIM000000002", 116.5, -39.25));
    ASSERT_EQ(l.size(), 40u);
    EXPECT_EQ(le16(l, 4), 1008);
    EXPECT_EQ(text_at(l, 8, 16), "SIM000000002");
    double lng, lat;
    std::memcpy(&lng, l.data() + 24, 8);
    std::memcpy(&lat, l.data() + 32, 8);
    EXPECT_EQ(lng, 116.5);
    EXPECT_EQ(lat, -39.25);

    std::string md5 = fake_md5("SIM000000002");
    auto k = raw(build_vtkey("SIM000000002", md5));
    ASSERT_EQ(k.size(), 56u);
    EXPECT_EQ(le16(k, 4), 20001);
    EXPECT_EQ(text_at(k, 8, 16), "SIM000000002");
    EXPECT_EQ(text_at(k, 24, 32), md5);  // fills the field

    auto c = raw(build_cmdarg(std::string(600, 'x')));
    ASSERT_EQ(c.size(), 520u);
    EXPECT_EQ(le16(c, 4), 40000);
    EXPECT_EQ(le16(c, 6), 520);
    EXPECT_EQ(text_at(c, 8, 512), std::string(511, 'x'));
    EXPECT_EQ(c[519], 0);
}

TEST(VtsimBuild, DigestStandInIsStableHex)
{
    std::string a = fake_md5("SIM000000001");
    ASSERT_EQ(a.size(), 32u);
    EXPECT_EQ(a.find_first_not_of("0123456789abcdef"), std::string::npos);
    EXPECT_EQ(a, fake_md5("SIM000000001"));
    EXPECT_NE(a, fake_md5("SIM000000002"));
}

TEST(VtsimDecode, CommandsAndMappingsOfExactSizeOnly)
{
    auto c = raw(build_cmdarg("tag=rootpassreset license_id12=SIM000000003 password=p'w oripass=o mfadminpass=1"));
    incoming in = classify(c.data(), c.size());
    EXPECT_EQ(in.kind, incoming::COMMAND);
    EXPECT_EQ(in.id, "SIM000000003");
    EXPECT_EQ(token_value(in.text, "tag"), "rootpassreset");
    EXPECT_EQ(token_value(in.text, "password"), "p'w");

    auto alt = raw(build_cmdarg("tag=sshportkill licid12=SIM000000004"));
    EXPECT_EQ(classify(alt.data(), alt.size()).id, "SIM000000004");

    // Not the size the daemon sends, or not "VTR": not a command.
    EXPECT_EQ(classify(c.data(), 519).kind, incoming::OTHER);
    c.push_back(0);
    EXPECT_EQ(classify(c.data(), c.size()).kind, incoming::OTHER);
    c.pop_back();
    c[0] = 'F';
    EXPECT_EQ(classify(c.data(), c.size()).kind, incoming::OTHER);

    // argstr without any NUL stays bounded by its field.
    std::vector<uint8_t> full = no_nul(VTR_CMDARG, 520);
    incoming f = classify(full.data(), full.size());
    EXPECT_EQ(f.kind, incoming::COMMAND);
    EXPECT_EQ(f.text.size(), 512u);

    auto m = raw(build_mapping("SIM000000005", 24569, 24570, 1, 0, 8080, "map.example"));
    ASSERT_EQ(m.size(), 112u);
    EXPECT_EQ(le16(m, 6), 24569);
    EXPECT_EQ(le16(m, 8), 24570);
    EXPECT_EQ(m[10], 1);
    EXPECT_EQ(le16(m, 12), 8080);
    EXPECT_EQ(text_at(m, 14, 18), "SIM000000005");
    EXPECT_EQ(text_at(m, 48, 64), "map.example");
    incoming mi = classify(m.data(), m.size());
    EXPECT_EQ(mi.kind, incoming::MAPPING);
    EXPECT_EQ(mi.id, "SIM000000005");
    EXPECT_EQ(format_mapping(mi.map),
              "mapping web=24569 ssh=24570 webenable=1 sshenable=0 hostport=8080 maphost=map.example");

    // Short buffers are safe and typed only when the header is complete.
    EXPECT_EQ(classify("VTR", 3).kind, incoming::OTHER);
    EXPECT_EQ(classify("VT", 2).type, 0);
    EXPECT_EQ(classify(m.data(), 8).type, 1003);
}

TEST(VtsimDecode, TokenValuesMatchWholeKeys)
{
    std::string t = "tag=x  license_id12x=bad license_id12=GOOD empty= last=1";
    EXPECT_EQ(token_value(t, "license_id12"), "GOOD");
    EXPECT_EQ(token_value(t, "tag"), "x");
    EXPECT_EQ(token_value(t, "empty"), "");
    EXPECT_EQ(token_value(t, "last"), "1");
    EXPECT_EQ(token_value(t, "missing"), "");
    EXPECT_EQ(token_value("", "tag"), "");
}

TEST(VtsimDecode, PrintableEscapesWireBytes)
{
    EXPECT_EQ(printable("plain text=1"), "plain text=1");
    EXPECT_EQ(printable(std::string("a\nb\0c", 5)), "a\\x0ab\\x00c");
    EXPECT_EQ(printable("\xc4\xe3\\"), "\\xc4\\xe3\\\\");
}

TEST(VtsimProc, DropsOfEverySocketOnThePort)
{
    const char* proc =
        "   sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid  timeout inode ref pointer drops\n"
        "  101: 00000000:5FF7 00000000:0000 07 00000000:00000000 00:00000000 00000000     0        0 1111 2 0000000000000000 12\n"
        "  102: 0100007F:A1B2 00000000:0000 07 00000000:00000000 00:00000000 00000000     0        0 2222 2 0000000000000000 900\n"
        "  103: 00000000:5FF7 00000000:0000 07 00000000:00000000 00:00000000 00000000     0        0 3333 2 0000000000000000 30\n"
        "  garbage line\n"
        "  104: 00000000:5FF7 00000000:0000 07 drops-not-a-number\n";
    EXPECT_EQ(udp_drops(proc, 24567), 42);  // 0x5FF7, two sockets (SO_REUSEPORT)
    EXPECT_EQ(udp_drops(proc, 0xA1B2), 900);
    EXPECT_EQ(udp_drops(proc, 24565), -1);
    EXPECT_EQ(udp_drops("", 24567), -1);
    // The title line never matches, even if it looked like one.
    EXPECT_EQ(udp_drops("  0: 00000000:5FF7 x 5\n", 24567), -1);

    const char* proc6 =
        "  sl  local_address                         remote_address                        st tx_queue rx_queue tr tm->when retrnsmt   uid  timeout inode ref pointer drops\n"
        "  7: 00000000000000000000000000000000:5FF7 00000000000000000000000000000000:0000 07 00000000:00000000 00:00000000 00000000  0 0 4444 2 0000000000000000 0\n";
    EXPECT_EQ(udp_drops(proc6, 24567), 0);
}

TEST(VtsimHex, PairsWithOptionalSeparators)
{
    std::vector<uint8_t> b;
    ASSERT_TRUE(parse_hex("56 54 52 00 1c:27-ff", b));
    EXPECT_EQ(b, (std::vector<uint8_t>{0x56, 0x54, 0x52, 0x00, 0x1c, 0x27, 0xff}));
    ASSERT_TRUE(parse_hex("0xABcd", b));
    EXPECT_EQ(b, (std::vector<uint8_t>{0xab, 0xcd}));
    ASSERT_TRUE(parse_hex("", b));
    EXPECT_TRUE(b.empty());
    EXPECT_FALSE(parse_hex("565", b));
    EXPECT_FALSE(parse_hex("5 6", b));  // a separator inside a pair
    EXPECT_FALSE(parse_hex("zz", b));
}

TEST(VtsimBad, SetCoversTheMalformedShapes)
{
    auto set = bad_datagrams();
    std::set<std::string> labels;
    bool empty = false, over = false, no_nul_max = false, long_id = false;
    for (const auto& d : set) {
        EXPECT_TRUE(labels.insert(d.label).second) << "duplicate label " << d.label;
        EXPECT_LE(d.bytes.size(), MAX_UDP_PAYLOAD) << d.label;
        empty |= d.bytes.empty();
        over |= d.bytes.size() > static_cast<size_t>(CLOUD_MAXDGRAM);
        if (d.bytes.size() == static_cast<size_t>(CLOUD_MAXDGRAM) &&
            std::find(d.bytes.begin(), d.bytes.end(), 0) == d.bytes.end())
            no_nul_max = true;
        // Every full status report names a BAD... gateway so that tests can
        // find what the set created; a 13-character identifier is among them.
        incoming in = classify(d.bytes.data(), d.bytes.size());
        if (d.bytes.size() == sizeof(devinfo_recv_bps_t) && d.bytes[3] == 0 &&
            (in.type == VTR_STATUS || in.type == VTR_STATUS2 || in.type == VTR_STATUS3)) {
            std::string id = text_at(d.bytes, 32, 16);
            EXPECT_TRUE(id.empty() || id.rfind("BAD", 0) == 0) << d.label << ": " << id;
            long_id |= id.size() == 13;
        }
    }
    EXPECT_TRUE(empty);
    EXPECT_TRUE(over);
    EXPECT_TRUE(no_nul_max);
    EXPECT_TRUE(long_id);
}

}  // namespace
