// The statement formatter. The first byte picks the form of the input and
// the escaping: bit 0 set, an arbitrary format (up to the first NUL) with
// values (NUL-separated, each led by a kind byte) that must not crash;
// clear, a statement of quoted conversions built from the input, whose
// output must still hold exactly those quoted strings, each decoding to
// its value. Bits 1-2: no connection (hand escaping), or a handle whose
// character set is latin1 or utf8mb4 (the client library escapes).
#include <mysql.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "common.h"
#include "fuzz_common.h"

namespace {

constexpr size_t MAXARGS = 8;
using args_t = std::vector<sql_arg>;
using call_fn = std::string (*)(MYSQL*, const char*, const args_t&);

template <size_t... I>
std::string call_n(MYSQL* m, const char* fmt, const args_t& v, std::index_sequence<I...>)
{
    return sql_vformat(m, fmt, {v[I]...});
}
template <size_t N>
std::string call(MYSQL* m, const char* fmt, const args_t& v)
{
    return call_n(m, fmt, v, std::make_index_sequence<N>{});
}
template <size_t... N>
constexpr auto make_calls(std::index_sequence<N...>)
{
    return std::array<call_fn, sizeof...(N)>{call<N>...};
}
constexpr auto CALLS = make_calls(std::make_index_sequence<MAXARGS + 1>{});

MYSQL _latin1, _utf8;

// A value of the kind K from up to 8 bytes (numbers) or the text itself.
// Text values live in TEXTS, which must not reallocate while ARGS is used.
sql_arg make_arg(unsigned k, const std::string& text)
{
    unsigned char raw[8] = {};
    std::memcpy(raw, text.data(), std::min(text.size(), sizeof(raw)));
    long long i;
    unsigned long long u;
    double d;
    std::memcpy(&i, raw, 8);
    std::memcpy(&u, raw, 8);
    std::memcpy(&d, raw, 8);
    switch (k % 4) {
    case 1: return sql_arg(i);
    case 2: return sql_arg(u);
    case 3: return sql_arg(d);
    default: return sql_arg(text.c_str());
    }
}

void raw_mode(MYSQL* m, std::string_view in)
{
    std::vector<std::string_view> parts = fuzz::split(in, std::string_view("\0", 1));
    std::string fmt(parts[0]);
    std::vector<std::string> texts;
    texts.reserve(MAXARGS);
    args_t args;
    size_t bound = fmt.size();
    for (size_t i = 1; i < parts.size() && texts.size() < MAXARGS; i++) {
        std::string_view p = parts[i];
        unsigned kind = p.empty() ? 0 : static_cast<uint8_t>(p[0]);
        texts.emplace_back(p.substr(p.empty() ? 0 : 1));
        args.push_back(make_arg(kind, texts.back()));
        bound += 2 * p.size() + 65535 + 400;
    }
    std::string out = CALLS[args.size()](m, fmt.c_str(), args);
    if (out.size() > bound)
        fuzz::fail("sqlf", "%zu bytes from a format of %zu", out.size(), fmt.size());
}

struct conv {
    std::string written;  // the conversion as written into the format
    bool text;          // %s or %c under a text value: its decoding is known
    std::string value;  // expected decoding when TEXT
};

// Reads one quoted string at *P, honouring backslash escapes; false when
// there is none or it does not end.
bool scan_quoted(std::string_view out, size_t* p, std::string* decoded)
{
    if (*p >= out.size() || out[*p] != '\'')
        return false;
    decoded->clear();
    for (size_t i = *p + 1; i < out.size(); i++) {
        char c = out[i];
        if (c == '\'') {
            *p = i + 1;
            return true;
        }
        if (c == '\\') {
            if (++i == out.size())
                return false;
            switch (out[i]) {
            case '0': c = '\0'; break;
            case 'n': c = '\n'; break;
            case 'r': c = '\r'; break;
            case 'Z': c = '\032'; break;
            default: c = out[i]; break;
            }
        }
        *decoded += c;
    }
    return false;
}

void quoted_mode(MYSQL* m, uint8_t flags, std::string_view in)
{
    static const int widths[] = {0, 3, 8, 40};
    static const int precs[] = {0, 1, 5, 20};
    std::vector<std::string> texts;
    texts.reserve(MAXARGS);
    std::vector<conv> convs;
    args_t args;
    for (std::string_view item : fuzz::split(in, std::string_view("\0", 1))) {
        if (item.empty() || texts.size() == MAXARGS)
            continue;
        const auto cbyte = static_cast<uint8_t>(item[0]);
        texts.emplace_back(item.substr(1));
        const std::string& v = texts.back();
        const int w = widths[(cbyte >> 4) & 3];
        const int pr = precs[cbyte >> 6];
        // Bit 3 set: a number of the kind in bits 4-5 (kind 0 is text).
        const bool is_text = (cbyte & 8) == 0 || ((cbyte >> 4) & 3) == 0;
        args.push_back(is_text ? sql_arg(v.c_str()) : make_arg((cbyte >> 4) & 3, v));
        std::string cut = v.substr(0, size_t(pr));
        auto pad = [&](const std::string& s, bool left) {
            std::string fill(size_t(w) > s.size() ? size_t(w) - s.size() : 0, ' ');
            return left ? s + fill : fill + s;
        };
        switch (cbyte & 7) {
        case 0: convs.push_back({"%s", is_text, v}); break;
        case 1: convs.push_back({"%-" + std::to_string(w) + "s", is_text, pad(v, true)}); break;
        case 2: convs.push_back({"%" + std::to_string(w) + "s", is_text, pad(v, false)}); break;
        case 3: convs.push_back({"%." + std::to_string(pr) + "s", is_text, cut}); break;
        case 4: convs.push_back({"%-" + std::to_string(w) + "." + std::to_string(pr) + "s", is_text, pad(cut, true)}); break;
        case 5: convs.push_back({"%c", is_text, v.substr(0, 1)}); break;
        case 6: convs.push_back({"%lld", false, ""}); break;
        default: convs.push_back({"%.3f", false, ""}); break;
        }
    }
    // A conversion with no value left prints nothing.
    if (flags & 8)
        convs.push_back({"%s", true, ""});

    std::string fmt = "select ";
    for (size_t i = 0; i < convs.size(); i++)
        fmt += (i != 0 ? ", '" : "'") + convs[i].written + "'";
    fmt += " from t";
    std::string out = CALLS[args.size()](m, fmt.c_str(), args);

    std::string_view o = out;
    size_t p = 7;
    if (o.substr(0, p) != "select ")
        fuzz::fail("sqlf", "statement lost its start: %.200s", out.c_str());
    std::string decoded;
    for (size_t i = 0; i < convs.size(); i++) {
        if (i != 0) {
            if (o.substr(p, 2) != ", ")
                fuzz::fail("sqlf", "value %zu ended its quoted string early: %.300s", i - 1, out.c_str());
            p += 2;
        }
        if (!scan_quoted(o, &p, &decoded))
            fuzz::fail("sqlf", "quoted string %zu broken: %.300s", i, out.c_str());
        if (convs[i].text && decoded != convs[i].value)
            fuzz::fail("sqlf", "value %zu (%s) decodes as \"%.100s\", not \"%.100s\"", i, convs[i].written.c_str(),
                       decoded.c_str(), convs[i].value.c_str());
    }
    if (o.substr(p) != " from t")
        fuzz::fail("sqlf", "statement does not end as formatted: %.300s", out.c_str());
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    // Handles that never connect: only their character set is used.
    if (mysql_init(&_latin1) == nullptr || mysql_init(&_utf8) == nullptr)
        __builtin_trap();
    _latin1.charset = mariadb_get_charset_by_name("latin1");
    _utf8.charset = mariadb_get_charset_by_name("utf8mb4");
    if (_latin1.charset == nullptr || _utf8.charset == nullptr)
        __builtin_trap();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 1)
        return 0;
    const uint8_t flags = data[0];
    MYSQL* handles[] = {nullptr, &_latin1, &_utf8, nullptr};
    MYSQL* m = handles[(flags >> 1) & 3];
    std::string_view in(reinterpret_cast<const char*>(data) + 1, size - 1);
    if (flags & 1)
        raw_mode(m, in);
    else
        quoted_mode(m, flags, in);
    return 0;
}
