// Global command table, command dispatch, reply accumulation and the small
// argument and value helpers shared by every module's ioctl.

#include "jos_cmds.h"

#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

int _jos_curcmd = 0;

namespace {

// 512 handler slots, indexed by code - 1. Allocated by cmds_minit; null
// before that and after cmds_mfini, in which case nothing can be registered
// and every global command answers NO_CMD.
jos_cmdfn_t* _jos_cmdtbl = nullptr;

void set_errword(jos_cmdarg_t* ca, int err, const char* word)
{
    ca->ca_errno = err;
    std::snprintf(ca->ca_errmsg, sizeof(ca->ca_errmsg), "%s", word);
}

}  // namespace

// ---------------------------------------------------------------------------
// The cmds module: owns the table.
// ---------------------------------------------------------------------------

int cmds_minit(jos_kernel_t*)
{
    if (_jos_cmdtbl != nullptr)
        return 0;
    _jos_cmdtbl = static_cast<jos_cmdfn_t*>(std::calloc(JOS_CMD_MAX, sizeof(jos_cmdfn_t)));
    if (_jos_cmdtbl == nullptr) {
        std::printf("PANIC: %s: no memory for the command table\n", "cmds_minit");
        return -1;
    }
    return 0;
}

void cmds_mfini(jos_kernel_t*)
{
    std::free(_jos_cmdtbl);
    _jos_cmdtbl = nullptr;
}

jos_module_t cmds_module = {"cmds", 0x00000000, -1, cmds_minit, cmds_mfini, nullptr, nullptr};

int jos_cmd_register(int code, jos_cmdfn_t fn)
{
    if (code < 1 || code > JOS_CMD_MAX || _jos_cmdtbl == nullptr)
        return -1;
    _jos_cmdtbl[code - 1] = fn;
    return 0;
}

int jos_cmd_unregister(int code)
{
    if (code < 1 || code > JOS_CMD_MAX || _jos_cmdtbl == nullptr)
        return -1;
    _jos_cmdtbl[code - 1] = nullptr;
    return 0;
}

// ---------------------------------------------------------------------------
// Dispatch. Always returns 0: the outcome travels back in the record.
// ---------------------------------------------------------------------------

int jos_cmd_exec(jos_cmdarg_t* ca)
{
    if (ca == nullptr)
        return 0;
    const int32_t code = ca->ca_cmd;

    if (code >= JOS_CMD_MODFIRST && code <= JOS_CMD_MODLAST) {
        // The module name arrives from the socket; it need not be terminated.
        ca->ca_errmsg[sizeof(ca->ca_errmsg) - 1] = '\0';
        jos_module_t* mod = nullptr;
        if (_jos_kfntable.module_find != nullptr)
            mod = _jos_kfntable.module_find(ca->ca_errmsg);
        if (mod == nullptr) {
            set_errword(ca, 2, "MODULE_NEXIST");
        } else if (mod->ioctl == nullptr) {
            set_errword(ca, 2, "NO_FUNC");
        } else if (mod->ioctl(ca) != 0) {
            set_errword(ca, 5, "IOCTL_FAIL");
        }
        // ca_rlen stays whatever the module left in it.
        return 0;
    }

    if (code <= 0 || code > JOS_CMD_MAX) {
        set_errword(ca, 2, "INV_CMD");
        ca->ca_rlen = 0;
        return 0;
    }

    if (code == JOS_CMD_NOP)
        return 0;

    jos_cmdfn_t fn = _jos_cmdtbl != nullptr ? _jos_cmdtbl[code - 1] : nullptr;
    if (fn == nullptr) {
        set_errword(ca, 2, "NO_CMD");
        ca->ca_rlen = 0;
        return 0;
    }
    fn(ca);
    if (ca->ca_errno != 0)
        ca->ca_rlen = 0;
    return 0;
}

// ---------------------------------------------------------------------------
// Reply accumulation. In stream mode the text goes to ca_file. Otherwise it
// is appended at ca_result + ca_pos, keeping at most room - 1 characters and
// a terminator, where room = ca_rlen - ca_pos. With less than 2 bytes of room
// nothing is written at all (not even a terminator), so a full buffer simply
// drops whatever follows. ca_pos advances by the characters kept.
// ---------------------------------------------------------------------------

int jos_cmd_printf(jos_cmdarg_t* ca, const char* fmt, ...)
{
    if (ca == nullptr || fmt == nullptr)
        return 0;

    va_list ap;
    if (ca->ca_flags & JOS_CAF_FILE) {
        if (ca->ca_file == nullptr)
            return 0;
        va_start(ap, fmt);
        int n = std::vfprintf(ca->ca_file, fmt, ap);
        va_end(ap);
        return n < 0 ? 0 : n;
    }

    if (ca->ca_result == nullptr || ca->ca_pos < 0 || ca->ca_rlen < 0)
        return 0;
    const int64_t room = int64_t{ca->ca_rlen} - ca->ca_pos;
    if (room < 2)
        return 0;

    va_start(ap, fmt);
    int n = std::vsnprintf(ca->ca_result + ca->ca_pos, static_cast<size_t>(room), fmt, ap);
    va_end(ap);
    if (n < 0) {
        // Encoding error: leave the reply as it was.
        ca->ca_result[ca->ca_pos] = '\0';
        return 0;
    }
    const int kept = n < room - 1 ? n : static_cast<int>(room - 1);
    ca->ca_pos += kept;
    return kept;
}

