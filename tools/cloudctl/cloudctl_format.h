// Single values of the daemon's listings, read by the unit of their column:
// for people (dotted addresses, local date-times, durations and rates with
// units) and for programs (JSON strings and numbers). Header-only so that
// the unit tests can use it without the client.
#pragma once

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>

// What a column holds. The daemon prints every number in decimal; IPv4
// addresses as one integer in host order (167772161 is 10.0.0.1); times as
// seconds since the epoch; durations as seconds; rates as bits per second.
enum class cloudctl_unit : uint8_t { text, number, ipv4, time, duration, rate };

// VALUE as an unsigned decimal number: digits only, at most MAX.
inline bool cloudctl_unsigned(const std::string& value, uint64_t max, uint64_t* out)
{
    if (value.empty() || value.size() > 20 || value.find_first_not_of("0123456789") != std::string::npos)
        return false;
    errno = 0;
    unsigned long long v = std::strtoull(value.c_str(), nullptr, 10);
    if (errno != 0 || v > max)
        return false;
    *out = v;
    return true;
}

inline std::string cloudctl_ipv4(uint32_t a)
{
    char buf[16];
    std::snprintf(buf, sizeof(buf), "%u.%u.%u.%u", a >> 24, (a >> 16) & 255, (a >> 8) & 255, a & 255);
    return buf;
}

// Local date-time; 0 (never, or no end) is "-".
inline std::string cloudctl_time(time_t t)
{
    if (t == 0)
        return "-";
    struct tm tm {};
    char buf[32];
    if (localtime_r(&t, &tm) == nullptr || std::strftime(buf, sizeof(buf), "%Y-%m-%d %H:%M:%S", &tm) == 0)
        return std::to_string(t);
    return buf;
}

// The two largest units: "3d 4h", "2h 0m", "12m 5s", "7s".
inline std::string cloudctl_duration(uint64_t s)
{
    char buf[48];
    if (s >= 86400)
        std::snprintf(buf, sizeof(buf), "%llud %lluh", static_cast<unsigned long long>(s / 86400),
                      static_cast<unsigned long long>(s % 86400 / 3600));
    else if (s >= 3600)
        std::snprintf(buf, sizeof(buf), "%lluh %llum", static_cast<unsigned long long>(s / 3600),
                      static_cast<unsigned long long>(s % 3600 / 60));
    else if (s >= 60)
        std::snprintf(buf, sizeof(buf), "%llum %llus", static_cast<unsigned long long>(s / 60),
                      static_cast<unsigned long long>(s % 60));
    else
        std::snprintf(buf, sizeof(buf), "%llus", static_cast<unsigned long long>(s));
    return buf;
}

// Bits per second in steps of 1000: "640 bit/s", "1.2 Mbit/s".
inline std::string cloudctl_rate(uint64_t bps)
{
    static const char* const units[] = {"kbit/s", "Mbit/s", "Gbit/s", "Tbit/s", "Pbit/s", "Ebit/s"};
    char buf[32];
    if (bps < 1000) {
        std::snprintf(buf, sizeof(buf), "%llu bit/s", static_cast<unsigned long long>(bps));
        return buf;
    }
    double v = static_cast<double>(bps) / 1000;
    size_t u = 0;
    while (v >= 999.95 && u + 1 < sizeof(units) / sizeof(units[0])) {
        v /= 1000;
        u++;
    }
    std::snprintf(buf, sizeof(buf), "%.1f %s", v, units[u]);
    return buf;
}

// VALUE for people. A value that is not a number of its unit's range stays
// as it is.
inline std::string cloudctl_human(const std::string& value, cloudctl_unit unit)
{
    uint64_t v;
    switch (unit) {
    case cloudctl_unit::ipv4:
        return cloudctl_unsigned(value, UINT32_MAX, &v) ? cloudctl_ipv4(static_cast<uint32_t>(v)) : value;
    case cloudctl_unit::time:
        return cloudctl_unsigned(value, UINT32_MAX, &v) ? cloudctl_time(static_cast<time_t>(v)) : value;
    case cloudctl_unit::duration:
        return cloudctl_unsigned(value, UINT64_MAX, &v) ? cloudctl_duration(v) : value;
    case cloudctl_unit::rate:
        return cloudctl_unsigned(value, UINT64_MAX, &v) ? cloudctl_rate(v) : value;
    case cloudctl_unit::text:
    case cloudctl_unit::number:
        break;
    }
    return value;
}

// Length of the well-formed UTF-8 sequence at S[I] of two or more bytes
// (no overlong forms, surrogates or values past U+10FFFF); 0 when there is
// none.
inline size_t cloudctl_utf8_len(const std::string& s, size_t i)
{
    const auto at = [&](size_t k) { return static_cast<unsigned char>(s[k]); };
    const unsigned c = at(i);
    size_t n;
    unsigned lo = 0x80, hi = 0xbf;  // range of the second byte
    if (c >= 0xc2 && c <= 0xdf)
        n = 2;
    else if (c >= 0xe0 && c <= 0xef)
        n = 3, lo = c == 0xe0 ? 0xa0 : 0x80, hi = c == 0xed ? 0x9f : 0xbf;
    else if (c >= 0xf0 && c <= 0xf4)
        n = 4, lo = c == 0xf0 ? 0x90 : 0x80, hi = c == 0xf4 ? 0x8f : 0xbf;
    else
        return 0;
    if (i + n > s.size() || at(i + 1) < lo || at(i + 1) > hi)
        return 0;
    for (size_t k = i + 2; k < i + n; k++)
        if (at(k) < 0x80 || at(k) > 0xbf)
            return 0;
    return n;
}

// S as a JSON string: quotes, backslashes, control characters and bytes
// that are not part of well-formed UTF-8 become escapes (such a byte B as
// \u00BB, so texts in other encodings, GBK names included, come through
// without loss).
inline std::string cloudctl_json_string(const std::string& s)
{
    std::string out = "\"";
    for (size_t i = 0; i < s.size();) {
        const unsigned char c = static_cast<unsigned char>(s[i]);
        const size_t n = c >= 0x80 ? cloudctl_utf8_len(s, i) : 1;
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c < 0x20 || c == 0x7f || n == 0) {
            char esc[8];
            std::snprintf(esc, sizeof(esc), "\\u%04x", c);
            out += esc;
        } else {
            out.append(s, i, n);
        }
        i += n == 0 ? 1 : n;
    }
    return out + "\"";
}

// True when S is a JSON number as the daemon prints them: an optional
// minus, digits without a leading zero, an optional fraction.
inline bool cloudctl_json_number(const std::string& s)
{
    size_t i = s.size() > 1 && s[0] == '-' ? 1 : 0;
    const size_t int_start = i;
    while (i < s.size() && s[i] >= '0' && s[i] <= '9')
        i++;
    const size_t int_len = i - int_start;
    if (int_len == 0 || (int_len > 1 && s[int_start] == '0'))
        return false;
    if (i < s.size() && s[i] == '.') {
        const size_t frac = ++i;
        while (i < s.size() && s[i] >= '0' && s[i] <= '9')
            i++;
        if (i == frac)
            return false;
    }
    return i == s.size();
}

// A value for programs: a number where the column holds numbers and the
// value reads as one, else a string.
inline std::string cloudctl_json_value(const std::string& value, cloudctl_unit unit)
{
    return unit != cloudctl_unit::text && cloudctl_json_number(value) ? value : cloudctl_json_string(value);
}
