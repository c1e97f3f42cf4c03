// Process entry and the crash report.
#include <signal.h>
#include <sys/resource.h>
#include <sys/uio.h>
#include <ucontext.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "jos.h"
#include "jos_mgmt.h"
#include "jos_thread.h"

#ifndef CLOUD_BUILD_STAMP
#define CLOUD_BUILD_STAMP "00000000.000000"
#endif

// Reads memory that may not be mapped without faulting again.
static bool crash_peek(uint64_t addr, uint64_t* out)
{
    iovec local = {out, sizeof(*out)};
    iovec remote = {reinterpret_cast<void*>(addr), sizeof(*out)};
    return process_vm_readv(getpid(), &local, 1, &remote, 1, 0) == static_cast<ssize_t>(sizeof(*out));
}

static void signal_segv(int signo, siginfo_t* info, void* ctx)
{
    struct sigaction dfl{};
    dfl.sa_handler = SIG_DFL;
    sigaction(SIGSEGV, &dfl, nullptr);
    sigaction(SIGBUS, &dfl, nullptr);

    std::string path = jos_path("/var/tmp/cloud.dump");
    FILE* f = std::fopen(path.c_str(), "w+");
    if (f != nullptr) {
        const greg_t* r = static_cast<ucontext_t*>(ctx)->uc_mcontext.gregs;
        uint64_t csgsfs = static_cast<uint64_t>(r[REG_CSGSFS]);
        std::fprintf(f, "Segmentation Fault!\n");
        std::fprintf(f, "Image built at %s, osver=%d.%d\n", CLOUD_BUILD_STAMP, _jos_kernel.bsd_major,
                     _jos_kernel.bsd_minor);
        std::fprintf(f, "info.si_signo = %d\n", info->si_signo);
        std::fprintf(f, "info.si_errno = %d\n", info->si_errno);
        std::fprintf(f, "info.si_code  = %d\n", info->si_code);
        std::fprintf(f, "info.si_addr  = %p\n", info->si_addr);
        std::fprintf(f, "info.si_trapno= %d\n", static_cast<int>(r[REG_TRAPNO]));
        std::fprintf(f, "info.si_pid   = %u\n", static_cast<unsigned>(info->si_pid));
        std::fprintf(f, "info.si_uid   = %u\n", static_cast<unsigned>(info->si_uid));
        // Linux keeps no ES and DS for 64-bit processes: they print as 0.
        std::fprintf(f, "gs  = 0x%x\n", static_cast<unsigned>((csgsfs >> 16) & 0xffff));
        std::fprintf(f, "es  = 0x%x\n", 0u);
        std::fprintf(f, "ds  = 0x%x\n", 0u);
        std::fprintf(f, "edi = 0x%lx\n", static_cast<unsigned long>(r[REG_RDI]));
        std::fprintf(f, "esi = 0x%lx\n", static_cast<unsigned long>(r[REG_RSI]));
        std::fprintf(f, "rdx = 0x%lx\n", static_cast<unsigned long>(r[REG_RDX]));
        std::fprintf(f, "rcs = 0x%lx\n", static_cast<unsigned long>(r[REG_RCX]));
        std::fprintf(f, "rbp = 0x%lx\n", static_cast<unsigned long>(r[REG_RBP]));
        std::fprintf(f, "rsp = 0x%lx\n", static_cast<unsigned long>(r[REG_RSP]));
        std::fprintf(f, "rbx = 0x%lx\n", static_cast<unsigned long>(r[REG_RBX]));
        std::fprintf(f, "rdx = 0x%lx\n", static_cast<unsigned long>(r[REG_RDX]));
        std::fprintf(f, "rcx = 0x%lx\n", static_cast<unsigned long>(r[REG_RCX]));
        std::fprintf(f, "rax = 0x%lx\n", static_cast<unsigned long>(r[REG_RAX]));
        std::fprintf(f, "trapno = 0x%x\n", static_cast<unsigned>(r[REG_TRAPNO]));
        std::fprintf(f, "err = 0x%lx\n", static_cast<unsigned long>(r[REG_ERR]));
        std::fprintf(f, "rip = 0x%lx\n", static_cast<unsigned long>(r[REG_RIP]));
        std::fprintf(f, "cs  = 0x%lx\n", static_cast<unsigned long>(csgsfs & 0xffff));
        std::fprintf(f, "rflags = 0x%lx\n", static_cast<unsigned long>(r[REG_EFL]));
        std::fprintf(f, "ss  = 0x%lx\n", static_cast<unsigned long>((csgsfs >> 48) & 0xffff));

        // Frame-pointer walk: return address at fp+8, two argument words at
        // fp+16 and fp+24, the caller's frame at fp.
        std::fprintf(f, "Stack trace:\n");
        uint64_t addr = static_cast<uint64_t>(r[REG_RIP]);
        uint64_t fp = static_cast<uint64_t>(r[REG_RBP]);
        for (int i = 0; i < 5 && fp != 0; i++) {
            uint64_t w16 = 0, w24 = 0, ret = 0, next = 0;
            if (!crash_peek(fp + 16, &w16) || !crash_peek(fp + 24, &w24) || !crash_peek(fp + 8, &ret) ||
                !crash_peek(fp, &next))
                break;
            std::fprintf(f, " *0x%x: 0x%x 0x%x\n", static_cast<uint32_t>((addr + 7) & ~7ULL),
                         static_cast<uint32_t>(w16), static_cast<uint32_t>(w24));
            addr = ret;
            fp = next;
        }
        std::fprintf(f, "End of stack trace\n");
        std::fflush(f);

        if (jos_thread_t* td = _jos_curthread) {
            std::fprintf(f, "curthread=%s\n", td->td_name);
            std::fprintf(f, "curcpu=%d\n", td->td_cpuid);
            std::fprintf(f, "curstage=0x%02x\n", td->td_stage);
            std::fprintf(f, "td_args=%u/%u/%u[0/1/2]\n", td->td_arg0, td->td_arg1, td->td_arg2);
        } else {
            std::fprintf(f, "curthread=MGMT\n");
            std::fprintf(f, "curcpu=0\n");
        }
        std::fclose(f);
    }
    // Delivered with the default action once the handler returns, so a
    // fault sent by kill ends the process as a real one does.
    raise(signo);
}

