// The metrics module: the counters nobody else keeps, and the endpoint
// that turns them and the modules' own figures into the Prometheus text
// format when it is scraped.
#include "metrics.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <unistd.h>

#include <prometheus/collectable.h>
#include <prometheus/exposer.h>
#include <prometheus/metric_family.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <exception>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "als_upgrade.h"
#include "backup.h"
#include "cloud.h"
#include "cloudconf.h"
#include "db_writer.h"
#include "jos_mgmt.h"
#include "upgrade.h"

using prometheus::ClientMetric;
using prometheus::MetricFamily;
using prometheus::MetricType;

namespace {

constexpr auto kBoundsNs = [] {
    std::array<uint64_t, met_hist::nbounds> ns{};
    for (size_t i = 0; i < ns.size(); i++)
        ns[i] = static_cast<uint64_t>(met_hist::bounds[i] * 1e9);
    return ns;
}();

// ---------------------------------------------------------------------------
// Datagrams of the device socket, by family and type.
// ---------------------------------------------------------------------------

struct dgram_kind {
    const char* family;
    const char* type;
};

constexpr dgram_kind kKinds[] = {
    {"gateway", "status"}, {"gateway", "status2"}, {"gateway", "status3"}, {"gateway", "lnglat"},
    {"gateway", "key"},    {"gateway", "cmdarg"},  {"gateway", "other"},   {"frb", "report"},
    {"frb", "tag"},        {"frb", "rsa"},         {"log", "report"},      {"log", "tag"},
    {"log", "rsa"},        {"other", "other"},
};
constexpr size_t kNKinds = sizeof(kKinds) / sizeof(kKinds[0]);
constexpr size_t K_GW_OTHER = 6, K_FRB = 7, K_LOG = 10, K_OTHER = 13;

std::atomic<uint64_t> _dgrams[kNKinds];
std::atomic<uint64_t> _dropped[kNKinds];

// The kind of a datagram, by the same magic, type and body prefixes the
// receive loop dispatches on.
size_t dgram_kindof(const char* buf, int len)
{
    if (len >= 3 && std::memcmp(buf, "VTR", 3) == 0) {
        if (len < static_cast<int>(sizeof(cloud_hdr_t)))
            return K_GW_OTHER;
        switch (reinterpret_cast<const cloud_hdr_t*>(buf)->type) {
        case VTR_STATUS:
            return 0;
        case VTR_STATUS2:
            return 1;
        case VTR_STATUS3:
            return 2;
        case VTR_LNGLAT:
            return 3;
        case VTR_VTKEY:
            return 4;
        case VTR_CMDARG:
            return 5;
        default:
            return K_GW_OTHER;
        }
    }
    size_t base;
    if (len >= 3 && std::memcmp(buf, "FRB", 3) == 0)
        base = K_FRB;
    else if (len >= 3 && std::memcmp(buf, "LOG", 3) == 0)
        base = K_LOG;
    else
        return K_OTHER;
    const char* body = buf + 8;
    if (len >= 11 && std::strncmp(body, "tag", 3) == 0)
        return base + 1;
    if (len >= 12 && std::strncmp(body, "RSA=", 4) == 0)
        return base + 2;
    return base;
}

// ---------------------------------------------------------------------------
// Appliance pools, management commands, the writer's latency.
// ---------------------------------------------------------------------------

struct family_pool {
    const char* magic;
    const char* family;
    met_countfn count;
};

// Filled by module inits on the main thread before the endpoint starts.
family_pool _pools[] = {
    {"VTR", "gateway", nullptr}, {"FRB", "frb", nullptr}, {"LOG", "log", nullptr}, {"GAME", "game", nullptr}};

// One row per module and code seen; codes come from clients, so the table
// is bounded and the rest shares the last row.
constexpr size_t kCmdRows = 128;
struct cmd_row {
    std::string module;
    std::string code;
    uint64_t errors = 0;
    met_hist hist;
};
std::mutex _cmd_mtx;
std::array<cmd_row, kCmdRows> _cmds;
size_t _ncmds;

met_hist _db_latency;

void cmd_observe(const jos_cmdarg_t* ca, const char* module, uint64_t ns)
{
    const bool modcmd = ca->ca_cmd >= JOS_CMD_MODFIRST && ca->ca_cmd <= JOS_CMD_MODLAST;
    // A module name is a label only when such a module exists.
    const jos_module_t* mod = modcmd ? module_find(module) : nullptr;
    const char* mname = !modcmd ? "global" : mod != nullptr ? mod->name : "unknown";
    const std::string code = std::to_string(ca->ca_cmd);
    std::lock_guard lk(_cmd_mtx);
    size_t i = 0;
    while (i < _ncmds && (_cmds[i].module != mname || _cmds[i].code != code))
        i++;
    if (i == _ncmds) {
        if (_ncmds == kCmdRows - 1) {
            i = kCmdRows - 1;
            _cmds[i].module = _cmds[i].code = "other";
        } else {
            _cmds[i].module = mname;
            _cmds[i].code = code;
            _ncmds++;
        }
    }
    _cmds[i].errors += ca->ca_errno != 0;
    _cmds[i].hist.observe(ns);
}

// ---------------------------------------------------------------------------
// Datagrams of the job sockets, by socket and type.
// ---------------------------------------------------------------------------

struct job_kind {
    const char* socket;
    const char* type;
};

constexpr job_kind kJobKinds[] = {
    {"backup", "ping"},        {"backup", "backup_ok"},  {"backup", "backup_named"}, {"backup", "backup_fail"},
    {"backup", "appinfo"},     {"backup", "appupgrade"}, {"backup", "appup_log"},    {"backup", "echo"},
    {"backup", "cmdarg"},      {"backup", "other"},      {"upgrade", "announce"},    {"upgrade", "progress"},
    {"upgrade", "succ"},       {"upgrade", "fail"},      {"upgrade", "other"},
};
constexpr size_t kNJobKinds = sizeof(kJobKinds) / sizeof(kJobKinds[0]);

// The row of kJobKinds of a datagram of type CODE on a job socket.
size_t job_row(bool backup, uint16_t code)
{
    if (backup) {
        switch (code) {
        case VTR_PING: return 0;
        case VTR_BACKUP_OK: return 1;
        case VTR_BACKUP_NAMED: return 2;
        case VTR_BACKUP_FAIL1:
        case VTR_BACKUP_FAIL2: return 3;
        case VTR_APPINFO: return 4;
        case VTR_APPUPGRADE: return 5;
        case VTR_APPUP_LOG: return 6;
        case VTR_ECHO: return 7;
        case VTR_CMDARG: return 8;
        default: return 9;
        }
    }
    switch (code) {
    case VTR_UP_ANNOUNCE: return 10;
    case VTR_UP_PROGRESS: return 11;
    case VTR_UP_SUCC: return 12;
    case VTR_UP_FAIL: return 13;
    default: return 14;
    }
}

std::atomic<uint64_t> _job_dgrams[kNJobKinds];

// ---------------------------------------------------------------------------
// Scrape-time readings of the process.
// ---------------------------------------------------------------------------

// CPU seconds of every thread of the process by its name; threads of one
// name are added up. The main thread carries the program's name, which the
// receive thread has too: it is shown as "main".
std::map<std::string, double> thread_cpu()
{
    std::map<std::string, double> out;
    const double tick = static_cast<double>(sysconf(_SC_CLK_TCK));
    DIR* d = opendir("/proc/self/task");
    if (d == nullptr)
        return out;
    while (dirent* e = readdir(d)) {
        if (e->d_name[0] == '.')
            continue;
        std::ifstream f(std::string("/proc/self/task/") + e->d_name + "/stat");
        std::string line;
        if (!std::getline(f, line))
            continue;
        // "tid (name) state ppid ...": the name may hold blanks and ')'.
        const size_t open = line.find('('), close = line.rfind(')');
        if (open == std::string::npos || close == std::string::npos || close < open)
            continue;
        std::istringstream rest(line.substr(close + 1));
        std::string field;
        unsigned long long utime = 0, stime = 0;
        for (int i = 3; i <= 15 && rest >> field; i++) {
            if (i == 14)
                utime = std::strtoull(field.c_str(), nullptr, 10);
            else if (i == 15)
                stime = std::strtoull(field.c_str(), nullptr, 10);
        }
        const bool main = std::strtol(e->d_name, nullptr, 10) == getpid();
        out[main ? "main" : line.substr(open + 1, close - open - 1)] += static_cast<double>(utime + stime) / tick;
    }
    closedir(d);
    return out;
}

// Datagrams the kernel dropped on our own UDP sockets (full receive
// buffer), by the ports they are bound to.
std::map<int, double> socket_drops()
{
    std::set<unsigned long> mine;
    if (DIR* d = opendir("/proc/self/fd")) {
        while (dirent* e = readdir(d)) {
            char link[64];
            const std::string path = std::string("/proc/self/fd/") + e->d_name;
            const ssize_t n = readlink(path.c_str(), link, sizeof(link) - 1);
            unsigned long ino;
            if (n > 0 && (link[n] = '\0', std::sscanf(link, "socket:[%lu]", &ino) == 1))
                mine.insert(ino);
        }
        closedir(d);
    }
    std::map<int, double> out;
    for (const char* table : {"/proc/self/net/udp", "/proc/self/net/udp6"}) {
        std::ifstream f(table);
        std::string line;
        std::getline(f, line);  // header
        while (std::getline(f, line)) {
            // sl local rem st tx:rx tr:when retrnsmt uid timeout inode ref pointer drops
            std::istringstream in(line);
            std::string sl, local, rem, st, queues, timer, retr, uid, timeout, ref, pointer;
            unsigned long ino = 0;
            unsigned long long drops = 0;
            if (!(in >> sl >> local >> rem >> st >> queues >> timer >> retr >> uid >> timeout >> ino >> ref >>
                  pointer >> drops) ||
                mine.count(ino) == 0)
                continue;
            const size_t colon = local.rfind(':');
            if (colon != std::string::npos)
                out[static_cast<int>(std::strtol(local.c_str() + colon + 1, nullptr, 16))] +=
                    static_cast<double>(drops);
        }
    }
    return out;
}

// ---------------------------------------------------------------------------
// The collector.
// ---------------------------------------------------------------------------

using labels = std::vector<ClientMetric::Label>;

MetricFamily family(const char* name, const char* help, MetricType type)
{
    return MetricFamily{name, help, type, {}};
}

void add_value(MetricFamily& f, double v, labels l = {})
{
    ClientMetric m;
    m.label = std::move(l);
    if (f.type == MetricType::Counter)
        m.counter.value = v;
    else
        m.gauge.value = v;
    f.metric.push_back(std::move(m));
}

// A family of one unlabelled value.
void add_single(std::vector<MetricFamily>& out, const char* name, const char* help, MetricType type, double v)
{
    out.push_back(family(name, help, type));
    add_value(out.back(), v);
}

void add_hist(MetricFamily& f, const met_hist& h, labels l = {})
{
    ClientMetric m;
    m.label = std::move(l);
    uint64_t total = 0;
    for (size_t i = 0; i < met_hist::nbounds; i++) {
        total += h.buckets[i].load(std::memory_order_relaxed);
        m.histogram.bucket.push_back({total, met_hist::bounds[i]});
    }
    total += h.buckets[met_hist::nbounds].load(std::memory_order_relaxed);
    m.histogram.sample_count = total;
    m.histogram.sample_sum = static_cast<double>(h.sum_ns.load(std::memory_order_relaxed)) / 1e9;
    f.metric.push_back(std::move(m));
}

// The sockets whose kernel drops are shown, by their configured ports.
struct named_port {
    const char* name;
    int port;
};
std::array<named_port, 3> _ports;

class collector : public prometheus::Collectable {
public:
    std::vector<MetricFamily> Collect() const override
    {
        std::vector<MetricFamily> out;
        appliances(out);
        datagrams(out);
        database(out);
        commands(out);
        jobs(out);
        auto cpu = family("cloud_thread_cpu_seconds_total", "CPU time of each daemon thread, by name",
                          MetricType::Counter);
        for (const auto& [name, secs] : thread_cpu())
            add_value(cpu, secs, {{"thread", name}});
        out.push_back(std::move(cpu));
        return out;
    }

private:
    static void appliances(std::vector<MetricFamily>& out)
    {
        auto known = family("cloud_appliances_known", "Appliances in the pool of each family", MetricType::Gauge);
        auto online = family("cloud_appliances_online",
                             "Appliances of each family heard from within the family's silence limit",
                             MetricType::Gauge);
        for (const family_pool& p : _pools) {
            if (p.count == nullptr)
                continue;
            size_t k = 0, o = 0;
            p.count(&k, &o);
            add_value(known, static_cast<double>(k), {{"family", p.family}});
            add_value(online, static_cast<double>(o), {{"family", p.family}});
        }
        out.push_back(std::move(known));
        out.push_back(std::move(online));
    }

