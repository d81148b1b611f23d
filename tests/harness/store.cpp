/*
 * store.cpp - the store fixture; see store.h.
 */
#include "harness/store.h"

#include <algorithm>
#include <cstring>
#include <dirent.h>
#include <fstream>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace kovtest {

void Store::SetUp()
{
    Boot::SetUp();
    Create();
    for (const char *d : {"general", "uid", "usr", ".trash"})
        ASSERT_EQ(KovDskDirMake(d), 0);
}

bool Store::Exists(const std::string &rel) const
{
    struct stat st;
    return lstat(Path(rel).c_str(), &st) == 0;
}

long Store::Size(const std::string &rel) const
{
    struct stat st;
    return stat(Path(rel).c_str(), &st) == 0 ? (long)st.st_size : -1;
}

std::string Store::Content(const std::string &rel) const
{
    std::ifstream in(Path(rel), std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

std::string Store::LinkText(const std::string &rel) const
{
    char text[4096] = {};
    return readlink(Path(rel).c_str(), text, sizeof text - 1) < 0 ? "" : text;
}

std::string Store::Entries(const std::string &rel) const
{
    std::vector<std::string> names;
    if (DIR *d = opendir(Path(rel).c_str())) {
        while (struct dirent *e = readdir(d))
            if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0)
                names.push_back(e->d_name);
        closedir(d);
    }
    std::sort(names.begin(), names.end());
    std::string all;
    for (const std::string &n : names)
        all += (all.empty() ? "" : " ") + n;
    return all;
}

std::string Store::Put(const char *name, unsigned kind, unsigned area, uint64_t id,
                       const char *user, uint64_t pass, const std::string &bytes, int tmp,
                       const char *deadline)
{
    int h = KovDskWriteOpen(name, nullptr, nullptr, kind, area, id, user, pass, tmp, deadline);
    EXPECT_GE(h, 0) << name << ": " << strerror(errno);
    if (h < 0)
        return "";
    std::string stored = AccTbl->wr[h].file;
    if (!bytes.empty()) {
        EXPECT_EQ(KovDskWrite(h, bytes.data(), bytes.size()), (int)bytes.size());
    }
    EXPECT_EQ(KovDskWriteClose(h), 0);
    return stored;
}

std::string Store::Get(const char *name, unsigned kind, unsigned area, uint64_t id,
                       const char *user, uint64_t pass)
{
    int h = KovDskReadOpen(name, kind, area, id, user, pass);
    if (h < 0)
        return "<" + std::string(strerror(errno)) + ">";
    std::string out;
    char buf[3000];
    int n;
    while ((n = KovDskRead(h, buf, sizeof buf)) > 0)
        out.append(buf, n);
    EXPECT_EQ(n, 0);
    EXPECT_EQ(KovDskReadClose(h), 0);
    return out;
}

void Store::ExpectAllFree() const
{
    EXPECT_EQ(SemValue(KovDskTblSem_id), 1);
    EXPECT_EQ(SemValue(KovDskAccSem_id), 1);
    EXPECT_EQ(AccTbl->acc_cnt, 0);
    EXPECT_EQ(AccTbl->op_cnt, 0);
}

std::string Pattern(size_t n, unsigned seed)
{
    std::string s(n, '\0');
    unsigned x = seed * 2654435761u + 1;
    for (size_t i = 0; i < n; i++) {
        x = x * 1103515245u + 12345u;
        s[i] = static_cast<char>(x >> 16);
    }
    return s;
}

} // namespace kovtest
