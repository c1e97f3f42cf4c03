// Management socket: one command per connection, a 208-byte record on the
// socket and the argument and reply texts in the client's System V segment.
// The main loop polls it between timer scans.
#include "jos_mgmt.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cerrno>
#include <ctime>
#include <cstddef>
#include <cstdlib>
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
void (*jos_mgmt_cmdhook)(const jos_cmdarg_t*, const char*, uint64_t);

long jos_mgmt_peeruid()
{
    return _mgmt_peeruid;
}
static char _mgmt_argbuf[JOS_ARGBUF_SIZE + 1];

// Pending connections. The table bounds descriptors and poll entries held
// for clients that have not spoken yet: a legitimate client sends its
// record right after connecting, so only slow or silent ones stay here
// long. When it is full, a new connection pushes out the oldest one (the
// nearest deadline): that one has had the longest to speak, and the new one
// is the likelier to be a live client. Closing newcomers instead would let a
// table's worth of silent clients, reconnecting as they are dropped, lock
// every other client out.
constexpr int MGMT_PENDING_MAX = 128;
// From accept to a whole record.
constexpr int MGMT_RECORD_MS = 500;
// Whole budget for sending the reply back.
constexpr int MGMT_REPLY_MS = 100;

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

// Runs the command of one whole record (or answers "can't receive request"
// when the record could not be had) and sends the record back. The caller
// closes the connection.
static void mgmt_serve(int conn, jos_cmdarg_t& ca, bool received)
{
    char* seg = nullptr;
    if (!received) {
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
            char module[sizeof(ca.ca_errmsg)];
            std::memcpy(module, ca.ca_errmsg, sizeof(module));
            const auto t0 = std::chrono::steady_clock::now();
            jos_cmd_exec(&ca);
            if (jos_mgmt_cmdhook != nullptr)
                jos_mgmt_cmdhook(&ca, module, std::chrono::nanoseconds(std::chrono::steady_clock::now() - t0).count());
            _mgmt_peeruid = -1;
        }
    } else {
        mgmt_seterr(&ca, 22, "invalid alen or shmid");
    }

    ca.ca_arg = nullptr;
    ca.ca_result = nullptr;
    // The client is waiting for these 208 bytes, and they fit any socket
    // buffer; the bound only keeps a client that never reads from holding
    // the loop.
    if (socket_send_within(conn, &ca, sizeof(ca), MGMT_REPLY_MS) != 0)
        std::puts("socket_send fail");
    if (seg != nullptr)
        shmdt(seg);
    _jos_curcmd = 0;
}

namespace {

// A connection accepted and still sending its record. Bytes are taken as
// they come, so a record may arrive in any number of pieces; the deadline is
// fixed at accept, on the real monotonic clock (a test's clock step must not
// expire anybody).
struct mgmt_conn {
    int fd = -1;  // -1: entry free
    int got = 0;  // bytes of rec received
    int64_t deadline = 0;
    jos_cmdarg_t rec{};
};

std::array<mgmt_conn, MGMT_PENDING_MAX> _mgconns;

int64_t mgmt_now_ms()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

void mgmt_conn_close(mgmt_conn& c)
{
    close(c.fd);
    c.fd = -1;
}

// Takes what the connection has sent so far, without waiting. Once the
// record is whole its command runs at once and the connection is done with;
// so it is when the client has gone or failed. Otherwise it stays pending.
void mgmt_conn_read(mgmt_conn& c)
{
    auto* buf = reinterpret_cast<char*>(&c.rec);
    for (;;) {
        const ssize_t n = recv(c.fd, buf + c.got, sizeof(c.rec) - static_cast<size_t>(c.got), MSG_DONTWAIT);
        if (n > 0) {
            c.got += static_cast<int>(n);
            if (c.got < static_cast<int>(sizeof(c.rec)))
                continue;
            mgmt_serve(c.fd, c.rec, true);
        } else if (n == 0) {
            // End of stream before a whole record: answered all the same,
            // a client that only shut its sending side still reads it.
            mgmt_serve(c.fd, c.rec, false);
        } else if (errno == EINTR) {
            continue;
        } else if (errno == EAGAIN) {
            return;
        } else {
            const int err = errno;
            std::printf("[%s]socket: %s(%d)\n", "mgmt_request", std::strerror(err), err);
        }
        mgmt_conn_close(c);
        return;
    }
}

// Closes every pending connection whose deadline has passed, after one last
// read: bytes that came in while a command ran are the daemon's delay, not
// the client's.
void mgmt_conn_expire()
{
    const int64_t now = mgmt_now_ms();
    for (mgmt_conn& c : _mgconns) {
        if (c.fd < 0 || c.deadline > now)
            continue;
        mgmt_conn_read(c);
        if (c.fd >= 0) {
            std::puts("socket no data in 500ms, close it!");
            mgmt_conn_close(c);
        }
    }
}

// Milliseconds until the nearest deadline of a pending connection, or limit
// when that is later.
int mgmt_conn_wait_ms(int limit)
{
    const int64_t now = mgmt_now_ms();
    int64_t wait = limit;
    for (const mgmt_conn& c : _mgconns)
        if (c.fd >= 0 && c.deadline - now < wait)
            wait = c.deadline > now ? c.deadline - now : 0;
    return static_cast<int>(wait);
}

}  // namespace

