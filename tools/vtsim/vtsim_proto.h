// vtsim datagram helpers: builders for what a simulated gateway sends on
// the device, backup and upgrade sockets and for the text datagrams of
// cache appliances and log servers, the pacing of the streams, decoding of
// what the daemon sends back, identifier and name formatting, the kernel's per-socket drop counter, and
// the fixed set of malformed datagrams. Header-only so that the unit tests
// can use it without linking the simulator.
#pragma once

#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <string_view>
#include <vector>

#include "backup.h"
#include "cloud.h"
#include "upgrade.h"

static_assert(std::endian::native == std::endian::little,
              "the appliance protocol carries integers in little-endian order");

namespace vtsim {

constexpr size_t IDENT_LEN = 12;
constexpr size_t MAX_UDP_PAYLOAD = 65507;

// Copies SRC into a field of SIZE bytes that is already zeroed, cut so that
// a NUL always remains inside the field.
inline void put_str(char* dst, size_t size, std::string_view src)
{
    if (size == 0)
        return;
    size_t n = src.size() < size - 1 ? src.size() : size - 1;
    std::memcpy(dst, src.data(), n);
    dst[n] = '\0';
}

// Reads a text field of SIZE bytes that may lack its NUL.
inline std::string get_str(const char* src, size_t size)
{
    return std::string(src, strnlen(src, size));
}

inline void put_magic(char* tag)
{
    std::memcpy(tag, "VTR", 4);  // byte 3 is 0
}

// Dotted IPv4 text inside 127.0.0.0/8; anything else (names included) is
// refused so that the simulator can only ever talk to this machine.
inline bool host_is_loopback(const char* text, in_addr* out)
{
    in_addr a{};
    if (text == nullptr || inet_pton(AF_INET, text, &a) != 1)
        return false;
    if ((ntohl(a.s_addr) >> 24) != 127)
        return false;
    if (out != nullptr)
        *out = a;
    return true;
}

// PREFIX followed by INDEX zero-padded to exactly 12 characters; empty when
// the index does not fit in the digits left over.
inline std::string make_ident(std::string_view prefix, long index)
{
    if (index < 0 || prefix.size() >= IDENT_LEN)
        return {};
    int digits = static_cast<int>(IDENT_LEN - prefix.size());
    char num[32];
    int n = std::snprintf(num, sizeof(num), "%0*ld", digits, index);
    if (n != digits)
        return {};
    return std::string(prefix) + num;
}

// The index of an identifier made by make_ident with PREFIX, or -1.
inline long ident_index(std::string_view id, std::string_view prefix)
{
    if (id.size() != IDENT_LEN || prefix.size() >= IDENT_LEN || id.substr(0, prefix.size()) != prefix)
        return -1;
    long v = 0;
    for (char c : id.substr(prefix.size())) {
        if (c < '0' || c > '9')
            return -1;
        v = v * 10 + (c - '0');
    }
    return v;
}

// A prefix must leave room for a digit and must not break the key=value
// text in which the daemon names the gateway.
inline bool prefix_ok(std::string_view prefix)
{
    if (prefix.size() >= IDENT_LEN)
        return false;
    for (unsigned char c : prefix)
        if (c <= ' ' || c >= 0x7f || c == '=')
            return false;
    return true;
}

// Name templates: every "%d" becomes the index, "%%" a single '%'; any other
// '%' stays as it is. No printf, so a template can never read arguments.
inline std::string expand_name(std::string_view tmpl, long index)
{
    std::string out;
    for (size_t i = 0; i < tmpl.size(); i++) {
        if (tmpl[i] == '%' && i + 1 < tmpl.size() && tmpl[i + 1] == 'd') {
            out += std::to_string(index);
            i++;
        } else if (tmpl[i] == '%' && i + 1 < tmpl.size() && tmpl[i + 1] == '%') {
            out += '%';
            i++;
        } else {
            out += tmpl[i];
        }
    }
    return out;
}

// A stable 32-hex-digit stand-in for the key digest: two FNV-1a passes with
// different offsets. Only determinism matters here.
inline std::string fake_md5(std::string_view id)
{
    auto fnv = [&](uint64_t h) {
        for (unsigned char c : id) {
            h ^= c;
            h *= 0x100000001b3ull;
        }
        return h;
    };
    char out[33];
    std::snprintf(out, sizeof(out), "%016llx%016llx", static_cast<unsigned long long>(fnv(0xcbf29ce484222325ull)),
                  static_cast<unsigned long long>(fnv(0x84222325cbf29ce4ull)));
    return out;
}

struct status_params {
    std::string id;
    uint16_t type = VTR_STATUS;
    uint16_t devid = 0;
    uint32_t time = 0;
    uint32_t sys_run = 0;
    uint32_t ipaddr = 0;
    uint32_t license_start = 0;
    uint32_t license_end = 0;
    uint32_t current_users = 0;
    std::string license_id83;
    std::string version;
    std::string sys_name;
    uint64_t upbps = 0;
    uint64_t downbps = 0;
    uint32_t flowcont = 0;
    uint32_t max_flowcont = 0;
    uint32_t max_ipcnt = 0;
    uint16_t grpid = GRP_NONE;
    uint16_t temp = 0;
    std::string grpname;
};

inline devinfo_recv_bps_t build_status(const status_params& p)
{
    devinfo_recv_bps_t d;
    std::memset(&d, 0, sizeof(d));
    put_magic(d.tag);
    d.type = p.type;
    d.devid = p.devid;
    d.time = p.time;
    d.sys_run = p.sys_run;
    d.ipaddr = p.ipaddr;
    d.license_start = p.license_start;
    d.license_end = p.license_end;
    d.current_users = p.current_users;
    put_str(d.license_id12, sizeof(d.license_id12), p.id);
    put_str(d.license_id83, sizeof(d.license_id83), p.license_id83);
    put_str(d.version, sizeof(d.version), p.version);
    put_str(d.sys_name, sizeof(d.sys_name), p.sys_name);
    d.upbps = p.upbps;
    d.downbps = p.downbps;
    d.flowcont = p.flowcont;
    d.max_flowcont = p.max_flowcont;
    d.max_ipcnt = p.max_ipcnt;
    d.grpid = p.grpid;
    d.temp = p.temp;
    put_str(d.grpname, sizeof(d.grpname), p.grpname);
    return d;
}

inline cloud_bdmapsetlnglat_t build_lnglat(std::string_view id, double lng, double lat)
{
    cloud_bdmapsetlnglat_t d;
    std::memset(&d, 0, sizeof(d));
    put_magic(d.tag);
    d.type = VTR_LNGLAT;
    put_str(d.licenseid12, sizeof(d.licenseid12), id);
    d.longitude = lng;
    d.latitude = lat;
    return d;
}

inline cloud_vtkey_t build_vtkey(std::string_view id, std::string_view md5)
{
    cloud_vtkey_t d;
    std::memset(&d, 0, sizeof(d));
    put_magic(d.tag);
    d.type = VTR_VTKEY;
    put_str(d.license_id12, sizeof(d.license_id12), id);
    // The digest fills the whole field; the daemon bounds it by the field.
    std::memcpy(d.md5str, md5.data(), md5.size() < sizeof(d.md5str) ? md5.size() : sizeof(d.md5str));
    return d;
}

// A full 520-byte command or command-result datagram, as the daemon sends
// its own.
inline cldarg_t build_cmdarg(std::string_view text)
{
    cldarg_t d;
    std::memset(&d, 0, sizeof(d));
    put_magic(d.tag);
    d.type = VTR_CMDARG;
    d.arglen = sizeof(cldarg_t);
    put_str(d.argstr, sizeof(d.argstr), text);
    return d;
}

inline _mapping_port_t build_mapping(std::string_view id, uint16_t web, uint16_t ssh, uint8_t webenable,
                                     uint8_t sshenable, uint16_t hostport, std::string_view maphost)
{
    _mapping_port_t d;
    std::memset(&d, 0, sizeof(d));
    put_magic(d.tag);
    d.type = VTR_MAPPING;
    d.webport = web;
    d.sshport = ssh;
    d.webenable = webenable;
    d.sshenable = sshenable;
    d.hostport = hostport;
    put_str(d.licenseid12, sizeof(d.licenseid12), id);
    put_str(d.maphost, sizeof(d.maphost), maphost);
    return d;
}

// ---------------------------------------------------------------------------
// Backup socket: pings, backup results, package-upgrade answers, the
// application inventory and echoes.
// ---------------------------------------------------------------------------

// A ping of the backup socket; with TYPE 10010, an announcement on the
// upgrade socket (the same layout).
inline cloud_ping_t build_ping(std::string_view id, uint16_t type = VTR_PING)
{
    cloud_ping_t d;
    std::memset(&d, 0, sizeof(d));
    put_magic(d.tag);
    d.type = type;
    put_str(d.license_id12, sizeof(d.license_id12), id);
    return d;
}

// TYPE 10017 (ERRORS: the decimal time of the backup), 10020 (FILENAME: the
// file written) or 10018/10019 (ERRORS: the failure text).
inline cloud_backup_log_t build_backup_log(uint16_t type, std::string_view id, std::string_view filename,
                                           std::string_view errors)
{
    cloud_backup_log_t d;
    std::memset(&d, 0, sizeof(d));
    put_magic(d.tag);
    d.type = type;
    put_str(d.license_id12, sizeof(d.license_id12), id);
    put_str(d.filename, sizeof(d.filename), filename);
    put_str(d.errors, sizeof(d.errors), errors);
    return d;
}

// The acknowledgement of a package-upgrade order: the order's own layout
// and type, with the appliance's identifier.
inline cloud_appupgradeinfo_t build_appup_ack(std::string_view id, std::string_view packet_name)
{
    cloud_appupgradeinfo_t d;
    std::memset(&d, 0, sizeof(d));
    put_magic(d.tag);
    d.type = VTR_APPUPGRADE;
    put_str(d.license_id12, sizeof(d.license_id12), id);
    put_str(d.packet_name, sizeof(d.packet_name), packet_name);
    return d;
}

// ERRORS is "<word> <result> <detail>": result succ, fail or a progress word.
inline cloud_appup_log_t build_appup_log(std::string_view id, std::string_view errors)
{
    cloud_appup_log_t d;
    std::memset(&d, 0, sizeof(d));
    put_magic(d.tag);
    d.type = VTR_APPUP_LOG;
    put_str(d.license_id12, sizeof(d.license_id12), id);
    put_str(d.errors, sizeof(d.errors), errors);
    return d;
}

// Application K of a simulated gateway.
struct app_desc {
    std::string name, cname, version, status;
};

inline app_desc sim_app(long k)
{
    std::string n = std::to_string(k);
    return {"app" + n, "App" + n, "1." + n, "running"};
}

inline cloud_appinfo_t build_appinfo(std::string_view id, const app_desc& a)
{
    cloud_appinfo_t d;
    std::memset(&d, 0, sizeof(d));
    put_magic(d.tag);
    d.type = VTR_APPINFO;
    put_str(d.license_id12, sizeof(d.license_id12), id);
    put_str(d.app_name, sizeof(d.app_name), a.name);
    put_str(d.app_cname, sizeof(d.app_cname), a.cname);
    put_str(d.app_version, sizeof(d.app_version), a.version);
    put_str(d.app_status, sizeof(d.app_status), a.status);
    return d;
}

// The same report as a text message (type 40000); TAG is "appinfo", or
// "appstartlog" for the log of a start.
inline std::string appinfo_text(std::string_view tag, std::string_view id, const app_desc& a)
{
    return "tag=" + std::string(tag) + " license_id12=" + std::string(id) + " name=" + a.name + " cname=" + a.cname +
           " version=" + a.version + " status=" + a.status;
}

// The identifier of a datagram with the ping's head, at least that long.
inline std::string ping_id(const void* buf)
{
    cloud_ping_t h;
    std::memcpy(&h, buf, sizeof(h));
    return get_str(h.license_id12, sizeof(h.license_id12));
}

// Echo SERIAL of gateway ID: the ping's head with type 1009, the serial,
// then a pattern that runs through every byte value (NULs included), for a
// length between 29 and 1023 bytes (the daemon reads at most 1023).
constexpr size_t ECHO_MAX = 1023;

inline std::vector<uint8_t> build_echo(std::string_view id, uint32_t serial)
{
    cloud_ping_t h = build_ping(id);
    h.type = VTR_ECHO;
    size_t len = sizeof(h) + sizeof(serial) + 1 + (static_cast<size_t>(serial) * 61) % (ECHO_MAX - sizeof(h) - 4);
    std::vector<uint8_t> v(len);
    std::memcpy(v.data(), &h, sizeof(h));
    std::memcpy(v.data() + sizeof(h), &serial, sizeof(serial));
    uint32_t seed = serial * 131;  // the identifier is in the pattern too: an altered one shows
    for (unsigned char c : id)
        seed = (seed ^ c) * 16777619u;
    for (size_t i = sizeof(h) + sizeof(serial); i < len; i++)
        v[i] = static_cast<uint8_t>(seed + i * 7);
    return v;
}

// True when BUF is, byte for byte, an echo that build_echo makes.
inline bool echo_intact(const void* buf, size_t len)
{
    if (len < sizeof(cloud_ping_t) + sizeof(uint32_t) || len > ECHO_MAX)
        return false;
    const auto* p = static_cast<const uint8_t*>(buf);
    uint32_t serial;
    std::memcpy(&serial, p + sizeof(cloud_ping_t), sizeof(serial));
    std::vector<uint8_t> want = build_echo(ping_id(p), serial);
    return want.size() == len && std::memcmp(want.data(), p, len) == 0;
}

// "<id>_YYYYmmddHHMMSS.conf", the name under which a backup of local time
// T is looked for.
inline std::string backup_conf_name(std::string_view id, const std::tm& t)
{
    char stamp[80];
    std::snprintf(stamp, sizeof(stamp), "_%04d%02d%02d%02d%02d%02d.conf", t.tm_year + 1900, t.tm_mon + 1, t.tm_mday,
                  t.tm_hour, t.tm_min, t.tm_sec);
    return std::string(id) + stamp;
}

// A file name from the daemon is written only as one plain component of
// the backup directory.
inline bool safe_file_name(std::string_view name)
{
    if (name.empty() || name == "." || name == ".." || name.size() > 255)
        return false;
    for (unsigned char c : name)
        if (c == '/' || c < 0x20 || c == 0x7f)
            return false;
    return true;
}

// Whether event N (from 0) of a stream is one of the fraction RATE: exactly
// floor(RATE * M) of the first M events are, spread evenly.
inline bool pick(double rate, uint64_t n)
{
    if (!(rate > 0))
        return false;
    uint64_t ppm = rate >= 1 ? 1000000 : static_cast<uint64_t>(rate * 1e6 + 0.5);
    return (n + 1) * ppm / 1000000 > n * ppm / 1000000;
}

// ---------------------------------------------------------------------------
// Pacing of the streams a simulator sends: status reports, pings and
// announcements.
// ---------------------------------------------------------------------------

// One paced stream of datagrams, one per gateway and round: the status
// reports, the pings of the backup role or the announcements of the
// upgrade role.
struct pacer {
    uint64_t n = 1;           // gateways
    double round_period = 0;  // seconds between round starts
    double spacing = 0;       // seconds between datagrams inside a round
    bool unpaced = false;
    uint64_t limit = 0;  // datagrams in all; 0: the stream is off
    uint64_t seq = 0;    // the next one to send

