// The simulator's datagram helpers and pacing, the texts of its roles, the
// /proc/net/udp drops, the malformed set.
#include "../../tools/vtsim/vtsim_proto.h"
#include "../../tools/vtsim/vtsim_roles.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <tuple>

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

// The backup socket's records: what each builder puts where, cut inside
// its field.
TEST(Vtsim, BackupSocketRecordsAtWireOffsets)
{
    bytes p = bytes_of(build_ping("SIM000000007"));
    ASSERT_EQ(p.size(), 24u);
    expect_fields(p, {{4, 2, 10015}}, {{0, 4, "VTR"}, {8, 16, "SIM000000007"}});
    bytes ok = bytes_of(build_backup_log(VTR_BACKUP_OK, "SIM000000007", "", "1718000000"));
    bytes named = bytes_of(build_backup_log(VTR_BACKUP_NAMED, "SIM000000007", std::string(40, 'f'), ""));
    bytes fail = bytes_of(build_backup_log(VTR_BACKUP_FAIL1, "SIM000000007", "", "disk full 'var'" + std::string(200, 'x')));
    ASSERT_EQ(ok.size(), 184u);
    expect_fields(ok, {{4, 2, 10017}}, {{8, 16, "SIM000000007"}, {24, 32, ""}, {56, 128, "1718000000"}});
    expect_fields(named, {{4, 2, 10020}}, {{24, 32, std::string(31, 'f')}, {56, 128, ""}});
    expect_fields(fail, {{4, 2, 10018}}, {{56, 128, ("disk full 'var'" + std::string(200, 'x')).substr(0, 127)}});
    bytes ack = bytes_of(build_appup_ack("SIM000000008", "app-2.1.0.bag"));
    ASSERT_EQ(ack.size(), 88u);
    expect_fields(ack, {{4, 2, 30002}, {6, 2, 0}}, {{8, 16, "SIM000000008"}, {24, 64, "app-2.1.0.bag"}});
    bytes log = bytes_of(build_appup_log("SIM000000008", "upgrade succ 2.1.0\r\n"));
    ASSERT_EQ(log.size(), 152u);
    expect_fields(log, {{4, 2, 30003}}, {{8, 16, "SIM000000008"}, {24, 128, "upgrade succ 2.1.0\r\n"}});
    bytes app = bytes_of(build_appinfo("SIM000000009", sim_app(12)));
    ASSERT_EQ(app.size(), 200u);
    expect_fields(app, {{4, 2, 30001}},
                  {{8, 16, "SIM000000009"}, {24, 64, "app12"}, {88, 64, "App12"}, {152, 32, "1.12"}, {184, 16, "running"}});
    // The text form splits into the same values, word by word.
    std::string t = appinfo_text("appinfo", "SIM000000009", sim_app(3));
    EXPECT_EQ(t.rfind("tag=appinfo ", 0), 0u);
    for (auto [key, want] : {std::pair<const char*, const char*>{"license_id12", "SIM000000009"}, {"name", "app3"},
                             {"cname", "App3"}, {"version", "1.3"}, {"status", "running"}})
        EXPECT_EQ(token_value(t, key), want) << key;
}

