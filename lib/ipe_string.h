// String comparisons and the dotted IPv4 parser.
#pragma once

#include <cstdint>

int ipe_strncmp(const char* a, const char* b, int n);
int ipe_streq(const char* a, const char* b, int n);
uint32_t ipe_str2ip(const char* text);
