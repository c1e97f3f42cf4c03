// vtsim: plays appliances against the daemon's device port: gateways
// (--family gw) with the commands the daemon sends them, their SSH tunnels,
// table reports, user applications and the answers to pushes and
// distribution notices, the appliance side of the backup socket (pings,
// configuration backups, package upgrades, the application inventory,
// echoes) and of the upgrade socket (announcements, firmware upgrades); game
// acceleration nodes (--family game), gateways that also report their node
// state; or the text families: cache appliances (--family frb) with their
// reports, verification string, public key, mapping instructions and
// upgrade orders, and log servers (--family log) with their reports, public
// key and mapping instructions. In load mode it measures how much of a
// paced stream of status reports, pings and announcements the daemon's
// sockets took in.
//
// Traffic goes to loopback addresses only. Every loop ends by itself: after
// --reports (and --pings, --announces) rounds, after --duration seconds, or
// on SIGINT/SIGTERM.
#include <arpa/inet.h>
#include <fcntl.h>
#include <getopt.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <deque>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "vtsim_proto.h"
#include "vtsim_roles.h"

namespace {

using namespace vtsim;

volatile sig_atomic_t g_stop = 0;

void on_signal(int)
{
    g_stop = 1;
}

const char USAGE[] =
    "usage: vtsim [options]\n"
    "Simulates appliances talking to the daemon's device port over loopback.\n"
    "\n"
    "Target\n"
    "  --host A          daemon address, dotted IPv4 inside 127.0.0.0/8 (default 127.0.0.1)\n"
    "  --port P          daemon device port (default 24567)\n"
    "\n"
    "Appliances\n"
    "  --family F        gw: gateways (default); frb: cache appliances, which send text\n"
    "                    reports (magic FRB, type 40000, every key: cpurate cpu board mem\n"
    "                    boot name ver bdw start end bpsout bpsin flow diskio pused; the\n"
    "                    identifier as key= for even indexes, license_id12= for odd\n"
    "                    ones), hand over their verification string (tag=FRBPWD) after\n"
    "                    the first report, print mapping instructions and answer\n"
    "                    upgrade orders (tag=frb_upgrade, see Firmware upgrades);\n"
    "                    log: log servers, which send text reports (magic LOG, type\n"
    "                    40000: key name ver boot start end bps) and print mapping\n"
    "                    instructions; game: game acceleration nodes, gateways whose\n"
    "                    every status report is followed by their node state\n"
    "                    (tag=gamecloud_stat, every key the daemon keeps)\n"
    "  --count N         number of appliances (default 10)\n"
    "  --prefix S        identifier prefix; identifiers are the prefix and a zero-padded\n"
    "                    index, 12 characters in all (default SIM: SIM000000001; FRB,\n"
    "                    LOG, GAME for --family frb, log, game)\n"
    "  --first K         index of the first gateway (default 1)\n"
    "  --shared-socket   one UDP socket for all gateways (default: one socket each,\n"
    "                    bound to 127.0.0.1 and an ephemeral port); commands that come\n"
    "                    back are routed by their license_id12=\n"
    "\n"
    "Status reports\n"
    "  --interval S      each gateway reports every S seconds (default 10); a round's\n"
    "                    reports are spread evenly, at most 1 ms apart\n"
    "  --rate R          R reports per second in total instead, rounds back to back\n"
    "                    (with --load, 0 means as fast as the socket takes them)\n"
    "  --reports N       send exactly N rounds, then stop (default 0: no limit)\n"
    "  --duration S      stop after S seconds (default 0: no limit)\n"
    "  --type T          10012, 30004 or 50000 (default: the three in turn; gw only)\n"
    "  --lnglat          also send a coordinates report (1008) after each gateway's first report\n"
    "  --key             also send a key report (20001) after each gateway's first report\n"
    "  --name TEXT       sys_name (frb, log: name=); %d becomes the index, %% a '%'\n"
    "                    (default sim-gw-%d; sim-frb-%d, sim-log-%d, sim-game-%d for\n"
    "                    --family frb, log, game)\n"
    "  --grpname TEXT    group name (default empty)\n"
    "  --version TEXT    firmware version (default V1.0.0)\n"
    "  --users N         current_users (default 3)\n"
    "  --maxusers N      max_ipcnt (default 100; 0 = no limit)\n"
    "  --flow N          flowcont (default 150)\n"
    "  --maxflow N       max_flowcont (default 10000; 0 = no limit)\n"
    "\n"
    "Answers\n"
    "  --cpurate N       cpurate in answers to tag=cpuinfo (default 5); frb: the base of\n"
    "                    the cpurate= of the reports\n"
    "  --no-answer       receive and print commands but never reply\n"
    "  --rsa             frb, log: hand over a public key (RSA=ssh-ed25519 ..., the same\n"
    "                    on every run) after the first report\n"
    "  --quiet           print only password resets and application starts (one line each)\n"
    "  --linger S        keep answering S seconds after the last report (default 1)\n"
    "\n"
    "Backup socket (each gateway pings from the socket it reports from)\n"
    "  --backup-port P   daemon backup port; enables the role (default off; the daemon's\n"
    "                    default port is 24565)\n"
    "  --backup-dir DIR  where backups are copied: the daemon's /usr/logdata/vtconf\n"
    "                    (required with --backup-port)\n"
    "  --ping S          each gateway pings (10015) every S seconds (default 5)\n"
    "  --ping-rate R     R pings per second in total instead (with --load, 0 means\n"
    "                    as fast as the socket takes them)\n"
    "  --pings N         send exactly N rounds of pings (default 0: no limit); the run\n"
    "                    ends when both the reports and the pings are done\n"
    "  --backup-fail R   fraction 0..1 of backup orders answered with a failure\n"
    "                    (10018 and 10019 in turn, texts with quotes; default 0)\n"
    "  --backup-named    write every backup under <id>.conf and report it by name\n"
    "                    (10020); an order that names a file is always answered so\n"
    "  --appup-fail R    fraction 0..1 of package upgrades that end in failure (default 0)\n"
    "  --apps N          report N applications (app1..appN) per gateway: type 30001\n"
    "                    after the first ping, then one tag=appinfo text (40000) per\n"
    "                    ping, app by app (default 0)\n"
    "  --echo N          send N echoes (1009, 29 to 1023 bytes) per gateway after its\n"
    "                    first ping; they must come back byte for byte (default 0)\n"
    "\n"
    "Firmware upgrades (gw: the upgrade socket, each gateway announcing itself from the\n"
    "socket it reports from; frb: orders and reports on the device port)\n"
    "  --upgrade-port P  daemon upgrade port; enables the role for gateways (default off;\n"
    "                    the daemon's default port is 24566)\n"
    "  --announce S      each gateway announces itself (10010) every S seconds (default 5;\n"
    "                    the daemon forgets an appliance silent for 300 s), the round\n"
    "                    spread evenly over the S seconds\n"
    "  --announce-rate R R announcements per second in total instead (with --load, 0\n"
    "                    means as fast as the socket takes them)\n"
    "  --announces N     send exactly N rounds of announcements (default 0: no limit)\n"
    "  --upgrade-time S  seconds from an order to its end (default 1); the progress\n"
    "                    report (10012; frb: a log= without fail=) goes at once\n"
    "  --upgrade-version TEXT  version reported on success (10013 last_ver, frb new_ver=;\n"
    "                    default V2.0.0); the appliance's later reports carry it\n"
    "  --upgrade-fail R  fraction 0..1 of the answered orders that end in failure\n"
    "                    (10014 with a quoted text; frb: fail=1; default 0)\n"
    "  --upgrade-silent R  fraction 0..1 of the orders never answered (default 0)\n"
    "\n"
    "Gateway roles (gw and game; a distribution notice names no gateway, so on a\n"
    "shared socket it is printed with ? and not answered)\n"
    "  --tunnels N       each gateway reports N SSH tunnels (0..12; tag=sshmapport, one\n"
    "                    portinfo=BIG:CLIIP:MIN word each) after every status report,\n"
    "                    and answers a close request (tag=sshportkill) by dropping\n"
    "                    the tunnel from its later reports (default 0)\n"
    "  --tables          each gateway reports its IP table and URL/DNS groups\n"
    "                    (tag=updateiptable, tag=urldnsgrpinfo) after its first report,\n"
    "                    and again after a push it fetched\n"
    "  --usrapps N       each gateway reports N user application groups and N user\n"
    "                    applications (tag=usragp_request, tag=usrapp_request) after its\n"
    "                    first report and when the daemon asks again (default 0)\n"
    "  --push-fail R     fraction 0..1 of the answered table pushes (tag=iptablestatus,\n"
    "                    tag=urldnsgrpstatus: ret=-1) and distribution notices\n"
    "                    (tag=usragp_file: error=NO...) answered NO, each kind counted\n"
    "                    on its own; the others are answered OK (default 0)\n"
    "  --push-silent R   fraction 0..1 of the pushes and notices never answered\n"
    "                    (default 0)\n"
    "\n"
    "Modes\n"
    "  --load            load generator: shared socket, paced sendmmsg loop, then one line\n"
    "                    sent=N answered=N lost=N rate=R/s elapsed=S\n"
    "                    (sent: every datagram to the device port, the reports and what\n"
    "                    follows them; lost: the daemon socket's kernel drop counter, from\n"
    "                    /proc/net/udp);\n"
    "                    with --backup-port the line goes on with pings=N ping_lost=N and\n"
    "                    the backup counters below; with --upgrade-port, announces=N\n"
    "                    announce_lost=N and the upgrade counters below\n"
    "  --raw HEX         send one datagram given as hex bytes and exit\n"
    "  --bad             send a fixed set of malformed datagrams once and exit\n"
    "  --help            this text\n"
    "\n"
    "Output, one line per event on stdout:\n"
    "  <id> rootpassreset password=P oripass=O mfadminpass=N   (replied: return=0)\n"
    "  <id> cpuinfo                                           (replied with cpurate)\n"
    "  <id> mapping web=W ssh=S webenable=E sshenable=E hostport=H maphost=M\n"
    "  <id> <command text>                                    (any other command)\n"
    "  <id> backup fl_ctime=T -> ok NAME | fail TYPE TEXT     (backup order answered)\n"
    "  <id> appup packet=P port=N -> succ V | fail TEXT       (upgrade order answered)\n"
    "  <id> appstart app_name=A state=S                       (start request; logged back)\n"
    "  <id> echo changed len=N                                (an echo that came back altered)\n"
    "  <id> upgrade task=T packet=P port=N -> succ V | fail TEXT | silent\n"
    "                                                         (upgrade order; the end is\n"
    "                                                         printed when it is sent)\n"
    "  <id> frb mapping webport=W sshport=S                   (cache appliance, log server:\n"
    "  <id> log mapping webport=W sshport=S                    ? on a shared socket, where\n"
    "                                                          the text names no one)\n"
    "  <id> sshportkill bigport=B minport=M -> closed | unknown  (close request; answered\n"
    "                                                          when the tunnel is ours)\n"
    "  <id> iptablestatus ipid=I file=F grpname=G dwport=P -> ok | no | silent\n"
    "  <id> urldnsgrpstatus ipid=I file=F grpname=G dwport=P -> ok | no | silent\n"
    "  <id> usragp_file httpport=P -> ok | no | silent      (distribution notice)\n"
    "  <id> usragp_request -> groups=N apps=N               (the daemon asked again)\n"
    "At the end, on stderr:\n"
    "  sent=N answered=N replies=N other=N send_errors=N, and with --backup-port\n"
    "  pings=N backups=N backup_fails=N appups=N appup_fails=N appstarts=N\n"
    "  echoes=SENT/BACK echo_bad=N; with --upgrade-port (announces=N) or --family frb\n"
    "  (frb_mappings=N) up_orders=N up_succ=N up_fail=N up_silent=N up_inflight=N\n"
    "  up_inflight_max=N up_reports=N up_oks=N (in flight: orders not yet ended, silent\n"
    "  ones included; reports: progress and ends sent, each once; oks: the daemon's\n"
    "  answers to them, gw only); --family log: log_mappings=N; frb and log with --rsa\n"
    "  add keys=N; with any gateway role or --family game: game_reports=N\n"
    "  tunnel_closes=N pushes=N fetches=N push_ok=N push_no=N push_silent=N\n"
    "  usragp_requests=N (pushes: table pushes received, fetches: distribution\n"
    "  notices received). --load puts these counters on its one line.\n";

[[noreturn]] __attribute__((format(printf, 1, 2))) void die(const char* fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    std::fprintf(stderr, "vtsim: ");
    std::vfprintf(stderr, fmt, ap);
    std::fprintf(stderr, "\n");
    va_end(ap);
    std::exit(2);
}

long parse_long(const char* opt, const char* text, long lo, long hi)
{
    char* end = nullptr;
    errno = 0;
    long v = std::strtol(text, &end, 10);
    if (errno != 0 || end == text || *end != '\0' || v < lo || v > hi) {
        char range[64];
        std::snprintf(range, sizeof(range), "%ld..%ld", lo, hi);
        std::fprintf(stderr, "vtsim: %s wants an integer in %s, not '%s'\n", opt, range, text);
        std::exit(2);
    }
    return v;
}

double parse_double(const char* opt, const char* text, double lo, double hi)
{
    char* end = nullptr;
    errno = 0;
    double v = std::strtod(text, &end);
    if (errno != 0 || end == text || *end != '\0' || !(v >= lo && v <= hi)) {
        std::fprintf(stderr, "vtsim: %s wants a number in %g..%g, not '%s'\n", opt, lo, hi, text);
        std::exit(2);
    }
    return v;
}

enum class family { GW, FRB, LOG, GAME };

struct options {
    std::string host = "127.0.0.1";
    int port = CLOUD_DEVICE_PORT;
    family fam = family::GW;
    const text_family* text = nullptr;  // frb, log
    long count = 10;
    std::string prefix = "SIM";
    bool prefix_given = false;
    long first = 1;
    double rate = -1;  // below 0: each gateway every interval
    double interval = 10;
    double duration = 0;
    long reports = 0;
    uint16_t type = 0;  // 0: the three status types in turn
    bool lnglat = false;
    bool key = false;
    std::string name = "sim-gw-%d";
    bool name_given = false;
    std::string grpname;
    std::string version = "V1.0.0";
    uint32_t users = 3, maxusers = 100, flow = 150, maxflow = 10000;
    long cpurate = 5;
    bool shared = false;
    bool no_answer = false;
    bool quiet = false;
    bool load = false;
    bool bad = false;
    bool has_raw = false;
    std::string raw;
    double linger = 1.0;
    int backup_port = 0;  // 0: no backup role
    std::string backup_dir;
    double ping = 5;
    bool ping_given = false;
    double ping_rate = -1;  // below 0: each gateway every ping interval
    long pings = 0;
    double backup_fail = 0;
    bool backup_named = false;
    double appup_fail = 0;
    long apps = 0;
    long echo = 0;
    int upgrade_port = 0;  // 0: no firmware-upgrade role for gateways
    double announce = 5;
    bool announce_given = false;
    double announce_rate = -1;  // below 0: each gateway every announce interval
    long announces = 0;
    double upgrade_time = 1;
    std::string upgrade_version = "V2.0.0";
    double upgrade_fail = 0;
    double upgrade_silent = 0;
    bool rsa = false;
    long tunnels = 0;
    bool tables = false;
    long usrapps = 0;
    double push_fail = 0;
    double push_silent = 0;
};

options parse_args(int argc, char** argv)
{
    enum {
        O_HOST = 256, O_PORT, O_COUNT, O_PREFIX, O_FIRST, O_RATE, O_INTERVAL, O_DURATION, O_REPORTS, O_TYPE,
        O_LNGLAT, O_KEY, O_NAME, O_GRPNAME, O_VERSION, O_USERS, O_MAXUSERS, O_FLOW, O_MAXFLOW, O_CPURATE,
        O_SHARED, O_NOANSWER, O_QUIET, O_LOAD, O_RAW, O_BAD, O_LINGER, O_HELP, O_BPORT, O_BDIR, O_PING,
        O_PINGRATE, O_PINGS, O_BFAIL, O_BNAMED, O_AFAIL, O_APPS, O_ECHO, O_FAMILY, O_UPORT, O_ANNOUNCE,
        O_ANNRATE, O_ANNOUNCES, O_UTIME, O_UVERSION, O_UFAIL, O_USILENT, O_RSA, O_TUNNELS, O_TABLES, O_USRAPPS,
        O_PFAIL, O_PSILENT,
    };
    static const option longopts[] = {
        {"host", required_argument, nullptr, O_HOST},
        {"port", required_argument, nullptr, O_PORT},
        {"count", required_argument, nullptr, O_COUNT},
        {"prefix", required_argument, nullptr, O_PREFIX},
        {"first", required_argument, nullptr, O_FIRST},
        {"rate", required_argument, nullptr, O_RATE},
        {"interval", required_argument, nullptr, O_INTERVAL},
        {"duration", required_argument, nullptr, O_DURATION},
        {"reports", required_argument, nullptr, O_REPORTS},
        {"type", required_argument, nullptr, O_TYPE},
        {"lnglat", no_argument, nullptr, O_LNGLAT},
        {"key", no_argument, nullptr, O_KEY},
        {"name", required_argument, nullptr, O_NAME},
        {"grpname", required_argument, nullptr, O_GRPNAME},
        {"version", required_argument, nullptr, O_VERSION},
        {"users", required_argument, nullptr, O_USERS},
        {"maxusers", required_argument, nullptr, O_MAXUSERS},
        {"flow", required_argument, nullptr, O_FLOW},
        {"maxflow", required_argument, nullptr, O_MAXFLOW},
        {"cpurate", required_argument, nullptr, O_CPURATE},
        {"shared-socket", no_argument, nullptr, O_SHARED},
        {"no-answer", no_argument, nullptr, O_NOANSWER},
        {"quiet", no_argument, nullptr, O_QUIET},
        {"load", no_argument, nullptr, O_LOAD},
        {"raw", required_argument, nullptr, O_RAW},
        {"bad", no_argument, nullptr, O_BAD},
        {"linger", required_argument, nullptr, O_LINGER},
        {"help", no_argument, nullptr, O_HELP},
        {"backup-port", required_argument, nullptr, O_BPORT},
        {"backup-dir", required_argument, nullptr, O_BDIR},
        {"ping", required_argument, nullptr, O_PING},
        {"ping-rate", required_argument, nullptr, O_PINGRATE},
        {"pings", required_argument, nullptr, O_PINGS},
        {"backup-fail", required_argument, nullptr, O_BFAIL},
        {"backup-named", no_argument, nullptr, O_BNAMED},
        {"appup-fail", required_argument, nullptr, O_AFAIL},
        {"apps", required_argument, nullptr, O_APPS},
        {"echo", required_argument, nullptr, O_ECHO},
        {"family", required_argument, nullptr, O_FAMILY},
        {"upgrade-port", required_argument, nullptr, O_UPORT},
        {"announce", required_argument, nullptr, O_ANNOUNCE},
        {"announce-rate", required_argument, nullptr, O_ANNRATE},
        {"announces", required_argument, nullptr, O_ANNOUNCES},
        {"upgrade-time", required_argument, nullptr, O_UTIME},
        {"upgrade-version", required_argument, nullptr, O_UVERSION},
        {"upgrade-fail", required_argument, nullptr, O_UFAIL},
        {"upgrade-silent", required_argument, nullptr, O_USILENT},
        {"rsa", no_argument, nullptr, O_RSA},
        {"tunnels", required_argument, nullptr, O_TUNNELS},
        {"tables", no_argument, nullptr, O_TABLES},
        {"usrapps", required_argument, nullptr, O_USRAPPS},
        {"push-fail", required_argument, nullptr, O_PFAIL},
        {"push-silent", required_argument, nullptr, O_PSILENT},
        {nullptr, 0, nullptr, 0},
    };
    options o;
    constexpr long U32 = 0xffffffffL;
    int c;
    opterr = 1;
    while ((c = getopt_long(argc, argv, "h", longopts, nullptr)) != -1) {
        switch (c) {
        case O_HOST: o.host = optarg; break;
        case O_PORT: o.port = static_cast<int>(parse_long("--port", optarg, 1, 65535)); break;
        case O_COUNT: o.count = parse_long("--count", optarg, 1, 1000000); break;
        case O_PREFIX: o.prefix = optarg; o.prefix_given = true; break;
        case O_FIRST: o.first = parse_long("--first", optarg, 0, 99999999999L); break;
        case O_RATE: o.rate = parse_double("--rate", optarg, 0, 1e8); break;
        case O_INTERVAL: o.interval = parse_double("--interval", optarg, 0.001, 86400); break;
        case O_DURATION: o.duration = parse_double("--duration", optarg, 0, 1e7); break;
        case O_REPORTS: o.reports = parse_long("--reports", optarg, 0, 1000000000L); break;
        case O_TYPE: {
            long t = parse_long("--type", optarg, 0, 65535);
            if (t != VTR_STATUS && t != VTR_STATUS2 && t != VTR_STATUS3)
                die("--type must be 10012, 30004 or 50000, not '%s'", optarg);
            o.type = static_cast<uint16_t>(t);
            break;
        }
        case O_LNGLAT: o.lnglat = true; break;
        case O_KEY: o.key = true; break;
        case O_NAME: o.name = optarg; o.name_given = true; break;
        case O_GRPNAME: o.grpname = optarg; break;
        case O_VERSION: o.version = optarg; break;
        case O_USERS: o.users = static_cast<uint32_t>(parse_long("--users", optarg, 0, U32)); break;
        case O_MAXUSERS: o.maxusers = static_cast<uint32_t>(parse_long("--maxusers", optarg, 0, U32)); break;
        case O_FLOW: o.flow = static_cast<uint32_t>(parse_long("--flow", optarg, 0, U32)); break;
        case O_MAXFLOW: o.maxflow = static_cast<uint32_t>(parse_long("--maxflow", optarg, 0, U32)); break;
        case O_CPURATE: o.cpurate = parse_long("--cpurate", optarg, 0, 100000); break;
        case O_SHARED: o.shared = true; break;
        case O_NOANSWER: o.no_answer = true; break;
        case O_QUIET: o.quiet = true; break;
        case O_LOAD: o.load = true; break;
        case O_RAW: o.has_raw = true; o.raw = optarg; break;
        case O_BAD: o.bad = true; break;
        case O_LINGER: o.linger = parse_double("--linger", optarg, 0, 3600); break;
        case O_BPORT: o.backup_port = static_cast<int>(parse_long("--backup-port", optarg, 1, 65535)); break;
        case O_BDIR: o.backup_dir = optarg; break;
        case O_PING: o.ping = parse_double("--ping", optarg, 0.001, 86400); o.ping_given = true; break;
        case O_PINGRATE: o.ping_rate = parse_double("--ping-rate", optarg, 0, 1e8); break;
        case O_PINGS: o.pings = parse_long("--pings", optarg, 0, 1000000000L); break;
        case O_BFAIL: o.backup_fail = parse_double("--backup-fail", optarg, 0, 1); break;
        case O_BNAMED: o.backup_named = true; break;
        case O_AFAIL: o.appup_fail = parse_double("--appup-fail", optarg, 0, 1); break;
        case O_APPS: o.apps = parse_long("--apps", optarg, 0, 1000); break;
        case O_ECHO: o.echo = parse_long("--echo", optarg, 0, 100000); break;
        case O_FAMILY:
            if (std::strcmp(optarg, "gw") == 0)
                o.fam = family::GW;
            else if (std::strcmp(optarg, "frb") == 0)
                o.fam = family::FRB, o.text = &FRB_FAMILY;
            else if (std::strcmp(optarg, "log") == 0)
                o.fam = family::LOG, o.text = &LOG_FAMILY;
            else if (std::strcmp(optarg, "game") == 0)
                o.fam = family::GAME;
            else
                die("--family must be gw, frb, log or game, not '%s'", optarg);
            break;
        case O_UPORT: o.upgrade_port = static_cast<int>(parse_long("--upgrade-port", optarg, 1, 65535)); break;
        case O_ANNOUNCE:
            o.announce = parse_double("--announce", optarg, 0.001, 86400);
            o.announce_given = true;
            break;
        case O_ANNRATE: o.announce_rate = parse_double("--announce-rate", optarg, 0, 1e8); break;
        case O_ANNOUNCES: o.announces = parse_long("--announces", optarg, 0, 1000000000L); break;
        case O_UTIME: o.upgrade_time = parse_double("--upgrade-time", optarg, 0, 86400); break;
        case O_UVERSION: o.upgrade_version = optarg; break;
        case O_UFAIL: o.upgrade_fail = parse_double("--upgrade-fail", optarg, 0, 1); break;
        case O_USILENT: o.upgrade_silent = parse_double("--upgrade-silent", optarg, 0, 1); break;
        case O_RSA: o.rsa = true; break;
        case O_TUNNELS: o.tunnels = parse_long("--tunnels", optarg, 0, MAX_TUNNELS); break;
        case O_TABLES: o.tables = true; break;
        case O_USRAPPS: o.usrapps = parse_long("--usrapps", optarg, 0, 100); break;
        case O_PFAIL: o.push_fail = parse_double("--push-fail", optarg, 0, 1); break;
        case O_PSILENT: o.push_silent = parse_double("--push-silent", optarg, 0, 1); break;
        case 'h':
        case O_HELP: std::fputs(USAGE, stdout); std::exit(0);
        default: std::fputs("vtsim: try --help\n", stderr); std::exit(2);
        }
    }
    if (optind < argc)
        die("unexpected argument '%s' (try --help)", argv[optind]);
    if (o.fam != family::GW) {
        if (!o.prefix_given)
            o.prefix = o.text != nullptr ? o.text->magic : "GAME";
        if (!o.name_given)
            o.name = o.text != nullptr ? o.text->name : "sim-game-%d";
    }
    if (o.text != nullptr) {
        if (o.type != 0 || o.lnglat || o.key || o.backup_port != 0 || o.upgrade_port != 0)
            die("--type, --lnglat, --key, --backup-port and --upgrade-port are gateway options; cache "
                "appliances take their upgrade orders on the device port");
        if (o.tunnels > 0 || o.tables || o.usrapps > 0 || o.push_fail > 0 || o.push_silent > 0)
            die("--tunnels, --tables, --usrapps, --push-fail and --push-silent are gateway options");
    } else if (o.rsa) {
        die("--rsa is for --family frb and log: the daemon collects keys from cache appliances and log servers");
    }
    if (!host_is_loopback(o.host.c_str(), nullptr))
        die("--host '%s' refused: only dotted IPv4 addresses inside 127.0.0.0/8 (this machine) are allowed",
            o.host.c_str());
    if (!prefix_ok(o.prefix))
        die("--prefix '%s' must be at most 11 printable characters, without blanks or '='", o.prefix.c_str());
    if (make_ident(o.prefix, o.first + o.count - 1).empty())
        die("identifiers do not fit in 12 characters with prefix '%s' and the indexes asked for", o.prefix.c_str());
    if (o.rate == 0 && !o.load)
        die("--rate 0 (unpaced) is for --load only");
    if (o.has_raw && o.bad)
        die("--raw and --bad are separate runs");
    bool backup_opts = !o.backup_dir.empty() || o.ping_given || o.ping_rate >= 0 || o.pings > 0 || o.backup_fail > 0 ||
                       o.backup_named || o.appup_fail > 0 || o.apps > 0 || o.echo > 0;
    if (o.backup_port == 0 && backup_opts)
        die("the backup options need --backup-port");
    if (o.backup_port != 0 && o.backup_dir.empty())
        die("--backup-port needs --backup-dir (the daemon's /usr/logdata/vtconf)");
    if (o.ping_rate == 0 && !o.load)
        die("--ping-rate 0 (unpaced) is for --load only");
    bool upgrade_opts = o.announce_given || o.announce_rate >= 0 || o.announces > 0 || o.upgrade_fail > 0 ||
                        o.upgrade_silent > 0 || o.upgrade_time != 1 || o.upgrade_version != "V2.0.0";
    if (o.text == nullptr && o.upgrade_port == 0 && upgrade_opts)
        die("the upgrade options need --upgrade-port (or --family frb)");
    if (o.text != nullptr && !o.text->takes_orders && upgrade_opts)
        die("log servers take no upgrade orders: the upgrade options are for gw and frb");
    if (o.text != nullptr && (o.announce_given || o.announce_rate >= 0 || o.announces > 0))
        die("cache appliances do not announce themselves: --announce* are gateway options");
    if (o.announce_rate == 0 && !o.load)
        die("--announce-rate 0 (unpaced) is for --load only");
    return o;
}

double now_sec()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) + ts.tv_nsec / 1e9;
}