// Orders are decoded at their exact sizes only and routed by their
// identifier; an echo is recognised only when every byte came back.
TEST(Vtsim, DecodesOrdersAndChecksEchoes)
{
    cloud_backupinfo_t b{};
    std::memcpy(b.tag, "VTR", 4);
    b.type = VTR_BACKUPINFO;
    b.fl_ctime = 1718000000;
    std::memcpy(b.license_id12, "SIM000000004", 13);
    std::memcpy(b.filename, "named.conf", 11);
    incoming in = classify(bytes_of(b));
    EXPECT_EQ(in.kind, incoming::BACKUP_ORDER);
    EXPECT_EQ(in.id, "SIM000000004");
    EXPECT_EQ(in.backup.fl_ctime, 1718000000u);
    EXPECT_EQ(get_str(in.backup.filename, sizeof(in.backup.filename)), "named.conf");
    bytes up = bytes_of(build_appup_ack("SIM000000005", "pkg.bag"));
    up[6] = 0x50;  // nginx_port 80
    in = classify(up);
    EXPECT_EQ(in.kind, incoming::APPUP_ORDER);
    EXPECT_EQ(in.id, "SIM000000005");
    EXPECT_EQ(in.appup.nginx_port, 80);
    for (bytes cut : {bytes_of(b, 63), bytes_of(b, 65), bytes(up.begin(), up.end() - 1)})
        EXPECT_EQ(classify(cut).kind, incoming::OTHER) << cut.size();

    size_t shortest = SIZE_MAX, longest = 0;
    for (uint32_t serial = 0; serial < 40; serial++) {
        bytes e = build_echo("SIM000000006", serial);
        shortest = std::min(shortest, e.size());
        longest = std::max(longest, e.size());
        in = classify(e);
        ASSERT_EQ(in.kind, incoming::ECHO);
        EXPECT_EQ(in.id, "SIM000000006");
        EXPECT_TRUE(echo_intact(e.data(), e.size()));
        for (size_t at : {size_t(9), size_t(25), e.size() - 1}) {  // identifier, serial, last byte
            bytes bad = e;
            bad[at] ^= 1;
            EXPECT_FALSE(echo_intact(bad.data(), bad.size())) << serial << " at " << at;
        }
        bytes longer = e;
        longer.push_back(0);
        EXPECT_FALSE(echo_intact(longer.data(), longer.size()));
        EXPECT_FALSE(echo_intact(e.data(), e.size() - 1));
    }
    EXPECT_EQ(shortest, 29u);
    EXPECT_GT(longest, 900u);
    EXPECT_LE(longest, ECHO_MAX);
    bytes e = build_echo("SIM000000006", 7);
    EXPECT_GT(std::count(e.begin() + 28, e.end(), 0), 0);  // NULs inside the pattern come back too
}

// The upgrade socket: announcements, the three reports cut inside their
// fields, the order decoded at its exact size only, and the daemon's "ok".
TEST(Vtsim, UpgradeSocketRecords)
{
    bytes a = bytes_of(build_ping("SIM000000011", VTR_UP_ANNOUNCE));
    ASSERT_EQ(a.size(), 24u);
    expect_fields(a, {{4, 2, 10010}}, {{0, 4, "VTR"}, {8, 16, "SIM000000011"}});
    for (uint16_t type : {VTR_UP_PROGRESS, VTR_UP_SUCC, VTR_UP_FAIL}) {
        bytes l = bytes_of(build_upgrade_log(type, 0xBEEF, "SIM000000011", std::string(70, 'v'),
                                             "it's \\ " + std::string(200, 'e')));
        ASSERT_EQ(l.size(), 216u);
        expect_fields(l, {{4, 2, type}, {6, 2, 0xBEEF}},
                      {{0, 4, "VTR"}, {8, 16, "SIM000000011"}, {24, 64, std::string(63, 'v')},
                       {88, 128, ("it's \\ " + std::string(200, 'e')).substr(0, 127)}});
    }
    cloud_upgradeinfo_t o{};
    std::memcpy(o.tag, "VTR", 4);
    o.type = VTR_UP_ORDER;
    o.task_id = 513;
    o.ngnix_port = 8080;
    std::memcpy(o.license_id12, "SIM000000012", 13);
    std::memset(o.packet_name, 'p', sizeof(o.packet_name));  // no NUL: bounded by the field
    bytes ob = bytes_of(o);
    incoming in = classify(ob);
    ASSERT_EQ(in.kind, incoming::UPGRADE_ORDER);
    upgrade_order u = gw_order(in.upgrade);
    EXPECT_EQ(std::tie(u.id, u.packet, u.task, u.port),
              std::make_tuple(std::string("SIM000000012"), std::string(62, 'p'), 513L, 8080L));
    EXPECT_EQ(in.id, "SIM000000012");
    for (const bytes& b : {bytes_of(o, 87), bytes_of(o, 89)})
        EXPECT_EQ(classify(b).kind, incoming::OTHER) << b.size();
    EXPECT_EQ(classify(bytes{'o', 'k'}).kind, incoming::ACK);
    for (const bytes& b : {bytes{'o', 'k', 0}, bytes{'o'}, bytes{'O', 'K'}})
        EXPECT_EQ(classify(b).kind, incoming::OTHER) << b.size();
}

