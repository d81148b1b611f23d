/*
 * tree.cpp - the store's directory tree under the root:
 *
 *   general                 the common area, and a link to every pass-area file
 *   uid/<%016llX id>        an id area
 *   usr/<hex user>          a user area: links to its pass areas' files, and
 *   usr/<hex user>/<pass>   the pass areas
 *   .trash                  files moved aside in trash mode (trash.cpp)
 *
 * The area path rule is here and nowhere else. A file of a pass area has
 * three entries of one stored name: the file, and a link in "general" and in
 * its user's directory, both holding the file's full path. A link of any
 * other shape was not made here: it is no stored file and never followed.
 */
#include "store/store.h"

#include "shared/dir.h"

#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// Copies the text up to the next "/" into out (cap bytes with terminator).
// Returns the position behind the "/", or nullptr when there is no "/" or
// the text would not fit.
const char *KovDskPiece(const char *from, char *out, size_t cap)
{
    const char *slash = strchr(from, '/');
    if (slash == nullptr)
        return nullptr;
    size_t len = static_cast<size_t>(slash - from);
    if (len >= cap)
        return nullptr;
    memcpy(out, from, len);
    out[len] = '\0';
    return slash + 1;
}

} // namespace

bool KovDskNameMatches(int mode, const char *name, unsigned kind, const char *got_name,
                       unsigned got_kind)
{
    if (mode == KOVDSK_MATCH_EXACT)
        return got_kind == kind && strcmp(got_name, name) == 0;
    if (mode == KOVDSK_MATCH_PREFIX)
        return (kind == 0 || got_kind == kind) && strncmp(got_name, name, strlen(name)) == 0;
    return true;
}

int KovDskAreaArg(bool bad, unsigned area, uint64_t id, const char *user, uint64_t pass,
                  unsigned accepted, char *areapath)
{
    if (!KovDskAttached())
        return -1;
    if (bad) {
        errno = EINVAL;
        return -1;
    }
    return KovDskAreaPath(areapath, area, id, user, pass, accepted);
}

void KovDskUserPath(char *out, const char *user, int size)
{
    memcpy(out, "usr/", 4);
    KovDskHexEnc(user, out + 4, size);
}

int KovDskAreaPath(char *out, unsigned area, uint64_t id, const char *user,
                   uint64_t pass, unsigned accepted)
{
    if (area > KOVDSK_AREA_PASS || (accepted & 1u << area) == 0 || (area >= KOVDSK_AREA_USER && user == nullptr)) {
        errno = EINVAL;
        return -1;
    }
    switch (area) {
    case 0:
        strcpy(out, "general");
        break;
    case 1:
        sprintf(out, "uid/%016" PRIX64, id);
        break;
    default:
        KovDskUserPath(out, user, KOVDSK_USER_SIZE);
        if (area == KOVDSK_AREA_PASS)
            sprintf(out + strlen(out), "/%016" PRIX64, pass);
        break;
    }
    return 0;
}

int KovDskNameFind(const char *area, unsigned kind, const char *name, char *out,
                   int mode, int linkflag)
{
    char dirpath[KOVDSK_PATH_MAX];
    KovDskDir dir(area, dirpath);
    if (!dir.ok())
        return 0;

    int count = 0;
    while (const char *entry = dir.next()) {
        unsigned char type = dir.type();
        if (type != DT_REG && !(linkflag && type == DT_LNK))
            continue;
        int got_kind;
        char got_name[KOVDSK_FNAME_BUF];
        if (KovDskNameParse(entry, &got_kind, got_name, nullptr, nullptr, nullptr, nullptr) != 0 ||
            !KovDskNameMatches(mode, name, kind, got_name, static_cast<unsigned>(got_kind)))
            continue;
        char path[KOVDSK_PATH_MAX];
        if (type == DT_LNK && !(KovDskJoin(path, dirpath, entry) && KovDskOwnLink(path)))
            continue;  // a link the library did not make is no stored file
        strncpy(out, entry, KOVDSK_STORED_MAX - 1);  // zero-fills the rest
        out[KOVDSK_STORED_MAX - 1] = '\0';
        count++;
    }
    return count;
}

