// vtsim texts of the job roles that travel as key=value texts on the device
// port: a game node's state, a gateway's SSH tunnels and its answers to
// close requests, its IP table and URL/DNS group reports and its answers to
// pushes of them, the user application groups and applications it reports
// and its answers to distribution notices, and the public key an appliance
// hands over. Header-only, like vtsim_proto.h.
#pragma once

#include <array>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "vtsim_proto.h"

namespace vtsim {

// A game node's state after report ROUND: the address count and delays
// move from round to round, the rest stays.
inline std::string game_report_text(std::string_view id, long index, uint64_t round)
{
    uint64_t wobble = (static_cast<uint64_t>(index) * 7 + round * 13) % 50;
    auto kn = [](const char* k, uint64_t v) { return std::string(" ") + k + "=" + std::to_string(v); };
    return "tag=gamecloud_stat license_id12=" + std::string(id) + " enable=1" + kn("startm", 1704067200) +
           kn("endtm", 2019600000) + " l2tp_state=up inbps=" + std::to_string(100 + wobble * 10) +
           "k outbps=" + std::to_string(20 + wobble) + "k" + kn("ipcnt", 5 + wobble) + kn("license_ipcnt", 200) +
           kn("delay_cur", 20 + wobble) + kn("delay_min", 20) + kn("delay_max", 69) + " state=running" +
           kn("waitime_left", 0);
}

// ---------------------------------------------------------------------------
// SSH tunnels: a gateway reports the tunnels it holds open in one
// "sshmapport" text, one portinfo word (bigport:cliip:minport) each.
// ---------------------------------------------------------------------------

// As many portinfo words as one text holds with the longest values.
constexpr long MAX_TUNNELS = 12;

struct tunnel {
    uint16_t bigport, minport;
    std::string cliip;
};

// Tunnel K (0-based) of gateway INDEX: a pair of ports from 10000 up, two
// per tunnel, and a client address of its own.
inline tunnel sim_tunnel(long index, long k)
{
    auto slot = static_cast<uint32_t>((index * MAX_TUNNELS + k) % 27000);
    auto big = static_cast<uint16_t>(10000 + slot * 2);
    return {big, static_cast<uint16_t>(big + 1),
            "10." + std::to_string(k + 1) + "." + std::to_string(index / 250 % 250) + "." +
                std::to_string(index % 250 + 1)};
}

// The report of gateway INDEX's first N tunnels but those whose bit is set
// in CLOSED; empty when none is left.
inline std::string tunnel_report_text(std::string_view id, long index, long n, uint32_t closed)
{
    std::string words;
    for (long k = 0; k < n; k++) {
        if (closed >> k & 1)
            continue;
        tunnel t = sim_tunnel(index, k);
        words += " portinfo=" + std::to_string(t.bigport) + ":" + t.cliip + ":" + std::to_string(t.minport);
    }
    return words.empty() ? words : "tag=sshmapport license_id12=" + std::string(id) + words;
}

// Which of gateway INDEX's first N tunnels a close request names, or -1.
inline long tunnel_of(std::string_view request, long index, long n)
{
    long big = std::strtol(token_value(request, "bigport").c_str(), nullptr, 10);
    long min = std::strtol(token_value(request, "minport").c_str(), nullptr, 10);
    for (long k = 0; k < n; k++) {
        tunnel t = sim_tunnel(index, k);
        if (t.bigport == big && t.minport == min)
            return k;
    }
    return -1;
}

inline std::string tunnel_closed_text(std::string_view id, const tunnel& t)
{
    return "tag=sshportkill license_id12=" + std::string(id) + " bigport=" + std::to_string(t.bigport) +
           " minport=" + std::to_string(t.minport);
}

// ---------------------------------------------------------------------------
// Pushes: an IP table or a URL/DNS group table the daemon tells a gateway
// to fetch, and the list of user applications it tells it to fetch. Each
// is answered OK, NO or not at all.
// ---------------------------------------------------------------------------

enum class answer { OK, NO, SILENT };

inline const char* answer_word(answer a)
{
    return a == answer::OK ? "ok" : a == answer::NO ? "no" : "silent";
}

// The twin tables: the tag and key of a gateway's report, and the tag of
// the daemon's push, which the answer carries back.
struct table_kind {
    const char* report_tag;
    const char* key;
    const char* push_tag;
};

inline constexpr std::array<table_kind, 2> TABLE_KINDS = {{
    {"updateiptable", "iptable", "iptablestatus"},
    {"urldnsgrpinfo", "urldnsgrp", "urldnsgrpstatus"},
}};

// The kind whose push carries TAG, or null.
inline const table_kind* push_kind(std::string_view tag)
{
    for (const table_kind& t : TABLE_KINDS)
        if (tag == t.push_tag)
            return &t;
    return nullptr;
}

// What a gateway holds: "<key>-default" until a push succeeds, then the
// pushed file and table identifier.
inline std::string table_info(const table_kind& t, std::string_view file = {}, std::string_view ipid = {})
{
    return file.empty() ? std::string(t.key) + "-default" : std::string(file) + ":" + std::string(ipid);
}

inline std::string table_report_text(const table_kind& t, std::string_view id, std::string_view info)
{
    return std::string("tag=") + t.report_tag + " license_id12=" + std::string(id) + " " + t.key + "=" +
           text_word(info);
}

// ret=0 for a table fetched, ret=-1 with the reason for one that was not.
inline std::string push_answer_text(const table_kind& t, std::string_view id, answer a)
{
    return std::string("tag=") + t.push_tag + " license_id12=" + std::string(id) +
           (a == answer::OK ? " ret=0" : " ret=-1 error=fetch_failed");
}

// User application groups and applications, K from 1.
inline std::string usragp_group_text(std::string_view id, long k)
{
    std::string n = std::to_string(k);
    return "tag=usragp_request license_id12=" + std::string(id) + " cname=Group" + n + " name=grp" + n;
}

inline std::string usrapp_text(std::string_view id, long k)
{
    std::string n = std::to_string(k);
    return "tag=usrapp_request license_id12=" + std::string(id) + " cname=UApp" + n + " name=uapp" + n +
           " nodettl=" + std::to_string(30 + k) + " tports=80," + std::to_string(8000 + k) + " uports=53," +
           std::to_string(9000 + k);
}

// The outcome of fetching the distributed list: the daemon reads a text
// beginning with "OK" or "NO", and ignores any text that holds "return".
inline std::string fetch_answer_text(std::string_view id, answer a)
{
    return "tag=usragp_log license_id12=" + std::string(id) +
           (a == answer::OK ? " error=OK_installed" : " error=NO_fetch_failed");
}

// ---------------------------------------------------------------------------
// Public keys: a well-formed ssh-ed25519 line per appliance, the same on
// every run, handed over as an "RSA=" text.
// ---------------------------------------------------------------------------

inline std::string base64(const std::vector<uint8_t>& in)
{
    static const char ABC[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    for (size_t i = 0; i < in.size(); i += 3) {
        uint32_t v = static_cast<uint32_t>(in[i]) << 16;
        if (i + 1 < in.size())
            v |= static_cast<uint32_t>(in[i + 1]) << 8;
        if (i + 2 < in.size())
            v |= in[i + 2];
        out += ABC[v >> 18 & 63];
        out += ABC[v >> 12 & 63];
        out += i + 1 < in.size() ? ABC[v >> 6 & 63] : '=';
        out += i + 2 < in.size() ? ABC[v & 63] : '=';
    }
    return out;
}

// The key blob as sshd reads it: the type and the 32-byte public key, each
// after its 4-byte big-endian length; the key bytes come from the identifier.
inline std::string sim_pubkey(std::string_view id)
{
    auto be32 = [](std::vector<uint8_t>& v, uint32_t n) {
        for (int s = 24; s >= 0; s -= 8)
            v.push_back(static_cast<uint8_t>(n >> s));
    };
    const std::string type = "ssh-ed25519";
    std::vector<uint8_t> blob;
    be32(blob, static_cast<uint32_t>(type.size()));
    blob.insert(blob.end(), type.begin(), type.end());
    be32(blob, 32);
    std::string seed = fake_md5(id);  // 32 hex digits
    for (char c : seed)
        blob.push_back(static_cast<uint8_t>(c));
    return type + " " + base64(blob) + " vtsim@" + std::string(id);
}

inline std::string rsa_text(std::string_view id)
{
    return "RSA=" + sim_pubkey(id);
}

}  // namespace vtsim
