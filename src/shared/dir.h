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
        while (struct dirent *e = readdir(dir_)) {
            if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0)
                return e->d_name;
        }
        return nullptr;
    }

private:
    DIR *dir_;
};

#endif // KOVDSK_DIR_H
