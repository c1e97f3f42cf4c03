// The Prometheus endpoint scraped over HTTP while real traffic reaches the
// daemon, and the configurations that must leave it off.
#include <arpa/inet.h>
#include <curl/curl.h>
#include <dirent.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <stdexcept>
#include <utility>

#include "daemon.h"
#include "db.h"
#include "backup.h"
#include "gateway.h"
#include "upgrade.h"

namespace {

using namespace std::chrono_literals;

// A TCP socket bound on loopback to a free port; LISTEN keeps it taken.
struct tcp_port {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);  // not inherited by the daemon
    int port = 0;
    explicit tcp_port(bool listen_on)
    {
        sockaddr_in sa{};
        sa.sin_family = AF_INET;
        sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof(sa);
        if (bind(fd, reinterpret_cast<sockaddr*>(&sa), sizeof(sa)) != 0 ||
            getsockname(fd, reinterpret_cast<sockaddr*>(&sa), &len) != 0 || (listen_on && listen(fd, 1) != 0))
            throw std::runtime_error("no free TCP port");
        port = ntohs(sa.sin_port);
        if (!listen_on)
            close(std::exchange(fd, -1));
    }
    ~tcp_port()
    {
        if (fd >= 0)
            close(fd);
    }
};

size_t to_string_cb(char* p, size_t size, size_t n, void* out)
{
    static_cast<std::string*>(out)->append(p, size * n);
    return size * n;
}

// The body of GET http://127.0.0.1:PORT/metrics, or "" when it fails.
std::string scrape(int port)
{
    std::string body;
    CURL* c = curl_easy_init();
    const std::string url = "http://127.0.0.1:" + std::to_string(port) + "/metrics";
    curl_easy_setopt(c, CURLOPT_URL, url.c_str());
    curl_easy_setopt(c, CURLOPT_WRITEFUNCTION, to_string_cb);
    curl_easy_setopt(c, CURLOPT_WRITEDATA, &body);
    curl_easy_setopt(c, CURLOPT_TIMEOUT_MS, 5000L);
    const CURLcode rc = curl_easy_perform(c);
    long status = 0;
    curl_easy_getinfo(c, CURLINFO_RESPONSE_CODE, &status);
    curl_easy_cleanup(c);
    return rc == CURLE_OK && status == 200 ? body : "";
}

// Checks the exposition line by line and returns its samples by
// "name{labels}". Every sample belongs to a family announced by a TYPE
// line; counters end in _total. The library's own exposer_ family is the
// one family not named by the daemon.
std::map<std::string, double> parse(const std::string& text)
{
    static const std::regex type_re(R"(# TYPE ([a-z_:][a-z0-9_:]*) (counter|gauge|histogram|summary|untyped))");
    static const std::regex sample_re(R"(([a-z_:][a-z0-9_:]*)(\{[^}]*\})? (\S+))");
    std::map<std::string, double> out;
    std::map<std::string, std::string> types;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        std::smatch m;
        if (line.rfind("# HELP ", 0) == 0 || line.empty())
            continue;
        if (std::regex_match(line, m, type_re)) {
            const std::string name = m[1];
            EXPECT_TRUE(name.rfind("cloud_", 0) == 0 || name.rfind("exposer_", 0) == 0) << line;
            EXPECT_EQ(m[2] == "counter", name.size() > 6 && name.ends_with("_total")) << line;
            types[name] = m[2];
            continue;
        }
        if (!std::regex_match(line, m, sample_re)) {
            ADD_FAILURE() << "bad line: " << line;
            continue;
        }
        const std::string name = m[1];
        std::string family = name;
        for (const char* suffix : {"_bucket", "_sum", "_count"})
            if (!types.count(family) && name.ends_with(suffix))
                family = name.substr(0, name.size() - std::strlen(suffix));
        EXPECT_TRUE(types.count(family)) << "no TYPE line for " << line;
        out[name + m[2].str()] = std::strtod(m[3].str().c_str(), nullptr);
    }
    return out;
}

void add_conf(const daemon_proc& d, const std::string& lines)
{
    const std::string path = d.path("/etc/cloud.conf");
    write_file(path, read_file(path) + lines);
}

