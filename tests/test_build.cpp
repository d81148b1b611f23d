// What the shared object shows to the dynamic linker: exactly the API, the
// soname, and the date component as a dependency by its soname.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <regex>
#include <set>
#include <string>

namespace {

std::string Capture(const std::string &cmd)
{
    std::string out;
    FILE *p = popen(cmd.c_str(), "r");
    if (p == nullptr)
        return out;
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, p)) > 0)
        out.append(buf, n);
    pclose(p);
    return out;
}

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
    std::string nm = Capture(std::string("nm -D --defined-only ") + KOVTEST_LIBRARY);
    ASSERT_FALSE(nm.empty()) << "nm is needed (binutils)";
    std::set<std::string> got;
    std::regex line(R"(\S+\s+\w\s+(\S+))");
    for (std::sregex_iterator it(nm.begin(), nm.end(), line), end; it != end; ++it)
        got.insert((*it)[1].str());
    EXPECT_EQ(got, want);
}

TEST(Build, SonameAndDateComponentDependency)
{
    std::string dyn = Capture(std::string("readelf -d ") + KOVTEST_LIBRARY);
    EXPECT_NE(dyn.find("Library soname: [libKovDsk.so.1]"), std::string::npos) << dyn;
    EXPECT_NE(dyn.find("Shared library: [libKovDate.so.1]"), std::string::npos) << dyn;
}