// A UDP socket bound to 127.0.0.1 and an ephemeral port. Sends block at
// most a second; receives are always MSG_DONTWAIT after a poll.
int open_socket(int rcvbuf)
{
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    a.sin_port = 0;
    if (bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof(a)) < 0) {
        close(fd);
        return -1;
    }
    timeval tv{1, 0};
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof(tv));
    if (rcvbuf > 0)
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &rcvbuf, sizeof(rcvbuf));
    return fd;
}

// Lets many per-gateway sockets through the descriptor limit when the hard
// limit allows.
void raise_nofile(long want)
{
    rlimit rl{};
    if (getrlimit(RLIMIT_NOFILE, &rl) != 0)
        return;
    if (rl.rlim_cur != RLIM_INFINITY && static_cast<long>(rl.rlim_cur) < want) {
        rl.rlim_cur = (rl.rlim_max == RLIM_INFINITY || static_cast<long>(rl.rlim_max) >= want) ? want : rl.rlim_max;
        setrlimit(RLIMIT_NOFILE, &rl);
    }
}

struct gateway {
    std::string id;
    long index = 0;
    int fd = -1;  // own socket, or the shared one
    devinfo_recv_bps_t tmpl{};  // gw, game
    frb_report frb;             // frb, log
    cloud_ping_t ping{};
    cloud_ping_t announce{};
};

