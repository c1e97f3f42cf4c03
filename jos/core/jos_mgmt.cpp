// Management socket: one command per connection, a 208-byte record on the
// socket and the argument and reply texts in the client's System V segment.
// The main loop polls it between timer scans.
#include "jos_mgmt.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "ipe_socket.h"
#include "jos_cmds.h"
#include "jos_cpu.h"
#include "jos_thread.h"
#include "jos_timer.h"

volatile std::sig_atomic_t _jos_exitflag;

static jos_mgsock_t _mgsocks[JOS_MGSOCK_SLOTS];
static long _mgmt_peeruid = -1;

long jos_mgmt_peeruid()
{
    return _mgmt_peeruid;
}
static char _mgmt_argbuf[JOS_ARGBUF_SIZE + 1];

int jos_mgmt_addsock(int sock, jos_sockfn_t fn, void* data)
{
    for (int i = 0; i < JOS_MGSOCK_SLOTS; i++) {
        if (_mgsocks[i].sock < 0) {
            _mgsocks[i] = {sock, fn, data};
            return i;
        }
    }
    return -1;
}

void jos_mgmt_rmvsock(int slot)
{
    if (slot < 0 || slot >= JOS_MGSOCK_SLOTS || _mgsocks[slot].sock < 0)
        return;
    close(_mgsocks[slot].sock);
    _mgsocks[slot] = {-1, nullptr, nullptr};
}

static void mgmt_seterr(jos_cmdarg_t* ca, int err, const char* word)
{
    ca->ca_errno = err;
    std::snprintf(ca->ca_errmsg, sizeof(ca->ca_errmsg), "%s", word);
}

// Attaches the client's segment, refusing one that the peer does not own
// (root may use any) or that is smaller than the argument it claims to hold.
// The reply capacity is cut to the segment's size.
static char* mgmt_attach(int conn, jos_cmdarg_t* ca)
{
    ucred cred{};
    socklen_t clen = sizeof(cred);
    shmid_ds ds{};
    if (getsockopt(conn, SOL_SOCKET, SO_PEERCRED, &cred, &clen) != 0 || shmctl(ca->ca_shmid, IPC_STAT, &ds) != 0 ||
        (cred.uid != 0 && cred.uid != ds.shm_perm.uid)) {
        mgmt_seterr(ca, 5, "shminit fail");
        return nullptr;
    }
    if (static_cast<size_t>(ca->ca_alen > 0 ? ca->ca_alen : 0) > ds.shm_segsz) {
        mgmt_seterr(ca, 22, "invalid alen or shmid");
        return nullptr;
    }
    void* seg = shmat(ca->ca_shmid, nullptr, 0);
    if (seg == reinterpret_cast<void*>(-1)) {
        mgmt_seterr(ca, 5, "shminit fail");
        return nullptr;
    }
    if (ca->ca_rlen < 0)
        ca->ca_rlen = 0;
    if (static_cast<size_t>(ca->ca_rlen) > ds.shm_segsz)
        ca->ca_rlen = static_cast<int32_t>(ds.shm_segsz);
    return static_cast<char*>(seg);
}

static void mgmt_request(jos_mgsock_t* slot)
{
    int conn = socket_accept(slot->sock, 1);
    if (conn < 0)
        return;
    if (!socket_readable(conn, 500)) {
        std::puts("socket no data in 500ms, close it!");
        close(conn);
        return;
    }
    int soerr = 0;
    socklen_t elen = sizeof(soerr);
    if (getsockopt(conn, SOL_SOCKET, SO_ERROR, &soerr, &elen) != 0 || soerr != 0) {
        std::printf("[%s]socket: %s(%d)\n", "mgmt_request", std::strerror(soerr), soerr);
        close(conn);
        return;
    }

    jos_cmdarg_t ca{};
    char* seg = nullptr;
    if (socket_receive(conn, &ca, sizeof(ca)) != 0) {
        ca = jos_cmdarg_t{};
        mgmt_seterr(&ca, 5, "can't receive request");
    } else if (ca.ca_alen < JOS_ARGBUF_SIZE && ca.ca_shmid > 0) {
        // Pointers and the stream flag never come from the client.
        ca.ca_flags &= static_cast<uint16_t>(~JOS_CAF_FILE);
        ca.ca_file = nullptr;
        ca.ca_errmsg[sizeof(ca.ca_errmsg) - 1] = '\0';
        ca.ca_errno = 0;
        seg = mgmt_attach(conn, &ca);
        if (seg != nullptr) {
            ca.ca_result = seg;
            ca.ca_arg = _mgmt_argbuf;
            int alen = ca.ca_alen > 0 ? ca.ca_alen : 0;
            std::memcpy(_mgmt_argbuf, seg, static_cast<size_t>(alen));
            _mgmt_argbuf[alen] = '\0';
            ca.ca_pos = 0;
            _jos_curcmd = ca.ca_cmd;
            ucred cred{};
            socklen_t clen = sizeof(cred);
            _mgmt_peeruid = getsockopt(conn, SOL_SOCKET, SO_PEERCRED, &cred, &clen) == 0 ? long(cred.uid) : -1;
            jos_cmd_exec(&ca);
            _mgmt_peeruid = -1;
        }
    } else {
        mgmt_seterr(&ca, 22, "invalid alen or shmid");
    }

    ca.ca_arg = nullptr;
    ca.ca_result = nullptr;
    if (socket_send(conn, &ca, sizeof(ca)) != 0)
        std::puts("socket_send fail");
    if (seg != nullptr)
        shmdt(seg);
    _jos_curcmd = 0;
    close(conn);
}

