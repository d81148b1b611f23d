// What the shared object shows to the dynamic linker: exactly the API, the
// soname, and the date component as a dependency by its soname.
#include "harness/boot.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <regex>
#include <set>
#include <string>
#include <sys/types.h>
#include <kovdsk.h>
#include <ctime>

namespace {

// Every operation and exported object the public header declares.
std::set<std::string> HeaderNames()
{
    std::ifstream in(KOVTEST_HEADER);
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::set<std::string> names;
    std::regex decl(R"((?:^|\n)(?:int|void)\s+(KovDsk\w+)\s*\(|extern\s+[\w\s\*]+?\b(\w+)(?:\[\d+\])?;)");
    for (std::sregex_iterator it(text.begin(), text.end(), decl), end; it != end; ++it)
        names.insert((*it)[1].matched ? (*it)[1].str() : (*it)[2].str());
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
