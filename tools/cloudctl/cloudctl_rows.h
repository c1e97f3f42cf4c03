// The daemon's text listings read as rows under named columns, and shown
// as aligned tables for people or as JSON lines for programs. Header-only
// so that the unit tests can use it without the client.
#pragma once

#include <algorithm>
#include <cstdint>
#include <sstream>
#include <string>
#include <vector>

#include "cloudctl_format.h"

struct cloudctl_column {
    std::string name;
    cloudctl_unit unit;
};

// One part of a listing: a row per line, values SEP apart.
struct cloudctl_part {
    // The header line the daemon prints before the rows (replaced by the
    // column names); empty: the part starts at the top, without one.
    std::string daemon_header;
    std::vector<cloudctl_column> columns;
    char sep = ' ';
    // The column that takes the words of a line beyond one per column (a
    // name with blanks in it); past the end: the last column.
    size_t free = SIZE_MAX;
    // The last column takes what follows the columns after FREE too; where
    // the split falls, the numbers between the two must read as numbers.
    bool tail = false;
    // Rows end in one blank more.
    bool trailing_blank = false;
};

// A line of a listing: a row of PART, the place of PART's header, or any
// other line (part -1).
struct cloudctl_line {
    int part = -1;
    bool header = false;
    std::vector<std::string> cells;
    std::string text;
};

namespace cloudctl_detail {

inline std::string join(const std::vector<std::string>& w, size_t from, size_t to, char sep)
{
    std::string out;
    for (size_t i = from; i < to; i++)
        out += (i > from ? std::string(1, sep) : "") + w[i];
    return out;
}

inline bool signed_number(const std::string& v)
{
    const size_t d = !v.empty() && v[0] == '-' ? 1 : 0;
    return v.size() > d && v.find_first_not_of("0123456789", d) == std::string::npos;
}

// LINE as the cells of a row of P; false when it is none: fewer values
// than columns, or one name=value word (total=N and the like).
inline bool split(const std::string& line, const cloudctl_part& p, std::vector<std::string>& cells)
{
    if (line.find(p.sep) == std::string::npos && line.find('=') != std::string::npos)
        return false;
    std::vector<std::string> w;
    for (size_t pos = 0;;) {
        size_t end = line.find(p.sep, pos);
        w.push_back(line.substr(pos, end == std::string::npos ? std::string::npos : end - pos));
        if (end == std::string::npos)
            break;
        pos = end + 1;
    }
    if (p.trailing_blank && w.size() > 1 && w.back().empty())
        w.pop_back();
    const size_t n = p.columns.size();
    if (n == 0 || w.size() < n)
        return false;
    const size_t f = std::min(p.free, n - 1), extra = w.size() - n;
    size_t k = extra + 1;  // words of the free column
    if (p.tail && f + 1 < n) {
        const auto fits = [&](size_t t) {
            for (size_t c = f + 1; c + 1 < n; c++)
                if (p.columns[c].unit != cloudctl_unit::text && !signed_number(w[f + t + (c - f - 1)]))
                    return false;
            return true;
        };
        for (size_t t = 1; t <= extra + 1; t++)
            if (fits(t)) {
                k = t;
                break;
            }
    }
    cells.assign(w.begin(), w.begin() + static_cast<std::ptrdiff_t>(f));
    cells.push_back(join(w, f, f + k, p.sep));
    for (size_t c = f + 1, at = f + k; c < n; c++) {
        const size_t end = c + 1 == n ? w.size() : at + 1;
        cells.push_back(join(w, at, end, p.sep));
        at = end;
    }
    return true;
}

}  // namespace cloudctl_detail

// TEXT line by line. A daemon's header line opens its part; the header of
// a part that opens at the top goes before its first row (at the top when
// it has none). Lines that are no row of the open part stay as they are.
inline std::vector<cloudctl_line> cloudctl_parse(const std::string& text, const std::vector<cloudctl_part>& parts)
{
    std::vector<cloudctl_line> out;
    int open = -1;
    bool pending = false;  // the open part's header is still to place
    if (parts.size() == 1 && parts[0].daemon_header.empty())
        open = 0, pending = true;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        auto starts = std::find_if(parts.begin(), parts.end(), [&](const cloudctl_part& p) {
            return !p.daemon_header.empty() && p.daemon_header == line;
        });
        if (starts != parts.end()) {
            open = static_cast<int>(starts - parts.begin());
            pending = false;
            out.push_back(cloudctl_line{open, true, {}, {}});
            continue;
        }
        cloudctl_line l;
        if (open >= 0 && cloudctl_detail::split(line, parts[static_cast<size_t>(open)], l.cells)) {
            if (pending)
                out.push_back(cloudctl_line{open, true, {}, {}});
            pending = false;
            l.part = open;
        } else {
            l.text = line;
        }
        out.push_back(std::move(l));
    }
    if (pending)
        out.insert(out.begin(), cloudctl_line{open, true, {}, {}});
    return out;
}

// The listing for people: each part's rows in columns two blanks apart
// under the column names, values in the units of their columns.
inline std::string cloudctl_table(const std::string& text, const std::vector<cloudctl_part>& parts)
{
    std::vector<cloudctl_line> lines = cloudctl_parse(text, parts);
    std::vector<std::vector<size_t>> width(parts.size());
    for (size_t p = 0; p < parts.size(); p++)
        for (const cloudctl_column& c : parts[p].columns)
            width[p].push_back(c.name.size());
    for (cloudctl_line& l : lines) {
        if (l.part < 0)
            continue;
        const size_t p = static_cast<size_t>(l.part);
        if (l.header)
            for (const cloudctl_column& c : parts[p].columns)
                l.cells.push_back(c.name);
        else
            for (size_t i = 0; i < l.cells.size(); i++)
                l.cells[i] = cloudctl_human(l.cells[i], parts[p].columns[i].unit);
        for (size_t i = 0; i < l.cells.size(); i++)
            width[p][i] = std::max(width[p][i], l.cells[i].size());
    }
    std::string out;
    for (const cloudctl_line& l : lines) {
        if (l.part < 0) {
            out += l.text + "\n";
            continue;
        }
        for (size_t i = 0; i < l.cells.size(); i++) {
            out += l.cells[i];
            if (i + 1 < l.cells.size())
                out += std::string(width[static_cast<size_t>(l.part)][i] - l.cells[i].size() + 2, ' ');
        }
        out += "\n";
    }
    return out;
}

// The listing for programs: one JSON object per line, a row as its column
// names and raw values, a name=value line as {"name":value}; other lines
// (headers, bare words such as "ok") are left out.
inline std::string cloudctl_json(const std::string& text, const std::vector<cloudctl_part>& parts)
{
    std::string out;
    for (const cloudctl_line& l : cloudctl_parse(text, parts)) {
        if (l.header)
            continue;
        if (l.part >= 0) {
            const cloudctl_part& p = parts[static_cast<size_t>(l.part)];
            for (size_t i = 0; i < l.cells.size(); i++)
                out += (i == 0 ? "{" : ",") + cloudctl_json_string(p.columns[i].name) + ":" +
                       cloudctl_json_value(l.cells[i], p.columns[i].unit);
            out += "}\n";
            continue;
        }
        const size_t eq = l.text.find('=');
        if (eq == 0 || eq == std::string::npos || l.text.find(' ') < eq)
            continue;
        out += "{" + cloudctl_json_string(l.text.substr(0, eq)) + ":" +
               cloudctl_json_value(l.text.substr(eq + 1), cloudctl_unit::number) + "}\n";
    }
    return out;
}
