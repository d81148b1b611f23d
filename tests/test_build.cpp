// What the shared object shows to the dynamic linker: exactly the API, the
// soname, and the date component as a dependency by its soname.
#include "harness/boot.h"

#include <gtest/gtest.h>

#include <cctype>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <regex>
#include <set>
#include <string>
#include <sys/types.h>
#include <kovdsk.h>
#include <ctime>
#include <vector>

namespace {

std::string Text(const std::string &path)
{
    std::ifstream in(path);
    return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

// Every operation and exported object the public header declares.
std::set<std::string> HeaderNames()
{
    std::string text = Text(KOVTEST_HEADER);
    std::set<std::string> names;
    std::regex decl(R"((?:^|\n)(?:int|void)\s+(KovDsk\w+)\s*\(|extern\s+[\w\s\*]+?\b(\w+)(?:\[\d+\])?;)");
    for (std::sregex_iterator it(text.begin(), text.end(), decl), end; it != end; ++it)
        names.insert((*it)[1].matched ? (*it)[1].str() : (*it)[2].str());
    return names;
}

// The export list's global names, in its order. It lies in the source tree
// beside the header: <tree>/include/kovdsk.h, <tree>/src/libKovDsk.map.
std::vector<std::string> ExportList()
{
    std::filesystem::path tree = std::filesystem::path(KOVTEST_HEADER).parent_path().parent_path();
    std::string map = Text(tree / "src" / "libKovDsk.map");
    size_t from = map.find("global:"), to = map.find("local:");
    if (from == std::string::npos || to == std::string::npos)
        return {};
    std::string globals = map.substr(from, to - from);
    std::vector<std::string> names;
    std::regex entry(R"((\w+);)");
    for (std::sregex_iterator it(globals.begin(), globals.end(), entry), end; it != end; ++it)
        names.push_back((*it)[1].str());
    return names;
}

} // namespace

TEST(Build, LibraryExportsExactlyTheApi)
{
    std::set<std::string> want = HeaderNames();
    EXPECT_EQ(want.size(), 55u);  // 50 operations and 5 objects
    // readelf reads the ELF of any target, the cross-built one too.
    std::string syms = kovtest::Output(std::string("readelf --dyn-syms -W ") + KOVTEST_LIBRARY);
    ASSERT_FALSE(syms.empty()) << "readelf is needed (binutils)";
    std::set<std::string> got;
    // Num: Value Size Type Bind Vis Ndx Name. Exported: global or weak, and
    // defined (a section index). The local section symbol that the MIPS ABI
    // puts in the table is no export.
    std::regex line(R"(\d+:\s+\S+\s+\d+\s+\w+\s+(?:GLOBAL|WEAK)\s+\w+\s+(?:\d+|ABS)\s+(\S+))");
    for (std::sregex_iterator it(syms.begin(), syms.end(), line), end; it != end; ++it)
        got.insert((*it)[1].str());
    EXPECT_EQ(got, want);
}

TEST(Build, ErrorNumbersAndSizesOfTheTarget)
{
    EXPECT_EQ(EINIT, 141);
#if defined(__mips__)
    EXPECT_EQ(EALREADY, 149);  // the target's own number
    EXPECT_EQ(sizeof(void *), 4u);
    EXPECT_EQ(sizeof(off_t), 4u);
    EXPECT_EQ(sizeof(time_t), 4u);
    EXPECT_EQ(sizeof(KovDskAccTbl), 287128u);
    EXPECT_EQ(sizeof(KovDskAccWrEnt), 4420u);
    EXPECT_EQ(sizeof(KovDskAccRdEnt), 4424u);
    std::string head = kovtest::Output(std::string("readelf -h ") + KOVTEST_LIBRARY);
    EXPECT_NE(head.find("ELF32"), std::string::npos) << head;
    EXPECT_NE(head.find("little endian"), std::string::npos) << head;
    EXPECT_NE(head.find("MIPS"), std::string::npos) << head;
#endif
    EXPECT_EQ(sizeof(KovDskListEnt), 152u);
    EXPECT_EQ(sizeof(KovDskDirEnt), 272u);
}

TEST(Build, SonameAndDateComponentDependency)
{
    std::string dyn = kovtest::Output(std::string("readelf -d ") + KOVTEST_LIBRARY);
    EXPECT_NE(dyn.find("Library soname: [libKovDsk.so.1]"), std::string::npos) << dyn;
    EXPECT_NE(dyn.find("Shared library: [libKovDate.so.1]"), std::string::npos) << dyn;
}

// The header is the reference: each exported name's declaration comes right
// after its block, "/* Name - what it does.", and a call's block names
// arguments, result, errors, the state it leaves and the lock, in that order.
TEST(Build, HeaderDocumentsEveryExport)
{
    const std::string header = Text(KOVTEST_HEADER);
    const std::vector<std::string> exports = ExportList();
    ASSERT_EQ(exports.size(), 55u) << "50 calls and 5 objects in src/libKovDsk.map";
    const char *const headings[] = {"Arguments:", "Returns:", "Errors:", "Leaves:", "Lock:"};
    for (const std::string &name : exports) {
        // A declaration begins its line: a call's type and name, or an object's extern.
        std::regex decl("(?:^|\n)((?:int|void)\\s+" + name + "\\s*(\\()|extern\\s[^;\\n]*\\b" +
                        name + "\\b[^;\\n]*;)");
        std::smatch m;
        if (!std::regex_search(header, m, decl)) {
            ADD_FAILURE() << name << ": not declared in the header";
            continue;
        }
        const bool call = m[2].matched;
        const std::string before = header.substr(0, static_cast<size_t>(m.position(1)));
        const size_t close = before.rfind("*/");
        const size_t open = close == std::string::npos ? close : before.rfind("/*", close);
        if (open == std::string::npos || before.compare(close, std::string::npos, "*/\n") != 0 ||
            header.compare(open, name.size() + 6, "/* " + name + " - ") != 0 ||
            isspace(static_cast<unsigned char>(header[open + name.size() + 6]))) {
            ADD_FAILURE() << name << ": no \"/* " << name << " - ...\" block directly above its declaration";
            continue;
        }
        if (!call)
            continue;
        const std::string block = before.substr(open, close - open);
        size_t at = 0;
        for (const char *heading : headings) {
            size_t found = block.find(std::string("\n * ") + heading, at);
            if (found == std::string::npos) {
                ADD_FAILURE() << name << ": its block lacks \"" << heading << "\" (in the order "
                              << "Arguments, Returns, Errors, Leaves, Lock)";
                break;
            }
            at = found + 1;
        }
    }
}