// An upgrade that ends at DUE (seconds of elapsed time).
struct upgrade_job {
    double due;
    size_t gw;  // position in sim::gw
    upgrade_order order;
    bool fail;
};

struct sim {
    options o;
    sockaddr_in dst{};   // device port
    sockaddr_in bdst{};  // backup port
    sockaddr_in udst{};  // upgrade port
    std::vector<gateway> gw;
    int shared_fd = -1;
    double t0 = 0;
    streams_t streams;
    pacer& status = streams[S_STATUS];
    pacer& ping = streams[S_PING];
    pacer& announce = streams[S_ANNOUNCE];
    std::atomic<uint64_t> sent{0}, answered{0}, replies{0}, other{0}, send_errors{0};
    std::atomic<bool> send_error_shown{false};
    // Backup role. The orders are counted to pick the failures.
    std::atomic<uint64_t> pings{0}, backup_orders{0}, backups{0}, backup_fails{0}, appup_orders{0}, appups{0},
        appup_fails{0}, appstarts{0}, echo_sent{0}, echo_back{0}, echo_bad{0};
    // Upgrade role. Orders are counted to pick the silent ones, answered
    // orders to pick the failures. Jobs, and the counts of what is in
    // flight, belong to the thread that receives.
    std::atomic<uint64_t> announces{0}, up_orders{0}, up_answered{0}, up_succ{0}, up_fail{0}, up_silent{0},
        up_reports{0}, up_oks{0}, mappings{0};
    std::atomic<int64_t> up_inflight{0}, up_inflight_max{0};
    std::deque<upgrade_job> jobs;  // in order of DUE: every upgrade takes as long
    // Set once a gateway's upgrade succeeded: its reports carry the new version.
    std::unique_ptr<std::atomic<bool>[]> upgraded;
    // Gateway roles. Pushes of each kind (the two tables, distribution
    // notices) are counted on their own to pick the silent ones, answered
    // ones to pick the NOs.
    std::atomic<uint64_t> game_reports{0}, tunnel_closes{0}, pushes{0}, fetches{0}, push_ok{0}, push_no{0},
        push_silent{0}, usragp_requests{0}, keys{0};
    std::array<std::atomic<uint64_t>, TABLE_KINDS.size() + 1> push_seen{}, push_answered{};
    // Per gateway, the tunnels it has closed (bit K: tunnel K).
    std::unique_ptr<std::atomic<uint32_t>[]> closed;

