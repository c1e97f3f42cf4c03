// The shortcut table and what runs it: options and positional arguments
// become the command's name=value words, the reply is shown plain, raw,
// as a table or as JSON lines.
#include "shortcuts.h"

#include <algorithm>
#include <cstring>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "cloudctl_client.h"
#include "cloudctl_rows.h"

namespace {

constexpr auto TXT = cloudctl_unit::text, NUM = cloudctl_unit::number, IP = cloudctl_unit::ipv4,
               TIME = cloudctl_unit::time, DUR = cloudctl_unit::duration, RATE = cloudctl_unit::rate;

using listing = std::vector<cloudctl_part>;
using sort_keys = std::vector<std::pair<const char*, int>>;

// Big enough for a full list of any pool.
constexpr size_t REPLY_CAPACITY = 4 << 20;

// ---------------------------------------------------------------------------
// How the replies read (see cloudctl_rows.h)
// ---------------------------------------------------------------------------

// Statistics: name=value lines only.
const listing STATS = {};

// The daemon's header names 30 columns for 32 values, one of them
// misspelt: the rows get the real names.
const listing DEVICES = {
    {"ipaddr|sys_name|license_start|licnese_end|license_id12|max_flowcont|max_ipcnt|current_users|flowcont|upbps|"
     "downbps|time|webport|grpid|license_id83|sys_name2|sys_run|sshport|outip|longitude|latitude|map_address|"
     "version|temp|isequal|info|eqtime|max_users|grpname|stat",
     {{"ipaddr", IP},        {"sys_name", TXT},     {"license_start", TIME}, {"license_end", TIME},
      {"license_id12", TXT}, {"max_flowcont", NUM}, {"max_ipcnt", NUM},      {"current_users", NUM},
      {"flowcont", NUM},     {"upbps", RATE},       {"downbps", RATE},       {"time", TIME},
      {"webport", NUM},      {"grpid", NUM},        {"license_id83", TXT},   {"sys_name2", TXT},
      {"sys_run", DUR},      {"sshport", NUM},      {"outip", IP},           {"longitude", NUM},
      {"latitude", NUM},     {"map_address", TXT},  {"version", TXT},        {"temp", NUM},
      {"passreset", NUM},    {"cpu", NUM},          {"isequal", NUM},        {"info", TXT},
      {"eqtime", TIME},      {"max_users", NUM},    {"grpname", TXT},        {"stat", NUM}},
     '|'}};

// Then the appliances waiting for a ping, one per line.
const listing BACKUPS = {{"", {{"license_id12", TXT}}}};

// A name with blanks is the appliance's display name.
const listing APPS = {{"",
                       {{"license_id12", TXT},
                        {"sysname", TXT},
                        {"app_name", TXT},
                        {"app_cname", TXT},
                        {"app_version", TXT},
                        {"grpid", NUM},
                        {"time", TIME},
                        {"app_status", TXT},
                        {"mask", NUM}},
                       ' ',
                       1}};

const listing UPGRADES = {{"",
                           {{"license_id12", TXT},
                            {"task_id", NUM},
                            {"ifupgrade", NUM},
                            {"nginx_port", NUM},
                            {"up_times", NUM},
                            {"packet_name", TXT}}}};

const listing FRB = {{"",
                      {{"license_id12", TXT}, {"grpid", NUM},    {"cpurate", NUM},  {"cpudesc", TXT},  {"board", TXT},
                       {"mem", TXT},          {"boot", NUM},     {"frname", TXT},   {"ver", TXT},      {"bdw", NUM},
                       {"start", TIME},       {"end", TIME},     {"bpsin", RATE},   {"bpsout", RATE},  {"flow", NUM},
                       {"diskio", TXT},       {"pused", TXT},    {"outip", IP},     {"outport", NUM},  {"actime", TIME},
                       {"map_addr", TXT},     {"lng", TXT},      {"lat", TXT},      {"frname2", TXT},  {"verify", TXT},
                       {"webport", NUM},      {"sshport", NUM}}}};

const listing LOGS = {{"",
                       {{"license_id12", TXT},
                        {"grpid", NUM},
                        {"boot", NUM},
                        {"logsname", TXT},
                        {"ver", TXT},
                        {"start", TIME},
                        {"end", TIME},
                        {"bps", RATE},
                        {"outip", IP},
                        {"outport", NUM},
                        {"actime", TIME},
                        {"map_addr", TXT},
                        {"lng", TXT},
                        {"lat", TXT},
                        {"logsname2", TXT}}}};

// Two parts, each under the header the daemon prints (the second one
// spelt as the front end has always parsed it).
const listing FRB_TASKS = {
    {"id device_count succ fail status sended_count upstart pktname",
     {{"id", NUM},
      {"device_count", NUM},
      {"succ", NUM},
      {"fail", NUM},
      {"status", NUM},
      {"sended_count", NUM},
      {"upstart", TIME},
      {"pktname", TXT}}},
    {"taskid license_id12 sysname status ver new_verresp",
     {{"taskid", NUM},
      {"license_id12", TXT},
      {"sysname", TXT},
      {"status", NUM},
      {"ver", TXT},
      {"new_ver", TXT},
      {"resp", TXT}}}};

const listing TUNNELS = {{"",
                          {{"license_id12", TXT},
                           {"sysname", TXT},
                           {"grpid", NUM},
                           {"bigport", NUM},
                           {"minport", NUM},
                           {"cliip", TXT},
                           {"borntime", TIME},
                           {"uptime", TIME}},
                          ' ',
                          1}};

// The rates come as the nodes report them: a number, or a text that stays
// as it is.
const listing GAMES = {{"",
                        {{"license_id12", TXT}, {"grpid", NUM},        {"enable", NUM},    {"l2tp_state", TXT},
                         {"name", TXT},         {"startm", TIME},      {"endtm", TIME},    {"inbps", RATE},
                         {"outbps", RATE},      {"actime", TIME},      {"ipcnt", NUM},     {"license_ipcnt", NUM},
                         {"delay_cur", NUM},    {"delay_min", NUM},    {"delay_max", NUM}, {"state", TXT},
                         {"waitime_left", NUM}, {"maxipcnt", NUM}},
                        ' ',
                        4,
                        false,
                        true}};

// The error of a push can have a blank ("time out"), so can the name.
const listing RELAY = {{"license_id12 sysname tableinfo grpid istask tblfname error",
                        {{"license_id12", TXT},
                         {"sysname", TXT},
                         {"tableinfo", TXT},
                         {"grpid", NUM},
                         {"istask", NUM},
                         {"tblfname", TXT},
                         {"error", TXT}},
                        ' ',
                        1,
                        true}};

const listing USRAGP_GROUPS = {{"", {{"license_id12", TXT}, {"cname", TXT}, {"name", TXT}}}};
const listing USRAGP_APPS = {{"",
                              {{"license_id12", TXT},
                               {"name", TXT},
                               {"cname", TXT},
                               {"nodettl", NUM},
                               {"tports", TXT},
                               {"uports", TXT}}}};
const listing USRAGP_DEVICES = {
    {"", {{"license_id12", TXT}, {"status", NUM}, {"name", TXT}, {"error", TXT}}, ' ', 2}};

// ---------------------------------------------------------------------------
// The shortcuts
// ---------------------------------------------------------------------------

const sort_keys DEVICE_SORT = {{"id", 1},      {"time", 2},     {"start", 3}, {"end", 4}, {"users", 5},
                               {"flows", 6},   {"up", 7},       {"down", 8},  {"uptime", 9},
                               {"version", 10}, {"temp", 11},   {"cpu", 12},  {"name", 13}};
const sort_keys FRB_SORT = {{"id", 1},    {"time", 2},   {"start", 3}, {"end", 4},  {"bdw", 5},  {"flow", 6},
                            {"bpsout", 7}, {"bpsin", 8}, {"boot", 9},  {"ver", 10}, {"cpu", 11}, {"name", 12}};
const sort_keys LOG_SORT = {{"id", 1},  {"time", 2}, {"start", 3}, {"end", 4},
                            {"bps", 8}, {"boot", 9}, {"ver", 10},  {"name", 12}};
const sort_keys GAME_SORT = {{"id", 1}, {"time", 2}, {"ipcnt", 3}, {"delay", 4}, {"name", 7}};

struct option {
    const char* flag;
    const char* word;                 // "page=" takes the value; "sortdesc=1" goes as it is
    const char* value;                // the value's name in the help; null: a switch
    const sort_keys* keys = nullptr;  // the value names one of these
};

const option PAGE{"--page", "page=", "N"}, LIMIT{"--limit", "limit=", "N"}, DESC{"--desc", "sortdesc=1", nullptr},
    GRP{"--grp", "grpid=", "N"}, GRPS{"--grp", "usergrp=", "LIST"}, SEARCH{"--search", "sch=", "TEXT"};

struct positional {
    const char* name;  // in the help
    const char* word;  // "license_id12="
};

const positional ID{"ID", "license_id12="};

// A registry whose 2053 sets group, display name, address and coordinates
// together: changing one sends the others as its 2055 lists them.
struct settable {
    const char* what;
    const char* list_args;
    const listing* rows;
    std::vector<std::pair<const char*, const char*>> keep;  // 2053 word, list column
};

struct shortcut {
    std::string name;
    const char* module;
    int code;
    std::vector<positional> args{};
    std::vector<option> options{};
    const char* fixed = "";     // words always sent
    const char* defaults = "";  // words sent unless the command line gives the same name
    const listing* rows = nullptr;  // how the reply reads; null: a plain answer
    std::optional<settable> edit{};
    std::string help;
};

// List, statistics, rename, regroup and removal of a family of appliances
// reporting texts (cache appliances, log servers): one implementation in
// the daemon, one set of shortcuts here.
std::vector<shortcut> family(const std::string& p, const char* module, const char* noun, const listing* rows,
                             const sort_keys* keys, const char* name_column)
{
    const settable edit{noun, "page=1 limit=2000", rows,
                        {{"grpid", "grpid"},
                         {"sysname", name_column},
                         {"address", "map_addr"},
                         {"lng", "lng"},
                         {"lat", "lat"}}};
    return {
        {.name = p + "-list",
         .module = module,
         .code = 2055,
         .options = {PAGE, LIMIT, {"--sort", "sortname=", "KEY", keys}, DESC, SEARCH, GRP,
                     {"--expire", "expire=", "0-2"}},
         .defaults = "page=1 limit=2000 sortdesc=0",
         .rows = rows,
         .help = std::string("the ") + noun +
                 "s, all of them unless --page or --limit; --search: lower-case TEXT in identifier or name; "
                 "--expire 1: service ending within a week"},
        {.name = p + "-stats", .module = module, .code = 2050, .options = {GRP}, .rows = &STATS, .help = "statistics"},
        {.name = p + "-rename",
         .module = module,
         .code = 2053,
         .args = {ID, {"NAME", "sysname="}},
         .edit = edit,
         .help = "set the display name"},
        {.name = p + "-setgrp",
         .module = module,
         .code = 2053,
         .args = {ID, {"GROUP", "grpid="}},
         .edit = edit,
         .help = "set the group"},
        {.name = p + "-remove",
         .module = module,
         .code = 2052,
         .args = {ID},
         .help = std::string("forget the ") + noun},
    };
}

// The two table pushes: one implementation in the daemon, one set here.
std::vector<shortcut> relay(const char* m, const std::string& what)
{
    const std::string module = m;
    return {
        {.name = module + "-list",
         .module = m,
         .code = 2055,
         .options = {GRP, SEARCH, {"--pushes", "istask=1", nullptr}},
         .rows = &RELAY,
         .help = "the " + what + " each gateway holds (--grp 10000: no group; --pushes: only gateways with a push; "
                 "istask 1 marked, 2 sent, 3 failed, 4 done)"},
        {.name = module + "-push",
         .module = m,
         .code = 2053,
         .args = {ID, {"IPID", "ipid="}, {"FILE", "tblfname="}},
         .options = {{"--group", "grpname=", "NAME"}},
         .help = "push FILE to the gateway at its next report"},
        {.name = module + "-clear", .module = m, .code = 2053, .fixed = "clear=1", .help = "unmark every push"},
    };
}

std::vector<shortcut> build()
{
    const settable device{"device",
                          "expire=2",
                          &DEVICES,
                          {{"grpid", "grpid"},
                           {"sysname", "sys_name2"},
                           {"address", "map_address"},
                           {"lng", "longitude"},
                           {"lat", "latitude"}}};
    std::vector<shortcut> v = {
        {.name = "devices",
         .module = "cloud",
         .code = 2055,
         .options = {PAGE, LIMIT, {"--sort", "sortname=", "KEY", &DEVICE_SORT}, DESC, GRP, SEARCH,
                     {"--expire", "expire=", "0-3"}, {"--equal", "showequal=1", nullptr}},
         .rows = &DEVICES,
         .help = "the gateways, a page of them"},
        {.name = "stats", .module = "cloud", .code = 2050, .options = {GRP}, .rows = &STATS, .help = "statistics"},
        {.name = "rename",
         .module = "cloud",
         .code = 2053,
         .args = {ID, {"NAME", "sysname="}},
         .edit = device,
         .help = "set the display name"},
        {.name = "setgrp",
         .module = "cloud",
         .code = 2053,
         .args = {ID, {"GROUP", "grpid="}},
         .edit = device,
         .help = "set the group"},
        {.name = "resetpass",
         .module = "cloud",
         .code = 2053,
         .args = {ID, {"PASSWORD", "rootpass="}},
         .options = {{"--mfadmin", "mfadminpass=", "N"}},
         .help = "reset the root password"},
        {.name = "range",
         .module = "cloud",
         .code = 2056,
         .args = {{"MIN", "minport="}, {"MAX", "maxport="}},
         .help = "change the mapping port range"},
        {.name = "backups",
         .module = "backup",
         .code = 2050,
         .rows = &BACKUPS,
         .help = "backups in flight, appliances pinging, then the backups waiting for a ping"},
        {.name = "apps",
         .module = "backup",
         .code = 2055,
         .options = {PAGE, LIMIT, SEARCH, {"--reverse", "reverse=1", nullptr}, GRPS},
         .rows = &APPS,
         .help = "application inventory (--reverse with --search NAME[,VERSION]: the appliances that lack it; "
                 "LIST: 1,2,3)"},
        {.name = "appstart",
         .module = "backup",
         .code = 2053,
         .args = {ID, {"APP", "app_name="}, {"STATE", "state="}},
         .help = "ask the appliance to start APP"},
        {.name = "upgrades",
         .module = "upgrade",
         .code = 2050,
         .rows = &STATS,
         .help = "firmware upgrades in flight and the limit"},
        {.name = "upgrade-list",
         .module = "upgrade",
         .code = 2055,
         .rows = &UPGRADES,
         .help = "appliances announcing themselves for a firmware upgrade"},
    };
    auto append = [&](std::vector<shortcut> more) {
        for (shortcut& s : more)
            v.push_back(std::move(s));
    };
    append(family("frb", "frelbox", "cache appliance", &FRB, &FRB_SORT, "frname2"));
    append({
        {.name = "frb-tasks",
         .module = "als_upgrade",
         .code = 2055,
         .options = {{"--devices", "showdevice=1", nullptr}, {"--task", "taskid=", "N"}},
         .fixed = "showtask=1",
         .rows = &FRB_TASKS,
         .help = "cache-appliance upgrade tasks (--devices: and their appliances, of task N only)"},
    });
    append(family("log", "logserver", "log server", &LOGS, &LOG_SORT, "logsname2"));
    append({
        {.name = "tunnels",
         .module = "sshport",
         .code = 2055,
         .options = {GRPS},
         .rows = &TUNNELS,
         .help = "SSH tunnels the gateways report"},
        {.name = "tunnel-close",
         .module = "sshport",
         .code = 2052,
         .args = {ID, {"BIGPORT", "bigport="}, {"MINPORT", "minport="}},
         .help = "ask the gateway to close the tunnel"},
        {.name = "game-list",
         .module = "gamecloud",
         .code = 2055,
         .options = {PAGE, LIMIT, {"--sort", "sortname=", "KEY", &GAME_SORT}, DESC, GRP, SEARCH},
         .defaults = "page=1 limit=2000",
         .rows = &GAMES,
         .help = "game acceleration nodes, all of them unless --page or --limit"},
        {.name = "game-remove", .module = "gamecloud", .code = 2052, .args = {ID}, .help = "forget the node"},
    });
    append(relay("iptable", "IP table"));
    append(relay("urldnsgrp", "URL/DNS group table"));
    append({
        {.name = "usragp-stats",
         .module = "usragp",
         .code = 2050,
         .rows = &STATS,
         .help = "gateways of the distribution, and how many fetch now"},
        {.name = "usragp-groups",
         .module = "usragp",
         .code = 2055,
         .args = {ID},
         .rows = &USRAGP_GROUPS,
         .help = "user application groups the gateway reported"},
        {.name = "usragp-apps",
         .module = "usragp",
         .code = 2055,
         .args = {ID},
         .fixed = "showapp=1",
         .rows = &USRAGP_APPS,
         .help = "user applications the gateway reported"},
        {.name = "usragp-devices",
         .module = "usragp",
         .code = 2055,
         .fixed = "showdevice=1",
         .rows = &USRAGP_DEVICES,
         .help = "the distribution's gateways (status 0 waiting, 1 fetching, 2 done, 3 failed)"},
        {.name = "usragp-start",
         .module = "usragp",
         .code = 2056,
         .args = {{"IDS", "device="}},
         .options = {{"--groups", "agp_name=", "LIST"}, {"--apps", "app=", "LIST"}},
         .help = "publish groups or applications (LIST: a;b) for the gateways IDS (a;b)"},
        {.name = "usragp-refresh",
         .module = "usragp",
         .code = 2058,
         .args = {ID},
         .help = "ask the gateway to report its groups and applications again"},
    });
    return v;
}

const std::vector<shortcut>& shortcuts()
{
    static const std::vector<shortcut> all = build();
    return all;
}

std::string usage(const shortcut& s)
{
    std::string u = s.name;
    for (const positional& a : s.args)
        u += std::string(" ") + a.name;
    for (const option& o : s.options)
        u += std::string(" [") + o.flag + (o.value != nullptr ? std::string(" ") + o.value : "") + "]";
    if (s.rows != nullptr)
        u += " [--table|--json]";
    return u;
}

std::string describe(const shortcut& s)
{
    std::string d = s.help;
    for (const option& o : s.options)
        if (o.keys != nullptr) {
            d += "; KEY:";
            for (const auto& [name, n] : *o.keys)
                d += std::string(" ") + name;
        }
    return d;
}

int bad_usage(const shortcut& s)
{
    std::fprintf(stderr, "usage: cloudctl [-r ROOT | -s SOCKET] %s [--raw]\n  %s\n", usage(s).c_str(),
                 describe(s).c_str());
    return 1;
}

// The error of a reply, printed, as the exit status; 0 when it has none.
int failed(const cloudctl_result& r)
{
    if (r.rc != 0) {
        std::fprintf(stderr, "cloudctl: %s\n", r.error.c_str());
        return 1;
    }
    if (r.rec.ca_errno != 0) {
        std::fprintf(stderr, "error %d %.120s\n", r.rec.ca_errno, r.rec.ca_errmsg);
        return 2;
    }
    return 0;
}

enum class view { plain, raw, table, json };

// Prints the reply, or the error, and gives the exit status.
int show(const cloudctl_result& r, const listing* rows, view how)
{
    if (int rc = failed(r))
        return rc;
    std::string text = r.text();
    if (how == view::raw) {
        std::fwrite(text.data(), 1, text.size(), stdout);
        return 0;
    }
    if (how == view::table)
        text = cloudctl_table(text, *rows);
    else if (how == view::json)
        text = cloudctl_json(text, *rows);
    if (!text.empty() && text.back() != '\n')
        text += '\n';  // "ok" comes bare; keep the prompt on its own line
    std::fputs(text.c_str(), stdout);
    return 0;
}

// Values reach the daemon as name=value words: a blank would split them.
bool word_ok(const std::string& v, const std::string& what)
{
    if (v.find_first_of(" \t\r\n") == std::string::npos)
        return true;
    std::fprintf(stderr, "cloudctl: %s must not contain blanks\n", what.c_str());
    return false;
}

std::optional<std::string> value_of(const std::vector<std::string>& words, const std::string& name)
{
    for (const std::string& w : words)
        if (w.compare(0, name.size() + 1, name + "=") == 0)
            return w.substr(name.size() + 1);
    return std::nullopt;
}

// The settings command of S with WORDS, the settings not given taken from
// the appliance's list row.
int edit(const std::string& sock, const shortcut& s, const std::vector<std::string>& words, view how)
{
    const settable& e = *s.edit;
    const std::string id = value_of(words, "license_id12").value_or("");
    cloudctl_result list = cloudctl_command(sock, s.module, 2055, e.list_args, REPLY_CAPACITY);
    if (int rc = failed(list))
        return rc;
    for (const cloudctl_line& l : cloudctl_parse(list.text(), *e.rows)) {
        if (l.part < 0 || l.header)
            continue;
        const std::vector<cloudctl_column>& cols = (*e.rows)[static_cast<size_t>(l.part)].columns;
        auto cell = [&](const char* name) {
            for (size_t i = 0; i < cols.size(); i++)
                if (cols[i].name == name)
                    return l.cells[i];
            return std::string();
        };
        if (cell("license_id12") != id)
            continue;
        std::string args = "license_id12=" + id;
        for (const auto& [word, column] : e.keep) {
            const std::string v = value_of(words, word).value_or(cell(column));
            if (!word_ok(v, std::string("the ") + column + " of " + id))
                return 1;
            args += std::string(" ") + word + "=" + v;
        }
        return show(cloudctl_command(sock, s.module, s.code, args), nullptr, how);
    }
    std::fprintf(stderr, "cloudctl: no %s %s\n", e.what, id.c_str());
    return 1;
}

// The blank-separated words of TEXT.
std::vector<std::string> words_of(const char* text)
{
    std::vector<std::string> w;
    for (const char* p = text; *p != '\0';) {
        const size_t n = std::strcspn(p, " ");
        if (n > 0)
            w.emplace_back(p, n);
        p += n + (p[n] == ' ' ? 1 : 0);
    }
    return w;
}

int run(const shortcut& s, const std::string& sock, int argc, char** argv)
{
    view how = view::plain;
    std::vector<std::string> pos, words;
    for (int i = 1; i < argc; i++) {
        const std::string a = argv[i];
        if (a == "--raw" || a == "--table" || a == "--json") {
            if (how != view::plain) {
                std::fprintf(stderr, "cloudctl: --raw, --table and --json exclude each other\n");
                return 1;
            }
            how = a == "--raw" ? view::raw : a == "--table" ? view::table : view::json;
            continue;
        }
        if (a.rfind("--", 0) != 0) {
            pos.push_back(a);
            continue;
        }
        const option* o = nullptr;
        for (const option& c : s.options)
            if (a == c.flag)
                o = &c;
        if (o == nullptr)
            return bad_usage(s);
        if (o->value == nullptr) {
            words.emplace_back(o->word);
            continue;
        }
        if (i + 1 >= argc) {
            std::fprintf(stderr, "cloudctl: %s needs a value\n", a.c_str());
            return 1;
        }
        std::string v = argv[++i];
        if (o->keys != nullptr) {
            const sort_keys& keys = *o->keys;
            auto k = std::find_if(keys.begin(), keys.end(), [&](const auto& key) { return v == key.first; });
            if (k == keys.end())
                return bad_usage(s);
            v = std::to_string(k->second);
        }
        if (!word_ok(v, "the value of " + a))
            return 1;
        words.push_back(o->word + v);
    }
    if (pos.size() != s.args.size())
        return bad_usage(s);
    if ((how == view::table || how == view::json) && s.rows == nullptr) {
        std::fprintf(stderr, "cloudctl: %s prints no listing\n", s.name.c_str());
        return 1;
    }
    for (size_t i = 0; i < pos.size(); i++) {
        if (!word_ok(pos[i], s.args[i].name))
            return 1;
        words.insert(words.begin() + static_cast<std::ptrdiff_t>(i), s.args[i].word + pos[i]);
    }
    for (const std::string& w : words_of(s.fixed))
        words.push_back(w);
    for (const std::string& w : words_of(s.defaults))
        if (!value_of(words, w.substr(0, w.find('='))))
            words.push_back(w);
    if (s.edit)
        return edit(sock, s, words, how);
    std::string args;
    for (const std::string& w : words)
        args += (args.empty() ? "" : " ") + w;
    return show(cloudctl_command(sock, s.module, s.code, args, REPLY_CAPACITY), s.rows, how);
}

}  // namespace

void cloudctl_shortcut_help(FILE* out)
{
    std::fprintf(out,
                 "shortcuts: cloudctl [-r ROOT | -s SOCKET] SHORTCUT [ARGS] [--raw | --table | --json]\n"
                 "  --raw the reply as received; listings only: --table aligned columns in units,\n"
                 "  --json one object per row or name=value line\n");
    const char* module = "";
    for (const shortcut& s : shortcuts()) {
        if (std::strcmp(module, s.module) != 0)
            std::fprintf(out, "module %s:\n", module = s.module);
        std::fprintf(out, "  %s\n      %s\n", usage(s).c_str(), describe(s).c_str());
    }
}

std::vector<std::string> cloudctl_shortcut_names()
{
    std::vector<std::string> names;
    for (const shortcut& s : shortcuts())
        names.push_back(s.name);
    return names;
}

int cloudctl_shortcut(const std::string& sock, int argc, char** argv)
{
    for (const shortcut& s : shortcuts())
        if (s.name == argv[0])
            return run(s, sock, argc, argv);
    return -1;
}
