// String comparisons, bounded copies and the dotted IPv4 parser.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

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
