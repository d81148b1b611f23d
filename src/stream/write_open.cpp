/*
 * write_open.cpp - the one way a new file comes into the store. In one step
 * under the table lock it refuses a file that is in use, takes the older
 * file of the same name and kind out of the way, makes the area's
 * directories, creates the file under its stored name with its links, and
 * claims a write slot. When it returns, the file exists with its final name
 * and a length of 0.
 */
#include "stream/stream.h"

#include "store/store.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

struct KovDskNewFile {
    const char *name, *short_tag, *long_tag, *deadline;
    unsigned kind, area;
    int tmp;
    char areapath[KOVDSK_PATH_MAX];
    char full[KOVDSK_PATH_MAX];  // set once the file exists
};

// Every stream on this area path, file name and kind: EALREADY for a
// writer, EAGAIN for a reader. Else the first free write slot, or ENFILE.
int KovDskClaimWriteSlot(const KovDskNewFile &nf)
{
    int free_slot = -1;
    for (int i = 0; i < KOVDSK_SLOTS; i++) {
        const KovDskAccWrEnt &w = AccTbl->wr[i];
        if (w.used != 1) {
            if (free_slot < 0)
                free_slot = i;
        } else if (strcmp(w.dir, nf.areapath) == 0 && KovDskSlotNameIs(w.name, nf.name) &&
                   w.kind == static_cast<int>(nf.kind)) {
            errno = EALREADY;
            return -1;
        }
    }
    for (const KovDskAccRdEnt &r : AccTbl->rd) {
        if (r.used == 1 && strcmp(r.dir, nf.areapath) == 0 && KovDskSlotNameIs(r.name, nf.name) &&
            r.kind == static_cast<int>(nf.kind)) {
            errno = EAGAIN;
            return -1;
        }
    }
    if (free_slot < 0)
        errno = ENFILE;
    return free_slot;
}

// The full path of the namesake that a search of `area` reports, if any.
bool KovDskNamesake(const char *area, const KovDskNewFile &nf, char *path)
{
    char found[KOVDSK_STORED_MAX];
    return KovDskNameFind(area, nf.kind, nf.name, found, KOVDSK_MATCH_EXACT, KOVDSK_LINKS_TOO) > 0 &&
           KovDskEntryPath(path, area, found) == 0;
}

// The work under the table lock. On a failed allocation *undo asks the
// caller to remove the new file once the lock is released.
int KovDskOpenLocked(KovDskNewFile &nf, bool *undo)
{
    int slot = KovDskClaimWriteSlot(nf);
    if (slot < 0)
        return -1;
    KovDskActivity busy;
    KovDskAccWrEnt &w = AccTbl->wr[slot];

    // The older file of this name and kind goes, from "general" whichever
    // area the new one is for, then from the target area. The removals'
    // results are not looked at: the new file comes regardless.
    char old[KOVDSK_PATH_MAX];
    struct stat st;
    if (KovDskNamesake("general", nf, old)) {
        bool link = lstat(old, &st) == 0 && S_ISLNK(st.st_mode);
        link ? KovDskLinkedDel(old) : KovDskDiscard(old);
    }
    if (KovDskNamesake(nf.areapath, nf, old))
        nf.area == KOVDSK_AREA_PASS ? KovDskLinkedDel(old) : KovDskDiscard(old);

    // The area's directories, each made where it is missing. Something else
    // in the place of one, a link among it, is ENOTDIR, before anything is
    // made through it.
    if (KovDskRealDir(nf.areapath, true) == -1)
        return -1;
    memset(w.file, 0, sizeof w.file);
    if (KovDskNameBuild(nf.kind, nf.name, nf.short_tag, nf.long_tag, nf.deadline, nf.tmp, w.file) == -1)
        return -1;
    if (KovDskEntryPath(nf.full, nf.areapath, w.file) == -1)
        return -1;
    // Whatever stands at the new name that no search took away (a link the
    // library did not make, a FIFO, a directory) is in the way.
    int fd = KovDskOpenFile(nf.full, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW, EEXIST, &st);
    if (fd < 0)
        return -1;
    close(fd);
    KovDskStamp(nf.full);
    sync();
    if (nf.area == KOVDSK_AREA_PASS && KovDskLinkMake(nf.full) == -1)
        return -1;  // the file stays, empty, with the links made so far

    if (nf.kind != KOVDSK_KIND_UNBUFFERED) {
        w.rawbuf = KovDskBlockBuf(&w.buf);
        if (w.rawbuf == nullptr) {
            *undo = true;
            return -1;
        }
        w.fill = 0;
    }
    w.used = 1;
    strncpy(w.name, nf.name, sizeof w.name);
    w.tmp = nf.tmp;
    w.kind = static_cast<int>(nf.kind);
    strcpy(w.dir, nf.areapath);  // an area path is short
    sync();
    return slot;
}

} // namespace

int KovDskWriteOpen(const char *name, const char *short_tag, const char *long_tag,
                    unsigned int kind, unsigned int area, uint64_t id, const char *user,
                    uint64_t pass, int tmp, const char *deadline)
{
    KovDskNewFile nf = {};
    if (KovDskAreaArg(KovDskNoText(name) || kind > KOVDSK_KIND_MAX, area, id, user, pass,
                      KOVDSK_AREAS_WRITE, nf.areapath) == -1)
        return -1;
    nf.name = name;
    nf.short_tag = short_tag;
    nf.long_tag = long_tag;
    nf.deadline = KovDskIsDeadline(deadline) ? deadline : nullptr;  // else none, no error
    nf.kind = kind;
    nf.area = area;
    nf.tmp = tmp != 0;

    bool undo = false;
    int slot;
    {
        KovDskTableLock lock;
        slot = KovDskOpenLocked(nf, &undo);
    }
    if (undo) {
        KovDskErrnoKeeper keep;
        remove(nf.full);  // outside the lock; the links, if any, stay
    }
    return slot;
}