int KovDskPathSplit(const char *path, char *user, char *pass, char *file)
{
    char copy[KOVDSK_PATH_MAX];
    strncpy(copy, path, sizeof copy - 1);
    copy[sizeof copy - 1] = '\0';

    const char *at = strstr(copy, "/usr/");
    if (at != nullptr)
        at = KovDskPiece(at + 5, user, KOVDSK_USER_HEX_BUF);
    if (at != nullptr)
        at = KovDskPiece(at, pass, KOVDSK_PASS_HEX_BUF);
    if (at == nullptr || strlen(at) >= KOVDSK_STORED_MAX) {
        errno = EINVAL;
        return -1;
    }
    strcpy(file, at);
    return 0;
}

int KovDskLinkMake(const char *fullpath)
{
    char user[KOVDSK_USER_HEX_BUF], pass[KOVDSK_PASS_HEX_BUF], file[KOVDSK_STORED_MAX];
    if (KovDskPathSplit(fullpath, user, pass, file) == -1)
        return -1;

    // Each link goes into a directory of the store, not through a link to
    // somewhere else. No rollback: a failure of the second leaves the first.
    char rel[KOVDSK_PATH_MAX], link[KOVDSK_PATH_MAX];
    snprintf(rel, sizeof rel, "usr/%s", user);
    const char *dirs[] = {"general", rel};
    for (const char *dir : dirs) {
        char at[KOVDSK_PATH_MAX];
        snprintf(at, sizeof at, "%s/%s", dir, file);
        if (KovDskRealDir(dir) == -1 || KovDskFullPath(link, at) == -1 ||
            symlink(fullpath, link) == -1)
            return -1;
    }
    return 0;
}

int KovDskLinkResolve(const char *link, char *out)
{
    struct stat st;
    if (lstat(link, &st) != 0 || !S_ISLNK(st.st_mode)) {
        errno = EINVAL;
        return -1;
    }
    char text[KOVDSK_PATH_MAX] = {};
    if (readlink(link, text, sizeof text - 1) == -1)
        return -1;

    char user[KOVDSK_USER_HEX_BUF], pass[KOVDSK_PASS_HEX_BUF], file[KOVDSK_STORED_MAX];
    if (KovDskPathSplit(text, user, pass, file) == -1)
        return -1;
    // No link of the library's making climbs with "..", points below the
    // pass area, or runs through a directory that is a link.
    char rel[KOVDSK_PATH_MAX], real[KOVDSK_PATH_MAX];
    snprintf(rel, sizeof rel, "usr/%s/%s", user, pass);
    if (KovDskClimbs(rel) || KovDskClimbs(file) || strchr(file, '/') != nullptr) {
        errno = EINVAL;
        return -1;
    }
    if (KovDskRealDir(rel) == -1)
        return -1;
    // The root of the table, not the link's: links survive a move of the root.
    strcat(rel, "/");
    strcat(rel, file);
    if (KovDskFullPath(real, rel) == -1)
        return -1;
    memset(out, 0, KOVDSK_PATH_MAX);
    strcpy(out, real);
    return 0;
}

bool KovDskOwnLink(const char *path)
{
    char real[KOVDSK_PATH_MAX];
    KovDskErrnoKeeper keep;
    return KovDskLinkResolve(path, real) == 0;
}

void KovDskResolveInPlace(char *path)
{
    struct stat st;
    if (lstat(path, &st) != 0 || !S_ISLNK(st.st_mode))
        return;
    char link[KOVDSK_PATH_MAX];
    strcpy(link, path);
    KovDskLinkResolve(link, path);  // leaves path untouched when it fails
}
