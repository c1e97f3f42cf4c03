// Global command table, dispatch, reply accumulation and the argument and
// value helpers every ioctl uses.
#pragma once

#include <cstddef>
#include <cstdlib>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "jos.h"

int jos_cmd_register(int code, jos_cmdfn_t fn);
int jos_cmd_unregister(int code);
int jos_cmd_exec(jos_cmdarg_t* ca);

// Appends formatted reply text; see jos_cmds.cpp for the truncation rule.
int jos_cmd_printf(jos_cmdarg_t* ca, const char* fmt, ...) __attribute__((format(printf, 2, 3)));

char* jos_cmd_nextarg(char* text, char** value, char** cursor);
void jos_cmd_tagval(char** cursor, char** tag, char** value);
int jos_cmd_isdigit(const char* text);
int jos_cmd_isdigitin(const char* text, long min, long max, long* number);
int jos_cmd_isstrin(const char* text, size_t min, size_t max, char* copy);
int jos_cmd_str2ip(const char* text, uint32_t* ip);
int jos_cmd_parseip(char* text, uint32_t* low, uint32_t* high);
int jos_cmd_macparse(const char* text, uint8_t mac[6]);
char* jos_cmd_trimline(char* text);
char* jos_cmd_fmtbytes(uint64_t value, char* buf, size_t size);
char* jos_cmd_fmtbps(uint64_t value, char* buf, size_t size);

// The name=value words of a command's argument text, read once.
struct jos_cmd_args {
    std::vector<std::pair<std::string, std::string>> kv;

    explicit jos_cmd_args(const jos_cmdarg_t* ca)
    {
        // nextarg cuts the text in place: work on a copy.
        std::string text = ca->ca_arg != nullptr ? ca->ca_arg : "";
        char* value = nullptr;
        char* cursor = nullptr;
        for (char* tag = jos_cmd_nextarg(text.data(), &value, &cursor); tag != nullptr;
             tag = jos_cmd_nextarg(cursor, &value, &cursor))
            kv.emplace_back(tag, value != nullptr ? value : "");
    }
    const std::string* get(const char* name) const
    {
        for (const auto& [k, v] : kv)
            if (k == name)
                return &v;
        return nullptr;
    }
    bool has(const char* name) const { return get(name) != nullptr; }
    // The value cut to MAX characters; "" when absent.
    std::string str(const char* name, size_t max = std::string::npos) const
    {
        const std::string* v = get(name);
        return v != nullptr ? v->substr(0, max) : "";
    }
    // Decimal value, DEF when absent; garbage reads as 0, as atoi would.
    long num(const char* name, long def = 0) const
    {
        const std::string* v = get(name);
        return v != nullptr ? std::strtol(v->c_str(), nullptr, 10) : def;
    }
};

// Code of the command being dispatched, 0 between commands.
extern int _jos_curcmd;

// Answers a command number the module does not know: error 22,
// "NOT_SUPPORTED". Returns 0 for the ioctl to return.
int jos_cmd_notsupported(jos_cmdarg_t* ca);
// Sets the reply length when a module's command is done: the text and its
// terminator, or nothing for an empty reply (the argument text shares the
// segment and must not come back). Returns 0.
int jos_cmd_endreply(jos_cmdarg_t* ca);

// One row of a listing. Every text value is printed with its line breaks,
// and SEP when that is '|', replaced by a blank: text that came from an
// appliance can neither add a row nor shift a column. The stored records
// are not touched. FMT takes the values as jos_cmd_printf does.
std::string jos_cmd_rowtext(const char* text, char sep);

namespace jos_row_detail {
inline const char* value(char sep, std::string& keep, const char* text)
{
    keep = jos_cmd_rowtext(text, sep);
    return keep.c_str();
}
template <typename T>
    requires std::is_arithmetic_v<T>
T value(char, std::string&, T v)
{
    return v;
}
template <typename... A, size_t... I>
int printrow(jos_cmdarg_t* ca, char sep, const char* fmt, std::index_sequence<I...>, const A&... a)
{
    std::string keep[sizeof...(A) > 0 ? sizeof...(A) : 1];
    return jos_cmd_printf(ca, fmt, value(sep, keep[I], a)...);
}
}  // namespace jos_row_detail

template <typename... A>
int jos_cmd_printrow(jos_cmdarg_t* ca, char sep, const char* fmt, const A&... a)
{
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
    return jos_row_detail::printrow(ca, sep, fmt, std::index_sequence_for<A...>{}, a...);
#pragma GCC diagnostic pop
}
