/*
 * main.cpp - kovdsk, the operator's command over libKovDsk: everything it
 * does goes through the library's public API, as any appliance process's
 * would. Each subcommand lives with its kin (see cli.h).
 */
#include "cli.h"

#include <cstdio>
#include <cstring>
#include <ctime>
#include <iostream>

namespace kovcli {

void Fail(const std::string &operation, int err)
{
    const char *name = err == EINIT ? "EINIT" : strerrorname_np(err);
    const char *meaning = err == EINIT ? "the process is not attached to a table" : strerror(err);
    fprintf(stderr, "kovdsk: %s: %s (%s)\n", operation.c_str(), name ? name : "?", meaning);
    if (err == EINIT)
        fprintf(stderr, "kovdsk: no table exists yet; create it with: kovdsk init ROOT\n");
    throw Failed{1};
}

void Usage(const std::string &message)
{
    fprintf(stderr, "kovdsk: %s\n", message.c_str());
    throw Failed{2};
}

void Attach()
{
    if (KovDskInit() != 0)
        Fail("KovDskInit", errno);
}

namespace {

uint64_t ParseNumber(const std::string &text, const char *what)
{
    char *end = nullptr;
    errno = 0;
    unsigned long long v = strtoull(text.c_str(), &end, 0);
    if (text.empty() || *end != '\0' || errno != 0 || text[0] == '-')
        Usage(std::string("not a number for the ") + what + ": \"" + text + "\"");
    return v;
}

} // namespace

Area ParseArea(const std::string &text)
{
    Area a;
    std::vector<std::string> parts;
    size_t start = 0;
    for (size_t at; (at = text.find(':', start)) != std::string::npos; start = at + 1)
        parts.push_back(text.substr(start, at - start));
    parts.push_back(text.substr(start));
    if (parts.size() == 1 && parts[0] == "general")
        return a;
    if (parts.size() == 2 && parts[0] == "uid") {
        a.selector = 1;
        a.id = ParseNumber(parts[1], "id");
        return a;
    }
    if ((parts.size() == 2 || parts.size() == 3) && parts[0] == "usr" && !parts[1].empty()) {
        a.selector = parts.size() == 2 ? 2 : 3;
        a.user = parts[1];
        if (parts.size() == 3)
            a.pass = ParseNumber(parts[2], "pass");
        return a;
    }
    Usage("not an area: \"" + text + "\" (general, uid:ID, usr:USER or usr:USER:PASS)");
}

void AddFileArgs(CLI::App *cmd, FileArgs &args)
{
    cmd->add_option("name", args.name, "file name")->required();
    cmd->add_option("-k,--kind", args.kind, "kind, 0 to 255")->check(CLI::Range(0, 255));
    cmd->add_option("-a,--area", args.area, "general, uid:ID, usr:USER or usr:USER:PASS")
        ->capture_default_str();
}

void Print(const Table &table, bool json)
{
    if (json) {
        std::cout << table.json.dump(2) << "\n";
        return;
    }
    std::vector<size_t> width(table.header.size());
    for (size_t c = 0; c < width.size(); c++) {
        width[c] = table.header[c].size();
        for (const auto &row : table.rows)
            width[c] = std::max(width[c], row[c].size());
    }
    auto line = [&](const std::vector<std::string> &cells) {
        std::string out;
        for (size_t c = 0; c < cells.size(); c++) {
            out += cells[c];
            if (c + 1 < cells.size())
                out += std::string(width[c] - cells[c].size() + 2, ' ');
        }
        std::cout << out << "\n";
    };
    line(table.header);
    for (const auto &row : table.rows)
        line(row);
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

} // namespace kovcli

int main(int argc, char **argv)
{
    CLI::App app{"kovdsk - look into and drive the appliance's disk library"};
    app.require_subcommand(1);
    kovcli::AddAdminCommands(app);
    kovcli::AddStoreCommands(app);
    kovcli::AddDriveCommands(app);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &e) {
        return app.exit(e);
    } catch (const kovcli::Failed &f) {
        return f.code;
    }
    return 0;
}
