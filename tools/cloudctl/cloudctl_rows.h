// Layout of the daemon's text listings for people: '|'-separated rows in
// aligned columns. Header-only so that the unit tests can use it without
// the client.
#pragma once

#include <algorithm>
#include <sstream>
#include <string>
#include <vector>

// Lines of '|'-separated values laid out in aligned columns (two blanks
// apart); other lines stay as they are.
inline std::string cloudctl_align(const std::string& text)
{
    std::vector<std::vector<std::string>> rows;
    std::vector<std::string> lines;
    std::vector<size_t> width;
    for (size_t pos = 0; pos < text.size();) {
        size_t eol = text.find('\n', pos);
        if (eol == std::string::npos)
            eol = text.size();
        lines.push_back(text.substr(pos, eol - pos));
        pos = eol + 1;
    }
    for (const std::string& l : lines) {
        std::vector<std::string> cells;
        if (l.find('|') != std::string::npos) {
            for (size_t p = 0;;) {
                size_t bar = l.find('|', p);
                cells.push_back(l.substr(p, bar == std::string::npos ? std::string::npos : bar - p));
                if (bar == std::string::npos)
                    break;
                p = bar + 1;
            }
        }
        for (size_t i = 0; i < cells.size(); i++) {
            if (width.size() <= i)
                width.push_back(0);
            width[i] = std::max(width[i], cells[i].size());
        }
        rows.push_back(std::move(cells));
    }
    std::string out;
    for (size_t r = 0; r < lines.size(); r++) {
        if (rows[r].empty()) {
            out += lines[r] + "\n";
            continue;
        }
        std::string line;
        for (size_t i = 0; i < rows[r].size(); i++) {
            line += rows[r][i];
            if (i + 1 < rows[r].size())
                line += std::string(width[i] - rows[r][i].size() + 2, ' ');
        }
        out += line + "\n";
    }
    return out;
}

// The values one '|' apart.
inline std::string cloudctl_join(const std::vector<std::string>& v)
{
    std::string out;
    for (const std::string& f : v)
        out += (out.empty() ? "" : "|") + f;
    return out;
}

// One part of a listing: the header line the daemon prints before it
// (empty: the part starts at the top, without one) and the names of its
// columns.
struct cloudctl_part {
    std::string daemon_header;
    std::vector<std::string> columns;
};

// Lines of blank-separated values as '|'-separated rows under their part's
// columns, aligned part by part: the first words are the leading columns,
// the rest of the line (blanks and all) the last one; an empty value stays
// an empty cell, a '|' in a value becomes '/'. A daemon's header line
// starts its part and is replaced by the column names. Lines outside every
// part, and lines with fewer words than a row has columns (total=N and the
// like), stay as they are.
inline std::string cloudctl_space_parts(const std::string& text, const std::vector<cloudctl_part>& parts)
{
    std::string out, section;
    const cloudctl_part* open = nullptr;
    auto flush = [&] {
        out += open != nullptr ? cloudctl_align(cloudctl_join(open->columns) + "\n" + section) : section;
        section.clear();
    };
    if (parts.size() == 1 && parts[0].daemon_header.empty())
        open = &parts[0];
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        auto starts = std::find_if(parts.begin(), parts.end(), [&](const cloudctl_part& p) {
            return !p.daemon_header.empty() && p.daemon_header == line;
        });
        if (starts != parts.end()) {
            flush();
            open = &*starts;
            continue;
        }
        const size_t n = open != nullptr ? open->columns.size() : 0;
        std::vector<std::string> f;
        size_t pos = 0;
        while (f.size() + 1 < n) {
            size_t sp = line.find(' ', pos);
            if (sp == std::string::npos)
                break;
            f.push_back(line.substr(pos, sp - pos));
            pos = sp + 1;
        }
        if (n == 0 || f.size() + 1 < n) {
            section += line + "\n";
            continue;
        }
        f.push_back(line.substr(pos));
        for (std::string& v : f)
            std::replace(v.begin(), v.end(), '|', '/');
        section += cloudctl_join(f) + "\n";
    }
    flush();
    return out;
}

// A listing of one part without a header of the daemon's.
inline std::string cloudctl_space_rows(const std::string& text, const std::vector<std::string>& columns)
{
    return cloudctl_space_parts(text, {{"", columns}});
}