    double elapsed() const { return now_sec() - t0; }
    bool finished() const { return status.done() && ping.done() && announce.done(); }
    const text_family* text() const { return o.text; }
    bool upgrade_role() const { return o.upgrade_port != 0 || (o.text != nullptr && o.text->takes_orders); }
    bool gateway_roles() const
    {
        return o.fam == family::GAME || o.tunnels > 0 || o.tables || o.usrapps > 0 || o.push_fail > 0 ||
               o.push_silent > 0 || pushes > 0 || fetches > 0 || usragp_requests > 0 || tunnel_closes > 0;
    }

    int send_to(int fd, const sockaddr_in& to, const void* buf, size_t len)
    {
        ssize_t r = sendto(fd, buf, len, 0, reinterpret_cast<const sockaddr*>(&to), sizeof(to));
        if (r < 0) {
            note_send_error(errno, 1);
            return -1;
        }
        return 0;
    }
    // Datagrams to the device port other than the load loop's reports:
    // extras after a report, answers.
    std::atomic<uint64_t> to_daemon{0};
    int send_to_daemon(int fd, const void* buf, size_t len)
    {
        int rc = send_to(fd, dst, buf, len);
        to_daemon += rc == 0;
        return rc;
    }
    int send_to_backup(int fd, const void* buf, size_t len) { return send_to(fd, bdst, buf, len); }
    int send_to_upgrade(int fd, const void* buf, size_t len) { return send_to(fd, udst, buf, len); }
    // A text of the family's own (frb, log), or a gateway's command result.
    int send_text(int fd, const std::string& text)
    {
        cldarg_t c = o.text != nullptr ? build_text(o.text->magic, text) : build_cmdarg(text);
        return send_to_daemon(fd, &c, sizeof(c));
    }

    void note_send_error(int err, uint64_t n)
    {
        if (!send_error_shown.exchange(true))
            std::fprintf(stderr, "vtsim: send error: %s\n", std::strerror(err));
        send_errors += n;
    }

    // The backup counters, " key=value" each; empty without the role.
    std::string backup_counters() const
    {
        if (o.backup_port == 0)
            return {};
        auto kv = [](const char* k, uint64_t v) { return std::string(" ") + k + "=" + std::to_string(v); };
        return kv("backups", backups) + kv("backup_fails", backup_fails) + kv("appups", appups) +
               kv("appup_fails", appup_fails) + kv("appstarts", appstarts) + " echoes=" +
               std::to_string(echo_sent) + "/" + std::to_string(echo_back) + kv("echo_bad", echo_bad);
    }

    // The upgrade counters, " key=value" each; empty without the role.
    std::string upgrade_counters() const
    {
        if (!upgrade_role())
            return {};
        auto kv = [](const char* k, long long v) { return std::string(" ") + k + "=" + std::to_string(v); };
        return kv("up_orders", up_orders) + kv("up_succ", up_succ) + kv("up_fail", up_fail) +
               kv("up_silent", up_silent) + kv("up_inflight", up_inflight) + kv("up_inflight_max", up_inflight_max) +
               kv("up_reports", up_reports) + kv("up_oks", up_oks);
    }

    // The counters of the text families' line, or of the gateway roles,
    // " key=value" each; empty when there is nothing to tell.
    std::string role_counters() const
    {
        auto kv = [](const char* k, uint64_t v) { return std::string(" ") + k + "=" + std::to_string(v); };
        if (o.text != nullptr)
            return kv((std::string(o.text->label) + "_mappings").c_str(), mappings) + (o.rsa ? kv("keys", keys) : "");
        if (!gateway_roles())
            return {};
        return kv("game_reports", game_reports) + kv("tunnel_closes", tunnel_closes) + kv("pushes", pushes) +
               kv("fetches", fetches) + kv("push_ok", push_ok) + kv("push_no", push_no) +
               kv("push_silent", push_silent) + kv("usragp_requests", usragp_requests);
    }
};

// The fixed part of the reports of cache appliance or log server INDEX
// (a log server sends a few of the values). Every appliance's
// service ends 2 to 60 days from now, so that a fleet of 30 or more has
// some that expire within a week.
frb_report text_template(const options& o, long index)
{
    frb_report r;
    r.id = make_ident(o.prefix, index);
    r.by_key = index % 2 == 0;
    r.cpu = "x86-64-" + std::to_string(2 << (index % 3)) + "c";
    r.board = "sim-board-" + std::to_string(index % 3 + 1);
    r.mem = std::to_string(8 << (index % 2)) + "G";
    r.boot = static_cast<uint32_t>(3600 + (index % 1000) * 60);
    r.name = expand_name(o.name, index);
    r.ver = o.version;
    r.bdw = static_cast<unsigned>(100 + index % 900);
    r.start = 1704067200;  // 2024-01-01
    r.end = static_cast<uint32_t>(std::time(nullptr)) + static_cast<uint32_t>(index % 30 + 1) * 2 * 86400;
    r.flow = o.flow;
    r.diskio = "sda:r" + std::to_string(10 + index % 7) + "w" + std::to_string(3 + index % 5) + ",sdb:r1w0";
    r.pused = "/:41%,/data:" + std::to_string(index % 90) + "%";
    return r;
}