    bool done() const { return seq >= limit; }

    // When datagram Q (round Q/n, gateway Q%n) is due.
    double due(uint64_t q) const
    {
        if (unpaced)
            return 0;
        return static_cast<double>(q / n) * round_period + static_cast<double>(q % n) * spacing;
    }
};

// RATE per second in total (0: unpaced), or below 0 each gateway every
// INTERVAL seconds, a round spread evenly at most 1 ms apart (with WHOLE,
// evenly over the whole interval); ROUNDS rounds (0: no limit).
inline pacer make_pacer(uint64_t n, double rate, double interval, long rounds, bool whole = false)
{
    pacer p;
    p.n = n;
    double dn = static_cast<double>(n);
    if (rate > 0) {
        p.spacing = 1.0 / rate;
        p.round_period = dn / rate;
    } else if (rate == 0) {
        p.unpaced = true;
    } else {
        p.round_period = interval;
        p.spacing = whole ? interval / dn : std::min(interval / dn, 0.001);
    }
    p.limit = rounds > 0 ? static_cast<uint64_t>(rounds) * n : UINT64_MAX;
    return p;
}

enum stream_t { S_STATUS, S_PING, S_ANNOUNCE, N_STREAMS };
using streams_t = std::array<pacer, N_STREAMS>;

// The stream whose next datagram is due first, or -1 when all are done; on
// a tie (unpaced streams) the one that sent fewer, then the first.
inline int earliest(const streams_t& st)
{
    int best = -1;
    for (int i = 0; i < N_STREAMS; i++) {
        const pacer& p = st[i];
        if (p.done())
            continue;
        if (best < 0) {
            best = i;
            continue;
        }
        const pacer& b = st[best];
        double dp = p.due(p.seq), db = b.due(b.seq);
        if (dp < db || (dp == db && p.seq < b.seq))
            best = i;
    }
    return best;
}

// What came back from the daemon.
struct incoming {
    enum kind_t {
        COMMAND, MAPPING, BACKUP_ORDER, APPUP_ORDER, ECHO, UPGRADE_ORDER, ACK, FAMILY_TEXT, OTHER
    } kind = OTHER;
    uint16_t type = 0;
    std::string text;     // COMMAND, FAMILY_TEXT: argstr up to its NUL or the field's end
    std::string id;       // COMMAND, FAMILY_TEXT: license_id12= (or licid12=); others: the field
    _mapping_port_t map;  // MAPPING only
    cloud_backupinfo_t backup;       // BACKUP_ORDER only
    cloud_appupgradeinfo_t appup;    // APPUP_ORDER only
    cloud_upgradeinfo_t upgrade;     // UPGRADE_ORDER only
};

// The value of the first space-separated token KEY=value in TEXT, or empty.
inline std::string token_value(std::string_view text, std::string_view key)
{
    size_t pos = 0;
    while (pos < text.size()) {
        while (pos < text.size() && text[pos] == ' ')
            pos++;
        size_t end = text.find(' ', pos);
        if (end == std::string_view::npos)
            end = text.size();
        std::string_view tok = text.substr(pos, end - pos);
        if (tok.size() > key.size() && tok.substr(0, key.size()) == key && tok[key.size()] == '=')
            return std::string(tok.substr(key.size() + 1));
        pos = end;
    }
    return {};
}

// ---------------------------------------------------------------------------
// Upgrade socket: the reports of a firmware upgrade (10012 progress, 10013
// success with the version now running, 10014 failure).
// ---------------------------------------------------------------------------

inline cloud_upgrade_log_t build_upgrade_log(uint16_t type, uint16_t task_id, std::string_view id,
                                             std::string_view last_ver, std::string_view errors)
{
    cloud_upgrade_log_t d;
    std::memset(&d, 0, sizeof(d));
    put_magic(d.tag);
    d.type = type;
    d.task_id = task_id;
    put_str(d.license_id12, sizeof(d.license_id12), id);
    put_str(d.last_ver, sizeof(d.last_ver), last_ver);
    put_str(d.errors, sizeof(d.errors), errors);
    return d;
}

// ---------------------------------------------------------------------------
// Cache appliances ("FRB") and log servers ("LOG"): every message is text in
// the command datagram's frame under the family's magic (type 40000, the
// text's length at offset 6), sent whole (520 bytes) as the daemon sends its
// own. The daemon splits the text on blanks into key=value words.
// ---------------------------------------------------------------------------

inline cldarg_t build_text(const char* magic, std::string_view text)
{
    cldarg_t d;
    std::memset(&d, 0, sizeof(d));
    std::memcpy(d.tag, magic, 3);
    d.type = VTR_CMDARG;
    put_str(d.argstr, sizeof(d.argstr), text);
    d.arglen = static_cast<uint16_t>(std::strlen(d.argstr));
    return d;
}

// A value as one word: a blank or a control byte would end it early, so
// each becomes '_'; an empty value stays empty.
inline std::string text_word(std::string_view v)
{
    std::string out(v);
    for (char& c : out)
        if (static_cast<unsigned char>(c) <= ' ' || c == 0x7f)
            c = '_';
    return out;
}

// One status report of a cache appliance, every key the daemon stores; a
// log server reports a few of them.
struct frb_report {
    std::string id;
    bool by_key = false;  // name the appliance with key= instead of license_id12=
    unsigned cpurate = 0;
    std::string cpu, board, mem;
    uint32_t boot = 0;
    std::string name, ver;
    unsigned bdw = 0;
    uint32_t start = 0, end = 0;
    uint64_t bpsout = 0, bpsin = 0;
    uint32_t flow = 0;
    std::string diskio, pused;
};

inline std::string frb_report_text(const frb_report& r)
{
    auto kv = [](const char* k, const std::string& v) { return std::string(" ") + k + "=" + text_word(v); };
    auto kn = [](const char* k, uint64_t v) { return std::string(" ") + k + "=" + std::to_string(v); };
    std::string t = (r.by_key ? "key=" : "license_id12=") + text_word(r.id);
    t += kn("cpurate", r.cpurate) + kv("cpu", r.cpu) + kv("board", r.board) + kv("mem", r.mem) + kn("boot", r.boot) +
         kv("name", r.name) + kv("ver", r.ver) + kn("bdw", r.bdw) + kn("start", r.start) + kn("end", r.end) +
         kn("bpsout", r.bpsout) + kn("bpsin", r.bpsin) + kn("flow", r.flow) + kv("diskio", r.diskio) +
         kv("pused", r.pused);
    return t;
}

// A log server's report: "key" is the only word that names one, and its
// throughput is one figure.
inline std::string log_report_text(const frb_report& r)
{
    return "key=" + text_word(r.id) + " name=" + text_word(r.name) + " ver=" + text_word(r.ver) +
           " boot=" + std::to_string(r.boot) + " start=" + std::to_string(r.start) + " end=" + std::to_string(r.end) +
           " bps=" + std::to_string(r.bpsout);
}

// What differs between the text families the simulator plays.
struct text_family {
    const char* magic;  // also the default identifier prefix
    const char* label;  // in printed lines and counter names
    const char* name;   // default name template
    std::string (*report)(const frb_report&);
    bool hands_pwd;     // verification string after the first report (tag=FRBPWD)
    bool takes_orders;  // upgrade orders (tag=frb_upgrade)
};

inline constexpr text_family FRB_FAMILY{"FRB", "frb", "sim-frb-%d", frb_report_text, true, true};
inline constexpr text_family LOG_FAMILY{"LOG", "log", "sim-log-%d", log_report_text, false, false};

// The verification string an appliance hands over once.
inline std::string frb_pwd_text(std::string_view id, std::string_view verify)
{
    return "tag=FRBPWD licenseid=" + text_word(id) + " verify=" + text_word(verify);
}

// An upgrade report: FAIL below 0 is progress (no fail= word), 0 success
// (with new_ver=), 1 failure.
inline std::string frb_upgrade_text(std::string_view id, long taskid, std::string_view log, std::string_view new_ver,
                                    int fail)
{
    std::string t = "tag=frb_upgrade license_id12=" + text_word(id) + " taskid=" + std::to_string(taskid) +
                    " log=" + text_word(log);
    if (fail == 0)
        t += " new_ver=" + text_word(new_ver);
    if (fail >= 0)
        t += " fail=" + std::to_string(fail);
    return t;
}

// An upgrade order, whichever socket it came by.
struct upgrade_order {
    std::string id, packet;
    long task = 0;
    long port = 0;
};

// The order in a cache appliance's text ("tag=frb_upgrade license_id12=
// pktname= http_port= taskid="); false for any other text.
inline bool frb_order(std::string_view text, upgrade_order& out)
{
    auto num = [&](std::string_view key) { return std::strtol(token_value(text, key).c_str(), nullptr, 10); };
    if (token_value(text, "tag") != "frb_upgrade")
        return false;
    out.id = token_value(text, "license_id12");
    out.packet = token_value(text, "pktname");
    out.port = num("http_port");
    out.task = num("taskid");
    return true;
}

inline upgrade_order gw_order(const cloud_upgradeinfo_t& o)
{
    return {get_str(o.license_id12, sizeof(o.license_id12)), get_str(o.packet_name, sizeof(o.packet_name)),
            o.task_id, o.ngnix_port};
}

// Only datagrams of exactly the sizes the daemon sends are decoded: "VTR"
// records (an echo: any length that holds the ping's head), the 2-byte
// "ok" of the upgrade socket and the 520-byte "FRB" and "LOG" texts;
// everything else is OTHER, with its type when the header is complete.
inline incoming classify(const void* buf, size_t len)
{
    incoming in;
    std::memset(&in.map, 0, sizeof(in.map));
    std::memset(&in.backup, 0, sizeof(in.backup));
    std::memset(&in.appup, 0, sizeof(in.appup));
    std::memset(&in.upgrade, 0, sizeof(in.upgrade));
    const auto* p = static_cast<const unsigned char*>(buf);
    if (len >= sizeof(cloud_hdr_t)) {
        cloud_hdr_t h;
        std::memcpy(&h, p, sizeof(h));
        in.type = h.type;
    }
    if (len == 2 && std::memcmp(p, "ok", 2) == 0) {
        in.kind = incoming::ACK;
        return in;
    }
    if (len == sizeof(cldarg_t) && in.type == VTR_CMDARG &&
        (std::memcmp(p, FRB_FAMILY.magic, 3) == 0 || std::memcmp(p, LOG_FAMILY.magic, 3) == 0)) {
        cldarg_t c;
        std::memcpy(&c, p, sizeof(c));
        in.kind = incoming::FAMILY_TEXT;
        in.text = get_str(c.argstr, sizeof(c.argstr));
        in.id = token_value(in.text, "license_id12");
        return in;
    }
    if (len < 3 || std::memcmp(p, "VTR", 3) != 0)
        return in;
    if (len == sizeof(cldarg_t) && in.type == VTR_CMDARG) {
        cldarg_t c;
        std::memcpy(&c, p, sizeof(c));
        in.kind = incoming::COMMAND;
        in.text = get_str(c.argstr, sizeof(c.argstr));
        in.id = token_value(in.text, "license_id12");
        if (in.id.empty())
            in.id = token_value(in.text, "licid12");
    } else if (len == sizeof(_mapping_port_t) && in.type == VTR_MAPPING) {
        std::memcpy(&in.map, p, sizeof(in.map));
        in.kind = incoming::MAPPING;
        in.id = get_str(in.map.licenseid12, sizeof(in.map.licenseid12));
    } else if (len == sizeof(cloud_backupinfo_t) && in.type == VTR_BACKUPINFO) {
        std::memcpy(&in.backup, p, sizeof(in.backup));
        in.kind = incoming::BACKUP_ORDER;
        in.id = get_str(in.backup.license_id12, sizeof(in.backup.license_id12));
    } else if (len == sizeof(cloud_appupgradeinfo_t) && in.type == VTR_APPUPGRADE) {
        std::memcpy(&in.appup, p, sizeof(in.appup));
        in.kind = incoming::APPUP_ORDER;
        in.id = get_str(in.appup.license_id12, sizeof(in.appup.license_id12));
    } else if (len == sizeof(cloud_upgradeinfo_t) && in.type == VTR_UP_ORDER) {
        std::memcpy(&in.upgrade, p, sizeof(in.upgrade));
        in.kind = incoming::UPGRADE_ORDER;
        in.id = get_str(in.upgrade.license_id12, sizeof(in.upgrade.license_id12));
    } else if (len >= sizeof(cloud_ping_t) && in.type == VTR_ECHO) {
        in.kind = incoming::ECHO;
        in.id = ping_id(p);
    }
    return in;
}

// Text from the wire made safe for one output line: bytes outside printable
// ASCII become \xNN, a backslash becomes two.
inline std::string printable(std::string_view s)
{
    std::string out;
    for (unsigned char c : s) {
        if (c == '\\') {
            out += "\\\\";
        } else if (c >= 0x20 && c < 0x7f) {
            out += static_cast<char>(c);
        } else {
            char b[5];
            std::snprintf(b, sizeof(b), "\\x%02x", c);
            out += b;
        }
    }
    return out;
}

inline std::string format_mapping(const _mapping_port_t& m)
{
    return "mapping web=" + std::to_string(m.webport) + " ssh=" + std::to_string(m.sshport) +
           " webenable=" + std::to_string(m.webenable) + " sshenable=" + std::to_string(m.sshenable) +
           " hostport=" + std::to_string(m.hostport) + " maphost=" + printable(get_str(m.maphost, sizeof(m.maphost)));
}

// Sum of the "drops" column (the last field) over the lines of a
// /proc/net/udp or udp6 text whose local port is PORT; -1 when no line has
// that port. Several sockets may share a port (SO_REUSEPORT), hence the sum.
inline long long udp_drops(std::string_view proc, int port)
{
    long long total = -1;
    size_t pos = 0;
    bool header = true;
    while (pos < proc.size()) {
        size_t end = proc.find('\n', pos);
        if (end == std::string_view::npos)
            end = proc.size();
        std::string_view line = proc.substr(pos, end - pos);
        pos = end + 1;
        if (header) {  // column titles
            header = false;
            continue;
        }
        // Fields: sl local_address rem_address ... drops
        std::vector<std::string_view> f;
        size_t i = 0;
        while (i < line.size()) {
            while (i < line.size() && (line[i] == ' ' || line[i] == '\t'))
                i++;
            size_t j = i;
            while (j < line.size() && line[j] != ' ' && line[j] != '\t')
                j++;
            if (j > i)
                f.push_back(line.substr(i, j - i));
            i = j;
        }
        if (f.size() < 3)
            continue;
        size_t colon = f[1].rfind(':');
        if (colon == std::string_view::npos)
            continue;
        std::string hexport(f[1].substr(colon + 1));
        char* e = nullptr;
        long lp = std::strtol(hexport.c_str(), &e, 16);
        if (e == hexport.c_str() || *e != '\0' || lp != port)
            continue;
        std::string last(f.back());
        long long d = std::strtoll(last.c_str(), &e, 10);
        if (e == last.c_str() || *e != '\0')
            continue;
        total = (total < 0 ? 0 : total) + d;
    }
    return total;
}

// Hex text to bytes; blanks, ':' and '-' between pairs are allowed, an
// optional leading "0x" too. False on an odd digit count or a foreign
// character.
inline bool parse_hex(std::string_view s, std::vector<uint8_t>& out)
{
    out.clear();
    if (s.size() >= 2 && s[0] == '0' && (s[1] == 'x' || s[1] == 'X'))
        s.remove_prefix(2);
    int hi = -1;
    for (char c : s) {
        int v;
        if (c >= '0' && c <= '9')
            v = c - '0';
        else if (c >= 'a' && c <= 'f')
            v = c - 'a' + 10;
        else if (c >= 'A' && c <= 'F')
            v = c - 'A' + 10;
        else if ((c == ' ' || c == ':' || c == '-' || c == '\t' || c == '\n') && hi < 0)
            continue;
        else
            return false;
        if (hi < 0) {
            hi = v;
        } else {
            out.push_back(static_cast<uint8_t>(hi << 4 | v));
            hi = -1;
        }
    }
    return hi < 0;
}

// ---------------------------------------------------------------------------
// The fixed set of malformed or hostile datagrams. Identifiers used here all
// begin with "BAD" so that a test can find what, if anything, they created.
// ---------------------------------------------------------------------------

struct bad_dgram {
    std::string label;
    std::vector<uint8_t> bytes;
};

template <typename T>
inline std::vector<uint8_t> bytes_of(const T& rec, size_t len = sizeof(T))
{
    std::vector<uint8_t> v(len, 0);
    std::memcpy(v.data(), &rec, len < sizeof(T) ? len : sizeof(T));
    return v;
}

inline std::vector<uint8_t> header_only(const char* magic, uint16_t type, size_t len)
{
    cloud_hdr_t h;
    std::memset(&h, 0, sizeof(h));
    std::memcpy(h.tag, magic, 3);
    h.type = type;
    return bytes_of(h, len);
}

// LEN bytes with no NUL anywhere: magic "VTR" + 'A', TYPE, and 'A' elsewhere.
inline std::vector<uint8_t> no_nul(uint16_t type, size_t len)
{
    std::vector<uint8_t> v(len, 'A');
    std::memcpy(v.data(), "VTR", 3);
    v[4] = static_cast<uint8_t>(type & 0xff);
    v[5] = static_cast<uint8_t>(type >> 8);
    return v;
}

inline status_params bad_status(const std::string& id)
{
    status_params p;
    p.id = id;
    p.type = VTR_STATUS;
    p.license_start = 1704067200;
    p.license_end = 2019600000;
    p.version = "V1.0.0";
    p.sys_name = "bad-" + id;
    return p;
}

inline std::vector<bad_dgram> bad_datagrams()
{
    std::vector<bad_dgram> v;
    auto add = [&](std::string label, std::vector<uint8_t> b) { v.push_back({std::move(label), std::move(b)}); };
    auto cmd = [&](std::string label, std::string_view text) { add(std::move(label), bytes_of(build_cmdarg(text))); };

    // Too short.
    add("empty datagram", {});
    add("magic only", {'V', 'T', 'R'});
    add("header cut after type 10012", header_only("VTR", VTR_STATUS, 6));
    add("status header only (8 bytes)", header_only("VTR", VTR_STATUS, 8));
    add("status cut inside license_id12", bytes_of(build_status(bad_status("BADCUT000001")), 40));
    add("coordinates header only", header_only("VTR", VTR_LNGLAT, 8));
    add("key report header only", header_only("VTR", VTR_VTKEY, 8));
    add("command header only", header_only("VTR", VTR_CMDARG, 8));

    // Identifiers.
    {
        devinfo_recv_bps_t d = build_status(bad_status("BADLONG00001"));
        std::memcpy(d.license_id12, "BADLONG000001", 13);  // 13 characters, NUL at byte 13
        add("status with 13-character identifier", bytes_of(d));
        std::memcpy(d.license_id12, "BADLONGLONG00001", 16);  // no NUL in the field at all
        add("status with 16-character identifier", bytes_of(d));
    }
    add("status with empty identifier", bytes_of(build_status(bad_status(""))));

    // Unknown types and magics.
    for (uint16_t t : {uint16_t(0), uint16_t(9999), uint16_t(65535)}) {
        status_params p = bad_status("BADTYPE00001");
        p.type = t;
        add("unknown type " + std::to_string(t), bytes_of(build_status(p)));
    }
    for (const char* m : {"XYZ", "vtr", "VT\0", "FRX"}) {
        devinfo_recv_bps_t d = build_status(bad_status("BADMAGIC0001"));
        std::memcpy(d.tag, m, 3);
        add(std::string("unknown magic ") + printable(std::string_view(m, 3)), bytes_of(d));
    }
    {
        devinfo_recv_bps_t d = build_status(bad_status("BADBYTE30001"));
        d.tag[3] = 1;
        add("magic byte 3 set (a valid report, to be accepted)", bytes_of(d));
    }

    // No NUL anywhere, at each gateway type, at the record size and at the
    // daemon's receive limit.
    add("no NUL: status, 320 bytes", no_nul(VTR_STATUS, sizeof(devinfo_recv_bps_t)));
    for (uint16_t t : {VTR_STATUS, VTR_STATUS2, VTR_STATUS3, VTR_LNGLAT, VTR_VTKEY, VTR_CMDARG})
        add("no NUL: type " + std::to_string(t) + ", 2048 bytes", no_nul(t, CLOUD_MAXDGRAM));
    add("no NUL: command, 520 bytes", no_nul(VTR_CMDARG, sizeof(cldarg_t)));
    {
        std::vector<uint8_t> b = no_nul(VTR_CMDARG, CLOUD_MAXDGRAM);
        std::string t = "tag=cpuinfo license_id12=";
        std::memcpy(b.data() + 8, t.data(), t.size());  // an identifier of ~2000 characters
        add("no NUL: command with endless license_id12", b);
    }

    // Over the receive limit.
    {
        std::vector<uint8_t> b = bytes_of(build_status(bad_status("BADBIG000001")), 4096);
        add("over 2048 bytes: 4096-byte status (head is a valid report)", b);
    }
    add("over 2048 bytes: 65507 bytes, no NUL", no_nul(VTR_CMDARG, MAX_UDP_PAYLOAD));

    // Quotes, backslashes, SQL and format directives in text fields.
    {
        status_params p = bad_status("BADSQL000001");
        p.sys_name = "x'); drop table vtlog.cloud_device; -- ";
        p.grpname = "g'\\\"`;-- or 1=1";
        p.version = "V1'\\";
        p.license_id83 = "'\\\\' or '1'='1' -- \\";
        add("SQL and quotes in sys_name, grpname, version, license_id83", bytes_of(build_status(p)));
    }
    {
        status_params p = bad_status("BAD'OR'1'='1");
        p.sys_name = "quote's \"dq\" back\\slash";
        add("quotes in the identifier", bytes_of(build_status(p)));
    }
    {
        status_params p = bad_status("BAD\\\\\\\\\\\\\\\\\\");
        p.sys_name = "\\";
        p.grpname = "\\";
        add("backslashes in the identifier, lone backslash names", bytes_of(build_status(p)));
    }
    {
        status_params p = bad_status("BADFMT000001");
        p.sys_name = "%s%s%s%n%n%x%p";
        p.grpname = "%n%s";
        p.version = "%99999999d";
        add("format directives in names", bytes_of(build_status(p)));
    }
    {
        status_params p = bad_status("BADGBK000001");
        p.sys_name = "\xc4\xe3\xba\xc3\xff\xfe\x80";
        p.grpname = "\xd7\xe9\xff";
        add("GBK and invalid bytes in names", bytes_of(build_status(p)));
    }
    add("key report: SQL in md5str", bytes_of(build_vtkey("BADSQL000001", "'; drop table vtlog.cloud_device;")));
    add("key report: quote in unknown identifier", bytes_of(build_vtkey("BAD'X\\Y\"Z001", fake_md5("x"))));
    add("coordinates: NaN and infinity",
        bytes_of(build_lnglat("BADSQL000001", __builtin_nan(""), __builtin_inf())));

    // Command results with broken values.
    cmd("cpuinfo with non-numeric and huge values",
        "tag=cpuinfo license_id12=BADSQL000001 cpurate=abc rmadmin=99999999999999999999 cronfile=-1");
    cmd("rootpassreset with quoted identifier", "tag=rootpassreset license_id12=BAD'OR'1'='1 return=0");
    cmd("command with no identifier", "tag=rootpassreset return=0");
    cmd("tokens without values", "=== tag== license_id12== = tag");
    cmd("wxdeny with SQL", "tag=wxdeny license_id12=BADSQL000001 return=0'; --");
    cmd("long tag", "tag=" + std::string(500, 'T') + " license_id12=BADSQL000001");
    {
        cldarg_t c = build_cmdarg("tag=cpuinfo license_id12=BADSQL000001 cpurate=1");
        c.arglen = 65535;
        add("command with arglen 65535", bytes_of(c));
    }
    return v;
}

}  // namespace vtsim
