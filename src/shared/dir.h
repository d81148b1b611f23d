/*
 * dir.h - a directory walked entry by entry, "." and ".." passed over, and
 * closed on every way out of the scope that opened it.
 */
#ifndef KOVDSK_DIR_H
#define KOVDSK_DIR_H

#include "shared/shared.h"

#include <cstring>
#include <dirent.h>

class KovDskDir {
public:
    explicit KovDskDir(const char *path) : dir_(opendir(path)) {}

    // A directory below the root: its full path goes to fullpath (a path
    // buffer), for the joins of the walk. Not ok, with ENAMETOOLONG, if the
    // path would not fit.
    KovDskDir(const char *rel, char *fullpath)
        : dir_(KovDskFullPath(fullpath, rel) == 0 ? opendir(fullpath) : nullptr) {}
    ~KovDskDir()
    {
        if (dir_ != nullptr) {
            KovDskErrnoKeeper keep;
            closedir(dir_);
        }
    }
    KovDskDir(const KovDskDir &) = delete;
    KovDskDir &operator=(const KovDskDir &) = delete;

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

    // The type of that entry as the directory tells it (DT_REG, DT_LNK...),
    // which saves an lstat; DT_UNKNOWN where the file system does not say.
    unsigned char type() const { return last_->d_type; }

private:
    DIR *dir_;
    struct dirent *last_ = nullptr;
};

#endif // KOVDSK_DIR_H
