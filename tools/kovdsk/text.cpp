/*
 * text.cpp - names as people and programs read them. A stored name may
 * hold any bytes, so nothing here assumes UTF-8: JSON gets valid text plus
 * the exact bytes in hex where the text had to replace some, and a table
 * row stays one line whatever a cell holds.
 */
#include "cli.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>

namespace kovcli {
namespace {

// The length of the valid UTF-8 sequence at p (left bytes remain), or 0:
// no overlong forms, no surrogates, nothing past U+10FFFF.
size_t Utf8Sequence(const unsigned char *p, size_t left)
{
    unsigned c = p[0];
    if (c < 0x80)
        return 1;
    size_t n = c >= 0xC2 && c <= 0xDF ? 2 : c >= 0xE0 && c <= 0xEF ? 3 : c >= 0xF0 && c <= 0xF4 ? 4 : 0;
    if (n == 0 || left < n)
        return 0;
    for (size_t i = 1; i < n; i++)
        if ((p[i] & 0xC0) != 0x80)
            return 0;
    if ((c == 0xE0 && p[1] < 0xA0) || (c == 0xED && p[1] > 0x9F) || (c == 0xF0 && p[1] < 0x90) ||
        (c == 0xF4 && p[1] > 0x8F))
        return 0;
    return n;
}

std::string Hex(const std::string &bytes)
{
    static const char digits[] = "0123456789abcdef";
    std::string out;
    for (unsigned char c : bytes) {
        out += digits[c >> 4];
        out += digits[c & 0xF];
    }
    return out;
}

// Columns a cell takes on a terminal: one per character. Cells are
// escaped first, so they are valid UTF-8.
size_t Columns(const std::string &cell)
{
    size_t n = 0;
    for (unsigned char c : cell)
        n += (c & 0xC0) != 0x80;
    return n;
}

} // namespace

void PutText(nlohmann::json &object, const std::string &key, const std::string &bytes)
{
    const auto *p = reinterpret_cast<const unsigned char *>(bytes.data());
    std::string text;
    bool exact = true;
    for (size_t i = 0; i < bytes.size();) {
        size_t n = Utf8Sequence(p + i, bytes.size() - i);
        if (n == 0) {
            text += "\xEF\xBF\xBD";  // U+FFFD
            exact = false;
            i++;
        } else {
            text.append(bytes, i, n);
            i += n;
        }
    }
    object[key] = text;
    if (!exact)
        object[key + "_hex"] = Hex(bytes);
}

std::string Escape(const std::string &bytes)
{
    const auto *p = reinterpret_cast<const unsigned char *>(bytes.data());
    std::string out;
    for (size_t i = 0; i < bytes.size();) {
        unsigned char c = p[i];
        size_t n = Utf8Sequence(p + i, bytes.size() - i);
        // C1 controls (U+0080 to U+009F) move a terminal's cursor as the
        // C0 ones do.
        bool control = c < 0x20 || c == 0x7F || (n == 2 && c == 0xC2 && p[i + 1] < 0xA0);
        if (c == '\\') {
            out += "\\\\";
        } else if (c == '\n') {
            out += "\\n";
        } else if (c == '\t') {
            out += "\\t";
        } else if (n != 0 && !control) {
            out.append(bytes, i, n);
            i += n;
            continue;
        } else {
            size_t bad = n == 0 ? 1 : n;
            for (size_t k = 0; k < bad; k++) {
                char hex[8];
                snprintf(hex, sizeof hex, "\\x%02X", p[i + k]);
                out += hex;
            }
            i += bad;
            continue;
        }
        i++;
    }
    return out;
}

std::string Dump(const nlohmann::json &j)
{
    return j.dump(2, ' ', false, nlohmann::json::error_handler_t::replace);
}

void Print(const Table &table, bool json)
{
    if (json) {
        Out() << Dump(table.json) << "\n";
        return;
    }
    std::vector<std::vector<std::string>> lines{table.header};
    for (const auto &row : table.rows) {
        lines.emplace_back();
        for (const std::string &cell : row)
            lines.back().push_back(Escape(cell));
    }
    std::vector<size_t> width(table.header.size());
    for (const auto &cells : lines)
        for (size_t c = 0; c < width.size(); c++)
            width[c] = std::max(width[c], Columns(cells[c]));
    for (const auto &cells : lines) {
        std::string out;
        for (size_t c = 0; c < cells.size(); c++) {
            out += cells[c];
            if (c + 1 < cells.size())
                out += std::string(width[c] - Columns(cells[c]) + 2, ' ');
        }
        Out() << out << "\n";
    }
}

std::string HumanSize(int64_t bytes)
{
    const char *units[] = {"B", "KiB", "MiB", "GiB"};
    double v = static_cast<double>(bytes);
    int u = 0;
    while (v >= 1024 && u < 3) {
        v /= 1024;
        u++;
    }
    char buf[32];
    snprintf(buf, sizeof buf, u == 0 ? "%.0f %s" : "%.1f %s", v, units[u]);
    return buf;
}

std::string HumanTime(int64_t seconds)
{
    time_t t = static_cast<time_t>(seconds);
    struct tm tm;
    char buf[32];
    if (gmtime_r(&t, &tm) == nullptr || strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%SZ", &tm) == 0)
        return std::to_string(seconds);
    return buf;
}

std::string Field(const char *text, size_t size) { return std::string(text, strnlen(text, size)); }

} // namespace kovcli