    static void datagrams(std::vector<MetricFamily>& out)
    {
        auto rx = family("cloud_datagrams_received_total",
                         "Datagrams received on the device socket, by family and type", MetricType::Counter);
        auto drop = family("cloud_datagrams_dropped_total",
                           "Datagrams read but not stored: unknown kind, no appliance named, or pool full",
                           MetricType::Counter);
        for (size_t i = 0; i < kNKinds; i++) {
            const labels l = {{"family", kKinds[i].family}, {"type", kKinds[i].type}};
            add_value(rx, static_cast<double>(_dgrams[i].load(std::memory_order_relaxed)), l);
            add_value(drop, static_cast<double>(_dropped[i].load(std::memory_order_relaxed)), l);
        }
        auto sock = family("cloud_socket_drops_total",
                           "Datagrams the kernel dropped on a full receive buffer, by socket", MetricType::Counter);
        const std::map<int, double> drops = socket_drops();
        for (const named_port& p : _ports) {
            const auto it = drops.find(p.port);
            add_value(sock, it != drops.end() ? it->second : 0, {{"socket", p.name}});
        }
        auto job = family("cloud_job_datagrams_received_total",
                          "Datagrams received on the gateways' backup and firmware-upgrade sockets, by type",
                          MetricType::Counter);
        for (size_t i = 0; i < kNJobKinds; i++)
            add_value(job, static_cast<double>(_job_dgrams[i].load(std::memory_order_relaxed)),
                      {{"socket", kJobKinds[i].socket}, {"type", kJobKinds[i].type}});
        out.push_back(std::move(rx));
        out.push_back(std::move(drop));
        out.push_back(std::move(job));
        out.push_back(std::move(sock));
    }

