#include "shortcuts.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "cloudctl_client.h"

namespace {

const std::map<std::string, int> SORT_KEYS = {
    {"id", 1},    {"time", 2},    {"start", 3},    {"end", 4},    {"users", 5}, {"flows", 6}, {"up", 7},
    {"down", 8},  {"uptime", 9},  {"version", 10}, {"temp", 11},  {"cpu", 12},  {"name", 13},
};

// The cache-appliance list's sortname values.
const std::map<std::string, int> FRB_SORT_KEYS = {
    {"id", 1},    {"time", 2}, {"start", 3}, {"end", 4},  {"bdw", 5},  {"flow", 6},
    {"bpsout", 7}, {"bpsin", 8}, {"boot", 9},  {"ver", 10}, {"cpu", 11}, {"name", 12},
};

const std::vector<std::string> UPGRADE_COLUMNS = {"license_id12", "task_id",  "ifupgrade",
                                                  "nginx_port",   "up_times", "packet_name"};

const std::vector<std::string> FRB_COLUMNS = {
    "license_id12", "grpid",   "cpurate", "cpudesc", "board",  "mem",      "boot",    "frname",  "ver",
    "bdw",          "start",   "end",     "bpsin",   "bpsout", "flow",     "diskio",  "pused",   "outip",
    "outport",      "actime",  "map_addr", "lng",    "lat",    "frname2",  "verify",  "webport", "sshport"};

// The cache-appliance task listing: its two header lines as the daemon
// spells them, and the names shown instead.
const char* const FRB_TASK_HEADER = "id device_count succ fail status sended_count upstart pktname";
const char* const FRB_DEVICE_HEADER = "taskid license_id12 sysname status ver new_verresp";
const std::vector<std::string> FRB_TASK_COLUMNS = {"id",     "device_count", "succ",   "fail",
                                                   "status", "sended_count", "upstart", "pktname"};
const std::vector<std::string> FRB_DEVICE_COLUMNS = {"taskid", "license_id12", "sysname", "status",
                                                     "ver",    "new_ver",      "resp"};

const char* const APP_COLUMNS = "license_id12|sysname|app_name|app_cname|app_version|grpid|time|app_status|mask";

const char* const LIST_COLUMNS =
    "ipaddr|sys_name|license_start|license_end|license_id12|max_flowcont|max_ipcnt|current_users|flowcont|upbps|"
    "downbps|time|webport|grpid|license_id83|sys_name2|sys_run|sshport|outip|longitude|latitude|map_address|"
    "version|temp|passreset|cpu|isequal|info|eqtime|max_users|grpname|stat";

// The inventory's lines (nine fields, one blank apart; a name not known
// yet is an empty field) as '|'-separated rows under a header. A line of
// more than nine fields has blanks in a name: the extra words go to
// sysname, the appliance's display name, the one field people write blanks
// into. A '|' inside a field is shown as '/'.
std::string app_rows(const std::string& text)
{
    std::string out = std::string(APP_COLUMNS) + "\n";
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        std::vector<std::string> w;
        std::istringstream ls(line);
        for (std::string f; std::getline(ls, f, ' ');) {
            for (char& c : f)
                if (c == '|')
                    c = '/';
            w.push_back(f);
        }
        if (w.size() < 9) {
            out += line + "\n";  // total=N
            continue;
        }
        std::string row = w[0] + "|" + w[1];
        for (size_t i = 2; i + 7 < w.size(); i++)
            row += " " + w[i];
        for (size_t i = w.size() - 7; i < w.size(); i++)
            row += "|" + w[i];
        out += row + "\n";
    }
    return cloudctl_align(out);
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

void print_text(std::string text)
{
    if (!text.empty() && text.back() != '\n')
        text += '\n';  // "ok" comes bare; keep the prompt on its own line
    std::fputs(text.c_str(), stdout);
}

// Prints a listing of space-separated values, with --table as aligned
// columns under COLUMNS (see cloudctl_rows.h).
int finish_rows(const cloudctl_result& r, bool table, const std::vector<std::string>& columns)
{
    if (int rc = failed(r))
        return rc;
    print_text(table ? cloudctl_space_rows(r.text(), columns) : r.text());
    return 0;
}

// Prints the reply, or the error, and gives the exit status.
int finish(const cloudctl_result& r, bool table, bool apps = false)
{
    if (int rc = failed(r))
        return rc;
    std::string text = r.text();
    if (table && apps) {
        text = app_rows(text);
    } else if (table) {
        // The reply's header names 30 columns for 32 values: people get
        // the real names.
        size_t eol = text.find('\n');
        if (eol != std::string::npos)
            text = std::string(LIST_COLUMNS) + text.substr(eol);
        text = cloudctl_align(text);
    }
    print_text(text);
    return 0;
}

// Values reach the daemon as name=value words: a blank would split them.
bool word_ok(const std::string& v, const char* what)
{
    if (v.find_first_of(" \t\r\n") == std::string::npos)
        return true;
    std::fprintf(stderr, "cloudctl: %s must not contain blanks\n", what);
    return false;
}

// The list row of device ID, found with the whole list.
std::vector<std::string> device_row(const std::string& sock, const std::string& id)
{
    cloudctl_result r = cloudctl_command(sock, "cloud", 2055, "expire=2", 4 << 20);
    std::istringstream in(r.text());
    for (std::string line; std::getline(in, line);) {
        std::vector<std::string> v;
        std::stringstream ls(line);
        for (std::string f; std::getline(ls, f, '|');)
            v.push_back(f);
        if (v.size() >= 32 && v[4] == id)
            return v;
    }
    return {};
}

// The settings command rewrites group, display name, address and
// coordinates together: send the current ones with the one that changes.
int edit(const std::string& sock, const std::string& id, const std::string* name, const std::string* grp)
{
    std::vector<std::string> row = device_row(sock, id);
    if (row.empty()) {
        std::fprintf(stderr, "cloudctl: no device %s\n", id.c_str());
        return 1;
    }
    std::string args = "license_id12=" + id + " grpid=" + (grp ? *grp : row[13]) + " sysname=" +
                       (name ? *name : row[15]) + " address=" + row[21] + " lng=" + row[19] + " lat=" + row[20];
    return finish(cloudctl_command(sock, "cloud", 2053, args), false);
}

// The same for a cache appliance: its 2053 sets group, name, address and
// coordinates together, so the current ones are read from its list row
// (27 space-separated values) and sent again.
int frb_edit(const std::string& sock, const std::string& id, const std::string* name, const std::string* grp)
{
    std::string low = id;
    for (char& c : low)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    cloudctl_result r = cloudctl_command(sock, "frelbox", 2055, "page=1 limit=2000 sch=" + low, 4 << 20);
    if (int rc = failed(r))
        return rc;
    std::vector<std::string> row;
    std::string text = r.text();
    for (size_t at = 0, nl; (nl = text.find('\n', at)) != std::string::npos; at = nl + 1) {
        std::string line = text.substr(at, nl - at);
        if (line.rfind(id + " ", 0) != 0)
            continue;
        for (size_t p = 0; p <= line.size();) {
            size_t e = line.find(' ', p);
            if (e == std::string::npos)
                e = line.size();
            row.push_back(line.substr(p, e - p));
            p = e + 1;
        }
        break;
    }
    if (row.size() != 27) {
        std::fprintf(stderr, "cloudctl: no cache appliance %s\n", id.c_str());
        return 1;
    }
    std::string args = "license_id12=" + id + " grpid=" + (grp ? *grp : row[1]) + " sysname=" +
                       (name ? *name : row[23]) + " address=" + row[20] + " lng=" + row[21] + " lat=" + row[22];
    return finish(cloudctl_command(sock, "frelbox", 2053, args), false);
}

}  // namespace