// Handler of the listening socket: accepts every connection that waits and
// reads whatever each has already sent. The number taken in one round is
// bounded by the table so that a flood of connections cannot keep the loop
// from its timers and from reading the ones it holds.
static void mgmt_request(jos_mgsock_t* slot)
{
    for (int i = 0; i < MGMT_PENDING_MAX; i++) {
        const int conn = socket_accept(slot->sock, 0);
        if (conn < 0)
            return;
        mgmt_conn* c = nullptr;
        for (mgmt_conn& e : _mgconns) {
            if (e.fd < 0) {
                c = &e;
                break;
            }
            if (c == nullptr || e.deadline < c->deadline)
                c = &e;
        }
        if (c->fd >= 0) {
            // Pushed out without a word; a record it completed while a
            // command ran is still served.
            mgmt_conn_read(*c);
            if (c->fd >= 0)
                mgmt_conn_close(*c);
        }
        c->fd = conn;
        c->got = 0;
        c->deadline = mgmt_now_ms() + MGMT_RECORD_MS;
        mgmt_conn_read(*c);
    }
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
    for (mgmt_conn& c : _mgconns)
        if (c.fd >= 0)
            mgmt_conn_close(c);
    for (int i = 0; i < JOS_MGSOCK_SLOTS; i++)
        jos_mgmt_rmvsock(i);
}

// Tells a service manager that commands are taken (Type=notify): STATE on
// the datagram socket named by $NOTIFY_SOCKET, when there is one.
static void mgmt_sdnotify(const char* state)
{
    const char* path = std::getenv("NOTIFY_SOCKET");
    if (path == nullptr || (path[0] != '/' && path[0] != '@'))
        return;
    sockaddr_un sa{};
    sa.sun_family = AF_UNIX;
    size_t n = std::strlen(path);
    if (n >= sizeof(sa.sun_path))
        return;
    std::memcpy(sa.sun_path, path, n);
    if (sa.sun_path[0] == '@')
        sa.sun_path[0] = '\0';  // abstract name
    int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return;
    sendto(fd, state, std::strlen(state), MSG_NOSIGNAL, reinterpret_cast<sockaddr*>(&sa),
           static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + n));
    close(fd);
}

void jos_mgmt_run()
{
    jos_cpu_bind(0);
    // The seconds clock is current before any thread reads it.
    _jos_timesec = jos_time();
    jos_start_threads();
    mgmt_sdnotify("READY=1");
    // Listening sockets, the wake-up descriptor, pending connections.
    std::array<pollfd, JOS_MGSOCK_SLOTS + 1 + MGMT_PENDING_MAX> fds;
    std::array<int, JOS_MGSOCK_SLOTS + 1 + MGMT_PENDING_MAX> map;  // slot or table index of each entry
    while (!_jos_exitflag) {
        timer_scan();
        int n = 0;
        for (int i = 0; i < JOS_MGSOCK_SLOTS; i++) {
            if (_mgsocks[i].sock < 0)
                continue;
            fds[n] = {_mgsocks[i].sock, POLLIN, 0};
            map[n++] = i;
        }
        const int nsock = n;
        // Sleeps until a command comes, the next timer is due, a pending
        // connection's time is up or an exit signal arrives; the second's
        // cap only bounds a missed wake-up.
        if (_mgmt_wakefd >= 0)
            fds[n++] = {_mgmt_wakefd, POLLIN, 0};
        const int first = n;
        for (int i = 0; i < MGMT_PENDING_MAX; i++) {
            if (_mgconns[i].fd < 0)
                continue;
            fds[n] = {_mgconns[i].fd, POLLIN, 0};
            map[n++] = i;
        }
        const int timeout = mgmt_conn_wait_ms(timer_wait_ms(1000));
        if (poll(fds.data(), static_cast<nfds_t>(n), timeout) > 0) {
            // Pending connections first: a listener's handler may reuse
            // their entries. End of stream and errors are read too.
            for (int k = first; k < n; k++) {
                mgmt_conn& c = _mgconns[map[k]];
                if (fds[k].revents != 0 && c.fd == fds[k].fd)
                    mgmt_conn_read(c);
            }
            for (int k = 0; k < nsock; k++)
                if ((fds[k].revents & POLLIN) != 0 && _mgsocks[map[k]].sock >= 0)
                    _mgsocks[map[k]].func(&_mgsocks[map[k]]);
        }
        mgmt_conn_expire();
    }
    mgmt_sdnotify("STOPPING=1");
    module_notifyexit();
    jos_stop_threads();
}

jos_module_t mgmt_module = {"mgmt", 0x0a000000, -1, mgmt_minit, mgmt_mfini, nullptr, nullptr};
