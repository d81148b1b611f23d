/*
 * sweep.h - what deletions and listings share: the current-time text and
 * the expiry test (expiry.cpp), and the one walk that takes files out of an
 * area by rule (walk.cpp). The deletions themselves are in del.cpp (by name
 * and kind) and time_del.cpp (expired and temporary files).
 */
#ifndef KOVDSK_SWEEP_H
#define KOVDSK_SWEEP_H

#include "shared/shared.h"

constexpr int KOVDSK_NOW_BUF = 11;

// The date component's present time as YYMMDDHHMM, the form of a deadline,
// into 11 bytes. -1 with ETIME if the component fails.
int KovDskNowText(char *now);

// A deadline has passed when it is not empty and the current-time text is
// not below it. The comparison is of the characters: a deadline equal to
// the current minute has passed, and there is no century.
bool KovDskExpired(const char *now, const char *deadline);

// What a walk takes: stored files of a name and kind (KovDskNameMatches),
// expired stored files, temporary ones (".1" anywhere in the path, which
// the root is not allowed to hold), or every regular file (".trash").
struct KovDskRule {
    enum What { ByName, Expired, Temporary, Everything } what;
    int mode;          // ByName
    const char *name;  // ByName
    unsigned kind;     // ByName
    const char *now;   // Expired
};

// Whether the rule takes a stored name; path is where it lies (or the name
// again, for a slot's stored name).
bool KovDskRuleTakes(const KovDskRule &rule, const char *stored, const char *path);

// How a walk takes what its rule takes. Regular files go by KovDskDiscard,
// or by KovDskLinkedDel in user and pass areas, or by a plain remove in
// ".trash"; links of the library's making go by KovDskLinkedDel where the
// area holds them. Whatever else the area holds stays, links of any other
// making among it.
struct KovDskWalk {
    KovDskRule rule;
    enum Regular { Discard, Linked, Remove } regular;
    bool links;
};

// Walks the area directory rel and takes what the walk takes; *left counts
// the entries that stay. -1, with errno, if the directory cannot be opened
// or a removal fails: what was taken so far stays taken.
int KovDskTake(const char *rel, const KovDskWalk &walk, int *left);

#endif // KOVDSK_SWEEP_H