// Cache appliances speak text in the command frame under "FRB": every key
// of a report reads back as one word, whatever blanks a value held.
TEST(Vtsim, CacheApplianceTexts)
{
    bytes c = bytes_of(build_text(FRB_FAMILY.magic, std::string(600, 'x')));
    ASSERT_EQ(c.size(), 520u);
    expect_fields(c, {{4, 2, 40000}, {6, 2, 511}}, {{0, 4, "FRB"}, {8, 512, std::string(511, 'x')}});
    expect_fields(bytes_of(build_text(FRB_FAMILY.magic, "tag=FRBPWD")), {{6, 2, 10}});

    frb_report r{.id = "FRB000000004", .by_key = true, .cpurate = 37, .cpu = "x86 8c", .board = "b1",
                 .mem = "16G", .boot = 7200, .name = "shop\tfloor 2", .ver = "V1.2", .bdw = 900, .start = 1704067200,
                 .end = 2019600000, .bpsout = 5000000000ull, .bpsin = 7, .flow = 150, .diskio = "sda:r1w2",
                 .pused = "/:41%"};
    std::string t = frb_report_text(r);
    for (auto [key, want] : std::initializer_list<std::pair<const char*, const char*>>{
             {"key", "FRB000000004"}, {"cpurate", "37"}, {"cpu", "x86_8c"}, {"board", "b1"}, {"mem", "16G"},
             {"boot", "7200"}, {"name", "shop_floor_2"}, {"ver", "V1.2"}, {"bdw", "900"}, {"start", "1704067200"},
             {"end", "2019600000"}, {"bpsout", "5000000000"}, {"bpsin", "7"}, {"flow", "150"},
             {"diskio", "sda:r1w2"}, {"pused", "/:41%"}, {"license_id12", ""}})
        EXPECT_EQ(token_value(t, key), want) << key;
    EXPECT_EQ(std::count(t.begin(), t.end(), ' '), 15);  // sixteen words
    r.by_key = false;
    EXPECT_EQ(token_value(frb_report_text(r), "license_id12"), "FRB000000004");
    EXPECT_EQ(frb_pwd_text("FRB000000004", "ab cd"), "tag=FRBPWD licenseid=FRB000000004 verify=ab_cd");

    // Progress, success and failure reports of an upgrade.
    for (auto [fail, want] : std::initializer_list<std::pair<int, const char*>>{
             {-1, "tag=frb_upgrade license_id12=FRB000000004 taskid=12 log=downloading"},
             {0, "tag=frb_upgrade license_id12=FRB000000004 taskid=12 log=downloading new_ver=V2 fail=0"},
             {1, "tag=frb_upgrade license_id12=FRB000000004 taskid=12 log=downloading fail=1"}})
        EXPECT_EQ(frb_upgrade_text("FRB000000004", 12, "downloading", "V2", fail), want) << fail;

    // What the daemon sends: whole 520-byte texts only, orders decoded.
    bytes order = bytes_of(
        build_text(FRB_FAMILY.magic, "tag=frb_upgrade license_id12=FRB000000005 pktname=a.bin http_port=81 taskid=3"));
    incoming in = classify(order);
    ASSERT_EQ(in.kind, incoming::FAMILY_TEXT);
    EXPECT_EQ(in.id, "FRB000000005");
    upgrade_order u;
    ASSERT_TRUE(frb_order(in.text, u));
    EXPECT_EQ(std::tie(u.id, u.packet, u.task, u.port),
              std::make_tuple(std::string("FRB000000005"), std::string("a.bin"), 3L, 81L));
    EXPECT_FALSE(frb_order("mapping=1 webport=30001 sshport=30002", u));
    EXPECT_EQ(classify(bytes_of(build_text(FRB_FAMILY.magic, "mapping=1 webport=30001 sshport=30002"))).text,
              "mapping=1 webport=30001 sshport=30002");
    bytes cut(order.begin(), order.end() - 1), foreign = order, vtr = order;
    foreign[2] = 'X';
    vtr[0] = 'V', vtr[1] = 'T', vtr[2] = 'R';
    EXPECT_EQ(classify(cut).kind, incoming::OTHER);
    EXPECT_EQ(classify(foreign).kind, incoming::OTHER);
    EXPECT_EQ(classify(vtr).kind, incoming::COMMAND);

    // Log servers: their own magic both ways, "key" the only identifier.
    bytes map = bytes_of(build_text(LOG_FAMILY.magic, "mapping=1 webport=31000 sshport=31001"));
    expect_fields(map, {{4, 2, 40000}, {6, 2, 37}}, {{0, 4, "LOG"}});
    EXPECT_EQ(classify(map).kind, incoming::FAMILY_TEXT);
    r.by_key = false;
    EXPECT_EQ(LOG_FAMILY.report(r), "key=FRB000000004 name=shop_floor_2 ver=V1.2 boot=7200 start=1704067200 "
                                    "end=2019600000 bps=5000000000");
}