// The TCP ports the process listens on.
std::set<int> listening(pid_t pid)
{
    std::set<int> ports;
    std::set<std::string> inodes;
    const std::string fds = "/proc/" + std::to_string(pid) + "/fd";
    if (DIR* d = opendir(fds.c_str())) {
        while (dirent* e = readdir(d)) {
            char link[64] = "";
            if (readlink((fds + "/" + e->d_name).c_str(), link, sizeof(link) - 1) > 0 &&
                std::strncmp(link, "socket:[", 8) == 0)
                inodes.insert(std::string(link + 8, std::strcspn(link + 8, "]")));
        }
        closedir(d);
    }
    for (const char* table : {"/net/tcp", "/net/tcp6"}) {
        std::ifstream f("/proc/" + std::to_string(pid) + table);
        std::string line;
        std::getline(f, line);
        while (std::getline(f, line)) {
            std::istringstream in(line);
            std::string sl, local, rem, st, queues, timer, retr, uid, timeout, inode;
            in >> sl >> local >> rem >> st >> queues >> timer >> retr >> uid >> timeout >> inode;
            if (st == "0A" && inodes.count(inode))
                ports.insert(static_cast<int>(std::strtol(local.substr(local.rfind(':') + 1).c_str(), nullptr, 16)));
        }
    }
    return ports;
}

// True when a thread of the process carries the HTTP server's name.
bool serves_http(pid_t pid)
{
    const std::string tasks = "/proc/" + std::to_string(pid) + "/task";
    bool found = false;
    if (DIR* d = opendir(tasks.c_str())) {
        while (dirent* e = readdir(d))
            found |= read_file(tasks + "/" + e->d_name + "/comm").rfind("civetweb", 0) == 0;
        closedir(d);
    }
    return found;
}

