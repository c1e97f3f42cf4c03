// Configuration store: verify.conf is read once at start-up, line by line,
// each line offered to the modules until one claims it; it is rewritten
// within a second whenever a module marks the store dirty.
#include "jos_config.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include "jos_cmds.h"
#include "jos_timer.h"

static int _cfg_dirty;
static std::string _cfg_rootdir;

static jos_timer_t _cfg_tmr = {0, 1000, cfg_timer, "cfg_timer", nullptr};

const char* jos_cfg_root()
{
    if (_cfg_rootdir.empty()) {
        const char* env = std::getenv("VERIFYPATH");
        _cfg_rootdir = env != nullptr ? std::string(env) + "/etc" : jos_path("/verify/etc");
    }
    return _cfg_rootdir.c_str();
}

void jos_cfg_setdirty()
{
    _cfg_dirty = 1;
}

void jos_cfg_cleardirty()
{
    _cfg_dirty = 0;
}

int jos_cfg_isdirty()
{
    return _cfg_dirty;
}

static int cfg_offer(jos_module_t* m, char* key, char* value, jos_cmdarg_t* ca)
{
    *ca = jos_cmdarg_t{};
    ca->ca_cmd = JOS_CMD_CFGLINE;
    ca->ca_arg = value;
    std::snprintf(ca->ca_errmsg, sizeof(ca->ca_errmsg), "%s", key);
    ca->ca_flags = JOS_CAF_CONFIG;
    return m->ioctl(ca);
}

// The module that claimed the previous line is asked first, and asked twice,
// before the walk over all modules; an ioctl must answer the same line the
// same way every time.
static jos_module_t* cfg_claim(jos_module_t* prev, char* key, char* value, jos_cmdarg_t* ca)
{
    if (prev != nullptr && prev->ioctl != nullptr) {
        if (cfg_offer(prev, key, value, ca) > 0 || cfg_offer(prev, key, value, ca) > 0)
            return prev;
    }
    for (jos_module_t* m = module_list(); m != nullptr; m = m->next)
        if (m->ioctl != nullptr && cfg_offer(m, key, value, ca) > 0)
            return m;
    return nullptr;
}

// A key followed by blanks only: the trimming removes the blanks, but the
// line is reported as a key without a value, not as a line without a space.
static bool cfg_keyonly(const char* raw)
{
    while (*raw == ' ' || *raw == '\t')
        raw++;
    while (*raw != '\0' && *raw != ' ' && *raw != '\t' && *raw != '\r' && *raw != '\n')
        raw++;
    if (*raw != ' ' && *raw != '\t')
        return false;
    while (*raw == ' ' || *raw == '\t')
        raw++;
    return *raw == '\0' || *raw == '\r' || *raw == '\n';
}

void jos_cfg_load()
{
    std::string path = std::string(jos_cfg_root()) + "/verify.conf";
    FILE* f = std::fopen(path.c_str(), "r");
    if (f == nullptr)
        return;
    char raw[1024];
    int lineno = 0;
    jos_module_t* prev = nullptr;
    while (std::fgets(raw, 1023, f) != nullptr) {
        bool keyonly = cfg_keyonly(raw);
        char* line = jos_cmd_trimline(raw);
        if (std::strcmp(line, "ENDCONFIG") == 0)
            break;
        lineno++;
        if (*line == '\0' || *line == '#')
            continue;
        char* sp = std::strchr(line, ' ');
        if (sp == nullptr) {
            if (keyonly)
                std::printf("loadcfg: invalid line %d\n", lineno);
            else
                std::printf("Warning: invalid line %d\n", lineno);
            continue;
        }
        if (sp - line >= 64) {
            std::printf("Warning: invalid tag at line %d\n", lineno);
            continue;
        }
        *sp = '\0';
        char* value = sp + 1;
        while (*value == ' ')
            value++;
        if (*value == '\0') {
            std::printf("loadcfg: invalid line %d\n", lineno);
            continue;
        }
        jos_cmdarg_t ca;
        prev = cfg_claim(prev, line, value, &ca);
        if (prev != nullptr && ca.ca_errno != 0)
            std::printf("loadcfg(%d): %s\n", lineno, ca.ca_errmsg);
    }
    std::fclose(f);
    _cfg_dirty = 0;
    for (jos_module_t* m = module_list(); m != nullptr; m = m->next) {
        if (m->ioctl == nullptr)
            continue;
        jos_cmdarg_t ca{};
        ca.ca_cmd = JOS_CMD_CFGLOADED;
        ca.ca_flags = JOS_CAF_CONFIG;
        m->ioctl(&ca);
    }
}

void cfg_timer(void*)
{
    if (_cfg_dirty != 1)
        return;
    _cfg_dirty = 0;
    std::string root = jos_cfg_root();
    std::string tmp = root + "/verify_new.conf";
    FILE* f = std::fopen(tmp.c_str(), "w+");
    if (f == nullptr) {
        std::printf("PANIC(%s): fail to create file %s\n", "cfg_timer", tmp.c_str());
        return;
    }
    for (jos_module_t* m = module_list(); m != nullptr; m = m->next) {
        if (m->ioctl == nullptr)
            continue;
        jos_cmdarg_t ca{};
        ca.ca_cmd = JOS_CMD_CFGSAVE;
        ca.ca_flags = JOS_CAF_FILE;
        ca.ca_file = f;
        m->ioctl(&ca);
    }
    std::fputs("ENDCONFIG\n", f);
    std::fclose(f);
    if (std::rename(tmp.c_str(), (root + "/verify.conf").c_str()) != 0)
        std::printf("%s: %s(%d)\n", "cfg_timer", std::strerror(errno), errno);
}

static int cfg_minit(jos_kernel_t*)
{
    _cfg_dirty = 0;
    timer_load(&_cfg_tmr);
    jos_cfg_load();
    return 0;
}

static void cfg_mfini(jos_kernel_t*) {}

jos_module_t config_module = {"config", 0x0d000000, -1, cfg_minit, cfg_mfini, nullptr, nullptr};