void cloudctl_shortcut_usage()
{
    std::fprintf(stderr,
                 "shortcuts (module cloud):\n"
                 "  devices [--page N] [--limit N] [--sort KEY] [--desc] [--grp N] [--search TEXT]\n"
                 "          [--expire 0-3] [--equal] [--table]     list (KEY: id time start end users\n"
                 "          flows up down uptime version temp cpu name)\n"
                 "  stats [--grp N]                                  statistics\n"
                 "  rename ID NAME                                   set the display name\n"
                 "  setgrp ID GROUP                                  set the group\n"
                 "  resetpass ID PASSWORD [--mfadmin N]              reset the root password\n"
                 "  range MIN MAX                                    change the mapping port range\n"
                 "shortcuts (module backup):\n"
                 "  backups                                          backups in flight, appliances\n"
                 "                                                   pinging, backups waiting for a ping\n"
                 "  apps [--page N] [--limit N] [--search TEXT] [--reverse] [--grp LIST] [--table]\n"
                 "                                                   application inventory (--reverse\n"
                 "                                                   with --search NAME[,VERSION]: the\n"
                 "                                                   appliances that lack it; LIST: 1,2,3)\n"
                 "  appstart ID APP STATE                            ask appliance ID to start APP\n"
                 "shortcuts (module upgrade, gateway firmware):\n"
                 "  upgrades                                         upgrades in flight and the limit\n"
                 "  upgrade-list [--table]                           appliances announcing themselves\n"
                 "shortcuts (modules frelbox and als_upgrade, cache appliances):\n"
                 "  frb-list [--page N] [--limit N] [--sort KEY] [--desc] [--search TEXT] [--grp N]\n"
                 "           [--expire 0-2] [--table]                list (KEY: id time start end bdw\n"
                 "                                                   flow bpsout bpsin boot ver cpu name;\n"
                 "                                                   without --page and --limit: all)\n"
                 "  frb-stats [--grp N]                              statistics\n"
                 "  frb-rename ID NAME | frb-setgrp ID GROUP | frb-remove ID\n"
                 "  frb-tasks [--devices] [--task N] [--table]       upgrade tasks (--devices: and their\n"
                 "                                                   appliances, of task N only)\n");
}

