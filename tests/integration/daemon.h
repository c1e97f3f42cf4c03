// Runs the real daemon in the foreground under a private root for a test,
// and talks to it through the real management socket.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "cloudctl_client.h"

class daemon_proc {
public:
    // Makes a fresh root; files may be placed under it before start().
    daemon_proc();
    ~daemon_proc();
    daemon_proc(const daemon_proc&) = delete;
    daemon_proc& operator=(const daemon_proc&) = delete;

    const std::string& root() const { return root_; }
    // UDP port of the device socket (written into /etc/cloud.conf).
    int device_port() const { return device_port_; }
    // UDP port of the backup socket.
    int backup_port() const { return backup_port_; }
    int upgrade_port() const { return upgrade_port_; }
    std::string path(const std::string& abs) const { return root_ + abs; }
    std::string sock() const { return cloudctl_sockpath(root_); }

    // Starts build/cloud -f -r ROOT and waits for its start-up line and,
    // when it has one, for its device socket.
    void start();
    // Starts it and waits for it to end by itself; returns the wait status.
    int run_to_exit(std::chrono::milliseconds limit = std::chrono::seconds(30));
    // Extra environment for the daemon (set before start).
    void setenv(const std::string& name, const std::string& value) { env_.push_back(name + "=" + value); }
    // Moves the daemon's clock (test roots only).
    void step_clock(long seconds) const { cmd(nullptr, 389, "sec=" + std::to_string(seconds)); }
    // SIGTERM, then waits for the exit; returns the wait status.
    int stop(std::chrono::milliseconds limit = std::chrono::seconds(10));
    // Sends a signal and waits for the process to end; returns the status.
    int signal_and_wait(int sig, std::chrono::milliseconds limit);
    pid_t pid() const { return pid_; }

    // Waits until the daemon's database writer has nothing queued: every
    // write handed over before the call has reached the table (or failed).
    bool db_settled(std::chrono::milliseconds limit = std::chrono::seconds(10)) const;

    // Everything the daemon printed so far.
    std::string log() const;
    bool wait_log(const std::string& needle, std::chrono::milliseconds limit = std::chrono::seconds(10)) const;

    cloudctl_result cmd(const char* module, int code, const std::string& args = "", size_t cap = 1 << 20) const
    {
        return cloudctl_command(sock(), module, code, args, cap);
    }

private:
    std::string root_;
    pid_t pid_ = -1;
    int device_port_ = 0;
    int backup_port_ = 0;
    int upgrade_port_ = 0;
    std::vector<std::string> env_;
    void spawn();
};

// A free UDP port on loopback (bound once and released).
int free_udp_port();
// A UDP socket bound to loopback and an ephemeral port, which goes to
// *PORT; throws naming WHAT when that fails.
int loopback_udp(uint16_t* port, const char* what);
// Sends LEN bytes from FD to the loopback PORT; throws naming WHAT when the
// datagram does not leave whole.
void send_loopback(int fd, int port, const void* data, size_t len, const char* what);

// Polls COND until it holds or LIMIT passes.
bool wait_until(const std::function<bool()>& cond, std::chrono::milliseconds limit);

void write_file(const std::string& path, const std::string& text);
// The pieces of S between SEP characters (a trailing empty piece dropped).
std::vector<std::string> split(const std::string& s, char sep);
std::string read_file(const std::string& path);