void setup_gateways(sim& s)
{
    const options& o = s.o;
    s.gw.resize(o.count);
    if (o.shared || o.load) {
        s.shared_fd = open_socket(o.load ? 8 << 20 : 1 << 20);
        if (s.shared_fd < 0)
            die("cannot open the shared socket: %s", std::strerror(errno));
    } else {
        raise_nofile(o.count + 64);
    }
    for (long i = 0; i < o.count; i++) {
        gateway& g = s.gw[i];
        g.index = o.first + i;
        g.id = make_ident(o.prefix, g.index);
        if (s.shared_fd >= 0) {
            g.fd = s.shared_fd;
        } else {
            g.fd = open_socket(0);
            if (g.fd < 0) {
                std::fprintf(stderr, "vtsim: cannot open a socket for gateway %s: %s (use --shared-socket for many gateways)\n",
                             g.id.c_str(), std::strerror(errno));
                std::exit(2);
            }
        }
        g.ping = build_ping(g.id);
        g.announce = build_ping(g.id, VTR_UP_ANNOUNCE);
        if (s.text() != nullptr) {
            g.frb = text_template(o, g.index);
            continue;
        }
        status_params p;
        p.id = g.id;
        p.devid = static_cast<uint16_t>(g.index & 0xffff);
        p.sys_run = static_cast<uint32_t>(3600 + (g.index % 1000) * 60);
        p.ipaddr = 0x0a000000u | static_cast<uint32_t>(g.index & 0xffffff);  // 10.x.y.z, host order
        p.license_start = 1704067200;                                           // 2024-01-01
        p.license_end = 2019600000;                                             // 2033-12
        p.current_users = o.users;
        p.license_id83 = g.id + "-" + fake_md5(g.id) + fake_md5(g.id + "83");
        p.version = o.version;
        p.sys_name = expand_name(o.name, g.index);
        p.flowcont = o.flow;
        p.max_flowcont = o.maxflow;
        p.max_ipcnt = o.maxusers;
        p.temp = static_cast<uint16_t>(40 + g.index % 25);
        p.grpname = o.grpname;
        g.tmpl = build_status(p);
    }
    s.upgraded = std::make_unique<std::atomic<bool>[]>(s.gw.size());
    s.closed = std::make_unique<std::atomic<uint32_t>[]>(s.gw.size());
    s.dst.sin_family = AF_INET;
    s.dst.sin_port = htons(static_cast<uint16_t>(o.port));
    host_is_loopback(o.host.c_str(), &s.dst.sin_addr);
    s.bdst = s.dst;
    s.bdst.sin_port = htons(static_cast<uint16_t>(o.backup_port));
    s.udst = s.dst;
    s.udst.sin_port = htons(static_cast<uint16_t>(o.upgrade_port));

    uint64_t n = static_cast<uint64_t>(o.count);
    s.status = make_pacer(n, o.rate, o.interval, o.reports);
    if (o.backup_port != 0)
        s.ping = make_pacer(n, o.ping_rate, o.ping, o.pings);
    else
        s.ping.limit = 0;
    // Appliances announce themselves on their own clocks: a freed upgrade
    // slot goes to whichever waiting one speaks next, so the announcements
    // are spread over the whole interval, not sent in bursts.
    if (o.upgrade_port != 0)
        s.announce = make_pacer(n, o.announce_rate, o.announce, o.announces, true);
    else
        s.announce.limit = 0;
}

bool upgraded(const sim& s, const gateway& g)
{
    return s.upgraded[static_cast<size_t>(g.index - s.o.first)].load(std::memory_order_relaxed);
}

// Report SEQ of gateway G, ready to send.
void fill_status(const sim& s, const gateway& g, uint64_t seq, devinfo_recv_bps_t& d)
{
    static const uint16_t types[3] = {VTR_STATUS, VTR_STATUS2, VTR_STATUS3};
    uint64_t n = s.gw.size();
    uint64_t round = seq / n;
    d = g.tmpl;
    d.type = s.o.type != 0 ? s.o.type : types[(round + seq % n) % 3];
    d.time = static_cast<uint32_t>(std::time(nullptr));
    d.sys_run = g.tmpl.sys_run + static_cast<uint32_t>(s.elapsed());
    uint64_t wobble = (static_cast<uint64_t>(g.index) * 7 + round * 13) % 50;
    d.upbps = 100000 * (1 + wobble);
    d.downbps = 4 * d.upbps;
    if (upgraded(s, g)) {
        std::memset(d.version, 0, sizeof(d.version));
        put_str(d.version, sizeof(d.version), s.o.upgrade_version);
    }
}

// Report SEQ of cache appliance or log server G: the fixed part with this
// round's figures.
void fill_text(const sim& s, const gateway& g, uint64_t seq, cldarg_t& d)
{
    uint64_t round = seq / s.gw.size();
    uint64_t wobble = (static_cast<uint64_t>(g.index) * 7 + round * 13) % 50;
    frb_report r = g.frb;
    r.cpurate = static_cast<unsigned>(std::min<uint64_t>(100, static_cast<uint64_t>(s.o.cpurate) + wobble % 20));
    r.boot += static_cast<uint32_t>(s.elapsed());
    r.bpsout = 200000 * (1 + wobble);
    r.bpsin = 3 * r.bpsout;
    r.flow += static_cast<uint32_t>(wobble);
    if (upgraded(s, g))
        r.ver = s.o.upgrade_version;
    d = build_text(s.text()->magic, s.text()->report(r));
}

// A gateway's user application groups and applications.
void send_usrapps(sim& s, const gateway& g)
{
    for (long k = 1; k <= s.o.usrapps; k++) {
        s.send_text(g.fd, usragp_group_text(g.id, k));
        s.send_text(g.fd, usrapp_text(g.id, k));
    }
}

// What a gateway sends once, after its first report, when the daemon knows
// the identifier: coordinates, key digest, tables, user applications. A
// cache appliance hands over its verification string, it and a log server
// their public key.
void send_extras(sim& s, const gateway& g)
{
    if (s.text() != nullptr) {
        if (s.text()->hands_pwd)
            s.send_text(g.fd, frb_pwd_text(g.id, fake_md5(g.id)));
        if (s.o.rsa && s.send_text(g.fd, rsa_text(g.id)) == 0)
            s.keys++;
        return;
    }
    if (s.o.lnglat) {
        double k = static_cast<double>(g.index % 1000);
        auto d = build_lnglat(g.id, 116.30 + k * 0.001, 39.90 + k * 0.0005);
        s.send_to_daemon(g.fd, &d, sizeof(d));
    }
    if (s.o.key) {
        auto d = build_vtkey(g.id, fake_md5(g.id));
        s.send_to_daemon(g.fd, &d, sizeof(d));
    }
    if (s.o.tables)
        for (const table_kind& t : TABLE_KINDS)
            s.send_text(g.fd, table_report_text(t, g.id, table_info(t)));
    send_usrapps(s, g);
}

// What follows status report SEQ of G: the extras after the first one;
// after every one, a game node's state and the tunnels still open.
void send_report_extras(sim& s, const gateway& g, uint64_t seq)
{
    if (seq < s.gw.size())
        send_extras(s, g);
    if (s.o.fam == family::GAME && s.send_text(g.fd, game_report_text(g.id, g.index, seq / s.gw.size())) == 0)
        s.game_reports++;
    if (s.o.tunnels > 0) {
        std::string t = tunnel_report_text(g.id, g.index, s.o.tunnels, s.closed[&g - s.gw.data()]);
        if (!t.empty())
            s.send_text(g.fd, t);
    }
}

// What follows ping SEQ: after a gateway's first ping its applications and
// echoes, after every later one a text report of one application, app by
// app, so that a start request reaches the gateway within --apps pings.
void send_ping_extras(sim& s, const gateway& g, uint64_t seq)
{
    uint64_t round = seq / s.gw.size();
    if (round == 0) {
        for (long k = 1; k <= s.o.apps; k++) {
            cloud_appinfo_t d = build_appinfo(g.id, sim_app(k));
            s.send_to_backup(g.fd, &d, sizeof(d));
        }
        for (long k = 0; k < s.o.echo; k++) {
            std::vector<uint8_t> e = build_echo(g.id, static_cast<uint32_t>(k));
            if (s.send_to_backup(g.fd, e.data(), e.size()) == 0)
                s.echo_sent++;
        }
    } else if (s.o.apps > 0) {
        long k = static_cast<long>((round - 1) % static_cast<uint64_t>(s.o.apps)) + 1;
        cldarg_t c = build_cmdarg(appinfo_text("appinfo", g.id, sim_app(k)));
        s.send_to_backup(g.fd, &c, sizeof(c));
    }
}

void send_one(sim& s, uint64_t seq)
{
    gateway& g = s.gw[seq % s.gw.size()];
    int rc;
    if (s.text() != nullptr) {
        cldarg_t d;
        fill_text(s, g, seq, d);
        rc = s.send_to_daemon(g.fd, &d, sizeof(d));
    } else {
        devinfo_recv_bps_t d;
        fill_status(s, g, seq, d);
        rc = s.send_to_daemon(g.fd, &d, sizeof(d));
    }
    if (rc == 0)
        s.sent++;
    send_report_extras(s, g, seq);
}

void send_announce(sim& s, uint64_t seq)
{
    const gateway& g = s.gw[seq % s.gw.size()];
    if (s.send_to_upgrade(g.fd, &g.announce, sizeof(g.announce)) == 0)
        s.announces++;
}

void send_ping(sim& s, uint64_t seq)
{
    const gateway& g = s.gw[seq % s.gw.size()];
    if (s.send_to_backup(g.fd, &g.ping, sizeof(g.ping)) == 0)
        s.pings++;
    send_ping_extras(s, g, seq);
}

void reply(sim& s, const gateway& g, const std::string& text)
{
    if (s.o.no_answer)
        return;
    cldarg_t c = build_cmdarg(text);
    if (s.send_to_daemon(g.fd, &c, sizeof(c)) == 0)
        s.replies++;
}

// The configuration file that a backup copies; empty on success, else the
// failure text to report.
std::string write_conf(const std::string& path, const gateway& g, time_t t)
{
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0640);
    if (fd < 0)
        return "scp: " + path + ": " + std::strerror(errno);
    std::string text = "# configuration of " + g.id + "\nlicense_id12=" + g.id +
                       "\nsys_name=" + get_str(g.tmpl.sys_name, sizeof(g.tmpl.sys_name)) +
                       "\nversion=" + get_str(g.tmpl.version, sizeof(g.tmpl.version)) +
                       "\nbackup_time=" + std::to_string(static_cast<long long>(t)) +
                       "\nlan=192.168.1.1/24\nwan=dhcp\n";
    bool ok = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    ok = close(fd) == 0 && ok;
    return ok ? std::string() : "scp: short write on " + path;
}