TEST(Metrics, ScrapeFollowsTraffic)
{
    db_reset();
    tcp_port port(false);
    daemon_proc d;
    add_conf(d, "metrics_port=" + std::to_string(port.port) + "\n");
    d.start();
    ASSERT_TRUE(d.wait_log("metrics: listening on 127.0.0.1:" + std::to_string(port.port))) << d.log();
    EXPECT_EQ(listening(d.pid()).count(port.port), 1u);
    EXPECT_TRUE(serves_http(d.pid()));
    auto before = parse(scrape(port.port));
    ASSERT_FALSE(before.empty());
    EXPECT_EQ(before[R"(cloud_appliances_known{family="gateway"})"], 0);
    for (const char* thread : {"main", "cloud", "db_writer", "civetweb-worker"})
        EXPECT_TRUE(before.count(std::string("cloud_thread_cpu_seconds_total{thread=\"") + thread + "\"}")) << thread;

    test_gateway gw(d.device_port());
    gw.send(test_gateway::status("GWMET0000001"));
    gw.send(test_gateway::status("GWMET0000002"));
    gw.send(test_gateway::status("GWMET0000003", VTR_STATUS2));
    gw.send(test_gateway::status("GWMET-TOO-LONG-ID"));  // names no appliance: dropped
    const char junk[] = "XYZ junk";
    gw.send(junk, sizeof(junk));
    ASSERT_TRUE(wait_until([&] { return d.cmd("cloud", 2050).text().find("device_total=3\n") != std::string::npos; },
                           10s));
    ASSERT_TRUE(d.db_settled());
    // The job sockets: a ping to the backup socket, an announcement to the
    // firmware-upgrade socket, and a stray datagram to each.
    for (int port : {d.backup_port(), d.upgrade_port()}) {
        test_gateway job(port);
        cloud_ping_t p{};
        std::memcpy(p.tag, "VTR", 4);
        p.type = static_cast<uint16_t>(port == d.backup_port() ? int(VTR_PING) : int(VTR_UP_ANNOUNCE));
        std::snprintf(p.license_id12, sizeof(p.license_id12), "GWMET0000001");
        job.send(p);
        job.send(junk, sizeof(junk));
    }
    ASSERT_TRUE(wait_until(
        [&] {
            auto m = parse(scrape(port.port));
            return m[R"(cloud_job_datagrams_received_total{socket="upgrade",type="other"})"] == 1 &&
                   m[R"(cloud_job_datagrams_received_total{socket="backup",type="other"})"] == 1;
        },
        10s));
    // One of them is also a game node.
    gw.send_result("tag=gamecloud_stat license_id12=GWMET0000001 enable=1 ipcnt=1");
    ASSERT_TRUE(wait_until([&] { return !d.cmd("gamecloud", 2055, "page=1 limit=10").text().empty(); }, 10s));

    const std::map<std::string, double> want = {
        {R"(cloud_datagrams_received_total{family="gateway",type="status"})", 3},
        {R"(cloud_datagrams_received_total{family="gateway",type="cmdarg"})", 1},
        {R"(cloud_datagrams_received_total{family="gateway",type="status2"})", 1},
        {R"(cloud_datagrams_dropped_total{family="gateway",type="status"})", 1},
        {R"(cloud_datagrams_received_total{family="other",type="other"})", 1},
        {R"(cloud_datagrams_dropped_total{family="other",type="other"})", 1},
        {R"(cloud_appliances_known{family="gateway"})", 3},
        {R"(cloud_appliances_online{family="gateway"})", 3},
        {R"(cloud_appliances_known{family="game"})", 1},
        {R"(cloud_job_datagrams_received_total{socket="backup",type="ping"})", 1},
        {R"(cloud_job_datagrams_received_total{socket="upgrade",type="announce"})", 1},
        {R"(cloud_appliances_online{family="game"})", 1},
        {R"(cloud_db_statements_queued)", 0},
    };
    auto after = parse(scrape(port.port));
    for (const auto& [name, value] : want)
        EXPECT_EQ(after[name], value) << name;
    // Three inserts at least, each answered and timed.
    EXPECT_GE(after["cloud_db_statements_written_total"] - before["cloud_db_statements_written_total"], 3);
    EXPECT_GE(after["cloud_db_statement_latency_seconds_count"] - before["cloud_db_statement_latency_seconds_count"],
              3);
    // The statistics commands polled above, and one refused command.
    d.cmd("nosuch", 2050);
    after = parse(scrape(port.port));
    EXPECT_GE(after[R"(cloud_mgmt_commands_total{module="cloud",code="2050",result="ok"})"], 2);
    EXPECT_EQ(after[R"(cloud_mgmt_commands_total{module="unknown",code="2050",result="error"})"], 1);
    EXPECT_EQ(after[R"(cloud_mgmt_command_duration_seconds_count{module="unknown",code="2050"})"], 1);
    EXPECT_EQ(d.stop(), 0) << d.log();
}

// Each configuration leaves the endpoint off, says why (or nothing when it
// is simply not asked for), and the daemon serves on.
TEST(Metrics, OffUnlessValidAndFree)
{
    tcp_port busy(true);
    const struct {
        std::string conf;
        std::string log;
    } cases[] = {
        {"", ""},
        {"metrics_port=0\n", ""},
        {"metrics_port=9x\n", "metrics: bad metrics_port=9x, metrics off"},
        {"metrics_port=" + std::to_string(busy.port) + "\nmetrics_bind=localhost,0.0.0.0\n",
         "metrics: bad metrics_bind=localhost,0.0.0.0, metrics off"},
        {"metrics_port=" + std::to_string(busy.port) + "\n",
         "metrics: cannot listen on 127.0.0.1:" + std::to_string(busy.port)},
    };
    for (const auto& c : cases) {
        daemon_proc d;
        add_conf(d, c.conf);
        d.start();
        EXPECT_EQ(d.cmd("cloud", 2050).rec.ca_errno, 0) << c.conf;
        EXPECT_FALSE(serves_http(d.pid())) << c.conf;
        EXPECT_EQ(listening(d.pid()).count(busy.port), 0u) << c.conf;
        if (c.log.empty())
            EXPECT_EQ(d.log().find("metrics:"), std::string::npos) << d.log();
        else
            EXPECT_NE(d.log().find(c.log), std::string::npos) << d.log();
        EXPECT_EQ(d.stop(), 0) << d.log();
    }
}

}  // namespace
