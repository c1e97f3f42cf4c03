// String comparisons and the dotted IPv4 parser.
#include "ipe_string.h"

// Compares at most n characters. Stops early, as equal, when both texts end
// together. The difference is taken on unsigned bytes so that high-bit
// characters order after ASCII. A null text compares as an empty one.
int ipe_strncmp(const char* a, const char* b, int n)
{
    if (a == nullptr)
        a = "";
    if (b == nullptr)
        b = "";
    for (int i = 0; i < n; i++) {
        const auto ca = static_cast<unsigned char>(a[i]);
        const auto cb = static_cast<unsigned char>(b[i]);
        if (ca != cb)
            return ca - cb;
        if (ca == 0)
            return 0;
    }
    return 0;
}

int ipe_streq(const char* a, const char* b, int n)
{
    return ipe_strncmp(a, b, n) == 0 ? 1 : 0;
}

// Classic dotted shorthand: "a", "a.b", "a.b.c" or "a.b.c.d", decimal only.
// Every part but the last is one byte; the last part fills all the bytes that
// are left, so "10.1" is 10.0.0.1 and "1.65535" is 1.0.255.255. Empty parts
// ("1..2", "10.") are refused. 0 is the failure value, which makes "0" and
// "0.0.0.0" indistinguishable from an error; callers that accept the any
// address compare the text themselves.
uint32_t ipe_str2ip(const char* text)
{
    if (text == nullptr)
        return 0;

    uint32_t parts[4] = {};
    int nparts = 0;
    uint64_t val = 0;
    bool digits = false;

    for (const char* p = text;; p++) {
        const char c = *p;
        if (c >= '0' && c <= '9') {
            val = val * 10 + static_cast<unsigned>(c - '0');
            // Checked on every digit, so a long run of digits cannot wrap.
            if (val > 0xffffffffULL)
                return 0;
            digits = true;
        } else if (c == '.' || c == '\0') {
            if (!digits)
                return 0;
            if (c == '.') {
                if (nparts == 3 || val > 255)
                    return 0;
                parts[nparts++] = static_cast<uint32_t>(val);
                val = 0;
                digits = false;
                continue;
            }
            break;
        } else {
            return 0;
        }
    }

    // The last part must fit in the bytes the leading parts left free.
    static constexpr uint64_t lastmax[4] = {0xffffffffULL, 0xffffffULL, 0xffffULL, 0xffULL};
    if (val > lastmax[nparts])
        return 0;

    uint32_t ip = 0;
    for (int i = 0; i < nparts; i++)
        ip |= parts[i] << (24 - 8 * i);
    return ip | static_cast<uint32_t>(val);
}
