#include "daemon.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
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
}

daemon_proc::~daemon_proc()
{
    if (pid_ > 0)
        signal_and_wait(SIGKILL, std::chrono::seconds(5));
    std::error_code ec;
    fs::remove_all(root_, ec);
}

void daemon_proc::start()
{
    std::string logpath = root_ + "/daemon.log";
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_addopen(&fa, 1, logpath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_adddup2(&fa, 1, 2);
    posix_spawn_file_actions_addchdir_np(&fa, root_.c_str());
    std::string bin = CLOUD_BIN;
    char* argv[] = {bin.data(), const_cast<char*>("-f"), const_cast<char*>("-r"), root_.data(), nullptr};
    int rc = posix_spawn(&pid_, bin.c_str(), &fa, nullptr, argv, environ);
    posix_spawn_file_actions_destroy(&fa);
    if (rc != 0)
        throw std::runtime_error("cannot start " + bin);
    if (!wait_log("######cloud startup!", std::chrono::seconds(30)))
        throw std::runtime_error("daemon did not start:\n" + log());
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