    static void database(std::vector<MetricFamily>& out)
    {
        const dbw_stats_t s = dbw_stats();
        add_single(out, "cloud_db_statements_queued", "Statements waiting for the database writer",
                   MetricType::Gauge, static_cast<double>(s.queued));
        add_single(out, "cloud_db_statements_written_total", "Statements the database ran", MetricType::Counter,
                   static_cast<double>(s.written));
        add_single(out, "cloud_db_statements_failed_total", "Statements the database refused",
                   MetricType::Counter, static_cast<double>(s.failed));
        add_single(out, "cloud_db_statements_dropped_total",
                   "Statements never run: queue full, or outcome lost with the connection", MetricType::Counter,
                   static_cast<double>(s.dropped));
        add_single(out, "cloud_db_connected", "1 while the writer holds a database connection", MetricType::Gauge,
                   s.connected ? 1 : 0);
        auto lat = family("cloud_db_statement_latency_seconds",
                          "Time from handing a statement to the writer to the database's answer",
                          MetricType::Histogram);
        add_hist(lat, _db_latency);
        out.push_back(std::move(lat));
    }

    static void commands(std::vector<MetricFamily>& out)
    {
        auto total = family("cloud_mgmt_commands_total", "Management commands served, by module, code and outcome",
                            MetricType::Counter);
        auto lat = family("cloud_mgmt_command_duration_seconds",
                          "Time to run a management command, by module and code", MetricType::Histogram);
        {
            std::lock_guard lk(_cmd_mtx);
            for (const cmd_row& r : _cmds) {
                if (r.module.empty())
                    continue;
                uint64_t n = 0;
                for (const auto& b : r.hist.buckets)
                    n += b.load(std::memory_order_relaxed);
                add_value(total, static_cast<double>(n - r.errors),
                          {{"module", r.module}, {"code", r.code}, {"result", "ok"}});
                add_value(total, static_cast<double>(r.errors),
                          {{"module", r.module}, {"code", r.code}, {"result", "error"}});
                add_hist(lat, r.hist, {{"module", r.module}, {"code", r.code}});
            }
        }
        out.push_back(std::move(total));
        out.push_back(std::move(lat));
    }

