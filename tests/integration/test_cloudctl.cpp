// The cloudctl program against a real daemon: the views of a listing and
// the help of its shortcuts.
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <regex>
#include <string>
#include <vector>

#include "daemon.h"
#include "db.h"
#include "gateway.h"
#include "shortcuts.h"

extern char** environ;

namespace {

using namespace std::chrono_literals;

struct output {
    int status = -1;
    std::string out;
};

// Runs ARGV (found on PATH) with INPUT on its stdin; its stdout and exit
// status.
output run(const std::vector<std::string>& argv, const std::string& input = "")
{
    int in[2], out[2];
    if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0)
        return {};
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_adddup2(&fa, in[0], 0);
    posix_spawn_file_actions_adddup2(&fa, out[1], 1);
    std::vector<char*> args;
    for (const std::string& a : argv)
        args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    pid_t pid;
    const int rc = posix_spawnp(&pid, args[0], &fa, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&fa);
    close(in[0]);
    close(out[1]);
    output o;
    if (rc == 0 && write(in[1], input.data(), input.size()) != static_cast<ssize_t>(input.size()))
        o.out = "short write";
    close(in[1]);
    char buf[4096];
    for (ssize_t n; (n = read(out[0], buf, sizeof(buf))) > 0;)
        o.out.append(buf, static_cast<size_t>(n));
    close(out[0]);
    int st = 0;
    if (rc == 0 && waitpid(pid, &st, 0) == pid && WIFEXITED(st))
        o.status = WEXITSTATUS(st);
    return o;
}

class Cloudctl : public ::testing::Test {
protected:
    void SetUp() override
    {
        db_reset();
        d_.start();
        for (int i = 0; i < 2; i++) {
            gw_.push_back(std::make_unique<test_gateway>(d_.device_port()));
            auto r = test_gateway::status("CTL00000000" + std::to_string(i + 1));
            // A name no JSON text may carry as it is.
            std::snprintf(r.sys_name, sizeof(r.sys_name), "say \"hi\"\\\x01\xc4\xe3");
            gw_.back()->send(r);
        }
        ASSERT_TRUE(wait_until(
            [&] { return d_.cmd("cloud", 2050).text().find("device_total=2\n") != std::string::npos; }, 5s));
    }

    output ctl(std::vector<std::string> args)
    {
        args.insert(args.begin(), {CLOUDCTL_BIN, "-r", d_.root()});
        return run(args);
    }

    daemon_proc d_;
    std::vector<std::unique_ptr<test_gateway>> gw_;
};

TEST_F(Cloudctl, ViewsOfAListing)
{
    const std::string reply = d_.cmd("cloud", 2055).text();
    EXPECT_EQ(ctl({"devices", "--raw"}).out, reply);

    output table = ctl({"devices", "--table"});
    EXPECT_EQ(table.status, 0);
    EXPECT_NE(table.out.find("\n192.168.1.1  "), std::string::npos) << table.out;
    EXPECT_TRUE(std::regex_search(table.out, std::regex("  \\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d  ")));
    EXPECT_NE(table.out.find("  5.0 Gbit/s  "), std::string::npos);
    EXPECT_NE(table.out.find("  1h 0m  "), std::string::npos);

    // Every line an object: a row with the raw values under the column
    // names, a name=value line on its own.
    output json = ctl({"devices", "--json"});
    EXPECT_EQ(json.status, 0);
    output parsed = run({"python3", "-c",
                         "import json, sys\n"
                         "for line in sys.stdin:\n"
                         "    o = json.loads(line)\n"
                         "    print(o['license_id12'], o['ipaddr'], ascii(o['sys_name'])) if 'ipaddr' in o "
                         "else print(*o.items())\n"},
                        json.out);
    EXPECT_EQ(parsed.status, 0) << json.out;
    EXPECT_NE(parsed.out.find("CTL000000001 3232235777 'say \"hi\"\\\\\\x01\\xc4\\xe3'\n"), std::string::npos)
        << parsed.out;
    EXPECT_NE(parsed.out.find("('device_total', 2)\n"), std::string::npos) << parsed.out;

    EXPECT_EQ(ctl({"devices", "--raw", "--json"}).status, 1);
    EXPECT_EQ(ctl({"rename", "CTL000000001", "x", "--table"}).status, 1);
}

TEST_F(Cloudctl, HelpNamesEveryShortcut)
{
    output help = ctl({"--help"});
    EXPECT_EQ(help.status, 0);
    for (const std::string& name : cloudctl_shortcut_names())
        EXPECT_TRUE(std::regex_search(help.out, std::regex("\n  " + name + "[ \n]"))) << name;
    EXPECT_EQ(ctl({"no-such-shortcut"}).status, 1);
}

}  // namespace
