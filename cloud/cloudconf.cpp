#include "cloudconf.h"

#include <spawn.h>
#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <vector>

#include "jos.h"

extern char** environ;

std::string cloudconf_get(const char* key, const char* def)
{
    std::string path = jos_path("/etc/cloud.conf");
    FILE* f = std::fopen(path.c_str(), "r");
    if (f == nullptr)
        return def;
    size_t klen = std::strlen(key);
    char line[1024];
    std::string value = def;
    while (std::fgets(line, sizeof(line), f) != nullptr) {
        if (std::strncmp(line, key, klen) != 0 || line[klen] != '=')
            continue;
        value = line + klen + 1;
        while (!value.empty() && (value.back() == '\n' || value.back() == '\r' || value.back() == ' '))
            value.pop_back();
        break;
    }
    std::fclose(f);
    return value;
}

int cloudconf_int(const char* key, int def)
{
    std::string v = cloudconf_get(key, "");
    char* end = nullptr;
    long n = std::strtol(v.c_str(), &end, 10);
    if (v.empty() || *end != '\0' || n < 0 || n > 65535)
        return def;
    return static_cast<int>(n);
}

int cloudconf_run(const char* who, const std::string& cmdline)
{
    if (jos_hasroot()) {
        std::printf("%s: not run under a test root: %s\n", who, cmdline.c_str());
        return 0;
    }
    std::vector<std::string> words;
    std::istringstream in(cmdline);
    for (std::string w; in >> w;)
        words.push_back(w);
    if (words.empty())
        return -1;
    std::vector<char*> argv;
    for (std::string& w : words)
        argv.push_back(w.data());
    argv.push_back(nullptr);
    pid_t pid;
    if (posix_spawnp(&pid, argv[0], nullptr, nullptr, argv.data(), environ) != 0) {
        std::printf("%s: cannot run %s\n", who, argv[0]);
        return -1;
    }
    int status = 0;
    if (waitpid(pid, &status, 0) != pid)
        return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}
