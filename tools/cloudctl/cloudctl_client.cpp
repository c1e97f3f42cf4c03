#include "cloudctl_client.h"

#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <algorithm>
#include <cstring>
#include <vector>

namespace {

// A private segment, removed when the call ends.
struct segment {
    int id = -1;
    char* base = nullptr;
    explicit segment(size_t size)
    {
        // The daemon takes identifier 0 for "no segment"; Linux may hand it
        // out, so keep it aside and ask again.
        id = shmget(IPC_PRIVATE, size, IPC_CREAT | 0600);
        if (id == 0) {
            id = shmget(IPC_PRIVATE, size, IPC_CREAT | 0600);
            shmctl(0, IPC_RMID, nullptr);
        }
        if (id < 0)
            return;
        void* p = shmat(id, nullptr, 0);
        if (p == reinterpret_cast<void*>(-1)) {
            shmctl(id, IPC_RMID, nullptr);
            id = -1;
            return;
        }
        base = static_cast<char*>(p);
    }
    ~segment()
    {
        if (base != nullptr)
            shmdt(base);
        if (id >= 0)
            shmctl(id, IPC_RMID, nullptr);
    }
    segment(const segment&) = delete;
    segment& operator=(const segment&) = delete;
};

struct fd_owner {
    int fd;
    ~fd_owner()
    {
        if (fd >= 0)
            close(fd);
    }
};

bool io_all(int fd, void* buf, size_t len, bool sending)
{
    auto* p = static_cast<char*>(buf);
    while (len > 0) {
        ssize_t n = sending ? send(fd, p, len, MSG_NOSIGNAL) : recv(fd, p, len, 0);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        p += n;
        len -= static_cast<size_t>(n);
    }
    return true;
}

}  // namespace

std::string cloudctl_sockpath(const std::string& root)
{
    std::string r = root;
    while (!r.empty() && r.back() == '/')
        r.pop_back();
    return r + "/var/tmp/cloud.d";
}

cloudctl_result cloudctl_send(const std::string& sock, jos_cmdarg_t rec, const std::string& args, size_t capacity,
                              bool make_segment)
{
    cloudctl_result res;
    if (capacity < args.size() + 1)
        capacity = args.size() + 1;
    segment seg(make_segment ? capacity : 1);
    if (make_segment) {
        if (seg.base == nullptr) {
            res.error = std::string("shmget: ") + std::strerror(errno);
            return res;
        }
        std::memcpy(seg.base, args.data(), args.size());
        seg.base[args.size()] = '\0';
        if (rec.ca_shmid == 0)
            rec.ca_shmid = seg.id;
        if (rec.ca_alen == 0)
            rec.ca_alen = static_cast<int32_t>(args.size());
        if (rec.ca_rlen == 0)
            rec.ca_rlen = static_cast<int32_t>(capacity);
    }

    sockaddr_un sa{};
    sa.sun_family = AF_UNIX;
    if (sock.size() >= sizeof(sa.sun_path)) {
        res.error = "socket path too long";
        return res;
    }
    std::memcpy(sa.sun_path, sock.c_str(), sock.size() + 1);
    fd_owner fd{socket(AF_UNIX, SOCK_STREAM, 0)};
    if (fd.fd < 0 || connect(fd.fd, reinterpret_cast<sockaddr*>(&sa), sizeof(sa)) != 0) {
        res.error = "connect " + sock + ": " + std::strerror(errno);
        return res;
    }
    timeval tv = {30, 0};
    setsockopt(fd.fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
    if (!io_all(fd.fd, &rec, sizeof(rec), true) || !io_all(fd.fd, &res.rec, sizeof(res.rec), false)) {
        res.error = "no answer from the daemon";
        return res;
    }
    res.rc = 0;
    if (res.rec.ca_errno == 0 && make_segment && res.rec.ca_rlen > 0) {
        size_t n = static_cast<size_t>(res.rec.ca_rlen);
        res.data.assign(seg.base, n < capacity ? n : capacity);
    }
    return res;
}

cloudctl_result cloudctl_command(const std::string& sock, const char* module, int code, const std::string& args,
                                 size_t capacity)
{
    jos_cmdarg_t rec{};
    rec.ca_cmd = code;
    if (module != nullptr)
        std::snprintf(rec.ca_errmsg, sizeof(rec.ca_errmsg), "%s", module);
    return cloudctl_send(sock, rec, args, capacity, true);
}