    static void jobs(std::vector<MetricFamily>& out)
    {
        add_single(out, "cloud_backups_in_flight", "Gateway backups started and not finished", MetricType::Gauge,
                   backup_inflight());
        const upgrade_counts_t u = upgrade_counts();
        add_single(out, "cloud_upgrades_in_flight", "Gateway firmware downloads in progress", MetricType::Gauge,
                   u.inflight);
        add_single(out, "cloud_upgrade_appliances", "Gateways in the firmware campaign table", MetricType::Gauge,
                   u.listed);
        const alsup_counts_t a = alsup_counts();
        auto tasks = family("cloud_frb_upgrade_tasks", "Cache-appliance upgrade tasks, by state", MetricType::Gauge);
        auto orders = family("cloud_frb_upgrade_orders", "Appliances in cache-appliance upgrade tasks, by state",
                             MetricType::Gauge);
        const char* const tstates[] = {"new", "running", "done"};
        const char* const qstates[] = {"waiting", "sent", "succeeded", "failed"};
        for (size_t i = 0; i < std::size(tstates); i++)
            add_value(tasks, a.tasks[i], {{"state", tstates[i]}});
        for (size_t i = 0; i < std::size(qstates); i++)
            add_value(orders, a.orders[i], {{"state", qstates[i]}});
        out.push_back(std::move(tasks));
        out.push_back(std::move(orders));
    }
};

std::unique_ptr<prometheus::Exposer> _exposer;
std::shared_ptr<collector> _collector;

// "ADDR:PORT" for civetweb, "[ADDR]:PORT" for IPv6; "" for anything that is
// not a numeric address (the text ends up in civetweb's option string).
std::string listen_address(const std::string& addr, int port)
{
    unsigned char bin[16];
    if (inet_pton(AF_INET, addr.c_str(), bin) == 1)
        return addr + ":" + std::to_string(port);
    if (inet_pton(AF_INET6, addr.c_str(), bin) == 1)
        return "[" + addr + "]:" + std::to_string(port);
    return "";
}

int metrics_minit(jos_kernel_t*)
{
    const std::string port_text = cloudconf_get("metrics_port", "0");
    char* end = nullptr;
    const long port = std::strtol(port_text.c_str(), &end, 10);
    if (port_text.empty() || *end != '\0' || port < 0 || port > 65535) {
        std::printf("metrics: bad metrics_port=%s, metrics off\n", port_text.c_str());
        return 0;
    }
    if (port == 0)
        return 0;
    const std::string bind = cloudconf_get("metrics_bind", "127.0.0.1");
    const std::string where = listen_address(bind, static_cast<int>(port));
    if (where.empty()) {
        std::printf("metrics: bad metrics_bind=%s, metrics off\n", bind.c_str());
        return 0;
    }
    _ports = {{{"device", cloudconf_int("device_port", CLOUD_DEVICE_PORT)},
               {"backup", cloudconf_int("backup_port", CLOUD_BACKUP_PORT)},
               {"upgrade", cloudconf_int("upgrade_port", CLOUD_UPGRADE_PORT)}}};
    try {
        _exposer = std::make_unique<prometheus::Exposer>(where, 1);
    } catch (const std::exception& e) {
        std::printf("metrics: cannot listen on %s (%s), metrics off\n", where.c_str(), e.what());
        return 0;
    }
    _collector = std::make_shared<collector>();
    _exposer->RegisterCollectable(_collector);
    jos_mgmt_cmdhook = cmd_observe;
    std::printf("metrics: listening on %s\n", where.c_str());
    return 0;
}

// Runs before the worker threads stop and the pools go: the endpoint's
// threads are joined here.
void metrics_mfini(jos_kernel_t*)
{
    jos_mgmt_cmdhook = nullptr;
    _exposer.reset();
    _collector.reset();
}

}  // namespace