// The texts of the gateway roles, as the daemon's handlers split them.
TEST(Vtsim, GatewayRoleTexts)
{
    const std::string id = "SIM000000007";
    for (auto [got, want] : std::initializer_list<std::pair<std::string, std::string>>{
             {game_report_text(id, 7, 2),
              "tag=gamecloud_stat license_id12=SIM000000007 enable=1 startm=1704067200 endtm=2019600000 "
              "l2tp_state=up inbps=350k outbps=45k ipcnt=30 license_ipcnt=200 delay_cur=45 delay_min=20 "
              "delay_max=69 state=running waitime_left=0"},
             {tunnel_report_text(id, 7, 3, 0b010),
              "tag=sshmapport license_id12=SIM000000007 portinfo=10168:10.1.0.8:10169 portinfo=10172:10.3.0.8:10173"},
             {tunnel_report_text(id, 7, 2, 0b11), ""},
             {tunnel_closed_text(id, sim_tunnel(7, 1)), "tag=sshportkill license_id12=SIM000000007 bigport=10170 "
                                                       "minport=10171"},
             {table_report_text(TABLE_KINDS[0], id, table_info(TABLE_KINDS[0])),
              "tag=updateiptable license_id12=SIM000000007 iptable=iptable-default"},
             {table_report_text(TABLE_KINDS[1], id, table_info(TABLE_KINDS[1], "a b.list", "9")),
              "tag=urldnsgrpinfo license_id12=SIM000000007 urldnsgrp=a_b.list:9"},
             {push_answer_text(TABLE_KINDS[0], id, answer::OK), "tag=iptablestatus license_id12=SIM000000007 ret=0"},
             {push_answer_text(TABLE_KINDS[1], id, answer::NO),
              "tag=urldnsgrpstatus license_id12=SIM000000007 ret=-1 error=fetch_failed"},
             {usragp_group_text(id, 2), "tag=usragp_request license_id12=SIM000000007 cname=Group2 name=grp2"},
             {usrapp_text(id, 2), "tag=usrapp_request license_id12=SIM000000007 cname=UApp2 name=uapp2 nodettl=32 "
                                  "tports=80,8002 uports=53,9002"},
             {fetch_answer_text(id, answer::OK), "tag=usragp_log license_id12=SIM000000007 error=OK_installed"},
             {fetch_answer_text(id, answer::NO), "tag=usragp_log license_id12=SIM000000007 error=NO_fetch_failed"}})
        EXPECT_EQ(got, want);

    // Close requests name a tunnel by its ports; the daemon's cliip is not needed.
    for (auto [req, want] : std::initializer_list<std::pair<const char*, long>>{
             {"tag=sshportkill license_id12=SIM000000007 cliip=x bigport=10172 minport=10173", 2},
             {"tag=sshportkill license_id12=SIM000000007 bigport=10172 minport=10171", -1},
             {"tag=sshportkill license_id12=SIM000000007 bigport=10174 minport=10175", -1}})
        EXPECT_EQ(tunnel_of(req, 7, 3), want) << req;
    EXPECT_EQ(push_kind("urldnsgrpstatus"), &TABLE_KINDS[1]);
    EXPECT_EQ(push_kind("updateiptable"), nullptr);
    // The most tunnels with the longest addresses fit one text; the last
    // port pair stays below 65535.
    EXPECT_LE(tunnel_report_text(id, 62499, MAX_TUNNELS, 0).size(), sizeof(cldarg_t::argstr) - 1);
    EXPECT_EQ(tunnel_report_text(id, 62499, MAX_TUNNELS, 0).find(" portinfo=51976:10.1.249.250:51977 "), 40u);
    EXPECT_EQ(sim_tunnel(2249, 11).minport, 63999);
    EXPECT_EQ(sim_tunnel(2250, 0).bigport, 10000);

    for (auto [in, want] : std::initializer_list<std::pair<std::string, std::string>>{
             {"", ""}, {"f", "Zg=="}, {"fo", "Zm8="}, {"foo", "Zm9v"}, {"foobar", "Zm9vYmFy"}})
        EXPECT_EQ(base64(std::vector<uint8_t>(in.begin(), in.end())), want);
    // An ed25519 key line: the 51-byte blob is 68 characters of base64.
    std::string key = sim_pubkey(id);
    EXPECT_EQ(key.rfind("ssh-ed25519 AAAAC3NzaC1lZDI1NTE5AAAAI", 0), 0u);
    EXPECT_EQ(key.size(), 12 + 68 + 1 + 18u);
    EXPECT_EQ(key.substr(81), "vtsim@SIM000000007");
    EXPECT_NE(sim_pubkey("SIM000000008"), key);
    EXPECT_EQ(rsa_text(id), "RSA=" + key);
}