// Written by the exit signals, whichever thread takes them, so that the
// main loop's wait ends at once.
static int _mgmt_wakefd = -1;

static void mgmt_onexit(int)
{
    _jos_exitflag = 1;
    if (_mgmt_wakefd >= 0) {
        int saved = errno;
        uint64_t one = 1;
        ssize_t w = write(_mgmt_wakefd, &one, sizeof(one));
        (void)w;
        errno = saved;
    }
}

static void mgmt_onalarm(int) {}

static int mgmt_minit(jos_kernel_t*)
{
    for (jos_mgsock_t& s : _mgsocks)
        s = {-1, nullptr, nullptr};

    if (_mgmt_wakefd < 0)
        _mgmt_wakefd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    struct sigaction sa{};
    sigemptyset(&sa.sa_mask);
    sa.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &sa, nullptr);
    sa.sa_handler = mgmt_onexit;
    for (int sig : {SIGINT, SIGTERM, SIGUSR1, SIGUSR2})
        sigaction(sig, &sa, nullptr);
    sa.sa_handler = mgmt_onalarm;
    sigaction(SIGALRM, &sa, nullptr);

    std::string path = jos_path("/var/tmp/cloud.d");
    int sock = socket_listen(path.data());
    if (sock < 0) {
        std::printf("%s: fail to create mgmt socket %s\n", "mgmt_minit", std::strerror(errno));
        return -1;
    }
    // Only the owner and its group may send commands.
    chmod(path.c_str(), 0660);
    jos_mgmt_addsock(sock, mgmt_request, nullptr);
    return 0;
}

static void mgmt_mfini(jos_kernel_t*)
{
    for (int i = 0; i < JOS_MGSOCK_SLOTS; i++)
        jos_mgmt_rmvsock(i);
}

void jos_mgmt_run()
{
    jos_cpu_bind(0);
    jos_start_threads();
    while (!_jos_exitflag) {
        timer_scan();
        pollfd fds[JOS_MGSOCK_SLOTS + 1];
        int map[JOS_MGSOCK_SLOTS];
        int n = 0;
        for (int i = 0; i < JOS_MGSOCK_SLOTS; i++) {
            if (_mgsocks[i].sock < 0)
                continue;
            fds[n] = {_mgsocks[i].sock, POLLIN, 0};
            map[n++] = i;
        }
        // Sleeps until a command comes, the next timer is due or an exit
        // signal arrives; the second's cap only bounds a missed wake-up.
        fds[n] = {_mgmt_wakefd, POLLIN, 0};
        if (poll(fds, static_cast<nfds_t>(n + (_mgmt_wakefd >= 0 ? 1 : 0)), timer_wait_ms(1000)) <= 0)
            continue;
        for (int i = 0; i < n; i++)
            if ((fds[i].revents & POLLIN) != 0 && _mgsocks[map[i]].sock >= 0)
                _mgsocks[map[i]].func(&_mgsocks[map[i]]);
    }
    module_notifyexit();
    jos_stop_threads();
}

jos_module_t mgmt_module = {"mgmt", 0x0a000000, -1, mgmt_minit, mgmt_mfini, nullptr, nullptr};