void met_hist::observe(uint64_t ns)
{
    size_t i = 0;
    while (i < nbounds && ns > kBoundsNs[i])
        i++;
    buckets[i].fetch_add(1, std::memory_order_relaxed);
    sum_ns.fetch_add(ns, std::memory_order_relaxed);
}

uint64_t met_now()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000000000ULL + static_cast<uint64_t>(ts.tv_nsec);
}

void met_dgram(const char* buf, int len)
{
    const size_t k = dgram_kindof(buf, len);
    _dgrams[k].fetch_add(1, std::memory_order_relaxed);
    if (k == K_GW_OTHER || k == K_OTHER)
        _dropped[k].fetch_add(1, std::memory_order_relaxed);
}

void met_dgram_dropped(const char* buf, int len)
{
    _dropped[dgram_kindof(buf, len)].fetch_add(1, std::memory_order_relaxed);
}

void met_job_dgram(bool backup, const char* buf, long len)
{
    const bool vtr = len >= 8 && std::memcmp(buf, "VTR", 3) == 0;
    const uint16_t code = vtr ? reinterpret_cast<const cloud_hdr_t*>(buf)->type : 0;
    _job_dgrams[job_row(backup, code)].fetch_add(1, std::memory_order_relaxed);
}

void met_appliances(const char* magic, met_countfn fn)
{
    for (family_pool& p : _pools)
        if (std::strcmp(p.magic, magic) == 0)
            p.count = fn;
}

void met_db_answered(uint64_t ns)
{
    _db_latency.observe(ns);
}

// Above the application modules and the management loop: it starts when
// every pool is set up and stops before any of them.
jos_module_t metrics_module = {"metrics", 0x0b000000, -1, metrics_minit, metrics_mfini, nullptr, nullptr};
