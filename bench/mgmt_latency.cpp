// mgmt_latency: round-trip time of management commands, each one a full
// client call (connect, segment, command, reply), as a tool or the web front
// end would make it.
//
//   mgmt_latency --root R [--iterations N] [--seconds S]
//       runs every command of the set N times (default 200), giving each at
//       most S seconds (default 5), and prints one line per command:
//       <name> n=.. min=.. median=.. p90=.. p99=.. max=.. us text=..B rlen=..
//       (text: the reply text; rlen: the reply length the record gave back)
//   mgmt_latency --root R --wait-ready [--timeout S]
//       polls the no-op command (global 511) every millisecond until it is
//       answered and prints "ready_us=T" (CLOCK_REALTIME, microseconds), so
//       that a script can time a start-up from its own clock; exit 1 when
//       nothing answered within S seconds (default 60).
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "cloudctl_client.h"

namespace {

using clk = std::chrono::steady_clock;

struct bench_cmd {
    const char* name;
    const char* module;  // null: a global command
    int code;
    const char* args;
    size_t capacity;  // reply segment the client offers
};

constexpr size_t MIB = 1 << 20;  // cloudctl's default reply capacity

// The full device list in its three shapes (pool order, sorted by a string
// key, sorted by a number), the statistics, and a command that does nothing,
// whose time is the cost of the transport alone. The no-op runs twice: the
// daemon leaves its ca_rlen at the capacity asked for, so with cloudctl's
// 1 MiB the client copies a whole empty megabyte back; with 4 KiB it is the
// bare round trip.
const bench_cmd COMMANDS[] = {
    {"list-2000-unsorted", "cloud", 2055, "limit=2000", MIB},
    {"list-2000-sort-id", "cloud", 2055, "limit=2000 sortname=1", MIB},
    {"list-2000-sort-name2", "cloud", 2055, "limit=2000 sortname=13", MIB},
    {"list-2000-sort-users", "cloud", 2055, "limit=2000 sortname=5", MIB},
    {"stats", "cloud", 2050, "", MIB},
    {"noop-511", nullptr, 511, "", MIB},
    {"noop-511-4k", nullptr, 511, "", 4096},
};

[[noreturn]] void usage()
{
    std::fprintf(stderr,
                 "usage: mgmt_latency --root R [--iterations N] [--seconds S]\n"
                 "       mgmt_latency --root R --wait-ready [--timeout S]\n");
    std::exit(2);
}

double pct(const std::vector<double>& sorted, double p)
{
    // Nearest rank: the smallest value with at least p of the samples at or
    // below it.
    size_t rank = static_cast<size_t>(p * static_cast<double>(sorted.size()) + 0.999999);
    rank = std::clamp<size_t>(rank, 1, sorted.size());
    return sorted[rank - 1];
}

int wait_ready(const std::string& sock, double timeout)
{
    const auto end = clk::now() + std::chrono::duration<double>(timeout);
    while (clk::now() < end) {
        cloudctl_result r = cloudctl_command(sock, nullptr, 511, "", 4096);
        if (r.rc == 0 && r.rec.ca_errno == 0) {
            auto us = std::chrono::duration_cast<std::chrono::microseconds>(
                std::chrono::system_clock::now().time_since_epoch());
            std::printf("ready_us=%lld\n", static_cast<long long>(us.count()));
            return 0;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    std::fprintf(stderr, "mgmt_latency: %s did not answer within %.0f s\n", sock.c_str(), timeout);
    return 1;
}

}  // namespace

int main(int argc, char** argv)
{
    std::string root;
    int iterations = 200;
    double seconds = 5;
    double timeout = 60;
    bool ready = false;
    for (int i = 1; i < argc; i++) {
        std::string a = argv[i];
        if (a == "--wait-ready") {
            ready = true;
            continue;
        }
        if (i + 1 >= argc)
            usage();
        if (a == "--root")
            root = argv[++i];
        else if (a == "--iterations")
            iterations = std::atoi(argv[++i]);
        else if (a == "--seconds")
            seconds = std::atof(argv[++i]);
        else if (a == "--timeout")
            timeout = std::atof(argv[++i]);
        else
            usage();
    }
    if (root.empty() || iterations < 1 || iterations > 100000 || seconds <= 0 || seconds > 600 || timeout <= 0 ||
        timeout > 600)
        usage();
    const std::string sock = cloudctl_sockpath(root);
    if (ready)
        return wait_ready(sock, timeout);

    int failures = 0;
    for (const bench_cmd& c : COMMANDS) {
        std::vector<double> us;
        us.reserve(static_cast<size_t>(iterations));
        size_t text = 0;
        long rlen = 0;
        const auto end = clk::now() + std::chrono::duration<double>(seconds);
        for (int i = 0; i < iterations && clk::now() < end; i++) {
            auto t0 = clk::now();
            cloudctl_result r = cloudctl_command(sock, c.module, c.code, c.args, c.capacity);
            auto t1 = clk::now();
            if (r.rc != 0 || r.rec.ca_errno != 0) {
                std::fprintf(stderr, "mgmt_latency: %s failed: %s errno=%d\n", c.name, r.error.c_str(),
                             r.rec.ca_errno);
                failures++;
                break;
            }
            us.push_back(std::chrono::duration<double, std::micro>(t1 - t0).count());
            text = r.text().size();
            rlen = r.rec.ca_rlen;
        }
        if (us.empty())
            continue;
        std::sort(us.begin(), us.end());
        std::printf("%-20s n=%-3zu min=%-6.0f median=%-6.0f p90=%-6.0f p99=%-6.0f max=%-6.0f us  text=%zuB rlen=%ld\n",
                    c.name, us.size(), us.front(), pct(us, 0.5), pct(us, 0.9), pct(us, 0.99), us.back(), text, rlen);
    }
    return failures == 0 ? 0 : 1;
}