int cloudctl_shortcut(const std::string& sock, int argc, char** argv)
{
    static const std::set<std::string> NAMES = {
        "devices",  "stats",        "rename",   "setgrp",    "resetpass", "range",    "backups",
        "apps",     "appstart",     "upgrades", "upgrade-list", "frb-list", "frb-stats", "frb-tasks",
        "frb-rename", "frb-setgrp", "frb-remove"};
    const std::string cmd = argv[0];
    if (NAMES.count(cmd) == 0)
        return -1;
    const bool frb = cmd.rfind("frb-", 0) == 0;
    std::vector<std::string> pos;
    std::string args;
    bool table = false, paged = false, sorted = false, desc = false, devices = false;
    auto add = [&](const std::string& w) { args += (args.empty() ? "" : " ") + w; };
    for (int i = 1; i < argc; i++) {
        std::string a = argv[i];
        auto next = [&]() -> std::string {
            if (i + 1 >= argc) {
                std::fprintf(stderr, "cloudctl: %s needs a value\n", a.c_str());
                std::exit(1);
            }
            return argv[++i];
        };
        if (a == "--table") {
            table = true;
        } else if (a == "--desc") {
            add("sortdesc=1");
            desc = true;
        } else if (a == "--equal") {
            add("showequal=1");
        } else if (a == "--page" || a == "--limit" || a == "--expire") {
            add(a.substr(2) + "=" + next());
            paged |= a != "--expire";
        } else if (a == "--devices" && cmd == "frb-tasks")
            devices = true;
        else if (a == "--task" && cmd == "frb-tasks")
            add("taskid=" + next());
        else if (a == "--reverse" && cmd == "apps")
            add("reverse=1");
        else if (a == "--grp" && cmd == "apps") {
            std::string g = next();
            if (!word_ok(g, "the group list"))
                return 1;
            add("usergrp=" + g);
        } else if (a == "--grp")
            add("grpid=" + next());
        else if (a == "--mfadmin")
            add("mfadminpass=" + next());
        else if (a == "--search") {
            std::string s = next();
            if (!word_ok(s, "the search text"))
                return 1;
            add("sch=" + s);
        } else if (a == "--sort") {
            const auto& keys = frb ? FRB_SORT_KEYS : SORT_KEYS;
            auto k = keys.find(next());
            if (k == keys.end()) {
                cloudctl_shortcut_usage();
                return 1;
            }
            add("sortname=" + std::to_string(k->second));
            sorted = true;
        } else if (a.rfind("--", 0) == 0) {
            cloudctl_shortcut_usage();
            return 1;
        } else {
            pos.push_back(a);
        }
    }

    if (cmd == "devices" && pos.empty())
        return finish(cloudctl_command(sock, "cloud", 2055, args, 4 << 20), table);
    if (cmd == "stats" && pos.empty())
        return finish(cloudctl_command(sock, "cloud", 2050, args), false);
    if (cmd == "rename" && pos.size() == 2)
        return word_ok(pos[1], "the name") ? edit(sock, pos[0], &pos[1], nullptr) : 1;
    if (cmd == "setgrp" && pos.size() == 2)
        return edit(sock, pos[0], nullptr, &pos[1]);
    if (cmd == "resetpass" && pos.size() == 2) {
        if (!word_ok(pos[1], "the password"))
            return 1;
        add("license_id12=" + pos[0] + " rootpass=" + pos[1]);
        return finish(cloudctl_command(sock, "cloud", 2053, args), false);
    }
    if (cmd == "backups" && pos.empty() && args.empty())
        return finish(cloudctl_command(sock, "backup", 2050, ""), false);
    if (cmd == "apps" && pos.empty())
        return finish(cloudctl_command(sock, "backup", 2055, args, 4 << 20), table, true);
    if (cmd == "appstart" && pos.size() == 3) {
        if (!word_ok(pos[0], "the identifier") || !word_ok(pos[1], "the application") ||
            !word_ok(pos[2], "the state"))
            return 1;
        return finish(cloudctl_command(sock, "backup", 2053,
                                       "license_id12=" + pos[0] + " app_name=" + pos[1] + " state=" + pos[2]),
                      false);
    }
    if (cmd == "upgrades" && pos.empty() && args.empty())
        return finish(cloudctl_command(sock, "upgrade", 2050, ""), false);
    if (cmd == "upgrade-list" && pos.empty() && args.empty())
        return finish_rows(cloudctl_command(sock, "upgrade", 2055, "", 4 << 20), table, UPGRADE_COLUMNS);
    if (cmd == "frb-list" && pos.empty()) {
        // The daemon lists nothing on page 0 or with limit 0, and leaves
        // the slot order when a sort key comes without its direction.
        if (!paged)
            add("page=1 limit=2000");
        if (sorted && !desc)
            add("sortdesc=0");
        return finish_rows(cloudctl_command(sock, "frelbox", 2055, args, 4 << 20), table, FRB_COLUMNS);
    }
    if (cmd == "frb-rename" && pos.size() == 2)
        return word_ok(pos[1], "the name") ? frb_edit(sock, pos[0], &pos[1], nullptr) : 1;
    if (cmd == "frb-setgrp" && pos.size() == 2)
        return frb_edit(sock, pos[0], nullptr, &pos[1]);
    if (cmd == "frb-remove" && pos.size() == 1)
        return finish(cloudctl_command(sock, "frelbox", 2052, "license_id12=" + pos[0]), false);
    if (cmd == "frb-stats" && pos.empty())
        return finish(cloudctl_command(sock, "frelbox", 2050, args), false);
    if (cmd == "frb-tasks" && pos.empty()) {
        add(devices ? "showtask=1 showdevice=1" : "showtask=1");
        cloudctl_result r = cloudctl_command(sock, "als_upgrade", 2055, args, 4 << 20);
        if (int rc = failed(r))
            return rc;
        std::string text = r.text();
        if (table)
            text = cloudctl_space_parts(text,
                                        {{FRB_TASK_HEADER, FRB_TASK_COLUMNS}, {FRB_DEVICE_HEADER, FRB_DEVICE_COLUMNS}});
        print_text(text);
        return 0;
    }
    if (cmd == "range" && pos.size() == 2)
        return finish(cloudctl_command(sock, "cloud", 2056, "minport=" + pos[0] + " maxport=" + pos[1]), false);
    cloudctl_shortcut_usage();
    return 1;
}
