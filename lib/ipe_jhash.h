// The daemon's one string hash: lookup2 over the bytes of a NUL-terminated
// key with initial value 0. Pools reduce it with their own mask.
#pragma once

#include <cstdint>
#include <cstring>

#define IPE_JHASH_MIX(a, b, c) \
    do {                       \
        a -= b; a -= c; a ^= (c >> 13); \
        b -= c; b -= a; b ^= (a << 8);  \
        c -= a; c -= b; c ^= (b >> 13); \
        a -= b; a -= c; a ^= (c >> 12); \
        b -= c; b -= a; b ^= (a << 16); \
        c -= a; c -= b; c ^= (b >> 5);  \
        a -= b; a -= c; a ^= (c >> 3);  \
        b -= c; b -= a; b ^= (a << 10); \
        c -= a; c -= b; c ^= (b >> 15); \
    } while (0)

inline uint32_t ipe_jhash(const char* key)
{
    const auto* p = reinterpret_cast<const uint8_t*>(key);
    const uint32_t len = static_cast<uint32_t>(std::strlen(key));
    uint32_t a = 0x9e3779b9, b = 0x9e3779b9, c = 0;
    uint32_t n = len;
    auto word = [](const uint8_t* q) {
        return q[0] + (uint32_t(q[1]) << 8) + (uint32_t(q[2]) << 16) + (uint32_t(q[3]) << 24);
    };
    while (n >= 12) {
        a += word(p);
        b += word(p + 4);
        c += word(p + 8);
        IPE_JHASH_MIX(a, b, c);
        p += 12;
        n -= 12;
    }
    c += len;
    switch (n) {  // every case falls through; the low byte of c is the length's
    case 11: c += uint32_t(p[10]) << 24; [[fallthrough]];
    case 10: c += uint32_t(p[9]) << 16; [[fallthrough]];
    case 9: c += uint32_t(p[8]) << 8; [[fallthrough]];
    case 8: b += uint32_t(p[7]) << 24; [[fallthrough]];
    case 7: b += uint32_t(p[6]) << 16; [[fallthrough]];
    case 6: b += uint32_t(p[5]) << 8; [[fallthrough]];
    case 5: b += p[4]; [[fallthrough]];
    case 4: a += uint32_t(p[3]) << 24; [[fallthrough]];
    case 3: a += uint32_t(p[2]) << 16; [[fallthrough]];
    case 2: a += uint32_t(p[1]) << 8; [[fallthrough]];
    case 1: a += p[0]; [[fallthrough]];
    default: break;
    }
    IPE_JHASH_MIX(a, b, c);
    return c;
}
