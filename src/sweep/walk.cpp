/*
 * walk.cpp - the one walk by which the delete and both sweeps take stored
 * files out of an area: each entry is judged by its type (without following
 * a link) and the rule, and taken the way its area asks.
 */
#include "sweep/sweep.h"

#include "shared/dir.h"
#include "store/store.h"

#include <cstdio>
#include <cstring>

bool KovDskRuleTakes(const KovDskRule &rule, const char *stored, const char *path)
{
    switch (rule.what) {
    case KovDskRule::ByName: {
        int kind;
        char name[KOVDSK_FNAME_BUF];
        return KovDskNameParse(stored, &kind, name, nullptr, nullptr, nullptr, nullptr) == 0 &&
               KovDskNameMatches(rule.mode, rule.name, rule.kind, name, static_cast<unsigned>(kind));
    }
    case KovDskRule::Expired: {
        char deadline[KOVDSK_DEADLINE_BUF];
        return KovDskNameParse(stored, nullptr, nullptr, nullptr, nullptr, deadline, nullptr) == 0 &&
               KovDskExpired(rule.now, deadline);
    }
    case KovDskRule::Temporary:
        return strstr(path, ".1") != nullptr;
    case KovDskRule::Everything:
        return true;
    }
    return false;
}

int KovDskTake(const char *rel, const KovDskWalk &walk, int *left)
{
    char dirpath[KOVDSK_PATH_MAX];
    KovDskDir dir(rel, dirpath);
    if (!dir.ok())
        return -1;
    while (const char *entry = dir.next()) {
        char path[KOVDSK_PATH_MAX];
        unsigned char type = dir.type();
        bool takes = (type == DT_REG || (type == DT_LNK && walk.links)) &&
                     KovDskJoin(path, dirpath, entry) && KovDskRuleTakes(walk.rule, entry, path) &&
                     (type == DT_REG || KovDskOwnLink(path));
        if (!takes) {
            ++*left;
            continue;
        }
        int rc;
        if (type == DT_LNK || walk.regular == KovDskWalk::Linked)
            rc = KovDskLinkedDel(path);
        else if (walk.regular == KovDskWalk::Remove)
            rc = remove(path);
        else
            rc = KovDskDiscard(path);
        if (rc != 0)
            return -1;
    }
    return 0;
}