// A backup order: the file is copied into the backup directory and the
// result reported, under the time-stamped name (10017, errors = the time)
// or under a name (10020); or the copy "fails" (10018 and 10019 in turn).
void answer_backup(sim& s, const gateway& g, const cloud_backupinfo_t& order)
{
    static const char* const FAILURES[] = {
        "disk full 'var'",
        "scp: Permission denied (publickey) \"root\"",
        "ssh: connect to host port 22: Connection refused; it's down \\",
    };
    uint64_t n = s.backup_orders++;
    time_t t = std::time(nullptr);
    std::string asked = get_str(order.filename, sizeof(order.filename));
    bool named = !asked.empty() || s.o.backup_named;
    std::string name;
    if (!asked.empty()) {
        name = asked;
    } else if (named) {
        name = g.id + ".conf";
    } else {
        std::tm tm{};
        localtime_r(&t, &tm);
        name = backup_conf_name(g.id, tm);
    }
    std::string failure;
    if (pick(s.o.backup_fail, n))
        failure = FAILURES[s.backup_fails % 3];
    else if (!safe_file_name(name))
        failure = "scp: refused file name " + name;
    else
        failure = write_conf(s.o.backup_dir + "/" + name, g, t);
    cloud_backup_log_t d;
    std::string outcome;
    if (failure.empty()) {
        d = named ? build_backup_log(VTR_BACKUP_NAMED, g.id, name, "")
                  : build_backup_log(VTR_BACKUP_OK, g.id, "", std::to_string(static_cast<long long>(t)));
        s.backups++;
        outcome = "ok " + name;
    } else {
        uint16_t type = s.backup_fails++ % 2 == 0 ? VTR_BACKUP_FAIL1 : VTR_BACKUP_FAIL2;
        d = build_backup_log(type, g.id, "", failure);
        outcome = "fail " + std::to_string(type) + " " + failure;
    }
    s.send_to_backup(g.fd, &d, sizeof(d));
    if (!s.o.quiet)
        std::printf("%s backup fl_ctime=%u -> %s\n", g.id.c_str(), order.fl_ctime, printable(outcome).c_str());
}

// A package-upgrade order: acknowledged, then a progress report and the
// end (a version, or a failure). The success report ends in a line break,
// as the appliances send it.
void answer_appup(sim& s, const gateway& g, const cloud_appupgradeinfo_t& order)
{
    uint64_t n = s.appup_orders++;
    std::string packet = get_str(order.packet_name, sizeof(order.packet_name));
    cloud_appupgradeinfo_t ack = build_appup_ack(g.id, packet);
    s.send_to_backup(g.fd, &ack, sizeof(ack));
    cloud_appup_log_t d = build_appup_log(g.id, "upgrade 50% downloading");
    s.send_to_backup(g.fd, &d, sizeof(d));
    bool fail = pick(s.o.appup_fail, n);
    d = build_appup_log(g.id, fail ? "upgrade fail md5 mismatch" : "upgrade succ 2.1.0\r\n");
    s.send_to_backup(g.fd, &d, sizeof(d));
    (fail ? s.appup_fails : s.appups)++;
    if (!s.o.quiet)
        std::printf("%s appup packet=%s port=%u -> %s\n", g.id.c_str(), printable(packet).c_str(), order.nginx_port,
                    fail ? "fail md5 mismatch" : "succ 2.1.0");
}

// A start request: printed, and its log sent back with the application
// running (the log also refreshes the daemon's record, so it carries every
// field of an application of ours; a foreign name gets no log).
void answer_appstart(sim& s, const gateway& g, const std::string& text)
{
    s.appstarts++;
    std::string app = token_value(text, "app_name");
    std::printf("%s appstart app_name=%s state=%s\n", g.id.c_str(), printable(app).c_str(),
                printable(token_value(text, "state")).c_str());
    for (long k = 1; k <= s.o.apps; k++) {
        if (sim_app(k).name == app) {
            cldarg_t c = build_cmdarg(appinfo_text("appstartlog", g.id, sim_app(k)));
            s.send_to_backup(g.fd, &c, sizeof(c));
            break;
        }
    }
}

enum class up_report { PROGRESS, SUCC, FAIL };

// A report on an upgrade: a record on the upgrade socket for a gateway, a
// text on the device port for a cache appliance. The failure text carries
// quotes, as appliances write them. A report is sent once: one that is
// lost leaves its row started until the daemon gives it up, and shows as
// up_oks below up_reports.
void send_upgrade_report(sim& s, const gateway& g, const upgrade_order& o, up_report what)
{
    const std::string& ver = s.o.upgrade_version;
    if (s.text() != nullptr) {
        std::string text;
        switch (what) {
        case up_report::PROGRESS: text = frb_upgrade_text(g.id, o.task, "downloading_" + o.packet, "", -1); break;
        case up_report::SUCC: text = frb_upgrade_text(g.id, o.task, "upgrade_ok", ver, 0); break;
        case up_report::FAIL: text = frb_upgrade_text(g.id, o.task, "md5_mismatch", "", 1); break;
        }
        if (s.send_text(g.fd, text) == 0)
            s.up_reports++;
        return;
    }
    const auto task = static_cast<uint16_t>(o.task);
    cloud_upgrade_log_t d;
    switch (what) {
    case up_report::PROGRESS:
        d = build_upgrade_log(VTR_UP_PROGRESS, task, g.id, "", "downloading " + o.packet + " from port " +
                                                                  std::to_string(o.port));
        break;
    case up_report::SUCC: d = build_upgrade_log(VTR_UP_SUCC, task, g.id, ver, "upgrade ok " + ver); break;
    case up_report::FAIL:
        d = build_upgrade_log(VTR_UP_FAIL, task, g.id, "", "md5 mismatch in '" + o.packet + "', it's \\ corrupt");
        break;
    }
    if (s.send_to_upgrade(g.fd, &d, sizeof(d)) == 0)
        s.up_reports++;
}

void print_upgrade(const sim& s, const gateway& g, const upgrade_order& o, const std::string& outcome)
{
    if (!s.o.quiet)
        std::printf("%s upgrade task=%ld packet=%s port=%ld -> %s\n", g.id.c_str(), o.task, printable(o.packet).c_str(),
                    o.port, outcome.c_str());
}

// An upgrade order for the appliance at position POS: the progress report
// goes at once and the end after --upgrade-time, unless the order is one
// of the silent fraction, which stays in flight for good.
void take_order(sim& s, size_t pos, const upgrade_order& o)
{
    const gateway& g = s.gw[pos];
    uint64_t n = s.up_orders++;
    int64_t in_flight = ++s.up_inflight;
    if (in_flight > s.up_inflight_max)
        s.up_inflight_max = in_flight;
    if (pick(s.o.upgrade_silent, n)) {
        s.up_silent++;
        print_upgrade(s, g, o, "silent");
        return;
    }
    bool fail = pick(s.o.upgrade_fail, s.up_answered++);
    send_upgrade_report(s, g, o, up_report::PROGRESS);
    s.jobs.push_back({s.elapsed() + s.o.upgrade_time, pos, o, fail});
}

// Ends the upgrades that are due.
void end_upgrades(sim& s)
{
    double now = s.elapsed();
    while (!s.jobs.empty() && s.jobs.front().due <= now) {
        upgrade_job j = std::move(s.jobs.front());
        s.jobs.pop_front();
        const gateway& g = s.gw[j.gw];
        send_upgrade_report(s, g, j.order, j.fail ? up_report::FAIL : up_report::SUCC);
        s.up_inflight--;
        if (j.fail) {
            s.up_fail++;
            print_upgrade(s, g, j.order, "fail md5 mismatch");
        } else {
            s.up_succ++;
            s.upgraded[j.gw] = true;
            print_upgrade(s, g, j.order, "succ " + printable(s.o.upgrade_version));
        }
    }
}

// A text from the daemon to a cache appliance or log server: a mapping
// instruction, an upgrade order (cache appliances), or anything else
// (printed).
void handle_text(sim& s, const gateway* g, const std::string& who, const std::string& text)
{
    s.answered++;
    const char* label = s.text()->label;
    upgrade_order order;
    if (text.rfind("mapping=", 0) == 0) {
        s.mappings++;
        if (!s.o.quiet)
            std::printf("%s %s mapping webport=%s sshport=%s\n", who.c_str(), label,
                        printable(token_value(text, "webport")).c_str(),
                        printable(token_value(text, "sshport")).c_str());
    } else if (s.text()->takes_orders && frb_order(text, order) && g != nullptr) {
        take_order(s, static_cast<size_t>(g - s.gw.data()), order);
    } else if (!s.o.quiet) {
        std::printf("%s %s %s\n", who.c_str(), label, printable(text).c_str());
    }
}

// The answer to the next push of kind KIND (0, 1: the tables, 2:
// distribution notices), counted. --no-answer makes every one silent.
answer pick_answer(sim& s, size_t kind)
{
    answer a = answer::OK;
    if (s.o.no_answer || pick(s.o.push_silent, s.push_seen[kind]++))
        a = answer::SILENT;
    else if (pick(s.o.push_fail, s.push_answered[kind]++))
        a = answer::NO;
    (a == answer::OK ? s.push_ok : a == answer::NO ? s.push_no : s.push_silent)++;
    return a;
}