// ---------------------------------------------------------------------------
// Argument words.
// ---------------------------------------------------------------------------

// Cuts one space-delimited word starting at or after p (leading spaces are
// skipped), terminates it and returns its start; *rest is left just past
// it. Returns null when nothing but spaces is left.
static char* cut_word(char* p, char** rest)
{
    while (*p == ' ')
        p++;
    if (*p == '\0') {
        *rest = p;
        return nullptr;
    }
    char* word = p;
    while (*p != '\0' && *p != ' ')
        p++;
    if (*p == ' ')
        *p++ = '\0';
    *rest = p;
    return word;
}

char* jos_cmd_nextarg(char* text, char** value, char** cursor)
{
    char* dummy = nullptr;
    if (cursor == nullptr)
        cursor = &dummy;
    if (value != nullptr)
        *value = nullptr;
    if (text == nullptr) {
        *cursor = nullptr;
        return nullptr;
    }

    char* word = cut_word(text, cursor);
    if (word == nullptr)
        return nullptr;
    char* eq = std::strchr(word, '=');
    if (eq == nullptr)
        return nullptr;
    *eq = '\0';

    char* val = eq + 1;
    // A quoted value loses its opening quote and, if there is one, its
    // closing quote. Quotes do not protect spaces: the word already ended at
    // the first space.
    if (*val == '"') {
        val++;
        size_t len = std::strlen(val);
        if (len > 0 && val[len - 1] == '"')
            val[len - 1] = '\0';
    }
    if (value != nullptr)
        *value = val;
    return word;
}

void jos_cmd_tagval(char** cursor, char** tag, char** value)
{
    char* t = nullptr;
    char* v = nullptr;
    if (cursor != nullptr && *cursor != nullptr) {
        char* start = *cursor;
        // The tag starts where the cursor stood, so any leading spaces are
        // part of it; the word itself is found past them.
        if (cut_word(start, cursor) != nullptr) {
            char* eq = std::strchr(start, '=');
            if (eq != nullptr) {
                *eq = '\0';
                t = start;
                v = eq + 1;
            }
        }
    }
    if (tag != nullptr)
        *tag = t;
    if (value != nullptr)
        *value = v;
}

// ---------------------------------------------------------------------------
// Value checks.
// ---------------------------------------------------------------------------

int jos_cmd_isdigit(const char* text)
{
    if (text == nullptr || *text == '\0')
        return 0;
    for (const char* p = text; *p != '\0'; p++)
        if (*p < '0' || *p > '9')
            return 0;
    return 1;
}

int jos_cmd_isdigitin(const char* text, long min, long max, long* number)
{
    if (!jos_cmd_isdigit(text))
        return 0;
    // Accumulate with saturation: a digit string too long for a long reads
    // as LONG_MAX and is never in range.
    long v = 0;
    bool over = false;
    for (const char* p = text; *p != '\0'; p++) {
        const int d = *p - '0';
        if (over || v > (LONG_MAX - d) / 10) {
            over = true;
            v = LONG_MAX;
        } else {
            v = v * 10 + d;
        }
    }
    if (number != nullptr)
        *number = v;
    return (!over && v >= min && v <= max) ? 1 : 0;
}

int jos_cmd_isstrin(const char* text, size_t min, size_t max, char* copy)
{
    if (text == nullptr)
        return 0;
    const size_t len = std::strlen(text);
    if (len < min || len > max)
        return 0;
    if (copy != nullptr)
        std::memcpy(copy, text, len + 1);
    return 1;
}

// ---------------------------------------------------------------------------
// Addresses.
// ---------------------------------------------------------------------------

int jos_cmd_str2ip(const char* text, uint32_t* ip)
{
    if (text == nullptr || *text == '\0')
        return -1;

    uint64_t part[4] = {0, 0, 0, 0};
    int n = 0;          // index of the part being read
    bool digits = false;
    for (const char* p = text; *p != '\0'; p++) {
        if (*p >= '0' && *p <= '9') {
            // Saturate well above any legal part so long strings cannot wrap.
            if (part[n] <= 0xffffffffULL)
                part[n] = part[n] * 10 + static_cast<unsigned>(*p - '0');
            digits = true;
        } else if (*p == '.') {
            if (!digits || n == 3)
                return -1;
            n++;
            digits = false;
        } else {
            return -1;
        }
    }
    if (!digits)
        return -1;

    // All parts but the last are single bytes; the last fills what is left.
    static constexpr uint64_t last_max[4] = {0xffffffffULL, 0xffffffULL, 0xffffULL, 0xffULL};
    for (int i = 0; i < n; i++)
        if (part[i] > 0xff)
            return -1;
    if (part[n] > last_max[n])
        return -1;

    uint32_t v = 0;
    for (int i = 0; i < n; i++)
        v |= static_cast<uint32_t>(part[i]) << (24 - 8 * i);
    v |= static_cast<uint32_t>(part[n]);
    if (ip != nullptr)
        *ip = v;
    return 0;
}

