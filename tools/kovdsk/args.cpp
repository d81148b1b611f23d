/*
 * args.cpp - arguments checked against what the library would do with
 * them. The library cuts a file name at 32 bytes, a user at 63 and the
 * tags at 16 and 64, drops a deadline that is not 10 digits and never
 * looks at the date those digits make; each of these would leave a stored
 * file that later commands cannot find, so each is a usage error here,
 * with the limit in the message.
 */
#include "cli.h"

#include "store/store.h"

#include <cerrno>
#include <cstdlib>
#include <tuple>

namespace kovcli {
namespace {

constexpr size_t kNameMax = KOVDSK_FNAME_BUF - 1;
constexpr size_t kUserMax = KOVDSK_USER_SIZE - 1;
constexpr size_t kShortTagMax = KOVDSK_STAG_BUF - 1;
constexpr size_t kLongTagMax = KOVDSK_LTAG_BUF - 1;
constexpr size_t kDeadlineDigits = KOVDSK_DEADLINE_BUF - 1;

std::string Quoted(const std::string &text) { return "\"" + Escape(text) + "\""; }

// Decimal, or hex after 0x; the whole 64 bits, nothing else (no octal, no
// sign, no blanks).
uint64_t ParseNumber(const std::string &text, const char *what)
{
    bool hex = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
    std::string digits = hex ? text.substr(2) : text;
    if (digits.empty() ||
        digits.find_first_not_of(hex ? "0123456789abcdefABCDEF" : "0123456789") != std::string::npos)
        Usage(std::string("not a number for the ") + what + ": " + Quoted(text) +
              " (decimal, or hex after 0x)");
    errno = 0;
    unsigned long long v = strtoull(digits.c_str(), nullptr, hex ? 16 : 10);
    if (errno == ERANGE)
        Usage(std::string("the ") + what + " " + Quoted(text) + " does not fit in 64 bits");
    return v;
}

int DaysIn(int month, int year)
{
    static const int days[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    bool leap = year % 4 == 0 && (year % 100 != 0 || year % 400 == 0);
    return month == 2 && leap ? 29 : days[month - 1];
}

} // namespace

Area ParseArea(const std::string &text, unsigned accepted)
{
    static const char *forms[] = {"general", "uid:ID", "usr:USER", "usr:USER:PASS"};
    Area a;
    if (text == "general") {
        a.selector = 0;
    } else if (text.rfind("uid:", 0) == 0) {
        a.selector = 1;
        a.id = ParseNumber(text.substr(4), "id");
    } else if (text.rfind("usr:", 0) == 0) {
        std::string rest = text.substr(4);
        size_t colon = rest.find(':');
        a.selector = colon == std::string::npos ? 2 : 3;
        a.user = rest.substr(0, colon);
        CheckUser(a.user);
        if (a.selector == 3)
            a.pass = ParseNumber(rest.substr(colon + 1), "pass");
    } else {
        a.selector = 4;
    }
    if (a.selector > 3 || (accepted & 1u << a.selector) == 0) {
        std::string allowed;
        for (unsigned s = 0; s < 4; s++)
            if (accepted & 1u << s)
                allowed += (allowed.empty() ? "" : ", ") + std::string(forms[s]);
        Usage("the area " + Quoted(text) + " is not taken here; the areas are " + allowed +
              (a.selector == 2 ? " (a user area holds no files of its own, only links)" : ""));
    }
    return a;
}

void CheckName(const std::string &name, bool prefix)
{
    if (prefix ? name.size() > kNameMax : name.empty() || name.size() > kNameMax)
        Usage((prefix ? "the name prefix " : "the file name ") + Quoted(name) + " has " +
              std::to_string(name.size()) + " bytes; " + (prefix ? "at most " : "1 to ") +
              std::to_string(kNameMax) + " are allowed");
}

void CheckUser(const std::string &user)
{
    if (user.empty() || user.size() > kUserMax)
        Usage("the user " + Quoted(user) + " has " + std::to_string(user.size()) + " bytes; 1 to " +
              std::to_string(kUserMax) + " are allowed");
}

void CheckTags(const std::string &short_tag, const std::string &long_tag)
{
    for (auto [what, tag, max] : {std::tuple{"short tag", &short_tag, kShortTagMax},
                                  {"long tag", &long_tag, kLongTagMax}}) {
        if (tag->size() > max)
            Usage(std::string("the ") + what + " " + Quoted(*tag) + " has " + std::to_string(tag->size()) +
                  " bytes; at most " + std::to_string(max) + " are allowed");
    }
}

void CheckDeadline(const std::string &deadline)
{
    if (deadline.empty())
        return;
    std::string what = "the deadline " + Quoted(deadline);
    if (deadline.size() != kDeadlineDigits || deadline.find_first_not_of("0123456789") != std::string::npos)
        Usage(what + " is not 10 digits YYMMDDHHMM (UTC)");
    auto two = [&](size_t at) { return std::stoi(deadline.substr(at, 2)); };
    int year = 2000 + two(0), month = two(2), day = two(4), hour = two(6), minute = two(8);
    if (month < 1 || month > 12)
        Usage(what + ": month " + deadline.substr(2, 2) + " does not exist (01 to 12)");
    if (day < 1 || day > DaysIn(month, year))
        Usage(what + ": day " + deadline.substr(4, 2) + " does not exist in month " + deadline.substr(2, 2) +
              " of " + std::to_string(year) + " (01 to " + std::to_string(DaysIn(month, year)) + ")");
    if (hour > 23)
        Usage(what + ": hour " + deadline.substr(6, 2) + " does not exist (00 to 23)");
    if (minute > 59)
        Usage(what + ": minute " + deadline.substr(8, 2) + " does not exist (00 to 59)");
}

CLI::Option *AddFileArgs(CLI::App *cmd, FileArgs &args)
{
    CLI::Option *name = cmd->add_option("name", args.name, "file name, 1 to 32 bytes")->required();
    cmd->add_option("-k,--kind", args.kind, "kind, 0 to 255")->check(CLI::Range(0, 255));
    cmd->add_option("-a,--area", args.area, "general, uid:ID, usr:USER or usr:USER:PASS")
        ->capture_default_str();
    return name;
}

} // namespace kovcli
