// The non-template pieces shared by the appliance families: field access by
// descriptor, the text datagram, the group filters and the settings.
#include "family.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include "cloudconf.h"

uint64_t fam_get(const void* rec, const fam_field& f)
{
    const char* p = static_cast<const char*>(rec) + f.off;
    switch (f.kind) {
    case fam_field::U8: return *reinterpret_cast<const uint8_t*>(p);
    case fam_field::U16: return *reinterpret_cast<const uint16_t*>(p);
    case fam_field::U32: return *reinterpret_cast<const uint32_t*>(p);
    case fam_field::U64: return *reinterpret_cast<const uint64_t*>(p);
    default: return 0;
    }
}

void fam_put(void* rec, const fam_field& f, uint64_t v)
{
    char* p = static_cast<char*>(rec) + f.off;
    switch (f.kind) {
    case fam_field::U8: *reinterpret_cast<uint8_t*>(p) = static_cast<uint8_t>(v); break;
    case fam_field::U16: *reinterpret_cast<uint16_t*>(p) = static_cast<uint16_t>(v); break;
    case fam_field::U32: *reinterpret_cast<uint32_t*>(p) = static_cast<uint32_t>(v); break;
    case fam_field::U64: *reinterpret_cast<uint64_t*>(p) = v; break;
    default: break;
    }
}

const char* fam_text(const void* rec, const fam_field& f)
{
    return f.kind == fam_field::TEXT ? static_cast<const char*>(rec) + f.off : "";
}

void fam_puttext(void* rec, const fam_field& f, const char* src)
{
    if (f.kind != fam_field::TEXT || f.size == 0)
        return;
    if (src == nullptr)
        src = "";
    char* dst = static_cast<char*>(rec) + f.off;
    size_t n = strnlen(src, f.size - 1u);
    std::memcpy(dst, src, n);
    dst[n] = '\0';
}

int fam_cmp(const void* a, const void* b, const fam_field& f)
{
    if (f.kind == fam_field::TEXT) {
        int r = std::strcmp(fam_text(a, f), fam_text(b, f));
        return r < 0 ? -1 : r > 0 ? 1 : 0;
    }
    uint64_t x = fam_get(a, f), y = fam_get(b, f);
    return x < y ? -1 : x > y ? 1 : 0;
}

void fam_putword(void* rec, const fam_field& f, const char* value)
{
    if (f.kind == fam_field::TEXT)
        fam_puttext(rec, f, value);
    else if (f.kind == fam_field::U64)
        fam_put(rec, f, std::strtoull(value, nullptr, 10));
    else
        fam_put(rec, f, static_cast<uint32_t>(std::strtol(value, nullptr, 10)));
}

void fam_putcol(void* rec, const fam_field& f, const char* value)
{
    if (value == nullptr)
        return;
    if (f.kind == fam_field::TEXT)
        fam_puttext(rec, f, value);
    else
        fam_put(rec, f, static_cast<uint32_t>(std::strtol(value, nullptr, 10)));
}

int fam_port_max()
{
    _devpool.mtx.lock();
    const int max = _mapping_port_max;
    _devpool.mtx.unlock();
    return max;
}

int fam_sendtext(int sock, const char* magic, uint32_t ip, uint16_t port, const char* text)
{
    if (sock < 0)
        return -1;
    cldarg_t a{};
    std::memcpy(a.tag, magic, 3);
    a.type = VTR_CMDARG;
    size_t n = strnlen(text, sizeof(a.argstr) - 1);
    std::memcpy(a.argstr, text, n);
    a.arglen = static_cast<uint16_t>(n);
    return cloud_sendto(sock, &a, sizeof(a), ip, port);
}

fam_groups::fam_groups(const jos_cmd_args& a)
{
    if (a.has("grpid"))
        grpid = a.num("grpid");
    std::string list = a.str("usergrp");
    if (list.empty() || list[0] == '0')
        return;
    for (size_t pos = 0; pos < list.size() && users.size() < 50;) {
        size_t end = list.find(',', pos);
        if (end == std::string::npos)
            end = list.size();
        users.push_back(std::strtol(list.substr(pos, end - pos).c_str(), nullptr, 10));
        pos = end + 1;
    }
}

bool fam_groups::user(unsigned grp) const
{
    if (users.empty())
        return true;
    return std::find(users.begin(), users.end(), static_cast<long>(grp)) != users.end();
}

int fam_tick_ms()
{
    return std::clamp(cloudconf_int("discon_turn_ms", FAM_TICK_MS), 1, 1000);
}