int jos_cmd_parseip(char* text, uint32_t* low, uint32_t* high)
{
    if (text == nullptr)
        return -1;

    uint32_t lo = 0;
    uint32_t hi = 0;
    if (char* sep = std::strchr(text, '-'); sep != nullptr) {
        *sep = '\0';
        if (jos_cmd_str2ip(text, &lo) != 0 || jos_cmd_str2ip(sep + 1, &hi) != 0)
            return -1;
    } else if (char* sep = std::strchr(text, '/'); sep != nullptr) {
        *sep = '\0';
        long bits = 0;
        if (jos_cmd_str2ip(text, &lo) != 0 || !jos_cmd_isdigitin(sep + 1, 1, 32, &bits))
            return -1;
        const uint64_t span = uint64_t{1} << (32 - bits);   // 1 .. 2^31
        lo &= ~static_cast<uint32_t>(span - 1);
        hi = static_cast<uint32_t>(lo + (span - 1));
    } else {
        if (std::strcmp(text, "any") == 0) {
            // Callers use the values for "any"; the result stays a failure
            // because "any" is not an address.
            if (low != nullptr)
                *low = 0;
            if (high != nullptr)
                *high = 0xFFFFFFFFu;
            return -1;
        }
        if (jos_cmd_str2ip(text, &lo) != 0)
            return -1;
        hi = lo;
    }
    if (low != nullptr)
        *low = lo;
    if (high != nullptr)
        *high = hi;
    return 0;
}

int jos_cmd_macparse(const char* text, uint8_t mac[6])
{
    if (text == nullptr || text[0] == '\0' || text[1] == '\0')
        return -1;

    const char* fmt;
    switch (text[2]) {
    case '-': fmt = "%2x-%2x-%2x-%2x-%2x-%2x"; break;
    case ':': fmt = "%2x:%2x:%2x:%2x:%2x:%2x"; break;
    case '.': fmt = "%2x.%2x.%2x.%2x.%2x.%2x"; break;
    default: return -1;
    }
    unsigned b[6];
    if (std::sscanf(text, fmt, &b[0], &b[1], &b[2], &b[3], &b[4], &b[5]) < 6)
        return -1;
    if (mac != nullptr)
        for (int i = 0; i < 6; i++)
            mac[i] = static_cast<uint8_t>(b[i]);
    return 0;
}

// ---------------------------------------------------------------------------
// Text lines and number formatting.
// ---------------------------------------------------------------------------

// Tabs count as spaces everywhere, including in the leading run that is
// skipped, so an indented line with tabs trims like one with spaces.
char* jos_cmd_trimline(char* text)
{
    if (text == nullptr)
        return nullptr;
    char* end = text;
    for (; *end != '\0'; end++) {
        if (*end == '\r' || *end == '\n') {
            *end = '\0';
            break;
        }
        if (*end == '\t')
            *end = ' ';
    }
    char* p = text;
    while (*p == ' ')
        p++;
    while (end > p && end[-1] == ' ')
        *--end = '\0';
    return p;
}

char* jos_cmd_fmtbytes(uint64_t value, char* buf, size_t size)
{
    if (buf == nullptr)
        return nullptr;
    if (value >= (uint64_t{1} << 30))
        std::snprintf(buf, size, "%.2fG ", static_cast<double>(value) / (1 << 30));
    else if (value >= (uint64_t{1} << 20))
        std::snprintf(buf, size, "%.2fM ", static_cast<double>(value) / (1 << 20));
    else if (value < 1024)
        std::snprintf(buf, size, "%lu ", static_cast<unsigned long>(value));
    else
        std::snprintf(buf, size, "%.2fK ", static_cast<double>(value) / 1024);
    return buf;
}

char* jos_cmd_fmtbps(uint64_t value, char* buf, size_t size)
{
    if (buf == nullptr)
        return nullptr;
    if (value >= 1000000)
        std::snprintf(buf, size, "%.2fM ", static_cast<double>(value) / 1e6);
    else if (value < 1000)
        std::snprintf(buf, size, "%lu ", static_cast<unsigned long>(value));
    else
        std::snprintf(buf, size, "%.2fK ", static_cast<double>(value) / 1000);
    return buf;
}

std::string jos_cmd_rowtext(const char* text, char sep)
{
    std::string out = text != nullptr ? text : "";
    for (char& c : out)
        if (c == '\n' || c == '\r' || (sep == '|' && c == '|'))
            c = ' ';
    return out;
}

int jos_cmd_notsupported(jos_cmdarg_t* ca)
{
    ca->ca_errno = 22;
    std::snprintf(ca->ca_errmsg, sizeof(ca->ca_errmsg), "NOT_SUPPORTED");
    return 0;
}

int jos_cmd_endreply(jos_cmdarg_t* ca)
{
    ca->ca_rlen = ca->ca_pos > 0 ? ca->ca_pos + 1 : 0;
    return 0;
}