// A command of the gateway roles; false when TAG is none of theirs.
bool handle_role(sim& s, const gateway& g, const std::string& tag, const std::string& text)
{
    if (tag == "sshportkill") {
        long k = tunnel_of(text, g.index, s.o.tunnels);
        if (k >= 0) {
            s.closed[&g - s.gw.data()] |= 1u << k;
            s.tunnel_closes++;
            reply(s, g, tunnel_closed_text(g.id, sim_tunnel(g.index, k)));
        }
        if (!s.o.quiet)
            std::printf("%s sshportkill bigport=%s minport=%s -> %s\n", g.id.c_str(),
                        printable(token_value(text, "bigport")).c_str(),
                        printable(token_value(text, "minport")).c_str(), k >= 0 ? "closed" : "unknown");
        return true;
    }
    if (const table_kind* t = push_kind(tag)) {
        s.pushes++;
        answer a = pick_answer(s, static_cast<size_t>(t - TABLE_KINDS.data()));
        if (a != answer::SILENT)
            reply(s, g, push_answer_text(*t, g.id, a));
        if (a == answer::OK)
            reply(s, g,
                  table_report_text(*t, g.id, table_info(*t, token_value(text, "file"), token_value(text, "ipid"))));
        if (!s.o.quiet)
            std::printf("%s %s ipid=%s file=%s grpname=%s dwport=%s -> %s\n", g.id.c_str(), tag.c_str(),
                        printable(token_value(text, "ipid")).c_str(), printable(token_value(text, "file")).c_str(),
                        printable(token_value(text, "grpname")).c_str(),
                        printable(token_value(text, "dwport")).c_str(), answer_word(a));
        return true;
    }
    if (tag == "usragp_file") {
        s.fetches++;
        answer a = pick_answer(s, TABLE_KINDS.size());
        if (a != answer::SILENT)
            reply(s, g, fetch_answer_text(g.id, a));
        if (!s.o.quiet)
            std::printf("%s usragp_file httpport=%s -> %s\n", g.id.c_str(),
                        printable(token_value(text, "httpport")).c_str(), answer_word(a));
        return true;
    }
    if (tag == "usragp_request") {
        s.usragp_requests++;
        if (!s.o.no_answer)
            send_usrapps(s, g);
        if (!s.o.quiet)
            std::printf("%s usragp_request -> groups=%ld apps=%ld\n", g.id.c_str(), s.o.usrapps, s.o.usrapps);
        return true;
    }
    return false;
}

// One datagram received on socket FD; OWNER is the socket's gateway, or
// null for the shared socket (then the datagram's identifier decides).
void handle(sim& s, const gateway* owner, const uint8_t* buf, size_t len)
{
    incoming in = classify(buf, len);
    const gateway* g = owner;
    if (g == nullptr) {
        long idx = ident_index(in.id, s.o.prefix);
        if (idx >= s.o.first && idx < s.o.first + static_cast<long>(s.gw.size()))
            g = &s.gw[idx - s.o.first];
    }
    std::string who = g != nullptr ? g->id : "?" + printable(in.id);
    switch (in.kind) {
    case incoming::COMMAND: {
        s.answered++;
        std::string tag = token_value(in.text, "tag");
        if (tag == "rootpassreset") {
            std::printf("%s rootpassreset password=%s oripass=%s mfadminpass=%s\n", who.c_str(),
                        printable(token_value(in.text, "password")).c_str(),
                        printable(token_value(in.text, "oripass")).c_str(),
                        printable(token_value(in.text, "mfadminpass")).c_str());
            if (g != nullptr)
                reply(s, *g, "tag=rootpassreset license_id12=" + g->id + " return=0");
        } else if (tag == "cpuinfo") {
            if (!s.o.quiet)
                std::printf("%s cpuinfo\n", who.c_str());
            if (g != nullptr)
                reply(s, *g, "tag=cpuinfo license_id12=" + g->id + " cpurate=" + std::to_string(s.o.cpurate) +
                                 " rmadmin=0 cronfile=0");
        } else if (tag == "appstart" && g != nullptr && s.o.backup_port != 0) {
            answer_appstart(s, *g, in.text);
        } else if (g != nullptr && handle_role(s, *g, tag, in.text)) {
        } else if (!s.o.quiet) {
            std::printf("%s %s\n", who.c_str(), printable(in.text).c_str());
        }
        break;
    }
    case incoming::MAPPING:
        s.answered++;
        if (!s.o.quiet)
            std::printf("%s %s\n", who.c_str(), format_mapping(in.map).c_str());
        break;
    case incoming::BACKUP_ORDER:
    case incoming::APPUP_ORDER:
    case incoming::ECHO:
        if (g == nullptr || s.o.backup_port == 0) {
            s.other++;
            if (!s.o.quiet)
                std::printf("%s other len=%zu type=%u\n", who.c_str(), len, in.type);
        } else if (in.kind == incoming::BACKUP_ORDER) {
            answer_backup(s, *g, in.backup);
        } else if (in.kind == incoming::APPUP_ORDER) {
            answer_appup(s, *g, in.appup);
        } else if (echo_intact(buf, len)) {
            s.echo_back++;
        } else {
            s.echo_bad++;
            std::printf("%s echo changed len=%zu\n", who.c_str(), len);
        }
        break;
    case incoming::UPGRADE_ORDER:
        if (g == nullptr || s.o.upgrade_port == 0) {
            s.other++;
            if (!s.o.quiet)
                std::printf("%s other len=%zu type=%u\n", who.c_str(), len, in.type);
        } else {
            take_order(s, static_cast<size_t>(g - s.gw.data()), gw_order(in.upgrade));
        }
        break;
    case incoming::ACK:
        if (s.o.upgrade_port != 0)
            s.up_oks++;
        else
            s.other++;
        break;
    case incoming::FAMILY_TEXT:
        if (s.text() != nullptr) {
            handle_text(s, g, who, in.text);
            break;
        }
        [[fallthrough]];
    case incoming::OTHER:
        s.other++;
        if (!s.o.quiet)
            std::printf("%s other len=%zu type=%u\n", who.c_str(), len, in.type);
        break;
    }
}

// Drains up to 64 datagrams from FD.
void drain(sim& s, int fd, const gateway* owner)
{
    static uint8_t buf[65536];
    for (int i = 0; i < 64; i++) {
        ssize_t r = recv(fd, buf, sizeof(buf), MSG_DONTWAIT);
        if (r < 0)
            return;
        handle(s, owner, buf, static_cast<size_t>(r));
    }
}

// The event set of every receiving socket; the event's data is the gateway
// position, or -1 for the shared socket.
int make_epoll(const sim& s)
{
    int ep = epoll_create1(EPOLL_CLOEXEC);
    if (ep < 0)
        die("epoll_create1: %s", std::strerror(errno));
    auto add = [&](int fd, int64_t tag) {
        epoll_event ev{};
        ev.events = EPOLLIN;
        ev.data.u64 = static_cast<uint64_t>(tag);
        if (epoll_ctl(ep, EPOLL_CTL_ADD, fd, &ev) != 0)
            die("epoll_ctl: %s", std::strerror(errno));
    };
    if (s.shared_fd >= 0)
        add(s.shared_fd, -1);
    else
        for (size_t i = 0; i < s.gw.size(); i++)
            add(s.gw[i].fd, static_cast<int64_t>(i));
    return ep;
}

void wait_and_handle(sim& s, int ep, int timeout_ms)
{
    epoll_event evs[64];
    int n = epoll_wait(ep, evs, 64, timeout_ms);
    for (int i = 0; i < n; i++) {
        int64_t tag = static_cast<int64_t>(evs[i].data.u64);
        if (tag < 0)
            drain(s, s.shared_fd, nullptr);
        else
            drain(s, s.gw[tag].fd, &s.gw[tag]);
    }
    end_upgrades(s);
}

// Waits for answers until DEADLINE (seconds of elapsed time) or a signal.
void linger(sim& s, int ep, double deadline)
{
    for (int turns = 0; !g_stop && turns < 1000000; turns++) {
        double left = deadline - s.elapsed();
        if (left <= 0)
            break;
        wait_and_handle(s, ep, static_cast<int>(std::ceil(std::min(left, 0.1) * 1000)));
    }
}

int run_normal(sim& s)
{
    int ep = make_epoll(s);
    s.t0 = now_sec();
    while (!g_stop && !s.finished()) {
        double now = s.elapsed();
        if (s.o.duration > 0 && now >= s.o.duration)
            break;
        for (int n = 0; n < 256; n++) {
            int k = earliest(s.streams);
            if (k < 0 || s.streams[k].due(s.streams[k].seq) > now)
                break;
            uint64_t seq = s.streams[k].seq++;
            if (k == S_STATUS)
                send_one(s, seq);
            else if (k == S_PING)
                send_ping(s, seq);
            else
                send_announce(s, seq);
        }
        int k = earliest(s.streams);
        double wait = k >= 0 ? s.streams[k].due(s.streams[k].seq) - s.elapsed() : 0;
        if (s.o.duration > 0)
            wait = std::min(wait, s.o.duration - s.elapsed());
        if (!s.jobs.empty())
            wait = std::min(wait, s.jobs.front().due - s.elapsed());
        wait = std::clamp(wait, 0.0, 0.1);
        wait_and_handle(s, ep, static_cast<int>(std::ceil(wait * 1000)));
    }
    if (!g_stop)
        linger(s, ep, s.elapsed() + s.o.linger);
    close(ep);
    std::fflush(stdout);
    std::fprintf(stderr, "vtsim: sent=%llu answered=%llu replies=%llu other=%llu send_errors=%llu\n",
                 static_cast<unsigned long long>(s.sent.load()), static_cast<unsigned long long>(s.answered.load()),
                 static_cast<unsigned long long>(s.replies.load()), static_cast<unsigned long long>(s.other.load()),
                 static_cast<unsigned long long>(s.send_errors.load()));
    if (s.o.backup_port != 0)
        std::fprintf(stderr, "vtsim: pings=%llu%s\n", static_cast<unsigned long long>(s.pings.load()),
                     s.backup_counters().c_str());
    if (s.o.upgrade_port != 0)
        std::fprintf(stderr, "vtsim: announces=%llu%s\n", static_cast<unsigned long long>(s.announces.load()),
                     s.upgrade_counters().c_str());
    else if (s.text() != nullptr)
        std::fprintf(stderr, "vtsim:%s%s\n", s.role_counters().c_str(), s.upgrade_counters().c_str());
    if (s.text() == nullptr && s.gateway_roles())
        std::fprintf(stderr, "vtsim:%s\n", s.role_counters().c_str());
    return 0;
}