TEST(Vtsim, BackupFileNamesAndFailureFractions)
{
    std::tm t{};
    t.tm_year = 124, t.tm_mon = 0, t.tm_mday = 5, t.tm_hour = 7, t.tm_min = 8, t.tm_sec = 9;
    EXPECT_EQ(backup_conf_name("SIM000000001", t), "SIM000000001_20240105070809.conf");
    for (const char* good : {"SIM000000001.conf", "a", "..x", "x y'z"})
        EXPECT_TRUE(safe_file_name(good)) << good;
    for (const char* bad : {"", ".", "..", "../x", "a/b", "/etc/passwd", "a\nb"})
        EXPECT_FALSE(safe_file_name(bad)) << bad;
    EXPECT_FALSE(safe_file_name(std::string(256, 'a')));
    // The fraction holds at every prefix, not only on average, and the
    // picks are spread: at half or less never two in a row.
    for (double rate : {0.0, 0.1, 0.25, 1.0 / 3, 0.5, 0.999, 1.0}) {
        uint64_t picked = 0;
        bool last = false;
        for (uint64_t n = 0; n < 3000; n++) {
            bool p = pick(rate, n);
            ASSERT_FALSE(p && last && rate <= 0.5) << rate << " " << n;
            picked += p, last = p;
            ASSERT_LE(std::fabs(static_cast<double>(picked) - rate * static_cast<double>(n + 1)), 1.0) << rate << " " << n;
        }
    }
    EXPECT_FALSE(pick(0.25, 0) || pick(0.25, 1) || pick(0.25, 2));
    EXPECT_TRUE(pick(0.25, 3));
}

// When each stream's datagram Q is due, and how the streams interleave.
TEST(Vtsim, PacingOfTheStreams)
{
    struct {
        const char* what;
        pacer p;
        std::vector<double> due;
    } cases[] = {
        {"each gateway every 10 s, a round 1 ms apart", make_pacer(4, -1, 10, 0), {0, 0.001, 0.002, 0.003, 10, 10.001}},
        {"a round spread over the whole interval", make_pacer(4, -1, 10, 0, true), {0, 2.5, 5, 7.5, 10, 12.5}},
        {"many gateways: closer than 1 ms", make_pacer(20000, -1, 10, 0), {0, 0.0005, 0.001}},
        {"a rate in total", make_pacer(4, 100, 10, 0), {0, 0.01, 0.02, 0.03, 0.04, 0.05}},
        {"unpaced", make_pacer(4, 0, 10, 0), {0, 0, 0, 0, 0}},
    };
    for (const auto& c : cases)
        for (size_t q = 0; q < c.due.size(); q++)
            EXPECT_NEAR(c.p.due(q), c.due[q], 1e-9) << c.what << " q=" << q;
    pacer r = make_pacer(3, -1, 1, 2);
    r.seq = 5;
    EXPECT_FALSE(r.done());
    r.seq = 6;
    EXPECT_TRUE(r.done());  // two rounds of three

    // Take the earliest datagram, move its stream on; -1 once all are done.
    auto take = [](streams_t& st) {
        int k = earliest(st);
        if (k >= 0)
            st[k].seq++;
        return k;
    };
    streams_t st{make_pacer(2, -1, 10, 1), pacer{}, make_pacer(2, -1, 4, 2, true)};  // pings off
    std::vector<int> order;
    for (int k; (k = take(st)) >= 0;)
        order.push_back(k);
    // Reports at 0 and 0.001, announcements at 0, 2, 4, 6: a tie goes to
    // the first stream.
    EXPECT_EQ(order, (std::vector<int>{S_STATUS, S_ANNOUNCE, S_STATUS, S_ANNOUNCE, S_ANNOUNCE, S_ANNOUNCE}));
    // Unpaced streams take turns, the one that sent fewer first.
    st = {make_pacer(2, 0, 1, 2), make_pacer(2, 0, 1, 1), make_pacer(2, 0, 1, 1)};
    order.clear();
    for (int k; (k = take(st)) >= 0;)
        order.push_back(k);
    EXPECT_EQ(order,
              (std::vector<int>{S_STATUS, S_PING, S_ANNOUNCE, S_STATUS, S_PING, S_ANNOUNCE, S_STATUS, S_STATUS}));
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
