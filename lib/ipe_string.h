// String comparisons, bounded copies and the dotted IPv4 parser.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

int ipe_strncmp(const char* a, const char* b, int n);
int ipe_streq(const char* a, const char* b, int n);
uint32_t ipe_str2ip(const char* text);

// Copies at most MAX characters of SRC (which need not be terminated within
// them: a field of a received record) into DST, always terminated.
template <size_t N>
void ipe_fieldcpy(char (&dst)[N], const char* src, size_t max = N - 1)
{
    size_t n = strnlen(src, max < N - 1 ? max : N - 1);
    std::memcpy(dst, src, n);
    dst[n] = '\0';
}

// Calls FN(key, value) for every "key=value" word of TEXT, words separated
// by any of SEPS, as "%[^=]=%s" reads them: the key ends at the first '=';
// a word without one, or with an empty key or value, is skipped. At most
// MAX characters of TEXT are read.
template <typename F>
void ipe_eachword(const char* text, F&& fn, const char* seps = " ", size_t max = std::string::npos)
{
    std::string copy(text, strnlen(text, max));
    char* save = nullptr;
    for (char* w = strtok_r(copy.data(), seps, &save); w != nullptr; w = strtok_r(nullptr, seps, &save)) {
        char* eq = std::strchr(w, '=');
        if (eq == nullptr || eq == w || eq[1] == '\0')
            continue;
        *eq = '\0';
        fn(static_cast<const char*>(w), static_cast<const char*>(eq + 1));
    }
}
