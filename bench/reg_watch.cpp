// reg_watch: times a burst of registrations. Starts the sender given after
// "--" (a vtsim command line), then every few milliseconds asks the daemon
// for its statistics (device_total, the pool) and the database for the rows
// of vtlog.cloud_device, until both reach the target or the time is up.
//
//   reg_watch --root R --port P --target N [--timeout S] [--settle S] [--interval-ms M]
//             -- CMD ARGS...
//
// Times are in milliseconds from the spawn of the sender (its own start-up,
// a millisecond or two, is included). One line on stdout:
//   sender_ms=.. pool_first_ms=.. pool_last_ms=.. pool_all_ms=.. table_all_ms=..
//   pool=N table=N missing_pool=N missing_table=N drops=N
// with -1 for a target never reached. pool_last_ms is when the pool took its
// final count. The watch ends when both counts reach the target, at the
// time-out (default 10 s), or once the sender has exited and neither count
// has moved for the settle time (default 3 s): a datagram the kernel dropped
// never comes back, so waiting longer only burns the run's time. drops is the
// growth of the kernel drop counter of the sockets on port P over the watch.
// The soft limit on open files is raised to the hard one first, so that a
// sender with a socket per gateway can open them all. The database account
// comes from CLOUD_DB_HOST/PORT/SOCKET/USER/PASSWORD, as for the daemon.
#include <fcntl.h>
#include <mysql.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "cloudctl_client.h"

extern char** environ;

namespace {

using clk = std::chrono::steady_clock;

[[noreturn]] void usage()
{
    std::fprintf(stderr,
                 "usage: reg_watch --root R --port P --target N [--timeout S] [--interval-ms M] [--module M --table T] "
                 "-- CMD ARGS...\n");
    std::exit(2);
}

const char* env(const char* name, const char* def)
{
    const char* v = std::getenv(name);
    return v != nullptr && *v != '\0' ? v : def;
}

// Sum of the drop counters (last column) of the sockets whose local port is
// PORT in /proc/net/udp and udp6; -1 when there is none.
long long port_drops(int port)
{
    long long total = -1;
    for (const char* path : {"/proc/net/udp", "/proc/net/udp6"}) {
        std::ifstream f(path);
        std::string line;
        std::getline(f, line);  // header
        while (std::getline(f, line)) {
            std::istringstream in(line);
            std::vector<std::string> col;
            for (std::string w; in >> w;)
                col.push_back(w);
            if (col.size() < 13)
                continue;
            size_t colon = col[1].rfind(':');
            if (colon == std::string::npos || std::strtol(col[1].c_str() + colon + 1, nullptr, 16) != port)
                continue;
            total = (total < 0 ? 0 : total) + std::atoll(col.back().c_str());
        }
    }
    return total;
}

// device_total from the statistics reply; -1 when the daemon did not answer.
long pool_total(const std::string& sock, const std::string& module)
{
    cloudctl_result r = cloudctl_command(sock, module.c_str(), 2050, "", 1 << 16);
    if (r.rc != 0 || r.rec.ca_errno != 0)
        return -1;
    std::string t = r.text();
    size_t p = t.find("device_total=");
    return p == std::string::npos ? -1 : std::strtol(t.c_str() + p + 13, nullptr, 10);
}

struct db {
    MYSQL m;
    bool ok = false;
    db()
    {
        mysql_init(&m);
        const char* sockp = env("CLOUD_DB_SOCKET", nullptr);
        ok = mysql_real_connect(&m, env("CLOUD_DB_HOST", "localhost"), env("CLOUD_DB_USER", "root"),
                                env("CLOUD_DB_PASSWORD", ""), nullptr,
                                static_cast<unsigned>(std::atoi(env("CLOUD_DB_PORT", "3306"))), sockp, 0) != nullptr;
        if (!ok)
            std::fprintf(stderr, "reg_watch: database: %s\n", mysql_error(&m));
    }
    ~db() { mysql_close(&m); }
    std::string table = "cloud_device";
    long rows()
    {
        const std::string q = "select count(*) from vtlog." + table;
        if (!ok || mysql_real_query(&m, q.data(), q.size()) != 0)
            return -1;
        long n = -1;
        if (MYSQL_RES* res = mysql_store_result(&m)) {
            if (MYSQL_ROW row = mysql_fetch_row(res); row != nullptr && row[0] != nullptr)
                n = std::atol(row[0]);
            mysql_free_result(res);
        }
        return n;
    }
};

}  // namespace

