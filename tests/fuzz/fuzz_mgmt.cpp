// Management commands: a run of commands separated by "|NEXT|", dispatched
// through jos_cmd_exec to the registered modules as the management loop
// does it, but with the record built in memory. Each piece is
//   CODE[:MODULE[:RLEN]] ARGUMENTS   a command (module "cloud", reply room
//                                    of the whole 64 KiB segment by default)
//   D DATAGRAM                       a datagram from an appliance
//   H TEXT                           the argument helpers on TEXT's words
// Four devices are registered before each run. The relay's file (2053
// wxcmd=1 file=...) is read only for a client on the socket, never here;
// every file= word is pointed at a command file under the private root all
// the same, so no input can name a file of the host. Range changes (2056)
// write log.conf under that root only. The module list and statistics
// commands (387, 388) are registered by the full start-up only and are not
// reached.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "cloud.h"
#include "fuzz_common.h"
#include "jos.h"
#include "jos_cmds.h"
#include "jos_timer.h"

extern jos_module_t cmds_module;
extern jos_module_t cpu_module;
extern jos_module_t dbf_module;
extern jos_module_t thread_module;
extern jos_module_t config_module;

namespace {

constexpr int SEG_SIZE = 65536;
constexpr unsigned char CANARY = 0xA5;
char* _seg;

// Points every file= word at the command file under the root.
std::string neutralise_relay(std::string_view args)
{
    std::string out;
    std::vector<std::string_view> words = fuzz::split(args, " ");
    for (size_t k = 0; k < words.size(); k++) {
        std::string_view w = words[k];
        if (k != 0)
            out += ' ';
        if (w.substr(0, 5) == "file=")
            out += "file=" + jos_path("/wxcmd.txt");
        else
            out += w;
    }
    return out;
}

// A listing row has 32 values; the header, the counters and "ok" are the
// only other lines. Only complete lines count: the reply may be cut.
void check_listing(std::string_view reply)
{
    static const std::string header =
        "ipaddr|sys_name|license_start|licnese_end|license_id12|max_flowcont|max_ipcnt|current_users|flowcont|upbps|"
        "downbps|time|webport|grpid|license_id83|sys_name2|sys_run|sshport|outip|longitude|latitude|map_address|"
        "version|temp|isequal|info|eqtime|max_users|grpname|stat";
    while (true) {
        size_t nl = reply.find('\n');
        if (nl == std::string_view::npos)
            return;
        std::string_view line = reply.substr(0, nl);
        reply.remove_prefix(nl + 1);
        if (line == header)
            continue;
        size_t eq = line.find('=');
        if (eq != std::string_view::npos && line.find('|') == std::string_view::npos &&
            line.find_first_not_of("abcdefghijklmnopqrstuvwxyz_") == eq &&
            line.find_first_not_of("-0123456789", eq + 1) == std::string_view::npos)
            continue;
        size_t bars = std::count(line.begin(), line.end(), '|');
        if (bars != 31)
            fuzz::fail("listing", "row with %zu columns: %.*s", bars + 1, int(std::min<size_t>(line.size(), 300)),
                       line.data());
    }
}

void run_command(std::string_view head, std::string_view args)
{
    std::vector<std::string_view> h = fuzz::split(head, ":");
    std::string code_text(h[0]);
    const auto code = static_cast<int32_t>(std::strtoll(code_text.c_str(), nullptr, 10));
    std::string_view module = h.size() > 1 ? h[1] : "cloud";
    long rlen = SEG_SIZE;
    if (h.size() > 2)
        rlen = std::clamp(std::strtol(std::string(h[2]).c_str(), nullptr, 10), 0L, long(SEG_SIZE));

    std::string text(args.substr(0, JOS_ARGBUF_SIZE - 1));
    if (code == JOS_CMD_SET)
        text = neutralise_relay(text).substr(0, JOS_ARGBUF_SIZE - 1);

    // The client writes the argument into its segment; the runtime copies
    // it out, and writes a NUL at the segment's start before dispatch.
    std::memset(_seg, 0, SEG_SIZE);
    std::memcpy(_seg, text.data(), text.size());
    _seg[0] = '\0';
    std::memset(_seg + rlen, CANARY, size_t(SEG_SIZE - rlen));
    char* arg = static_cast<char*>(std::malloc(text.size() + 1));
    std::memcpy(arg, text.data(), text.size());
    arg[text.size()] = '\0';

    jos_cmdarg_t ca{};
    ca.ca_cmd = code;
    ca.ca_alen = static_cast<int32_t>(text.size());
    ca.ca_arg = arg;
    ca.ca_shmid = 1;
    std::memcpy(ca.ca_errmsg, module.data(), std::min(module.size(), sizeof(ca.ca_errmsg)));
    ca.ca_rlen = static_cast<int32_t>(rlen);
    ca.ca_result = _seg;
    _jos_curcmd = code;
    jos_cmd_exec(&ca);
    _jos_curcmd = 0;
    std::free(arg);

    // A reply of N characters counts its terminator; with no room at all
    // some modules still answer 1, which only covers the NUL at the start.
    if (ca.ca_rlen < 0 || ca.ca_rlen > std::max(rlen, 1L) || ca.ca_pos < 0 || ca.ca_pos > rlen)
        fuzz::fail("reply", "command %d: reply length %d, position %d, room %ld", code, ca.ca_rlen, ca.ca_pos, rlen);
    for (long i = rlen; i < SEG_SIZE; i++)
        if (static_cast<unsigned char>(_seg[i]) != CANARY)
            fuzz::fail("reply", "command %d wrote at %ld, past its room of %ld", code, i, rlen);
    if (module != "cloud" || ca.ca_errno != 0 || !fuzz::enforced("listing"))
        return;
    std::string_view reply(_seg, size_t(ca.ca_pos));
    if (code == JOS_CMD_LIST)
        check_listing(reply);
    // The name query answers one line, whatever the name holds.
    if (size_t nl = reply.find('\n'); code == 2054 && nl != std::string_view::npos && nl + 1 < reply.size())
        fuzz::fail("listing", "name reply of several lines: %.200s", _seg);
}

// The value helpers on every word, with the properties callers rely on.
void run_helpers(std::string_view text)
{
    for (std::string_view w : fuzz::split(text, " ")) {
        std::string s(w);
        uint32_t ip = 0, lo = 0, hi = 0;
        if (jos_cmd_str2ip(s.c_str(), &ip) == 0) {
            char dotted[16];
            std::snprintf(dotted, sizeof(dotted), "%u.%u.%u.%u", ip >> 24, (ip >> 16) & 255, (ip >> 8) & 255, ip & 255);
            uint32_t again = 0;
            if (jos_cmd_str2ip(dotted, &again) != 0 || again != ip)
                fuzz::fail("helpers", "str2ip(%s)=%s does not read back", s.c_str(), dotted);
        }
        std::string t = s;
        if (jos_cmd_parseip(t.data(), &lo, &hi) == 0 && s.find('/') != std::string::npos &&
            s.find('-') == std::string::npos) {
            uint64_t span = uint64_t{hi} - lo + 1;
            if (hi < lo || (span & (span - 1)) != 0 || (lo & (span - 1)) != 0)
                fuzz::fail("helpers", "parseip(%s) gave %08x-%08x", s.c_str(), lo, hi);
        }
        uint8_t mac[6];
        jos_cmd_macparse(s.c_str(), mac);
        long n = 0;
        jos_cmd_isdigitin(s.c_str(), 1, 65535, &n);
        char copy[33];
        jos_cmd_isstrin(s.c_str(), 1, 32, copy);
        char num[8];
        jos_cmd_fmtbytes(static_cast<uint64_t>(n) << 20, num, sizeof(num));
        jos_cmd_fmtbps(static_cast<uint64_t>(n) * 1000, num, sizeof(num));
    }
    std::string line(text);
    const char* trimmed = jos_cmd_trimline(line.data());
    size_t len = std::strlen(trimmed);
    if (len > 0 && (trimmed[0] == ' ' || trimmed[len - 1] == ' ' || std::strpbrk(trimmed, "\t\r\n") != nullptr))
        fuzz::fail("helpers", "trimline left blanks or a line end");
    std::string words(text);
    char* cursor = words.data();
    for (int i = 0; i < 64 && cursor != nullptr && *cursor != '\0'; i++) {
        char *tag, *value;
        jos_cmd_tagval(&cursor, &tag, &value);
        if (tag == nullptr)
            break;
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    fuzz::make_root();
    fuzz::fill_writer_queue();
    if (cloud_devpool_init() != 0 || cmds_module.init(&_jos_kernel) != 0)
        __builtin_trap();
    for (jos_module_t* m : {&cloud_module, &cpu_module, &dbf_module, &thread_module, &config_module})
        module_register(m);
    jos_cmd_register(JOS_CMD_CLOCKSTEP, jos_cmd_clockstep);
    fuzz::put_file("/wxcmd.txt", "device=GW0000000001 allow=1\ndeny=22 proto=tcp\n\n");
    fuzz::put_file("/usr/logd/bin/log.conf", "cloud_mapping_min_port=24569\n");
    _seg = static_cast<char*>(std::malloc(SEG_SIZE));
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz::registry_reset(false);
    fuzz::set_clock(1700000000);
    fuzz::feed_dgram(fuzz::status_report(VTR_STATUS, "GW0000000001", "V5.1 [9.2]", "gw one", "", 10, 100), 0x0a000001,
                     40000);
    fuzz::feed_dgram(fuzz::status_report(VTR_STATUS2, "GW0000000002", "V4.0 [8.0]", "gw two", "east", 120, 100),
                     0x0a000002, 40001);
    fuzz::feed_dgram(fuzz::status_report(VTR_STATUS3, "TEMP00000003", "V6.0 [11.1]", "Temp Three", "", 0, 0), 0x0a000003,
                     40002);
    fuzz::feed_dgram(fuzz::status_report(VTR_STATUS, "gw4", "none", "", "west", 5, 0), 0x0a000004, 40003);
    fuzz::feed_dgram(fuzz::lnglat_report("GW0000000001", 116.397, 39.909), 0x0a000001, 40000);
    fuzz::feed_dgram(fuzz::key_report("GW0000000002", "0123456789abcdef0123456789abcdef"), 0x0a000002, 40001);

    uint32_t i = 0;
    for (std::string_view piece : fuzz::split({reinterpret_cast<const char*>(data), size})) {
        size_t sp = piece.find(' ');
        std::string_view head = piece.substr(0, sp);
        std::string_view rest = sp == std::string_view::npos ? std::string_view() : piece.substr(sp + 1);
        if (head == "D")
            fuzz::feed_dgram(rest, 0x0a010000u + i, static_cast<uint16_t>(41000 + i));
        else if (head == "H")
            run_helpers(rest);
        else
            run_command(head, rest);
        i++;
    }
    fuzz::check_registry();
    return 0;
}
