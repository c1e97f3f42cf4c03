#include "daemon.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <string_view>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

extern char** environ;

namespace fs = std::filesystem;

bool wait_until(const std::function<bool()>& cond, std::chrono::milliseconds limit)
{
    auto end = std::chrono::steady_clock::now() + limit;
    for (;;) {
        if (cond())
            return true;
        if (std::chrono::steady_clock::now() >= end)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

std::vector<std::string> split(const std::string& s, char sep)
{
    std::vector<std::string> out;
    std::string item;
    std::istringstream in(s);
    while (std::getline(in, item, sep))
        out.push_back(item);
    return out;
}

void write_file(const std::string& path, const std::string& text)
{
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream(path, std::ios::binary) << text;
}

std::string read_file(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

daemon_proc::daemon_proc()
{
    char tmpl[] = "/tmp/cloudtest.XXXXXX";
    if (mkdtemp(tmpl) == nullptr)
        throw std::runtime_error("mkdtemp failed");
    root_ = tmpl;
    fs::create_directories(root_ + "/var/tmp");
    fs::create_directories(root_ + "/etc");
    fs::create_directories(root_ + "/tmp");
    device_port_ = free_udp_port();
    backup_port_ = free_udp_port();
    upgrade_port_ = free_udp_port();
    write_file(root_ + "/etc/cloud.conf", "device_port=" + std::to_string(device_port_) +
                                              "\nbackup_port=" + std::to_string(backup_port_) +
                                              "\nupgrade_port=" + std::to_string(upgrade_port_) + "\n");
}

int loopback_udp(uint16_t* port, const char* what)
{
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof(sa);
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&sa), sizeof(sa)) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&sa), &len) != 0) {
        if (fd >= 0)
            close(fd);
        throw std::runtime_error(what);
    }
    *port = ntohs(sa.sin_port);
    return fd;
}

void send_loopback(int fd, int port, const void* data, size_t len, const char* what)
{
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    to.sin_port = htons(static_cast<uint16_t>(port));
    if (sendto(fd, data, len, 0, reinterpret_cast<sockaddr*>(&to), sizeof(to)) != static_cast<ssize_t>(len))
        throw std::runtime_error(what);
}

int free_udp_port()
{
    uint16_t port = 0;
    close(loopback_udp(&port, "no free UDP port"));
    return port;
}

daemon_proc::~daemon_proc()
{
    if (pid_ > 0)
        signal_and_wait(SIGKILL, std::chrono::seconds(5));
    std::error_code ec;
    fs::remove_all(root_, ec);
}

void daemon_proc::spawn()
{
    std::string logpath = root_ + "/daemon.log";
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_addopen(&fa, 1, logpath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_adddup2(&fa, 1, 2);
    posix_spawn_file_actions_addchdir_np(&fa, root_.c_str());
    std::string bin = CLOUD_BIN;
    char* argv[] = {bin.data(), const_cast<char*>("-f"), const_cast<char*>("-r"), root_.data(), nullptr};
    std::vector<char*> envp;
    for (char** e = environ; *e != nullptr; e++) {
        std::string_view name(*e, std::strcspn(*e, "="));
        bool replaced = false;
        for (const std::string& x : env_)
            replaced = replaced || x.compare(0, name.size() + 1, std::string(name) + "=") == 0;
        if (!replaced)
            envp.push_back(*e);
    }
    for (std::string& e : env_)
        envp.push_back(e.data());
    envp.push_back(nullptr);
    int rc = posix_spawn(&pid_, bin.c_str(), &fa, nullptr, argv, envp.data());
    posix_spawn_file_actions_destroy(&fa);
    if (rc != 0)
        throw std::runtime_error("cannot start " + bin);
}

// The device socket is bound by the receive thread once it runs: a bind of
// the same port without port sharing fails from then on.
// Read from the kernel's socket table: a probe that binds the port itself
// could take it from under the daemon for an instant.
static bool udp_port_taken(int port)
{
    char hex[8];
    std::snprintf(hex, sizeof(hex), ":%04X", port);
    std::istringstream in(read_file("/proc/net/udp"));
    std::string line;
    std::getline(in, line);  // header
    while (std::getline(in, line)) {
        std::istringstream f(line);
        std::string slot, local;
        f >> slot >> local;
        if (local.size() > 5 && local.compare(local.size() - 5, 5, hex) == 0)
            return true;
    }
    return false;
}

void daemon_proc::start()
{
    spawn();
    if (!wait_log("######cloud startup!", std::chrono::seconds(30)))
        throw std::runtime_error("daemon did not start:\n" + log());
    if (log().find("######cloud startup!") != std::string::npos &&
        !wait_until([&] { return udp_port_taken(device_port_) && udp_port_taken(backup_port_) &&
                                     udp_port_taken(upgrade_port_); },
                    std::chrono::seconds(10)))
        throw std::runtime_error("a UDP socket is not bound:\n" + log());
}

int daemon_proc::run_to_exit(std::chrono::milliseconds limit)
{
    spawn();
    int status = -1;
    bool done = wait_until([&] { return waitpid(pid_, &status, WNOHANG) == pid_; }, limit);
    if (!done)
        return signal_and_wait(SIGKILL, std::chrono::seconds(5)), -1;
    pid_ = -1;
    return status;
}

int daemon_proc::signal_and_wait(int sig, std::chrono::milliseconds limit)
{
    if (pid_ <= 0)
        return -1;
    kill(pid_, sig);
    int status = -1;
    bool done = wait_until([&] { return waitpid(pid_, &status, WNOHANG) == pid_; }, limit);
    if (!done) {
        kill(pid_, SIGKILL);
        waitpid(pid_, &status, 0);
        status = -1;
    }
    pid_ = -1;
    return status;
}

int daemon_proc::stop(std::chrono::milliseconds limit)
{
    return signal_and_wait(SIGTERM, limit);
}

std::string daemon_proc::log() const
{
    return read_file(root_ + "/daemon.log");
}

bool daemon_proc::wait_log(const std::string& needle, std::chrono::milliseconds limit) const
{
    return wait_until([&] { return log().find(needle) != std::string::npos; }, limit);
}

bool daemon_proc::db_settled(std::chrono::milliseconds limit) const
{
    return wait_until([&] { return cmd("cloud", 2050).text().find("\ndb_queued=0\n") != std::string::npos; }, limit);
}