int main(int argc, char** argv)
{
    std::string root;
    int port = 0;
    long target = 0;
    double timeout = 10;
    double settle = 3;
    int interval_ms = 10;
    std::string module = "cloud", table_name = "cloud_device";  // the family watched
    int i = 1;
    for (; i < argc; i++) {
        std::string a = argv[i];
        if (a == "--") {
            i++;
            break;
        }
        if (i + 1 >= argc)
            usage();
        if (a == "--root")
            root = argv[++i];
        else if (a == "--port")
            port = std::atoi(argv[++i]);
        else if (a == "--target")
            target = std::atol(argv[++i]);
        else if (a == "--timeout")
            timeout = std::atof(argv[++i]);
        else if (a == "--settle")
            settle = std::atof(argv[++i]);
        else if (a == "--interval-ms")
            interval_ms = std::atoi(argv[++i]);
        else if (a == "--module")
            module = argv[++i];
        else if (a == "--table" && std::strspn(argv[i + 1], "abcdefghijklmnopqrstuvwxyz_") == std::strlen(argv[i + 1]))
            table_name = argv[++i];
        else
            usage();
    }
    if (root.empty() || port <= 0 || port > 65535 || target < 1 || i >= argc || timeout <= 0 || timeout > 600 ||
        settle <= 0 || interval_ms < 1 || interval_ms > 1000)
        usage();
    const std::string sock = cloudctl_sockpath(root);
    db conn;
    if (!conn.ok)
        return 1;
    conn.table = table_name;

    rlimit nofile{};
    if (getrlimit(RLIMIT_NOFILE, &nofile) == 0 && nofile.rlim_cur < nofile.rlim_max) {
        nofile.rlim_cur = nofile.rlim_max;
        setrlimit(RLIMIT_NOFILE, &nofile);
    }
    const long long drops0 = port_drops(port);
    const auto t0 = clk::now();
    pid_t child = -1;
    if (int rc = posix_spawn(&child, argv[i], nullptr, nullptr, &argv[i], environ); rc != 0) {
        std::fprintf(stderr, "reg_watch: cannot start %s: %s\n", argv[i], std::strerror(rc));
        return 1;
    }
    auto ms = [&] { return std::chrono::duration<double, std::milli>(clk::now() - t0).count(); };

    double sender_ms = -1, pool_first = -1, pool_last = -1, pool_all = -1, table_all = -1, moved = 0;
    long pool = 0, table = 0;
    const auto end = t0 + std::chrono::duration<double>(timeout);
    while (clk::now() < end) {
        if (sender_ms < 0) {
            int st = 0;
            if (waitpid(child, &st, WNOHANG) == child) {
                sender_ms = ms();
                if (!WIFEXITED(st) || WEXITSTATUS(st) != 0)
                    std::fprintf(stderr, "reg_watch: sender ended with status %d\n", st);
            }
        }
        if (pool_all < 0) {
            long n = pool_total(sock, module);
            if (n != pool) {
                pool_last = moved = ms();
                pool = n;
            }
            if (pool > 0 && pool_first < 0)
                pool_first = ms();
            if (pool >= target)
                pool_all = ms();
        }
        if (table_all < 0) {
            long n = conn.rows();
            if (n != table) {
                moved = ms();
                table = n;
            }
            if (table >= target)
                table_all = ms();
        }
        if (pool_all >= 0 && table_all >= 0 && sender_ms >= 0)
            break;
        if (sender_ms >= 0 && ms() - std::max(moved, sender_ms) >= settle * 1000)
            break;
        std::this_thread::sleep_for(std::chrono::milliseconds(interval_ms));
    }
    if (sender_ms < 0) {
        // The sender is ours and ran past the watch: stop it by its PID.
        kill(child, SIGTERM);
        waitpid(child, nullptr, 0);
        std::fprintf(stderr, "reg_watch: sender still running after %.0f s, stopped\n", timeout);
    }
    const long long drops1 = port_drops(port);
    std::printf(
        "sender_ms=%.0f pool_first_ms=%.0f pool_last_ms=%.0f pool_all_ms=%.0f table_all_ms=%.0f pool=%ld table=%ld "
        "missing_pool=%ld missing_table=%ld drops=%lld\n",
        sender_ms, pool_first, pool_last, pool_all, table_all, pool, table, target - pool, target - table,
        drops0 >= 0 && drops1 >= 0 ? drops1 - drops0 : -1);
    return 0;
}
