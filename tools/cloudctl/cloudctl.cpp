// cloudctl: sends one management command to the daemon and prints the reply.
//
//   cloudctl [-r ROOT | -s SOCKET] [-b] [-n BYTES] [MODULE] CODE [name=value ...]
//
// The reply text goes to stdout. A refused command prints
// "error <errno> <errmsg>" on stderr and exits 2; a daemon that cannot be
// reached exits 1. -b prints a binary statistics reply, one "tag value" line
// per 40-byte record. Shortcuts name the modules' common commands
// (cloudctl devices --page 2 --table); --help lists them all.
#include <getopt.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "cloudctl_client.h"
#include "shortcuts.h"

// The help, on stdout when asked for, else on stderr with status 1.
[[noreturn]] static void usage(bool asked = false)
{
    FILE* out = asked ? stdout : stderr;
    std::fprintf(out,
                 "usage: cloudctl [-r ROOT | -s SOCKET] [-b] [-n BYTES] [MODULE] CODE [name=value ...]\n"
                 "  -r ROOT    daemon started with -r ROOT\n"
                 "  -s SOCKET  management socket path (default /var/tmp/cloud.d)\n"
                 "  -b         print a binary statistics reply as 'tag value' lines\n"
                 "  -n BYTES   reply capacity (default 1048576)\n"
                 "  -h, --help this text\n");
    cloudctl_shortcut_help(out);
    std::exit(asked ? 0 : 1);
}

static bool isnumber(const char* s)
{
    if (*s == '-')
        s++;
    if (*s == '\0')
        return false;
    for (; *s != '\0'; s++)
        if (*s < '0' || *s > '9')
            return false;
    return true;
}

static void print_records(const cloudctl_result& r)
{
    constexpr size_t rec = 40;
    for (size_t off = 0; off + rec <= r.data.size(); off += rec) {
        char tag[33] = {};
        std::memcpy(tag, r.data.data() + off, 32);
        int64_t val;
        std::memcpy(&val, r.data.data() + off + 32, sizeof(val));
        std::printf("%s %lld\n", tag, static_cast<long long>(val));
    }
}

int main(int argc, char** argv)
{
    std::string sock = cloudctl_sockpath("");
    bool binary = false;
    size_t capacity = 1 << 20;
    static const option longopts[] = {{"help", no_argument, nullptr, 'h'}, {nullptr, 0, nullptr, 0}};
    int opt;
    while ((opt = getopt_long(argc, argv, "+r:s:bn:h", longopts, nullptr)) != -1) {
        switch (opt) {
        case 'r':
            sock = cloudctl_sockpath(optarg);
            break;
        case 's':
            sock = optarg;
            break;
        case 'b':
            binary = true;
            break;
        case 'n':
            capacity = std::strtoul(optarg, nullptr, 10);
            if (capacity < 2 || capacity > (1u << 30))
                usage();
            break;
        case 'h':
            usage(true);
        default:
            usage();
        }
    }
    if (optind >= argc)
        usage();
    if (int rc = cloudctl_shortcut(sock, argc - optind, argv + optind); rc >= 0)
        return rc;
    const char* module = nullptr;
    if (!isnumber(argv[optind])) {
        module = argv[optind++];
        if (optind >= argc || !isnumber(argv[optind]))
            usage();
    }
    int code = std::atoi(argv[optind++]);
    std::string args;
    for (int i = optind; i < argc; i++) {
        if (!args.empty())
            args += ' ';
        args += argv[i];
    }

    cloudctl_result r = cloudctl_command(sock, module, code, args, capacity);
    if (r.rc != 0) {
        std::fprintf(stderr, "cloudctl: %s\n", r.error.c_str());
        return 1;
    }
    if (r.rec.ca_errno != 0) {
        char msg[sizeof(r.rec.ca_errmsg) + 1] = {};
        std::memcpy(msg, r.rec.ca_errmsg, sizeof(r.rec.ca_errmsg));
        std::fprintf(stderr, "error %d %s\n", r.rec.ca_errno, msg);
        return 2;
    }
    if (binary)
        print_records(r);
    else
        std::fputs(r.text().c_str(), stdout);
    return 0;
}