// Sum of the drop counters of every socket on PORT, over IPv4 and IPv6;
// -1 when no socket has that port or the tables cannot be read.
long long port_drops(int port)
{
    long long total = -1;
    for (const char* path : {"/proc/net/udp", "/proc/net/udp6"}) {
        std::ifstream f(path);
        if (!f)
            continue;
        std::stringstream ss;
        ss << f.rdbuf();
        long long d = udp_drops(ss.str(), port);
        if (d >= 0)
            total = (total < 0 ? 0 : total) + d;
    }
    return total;
}

// Growth of a drop counter; 0 when the port had no socket at the start, -1
// when it had one and lost it.
long long drops_since(long long before, int port)
{
    if (before < 0)
        return 0;
    long long after = port_drops(port);
    return after < 0 ? -1 : after - before;
}

int run_load(sim& s)
{
    bool pinging = !s.ping.done(), announcing = !s.announce.done();
    long long drops_before = port_drops(s.o.port);
    if (drops_before < 0)
        std::fprintf(stderr, "vtsim: no socket on UDP port %d in /proc/net/udp; lost is reported as 0\n", s.o.port);
    long long ping_drops_before = pinging ? port_drops(s.o.backup_port) : -1;
    if (pinging && ping_drops_before < 0)
        std::fprintf(stderr, "vtsim: no socket on UDP port %d in /proc/net/udp; ping_lost is reported as 0\n",
                     s.o.backup_port);
    long long announce_drops_before = announcing ? port_drops(s.o.upgrade_port) : -1;
    if (announcing && announce_drops_before < 0)
        std::fprintf(stderr, "vtsim: no socket on UDP port %d in /proc/net/udp; announce_lost is reported as 0\n",
                     s.o.upgrade_port);

    std::atomic<bool> recv_stop{false};
    int ep = make_epoll(s);
    // The receiver thread alone reads the socket and prints; the sender
    // thread below only sends. Both send on the same socket, which needs
    // no lock for datagrams.
    std::thread receiver([&] {
        while (!recv_stop.load(std::memory_order_relaxed))
            wait_and_handle(s, ep, 20);
    });

    // A batch interleaves the streams in the order they fall due; a slot
    // remembers its stream and number, so that a short send moves each
    // stream on by what actually went out.
    constexpr unsigned BATCH = 64;
    struct slot {
        int stream;
        uint64_t seq;
        devinfo_recv_bps_t st;
        cldarg_t text;
    };
    static slot slots[BATCH];
    iovec iov[BATCH];
    mmsghdr msgs[BATCH];
    std::memset(msgs, 0, sizeof(msgs));
    for (unsigned i = 0; i < BATCH; i++) {
        msgs[i].msg_hdr.msg_iov = &iov[i];
        msgs[i].msg_hdr.msg_iovlen = 1;
        msgs[i].msg_hdr.msg_namelen = sizeof(sockaddr_in);
    }

    s.t0 = now_sec();
    while (!g_stop && !s.finished()) {
        double now = s.elapsed();
        if (s.o.duration > 0 && now >= s.o.duration)
            break;
        streams_t st = s.streams;  // moved on as the batch fills
        unsigned n = 0;
        for (; n < BATCH; n++) {
            int k = earliest(st);
            if (k < 0 || st[k].due(st[k].seq) > now)
                break;
            slot& sl = slots[n];
            sl.stream = k;
            sl.seq = st[k].seq++;
            const gateway& g = s.gw[sl.seq % s.gw.size()];
            if (k == S_PING) {
                iov[n] = {const_cast<cloud_ping_t*>(&g.ping), sizeof(g.ping)};
                msgs[n].msg_hdr.msg_name = &s.bdst;
            } else if (k == S_ANNOUNCE) {
                iov[n] = {const_cast<cloud_ping_t*>(&g.announce), sizeof(g.announce)};
                msgs[n].msg_hdr.msg_name = &s.udst;
            } else if (s.text() != nullptr) {
                fill_text(s, g, sl.seq, sl.text);
                iov[n] = {&sl.text, sizeof(sl.text)};
                msgs[n].msg_hdr.msg_name = &s.dst;
            } else {
                fill_status(s, g, sl.seq, sl.st);
                iov[n] = {&sl.st, sizeof(sl.st)};
                msgs[n].msg_hdr.msg_name = &s.dst;
            }
        }
        if (n == 0) {
            // Sleep through most of the gap, spin the last stretch so that
            // the pacing stays even at high rates.
            const pacer& p = s.streams[earliest(s.streams)];
            double gap = p.due(p.seq) - s.elapsed();
            if (s.o.duration > 0)
                gap = std::min(gap, s.o.duration - s.elapsed());
            if (gap > 300e-6) {
                double sl = std::min(gap - 200e-6, 0.05);
                timespec ts{static_cast<time_t>(sl), static_cast<long>((sl - std::floor(sl)) * 1e9)};
                nanosleep(&ts, nullptr);
            } else if (gap > 0) {
                sched_yield();
            }
            continue;
        }
        int k = sendmmsg(s.shared_fd, msgs, n, 0);
        bool given_up = false;
        if (k < 0) {
            if (errno == EINTR)
                continue;
            s.note_send_error(errno, n);  // these datagrams are given up, the pace goes on
            k = static_cast<int>(n);
            given_up = true;
        }
        for (int i = 0; i < k; i++) {
            const slot& sl = slots[i];
            const gateway& g = s.gw[sl.seq % s.gw.size()];
            s.streams[sl.stream].seq = sl.seq + 1;
            if (sl.stream == S_PING) {
                if (!given_up)
                    s.pings++;
                send_ping_extras(s, g, sl.seq);
            } else if (sl.stream == S_ANNOUNCE) {
                if (!given_up)
                    s.announces++;
            } else {
                if (!given_up)
                    s.sent++;
                send_report_extras(s, g, sl.seq);
            }
        }
    }
    double elapsed = s.elapsed();
    if (!g_stop) {
        double end = elapsed + s.o.linger;
        for (int turns = 0; !g_stop && turns < 100000 && s.elapsed() < end; turns++)
            usleep(10000);
    }
    recv_stop = true;
    receiver.join();
    close(ep);

    long long lost = drops_since(drops_before, s.o.port);
    if (s.send_errors > 0)
        std::fprintf(stderr, "vtsim: %llu datagrams could not be sent\n",
                     static_cast<unsigned long long>(s.send_errors.load()));
    std::fflush(stdout);
    // The reports and everything else the device port got: what the
    // daemon (or a bare receive loop) has to take in.
    const uint64_t sent = s.sent.load() + s.to_daemon.load();
    double rate = elapsed > 0 ? static_cast<double>(sent) / elapsed : 0;
    std::string extra;
    if (s.o.backup_port != 0)
        extra = " pings=" + std::to_string(s.pings.load()) +
                " ping_lost=" + std::to_string(pinging ? drops_since(ping_drops_before, s.o.backup_port) : 0) +
                s.backup_counters();
    if (s.o.upgrade_port != 0)
        extra += " announces=" + std::to_string(s.announces.load()) + " announce_lost=" +
                 std::to_string(announcing ? drops_since(announce_drops_before, s.o.upgrade_port) : 0);
    extra += s.role_counters() + s.upgrade_counters();
    std::printf("sent=%llu answered=%llu lost=%lld rate=%.0f/s elapsed=%.3f%s\n",
                static_cast<unsigned long long>(sent), static_cast<unsigned long long>(s.answered.load()),
                lost, rate, elapsed, extra.c_str());
    return 0;
}

sockaddr_in target(const options& o)
{
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(o.port));
    host_is_loopback(o.host.c_str(), &a.sin_addr);
    return a;
}

int run_raw(const options& o)
{
    std::vector<uint8_t> bytes;
    if (!parse_hex(o.raw, bytes))
        die("--raw wants hex digit pairs (blanks, ':' or '-' between pairs allowed)");
    if (bytes.size() > MAX_UDP_PAYLOAD)
        die("--raw datagram is longer than a UDP datagram can be");
    int fd = open_socket(0);
    if (fd < 0)
        die("socket: %s", std::strerror(errno));
    sockaddr_in a = target(o);
    if (sendto(fd, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr*>(&a), sizeof(a)) < 0)
        die("send: %s", std::strerror(errno));
    if (!o.quiet)
        std::printf("raw len=%zu\n", bytes.size());
    close(fd);
    return 0;
}

int run_bad(const options& o)
{
    int fd = open_socket(0);
    if (fd < 0)
        die("socket: %s", std::strerror(errno));
    int big = 1 << 20;
    setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &big, sizeof(big));
    sockaddr_in a = target(o);
    int failed = 0;
    auto list = bad_datagrams();
    for (size_t i = 0; i < list.size() && !g_stop; i++) {
        const bad_dgram& b = list[i];
        ssize_t r = sendto(fd, b.bytes.data(), b.bytes.size(), 0, reinterpret_cast<sockaddr*>(&a), sizeof(a));
        if (r < 0) {
            failed++;
            std::fprintf(stderr, "vtsim: bad %zu (%s): %s\n", i + 1, b.label.c_str(), std::strerror(errno));
        } else if (!o.quiet) {
            std::printf("bad %zu len=%zu %s\n", i + 1, b.bytes.size(), b.label.c_str());
        }
        usleep(2000);  // keep the burst well inside the daemon's receive buffer
    }
    close(fd);
    return failed == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv)
{
    setvbuf(stdout, nullptr, _IOLBF, 0);
    options o = parse_args(argc, argv);

    struct sigaction sa {};
    sa.sa_handler = on_signal;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = 0;  // no SA_RESTART: a signal ends the current wait
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    signal(SIGPIPE, SIG_IGN);

    if (o.has_raw)
        return run_raw(o);
    if (o.bad)
        return run_bad(o);

    sim s;
    s.o = o;
    setup_gateways(s);
    return o.load ? run_load(s) : run_normal(s);
}
