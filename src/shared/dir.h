/*
 * dir.h - a directory walked entry by entry, "." and ".." passed over, and
 * closed on every way out of the scope that opened it. A walk never goes
 * through a link: a directory of the store reached by one is no directory
 * of the store, and opening it fails with ENOTDIR.
 */
#ifndef KOVDSK_DIR_H
#define KOVDSK_DIR_H

#include "shared/shared.h"

#include <cstring>
#include <dirent.h>
#include <sys/stat.h>

class KovDskDir : KovDskScoped {
public:
    // A directory given by its full path, not a link to one.
    explicit KovDskDir(const char *path)
        : path_(path), dir_(KovDskNoLink(path) ? opendir(path) : nullptr) {}

    // A directory below the root, with no link on its way (KovDskRealDir):
    // its full path goes to fullpath (a path buffer), for the joins of the
    // walk. Not ok, with ENAMETOOLONG, if the path would not fit.
    KovDskDir(const char *rel, char *fullpath)
        : path_(fullpath),
          dir_(KovDskFullPath(fullpath, rel) == 0 && KovDskRealDir(rel) == 0 ? opendir(fullpath)
                                                                              : nullptr) {}
    ~KovDskDir()
    {
        if (dir_ != nullptr) {
            KovDskErrnoKeeper keep;
            closedir(dir_);
        }
    }

    bool ok() const { return dir_ != nullptr; }

    // The next entry's name, or nullptr at the end.
    const char *next()
    {
        while ((last_ = readdir(dir_)) != nullptr) {
            if (strcmp(last_->d_name, ".") != 0 && strcmp(last_->d_name, "..") != 0)
                return last_->d_name;
        }
        return nullptr;
    }

    // The type of that entry, seen without following a link: DT_REG,
    // DT_LNK, DT_DIR, or DT_UNKNOWN for anything else. The directory's own
    // word serves where it has one: a walk of a large area then costs no
    // lstat per entry.
    unsigned char type() const
    {
        unsigned char t = last_->d_type;
        if (t == DT_UNKNOWN) {
            char path[KOVDSK_PATH_MAX];
            struct stat st;
            if (!KovDskJoin(path, path_, last_->d_name) || lstat(path, &st) != 0)
                return DT_UNKNOWN;
            t = static_cast<unsigned char>(IFTODT(st.st_mode));
        }
        return t == DT_REG || t == DT_LNK || t == DT_DIR ? t : static_cast<unsigned char>(DT_UNKNOWN);
    }

private:
    static bool KovDskNoLink(const char *path)
    {
        struct stat st;
        if (lstat(path, &st) == 0 && S_ISLNK(st.st_mode)) {
            errno = ENOTDIR;
            return false;
        }
        return true;  // absent or not: opendir tells
    }

    const char *path_;
    DIR *dir_;
    struct dirent *last_ = nullptr;
};

#endif // KOVDSK_DIR_H