static void usage(const char* prog)
{
    std::fprintf(stderr, "usage: %s [-f] [-r ROOT]\n", prog);
    std::exit(2);
}

int main(int argc, char** argv)
{
    bool foreground = false;
    int opt;
    while ((opt = getopt(argc, argv, "fr:")) != -1) {
        switch (opt) {
        case 'f':
            foreground = true;
            break;
        case 'r':
            jos_setroot(optarg);
            break;
        default:
            usage(argv[0]);
        }
    }
    setvbuf(stdout, nullptr, _IOLBF, 0);
    if (!foreground && daemon(1, 1) != 0) {
        perror("daemon");
        return 1;
    }

    rlimit rl{};
    getrlimit(RLIMIT_CORE, &rl);
    rl.rlim_cur = rl.rlim_max = 0x4000000;
    setrlimit(RLIMIT_CORE, &rl);

    static char altstack[64 * 1024];
    stack_t ss{};
    ss.ss_sp = altstack;
    ss.ss_size = sizeof(altstack);
    sigaltstack(&ss, nullptr);
    struct sigaction sa{};
    sa.sa_sigaction = signal_segv;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = SA_SIGINFO | SA_ONSTACK;
    if (sigaction(SIGSEGV, &sa, nullptr) != 0)
        perror("sigaction");
    sa.sa_flags = SA_SIGINFO;
    if (sigaction(SIGBUS, &sa, nullptr) != 0)
        perror("sigaction");

    _jos_kernel.argc = argc;
    _jos_kernel.argv = argv;
    if (module_minit(_module_data, _module_count) != 0) {
        std::puts("modules init fail");
        std::exit(-1);
    }
    std::puts("######cloud startup!");
    jos_mgmt_run();
    module_mfini();
    return 0;
}
