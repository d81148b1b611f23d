/*
 * kovdsk.h - the one public header of libKovDsk (soname libKovDsk.so.1),
 * and its reference: every call and object is told here, above its
 * declaration.
 *
 * Every process of the appliance that touches the disk goes through these
 * calls. The processes share one table in System V shared memory, guarded by
 * two semaphores: the table lock (KovDskTblSem_id), which guards the slots
 * and every walk and change of the store's directories, and the access lock
 * (KovDskAccSem_id), which guards the activity counter alone. The first
 * process of a boot calls KovDskInitSet with the root; every other process
 * calls KovDskInit before anything else. The table lasts until the system
 * restarts; there is no shutdown call.
 *
 * Each call's block has one shape: a line on what it does, then Arguments,
 * Returns, Errors, Leaves (the state afterwards, on success and on failure)
 * and Lock. What holds for every call is said here once, not in the blocks:
 *
 * Attached   The process is attached once KovDskInitSet or KovDskInit has
 *            succeeded in it. Every call but those two and the five ATA
 *            calls needs that; without it it answers -1 with EINIT (Errors
 *            say "EINIT" for this; KovDskClearAccessedFlg does nothing).
 * Results    -1 with errno set on failure; otherwise 0, a count or a
 *            handle. Listings return 1 instead of 0 when memory ran out
 *            during the scan: what they return then is sorted, and its
 *            count and total cover exactly what is in it.
 * Arguments  are tested before any lock is taken and before anything is
 *            changed, in this order: attached, pointers and texts, ranges.
 *            A block says where a call does something first.
 * errno      A failing system call's errno is passed on as it came (Errors
 *            name the calls); the library's own values are listed. errno
 *            survives the release of locks and the lowering of counters on
 *            the way out.
 * Paths      A path is relative to the root unless a block says otherwise,
 *            and is joined to it as root "/" path; nothing is normalised. A
 *            ".." component (not ".." inside a name, as in "a..b") is
 *            EINVAL. A joined path that would not fit KOVDSK_PATH_MAX bytes
 *            is ENAMETOOLONG, before any lock; the blocks do not repeat it.
 * Handles    A handle is a slot's index, 0 to KOVDSK_SLOTS - 1; outside
 *            that it is EINVAL. It is valid only in the process that opened
 *            the stream (the slot holds that process's descriptor and heap
 *            pointers), and in one thread at a time. A stream left open by a
 *            process that ends keeps its slot for good.
 * Memory     Arrays from listings belong to the caller, who releases them
 *            with free() while their count is above 0; with a count of 0
 *            there is nothing to release. All else the library allocates it
 *            releases within the call or at the stream's close.
 * Rollback   There is none: what a failing call made or removed before the
 *            failure stays made or removed.
 * Lock       "table lock" in a block means: the call waits for it, holds
 *            it for the work named and releases it before it returns. Only
 *            KovDskOpenTblCheck returns with it held. Neither lock is
 *            recursive: a caller holding the table lock may use only calls
 *            whose Lock says "none", any other would wait for ever. A
 *            process that dies holding a lock leaves it taken.
 * Counters   The activity counter (acc_cnt) counts calls at the disk and
 *            open read and direct streams; /dev/KovDevDat is told "busy"
 *            whenever an update leaves it at 1, "idle" at 0. The accessed
 *            flag counts finished accesses since it was last cleared. The
 *            operation counter is 1 while a plain-path call works. Leaves
 *            says where a counter stays moved after a call.
 *
 * The records below are shared between processes or handed to callers, so
 * their byte layout is fixed; the checks at the end of this file pin it.
 * Sizes of the table and its slots are those of the 32-bit target; a build
 * with wider pointers grows the slots and keeps the field order.
 *
 * This header compiles as C99 and as C++.
 */
#ifndef KOVDSK_H
#define KOVDSK_H

#include <errno.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The process is not attached to the table. */
#ifndef EINIT
#define EINIT 141
#endif
/* The file is open for writing already; the table exists already. */
#ifndef EALREADY
#define EALREADY 149
#endif

#define KOVDSK_SLOTS      32     /* write slots, and as many read slots */
#define KOVDSK_PATH_MAX   4096   /* every path buffer of the library */
#define KOVDSK_STORED_MAX 256    /* every stored-name buffer */
#define KOVDSK_NAME_FIELD 33     /* file name field of a slot */
#define KOVDSK_BLOCK      4096   /* the O_DIRECT block */
#define KOVDSK_USR_REC    65     /* one record of the user array */

/* ---- Limits of what a stored name keeps ----------------------------------
 * Longer values are cut without an error: only their first bytes reach the
 * stored name (and the directory of a user), so a lookup with the full text
 * finds nothing. */
#define KOVDSK_NAME_MAX      32  /* bytes of a file name; 1 at least */
#define KOVDSK_SHORT_TAG_MAX 16  /* bytes of a short tag */
#define KOVDSK_LONG_TAG_MAX  64  /* bytes of a long tag */
#define KOVDSK_USER_MAX      63  /* bytes of a user (KovDskPasList: 64) */
#define KOVDSK_DEADLINE_LEN  10  /* digits of a deadline, YYMMDDHHMM (UTC) */
#define KOVDSK_KIND_MAX      255 /* kinds are 0 to 255 */
#define KOVDSK_PASS_BUF      17  /* the pass buffer of KovDskPasCheck */
#define KOVDSK_IDENTIFY_SIZE 512 /* IDENTIFY DEVICE data */

/* ---- Named values of arguments -------------------------------------------- */

/* area: which store area an operation works on. */
#define KOVDSK_AREA_GENERAL 0u   /* "general", the common area */
#define KOVDSK_AREA_ID      1u   /* "uid/<id>", by the id argument */
#define KOVDSK_AREA_USER    2u   /* "usr/<user>": links only, no writes */
#define KOVDSK_AREA_PASS    3u   /* "usr/<user>/<pass>" */

/* mode of KovDskDel: how the name selects stored files. */
#define KOVDSK_MATCH_ALL    0    /* every stored file (any value but 1, 2) */
#define KOVDSK_MATCH_EXACT  1    /* this name and this kind */
#define KOVDSK_MATCH_PREFIX 2    /* names beginning so; kind 0: any kind */

/* filter of KovDskList. */
#define KOVDSK_FILTER_NONE  0u   /* expired files listed like any other */
#define KOVDSK_FILTER_LIVE  1u   /* expired files left out */
#define KOVDSK_FILTER_SWEEP 2u   /* KovDskTimeDel over the store first */

/* sort of KovDskList, ascending; later keys break ties. */
#define KOVDSK_SORT_KIND_NAME 0u /* kind, file name, short tag */
#define KOVDSK_SORT_KIND_TAG  1u /* kind, short tag, file name */
#define KOVDSK_SORT_TIME      2u /* time, kind, file name, short tag */

/* mode of KovDskUidList, KovDskUsrList and KovDskPasList. */
#define KOVDSK_LIST_ALL   0u     /* every directory (any value but 1, 2) */
#define KOVDSK_LIST_LIVE  1u     /* only those holding a live stored file */
#define KOVDSK_LIST_SWEEP 2u     /* KovDskTimeDel over the store first */

/* mode of KovDskSelDel. */
#define KOVDSK_TRASH_OFF 0       /* deleted files are removed at once */
#define KOVDSK_TRASH_ON  1       /* they go to ".trash" (any value but 0) */

/* The kind whose write stream has no buffer: its bytes reach the file in
 * each KovDskWrite, and KovDskOpenTblCheck does not count it. */
#define KOVDSK_KIND_UNBUFFERED 6u

/* type of KovDskFileChk. */
#define KOVDSK_CHK_FILE 0        /* a regular file */
#define KOVDSK_CHK_DIR  1        /* a directory (any other value below 2) */

/* mode of KovDskWriteOpenDirect. */
#define KOVDSK_DIRECT_TRUNCATE 0u /* create or truncate */
#define KOVDSK_DIRECT_APPEND   1u /* create or append */

/* mode of KovDskDirList. */
#define KOVDSK_DIRLIST_ALL    0u /* every entry, "." and ".." included */
#define KOVDSK_DIRLIST_EXACT  1u /* the entry named pattern */
#define KOVDSK_DIRLIST_PREFIX 2u /* entries whose names begin with pattern */

/* which of the password calls: the ATA security identifier. */
#define KOVDSK_PASSWD_USER   0
#define KOVDSK_PASSWD_MASTER 1

/* ---- The shared table ------------------------------------------------- */

/* A write slot. Free when used is 0; a close clears the whole record. */
typedef struct KovDskAccWrEnt {
    int32_t  used;                    /* 1 while a stream is open */
    int32_t  fd;                      /* direct streams only */
    char     name[KOVDSK_NAME_FIELD]; /* file name, 3 zero filler bytes follow */
    int32_t  kind;                    /* 0 in a direct stream */
    int32_t  tmp;                     /* temporary flag, 0 or 1 */
    char     dir[KOVDSK_PATH_MAX];    /* area path, relative to the root */
    char     file[KOVDSK_STORED_MAX]; /* stored name, or a direct stream's path */
    char    *rawbuf;                  /* the opener's 8192-byte heap block */
    char    *buf;                     /* the 4096-aligned block inside rawbuf */
    uint32_t fill;                    /* bytes waiting in buf */
    uint32_t head;                    /* direct streams: bytes to the next block */
} KovDskAccWrEnt;

/* A read slot. It has no tmp and no head, so it is not a write slot. */
typedef struct KovDskAccRdEnt {
    int32_t  used;
    int32_t  fd;                      /* the stream's open descriptor */
    char     name[KOVDSK_NAME_FIELD];
    int32_t  kind;
    char     dir[KOVDSK_PATH_MAX];
    char     file[KOVDSK_STORED_MAX];
    char    *rawbuf;
    char    *buf;
    uint32_t fill;                    /* bytes of the last block not delivered */
    uint32_t pos;                     /* index in buf of the first of them */
    uint64_t remain;                  /* bytes of the file not yet fetched */
} KovDskAccRdEnt;

/* The table: one block of shared memory, nothing in it points into it. */
typedef struct KovDskAccTbl {
    char     root[KOVDSK_PATH_MAX];   /* the directory that holds everything */
    int32_t  acc_cnt;                 /* activity counter */
    int32_t  accessed;                /* accessed flag */
    int32_t  trash_mode;              /* 0 off, other values on */
    int32_t  gbg_flag;                /* ".trash" holds a regular file */
    uint16_t trash_seq;               /* next name in ".trash"; 2 filler bytes */
    int32_t  op_cnt;                  /* operation counter */
    KovDskAccWrEnt wr[KOVDSK_SLOTS];
    KovDskAccRdEnt rd[KOVDSK_SLOTS];
} KovDskAccTbl;

#define KOVDSK_TBL_SIZE ((size_t)sizeof(KovDskAccTbl)) /* 287128 on the target */

/* ---- Records handed to callers ---------------------------------------- */

/* One stored file of KovDskList: 152 bytes, every unwritten byte 0. */
typedef struct KovDskListEnt {
    char     short_tag[17];
    char     long_tag[65];
    char     name[33];
    char     filler0;
    uint32_t kind;
    uint32_t tmp;                     /* 1 for a ".1" stored name */
    char     deadline[11];            /* YYMMDDHHMM, or empty */
    char     filler1;
    int32_t  time;                    /* st_atime of the file, links followed */
    uint32_t filler2;
    int64_t  size;                    /* st_size widened with its sign */
} KovDskListEnt;

typedef struct KovDskListRes {
    uint32_t       count;
    uint32_t       reserved;          /* never written by the library */
    uint64_t       total;             /* sum of the records' sizes */
    KovDskListEnt *entries;           /* usable only while count is not 0 */
} KovDskListRes;

/* One directory entry of KovDskDirList: 272 bytes. */
typedef struct KovDskDirEnt {
    char     name[256];
    int64_t  size;                    /* st_size widened with its sign */
    uint32_t mode;                    /* st_mode */
    int32_t  time;                    /* st_atime (see KovDskDirList) */
} KovDskDirEnt;

typedef struct KovDskDirRes {
    int32_t       count;
    uint32_t      reserved;           /* never written by the library */
    uint64_t      total;
    KovDskDirEnt *entries;            /* NULL when count is 0 */
} KovDskDirRes;

/* ---- Exported objects --------------------------------------------------
 * Per process. The table is the library's: callers read it, and change it
 * only through the calls. */

/* AccTbl - where this process has the table attached.
 *
 * Value: NULL until KovDskInitSet or KovDskInit succeeds, then set for the
 *        life of the process. Of another stream's slot only used, name,
 *        kind, tmp, dir and file mean anything here; fd, rawbuf and buf
 *        belong to the process that opened it.
 * Lock:  slots and fields change under the table lock, but for acc_cnt
 *        (under the access lock), accessed where KovDskWrite and
 *        KovDskClearAccessedFlg move it, and the clearing of the slots by
 *        KovDskFormat.
 */
extern KovDskAccTbl *AccTbl;

/* KovDskTblShm_id - the shared memory id of the table.
 *
 * Value: -1 until KovDskInitSet or KovDskInit has found the segment.
 */
extern int KovDskTblShm_id;

/* KovDskTblSem_id - the semaphore set of the table lock.
 *
 * Value: 0 until attached; its semaphore 0 stands at 1 while the lock is
 *        free. Taken by the calls themselves, and handed to a caller only
 *        by KovDskOpenTblCheck.
 */
extern int KovDskTblSem_id;

/* KovDskAccSem_id - the semaphore set of the access lock.
 *
 * Value: 0 until attached; 1 while free. It guards the activity counter
 *        alone and is taken only for one update, after the table lock.
 */
extern int KovDskAccSem_id;

/* filecmp_buf - the pattern of the directory scan under way in this process.
 *
 * Value: written by KovDskDirList at the start of each scan, under the
 *        table lock; callers need not touch it.
 */
extern char filecmp_buf[256];

/* ---- Attachment and table lock ----------------------------------------- */

/* KovDskInitSet - creates the table and both locks, names the root and
 * attaches this process. Once per boot, by the system's first process.
 *
 * Arguments: root: the directory that holds everything; "" and relative
 *            roots are accepted. At most 3696 bytes (the store puts up to
 *            399 behind it), with no ".1" anywhere and no "/usr/" or
 *            trailing "/usr" (".1" marks temporary files in a whole path,
 *            and a link's text is split at its first "/usr/").
 * Returns:   0.
 * Errors:    EINVAL: root NULL or refused as above, before anything is made,
 *            the key file included. EALREADY: this boot's table exists,
 *            attached here or not. ENOMEM: shmget failed otherwise, or
 *            shmat. errno of stat, creat or ftok of the key file
 *            "/var/lock/kovdsk" (made with mode 0666 when missing), of
 *            semget, semctl.
 * Leaves:    success: the table zero but the root (trash mode off, counters
 *            0, all slots free), both locks free, the device told "idle".
 *            Failure: nothing undone; a segment made stays, attached here
 *            with the root in it, and a later call answers EALREADY.
 * Lock:      none taken; both locks are set free, a set left from before
 *            included.
 */
int  KovDskInitSet(const char *root);

/* KovDskInit - attaches this process to the table of this boot.
 *
 * Arguments: none.
 * Returns:   0, at once if the process is attached already.
 * Errors:    EINIT: no table exists yet. ENOMEM: shmat failed. errno of
 *            stat, creat or ftok of the key file, of semget.
 * Leaves:    success: AccTbl and the three ids set; nothing in the table
 *            written. Failure: not attached, so the call can be made again.
 * Lock:      none.
 */
int  KovDskInit(void);

/* KovDskOpenTblCheck - takes the table lock and leaves it with the caller
 * if no stream is open: the way to have the disk to oneself for
 * KovDskFormat, KovDskChk or KovDskFdisk.
 *
 * Arguments: none.
 * Returns:   0: no stream open; the caller holds the table lock and gives
 *            it back with KovDskTblSemFree. 1: a stream is open (any read
 *            stream, direct ones too, or any write stream not of kind
 *            KOVDSK_KIND_UNBUFFERED); the lock is released.
 * Errors:    EINIT. errno of semop when the lock could not be taken (a
 *            signal in the wait); no lock is held then.
 * Leaves:    nothing changed.
 * Lock:      held on return with 0 only. Meanwhile no process can open a
 *            stream and every call that takes the lock waits, the caller's
 *            own included: until KovDskTblSemFree use only calls whose Lock
 *            says "none".
 */
int  KovDskOpenTblCheck(void);

/* KovDskTblSemFree - gives back the table lock that a 0 from
 * KovDskOpenTblCheck left with the caller.
 *
 * Arguments: none.
 * Returns:   0.
 * Errors:    EINIT. errno of semop.
 * Leaves:    the table lock free. Called without holding it, it raises the
 *            lock to 2 and lets two processes in at once from then on: call
 *            it after that 0 only, once.
 * Lock:      released; not held on return.
 */
int  KovDskTblSemFree(void);

/* ---- Counters ---------------------------------------------------------- */

/* KovDskAccflg - adds a step to the activity counter, and tells
 * /dev/KovDevDat "busy" if the counter then stands at 1, "idle" at 0.
 *
 * Arguments: step: any int; 0 tells the state again at 0 or 1.
 * Returns:   0.
 * Errors:    EINIT. -1, errno as on entry, when the access lock could not
 *            be taken or released; the step is taken all the same.
 * Leaves:    the counter moved by step. It stays right only if every +1 has
 *            its -1; nothing repairs it. A missing or unwilling device
 *            changes nothing.
 * Lock:      the access lock for the update; no table lock.
 */
int  KovDskAccflg(int step);

/* KovDskGetAccessedFlg - reads the accessed flag: the accesses finished
 * since it was last cleared.
 *
 * Arguments: none.
 * Returns:   the flag, 0 or more. It gains 1 at each successful close of a
 *            write stream, each close of a read stream, and each successful
 *            KovDskWrite of kind KOVDSK_KIND_UNBUFFERED.
 * Errors:    EINIT.
 * Leaves:    nothing changed.
 * Lock:      none.
 */
int  KovDskGetAccessedFlg(void);

/* KovDskClearAccessedFlg - sets the accessed flag to 0.
 *
 * Arguments: none.
 * Returns:   nothing.
 * Errors:    none: in a process that is not attached it does nothing.
 * Leaves:    the flag 0, stored atomically, so that a count made at the same
 *            time without a lock is not torn.
 * Lock:      none.
 */
void KovDskClearAccessedFlg(void);

/* KovDskGetOperationFlg - reads the operation counter, which stands at 1
 * while a plain-path call (the six path operations, the direct stream
 * opens, writes and write close, KovDskDirList) works under the table lock.
 *
 * Arguments: none.
 * Returns:   the counter: 0, or 1 while such a call works.
 * Errors:    EINIT.
 * Leaves:    nothing changed.
 * Lock:      none.
 */
int  KovDskGetOperationFlg(void);

/* ---- Path operations --------------------------------------------------------
 * One path relative to the root, in the store or not. Each call holds the
 * table lock for its whole work, and the operation counter inside it. */

/* KovDskDirMake - makes one directory, mode 0666 whatever the umask, with
 * the date component's time. Missing parents are not made.
 *
 * Arguments: path: relative to the root, not empty.
 * Returns:   0.
 * Errors:    EINIT; EINVAL: path NULL, empty or with "..". errno of mkdir:
 *            EEXIST if it exists, ENOENT if a parent is missing.
 * Leaves:    the directory made and synced; nothing on failure.
 * Lock:      table lock.
 */
int  KovDskDirMake(const char *path);

/* KovDskFileChk - tells whether a path is a regular file or a directory; a
 * link counts as what it points to.
 *
 * Arguments: path: relative to the root, not empty. type: KOVDSK_CHK_FILE
 *            asks for a regular file, KOVDSK_CHK_DIR for a directory (and
 *            so does any other value below 2, negative ones included).
 * Returns:   0: it is of that type. 1: it is not, or it is absent (stat
 *            failed with ENOENT, ENOTDIR or EFAULT, left in errno).
 * Errors:    EINIT; EINVAL: path NULL, empty or with "..", type 2 or above.
 *            errno of any other failure of stat.
 * Leaves:    nothing changed.
 * Lock:      table lock.
 */
int  KovDskFileChk(const char *path, int type);

/* KovDskFileRemove - removes a file or an empty directory at once. Trash
 * mode, open streams and a stored file's links play no part.
 *
 * Arguments: path: relative to the root, not empty.
 * Returns:   0.
 * Errors:    EINIT; EINVAL: path NULL, empty or with "..". errno of remove.
 * Leaves:    removed and synced; nothing on failure.
 * Lock:      table lock. The activity counter is raised before the lock is
 *            taken and lowered after its release.
 */
int  KovDskFileRemove(const char *path);

/* KovDskFileRename - renames a path as rename(2) does.
 *
 * Arguments: oldpath, newpath: relative to the root, not empty.
 * Returns:   0.
 * Errors:    EINIT; EINVAL: either NULL, empty or with "..". errno of
 *            rename.
 * Leaves:    renamed, with its time kept; no sync.
 * Lock:      table lock.
 */
int  KovDskFileRename(const char *oldpath, const char *newpath);

/* KovDskChgTimeStamp - gives a path the date component's present time, as
 * access and modification time; from 2038 on, 2038-01-01 00:00:00. A file
 * below "drivers/<dir>/" also stamps the directory that holds it.
 *
 * Arguments: path: relative to the root; "" stamps the root itself.
 * Returns:   0, also when nothing was stamped: the path is absent or may
 *            not be touched, or the date component failed.
 * Errors:    EINIT; EINVAL: path NULL or with "..".
 * Leaves:    the times set, or nothing changed.
 * Lock:      table lock.
 */
int  KovDskChgTimeStamp(const char *path);

/* KovDskFileSize - the size of a path in bytes; a link counts as what it
 * points to.
 *
 * Arguments: path: relative to the root, not empty.
 * Returns:   st_size: sizes are those of the target's 32-bit off_t, and a
 *            file of 2 GiB or more is outside what the library handles.
 * Errors:    EINIT; EINVAL: path NULL, empty or with "..". errno of stat.
 * Leaves:    nothing changed.
 * Lock:      table lock.
 */
int  KovDskFileSize(const char *path);

/* ---- The store -----------------------------------------------------------
 * Stored files lie under the root in areas:
 *   general            KOVDSK_AREA_GENERAL: files, and a link to every file
 *                      of every pass area
 *   uid/<id>           KOVDSK_AREA_ID
 *   usr/<user>         KOVDSK_AREA_USER: links to the files of the user's
 *                      pass areas, beside those areas; no files of its own
 *   usr/<user>/<pass>  KOVDSK_AREA_PASS
 *   .trash             deleted files while trash mode is on
 * <id> and <pass> are 16 upper-case hex digits, <user> the user's bytes in
 * upper-case hex. A pass area's file and its two links share one name; a
 * delete through any of the three takes all three and the pass and user
 * directories it leaves empty.
 *
 * The area arguments (area, id, user, pass) name one area: area is a
 * KOVDSK_AREA_* value; id is read only for KOVDSK_AREA_ID; user only for
 * KOVDSK_AREA_USER and KOVDSK_AREA_PASS, and then not NULL (its first
 * KOVDSK_USER_MAX bytes count: longer users that agree in them share a
 * directory); pass only for KOVDSK_AREA_PASS. Another area, or a NULL user
 * where one is read, is EINVAL.
 *
 * A stored file's name holds all that is kept of it: kind (0 to
 * KOVDSK_KIND_MAX), file name, short and long tag, deadline and temporary
 * flag, cut at the limits above. A stored file is a regular file whose name
 * parses so, or a link of the library's making to one (its text names a
 * file directly in a pass area, with no ".." and no link on the way).
 * Anything else in an area, a link of any other making among it, is no
 * stored file: no search finds it and every walk leaves it. A directory of
 * the store that is a link is none either: a search treats it as absent,
 * a walk fails with ENOTDIR.
 *
 * Expired: a deadline that is not empty and not later than the date
 * component's present minute, compared as YYMMDDHHMM text (UTC, no
 * century). Discarded: removed at once, or with trash mode on moved to
 * ".trash" (ENOENT if it is missing). A write open makes the directories of
 * its area; the library never makes ".trash". Callers make with
 * KovDskDirMake what others need first: "general" for a pass area's links,
 * "general" and "uid" for the sweeps, ".trash" for trash mode and for
 * KovDskTimeDel with trash mode off. */

/* ---- Trash ------------------------------------------------------------- */

/* KovDskSelDel - sets trash mode for every process of this boot.
 *
 * Arguments: mode: KOVDSK_TRASH_OFF, or KOVDSK_TRASH_ON (any value but 0).
 * Returns:   0.
 * Errors:    EINIT.
 * Leaves:    trash mode set until the next call. It starts off with each
 *            table: after a start set it, then call KovDskGbgIni.
 * Lock:      table lock.
 */
int  KovDskSelDel(int mode);

/* KovDskGbgIni - with trash mode on, looks in ".trash" for a regular file
 * (one an earlier boot left, say) and sets the garbage flag by it.
 *
 * Arguments: none.
 * Returns:   1: ".trash" holds a regular file. 0: it holds none, or trash
 *            mode is off and nothing was looked at.
 * Errors:    EINIT. errno of opendir of ".trash"; ENOTDIR if it is a link
 *            or no directory.
 * Leaves:    the garbage flag equal to the result; unchanged on failure or
 *            with trash mode off.
 * Lock:      table lock; the activity counter raised inside it while
 *            ".trash" is read.
 */
int  KovDskGbgIni(void);

/* KovDskGbgChk - reads the garbage flag, which is 1 while ".trash" holds,
 * or is taken to hold, a regular file. The disk is not looked at.
 *
 * Arguments: none.
 * Returns:   the flag with trash mode on; 0 with it off.
 * Errors:    EINIT.
 * Leaves:    nothing changed.
 * Lock:      table lock.
 */
int  KovDskGbgChk(void);

/* KovDskFleSrd - shreds one file of ".trash": runs shred -u "-n 1" -z on
 * the first regular file there (shred found through PATH). Called until it
 * returns something other than 1, it empties ".trash".
 *
 * Arguments: none.
 * Returns:   1: a file was handed to shred, whatever shred's exit code (a
 *            file left in place, shred missing too, is met again next
 *            time). 0: nothing to do: trash mode off, the garbage flag 0,
 *            or no regular file left, which sets the flag to 0.
 * Errors:    EINIT. errno of opendir of ".trash"; ENOTDIR if it is a link
 *            or no directory. errno of fork, waitpid. shred ended by a
 *            signal: -1 with errno as on entry.
 * Leaves:    with 0 and 1, errno as on entry. Synced. Links and directories
 *            in ".trash" are never shredded and do not keep the flag up.
 * Lock:      table lock for the whole run of shred, so every other process
 *            waits meanwhile; the activity counter raised inside it.
 */
int  KovDskFleSrd(void);

/* ---- Stored-file streams ------------------------------------------------ */

/* KovDskWriteOpen - brings a new stored file into the store and opens a
 * write stream on it. In one step it refuses a file in use, takes away the
 * older file of this name and kind, makes the area's directories (mode
 * 0666), creates the file under its final name with length 0, and in a
 * pass area makes its two links.
 *
 * Arguments: name: the file name, not empty. short_tag, long_tag: NULL or
 *            "" for none. kind: 0 to KOVDSK_KIND_MAX; a stream of
 *            KOVDSK_KIND_UNBUFFERED has no buffer (see KovDskWrite). area,
 *            id, user, pass: the area arguments; KOVDSK_AREA_USER is
 *            refused. tmp: not 0 marks the file temporary. deadline: ten
 *            digits YYMMDDHHMM, UTC; NULL, or anything else without error,
 *            gives no deadline.
 * Returns:   the handle for KovDskWrite and KovDskWriteClose.
 * Errors:    EINIT; EINVAL: name NULL or empty, kind above KOVDSK_KIND_MAX,
 *            area refused, user NULL. EALREADY: a write stream is open on
 *            this area, name and kind. EAGAIN: a read stream is, opened
 *            through this area (one through another, such as "general" for
 *            a pass area's file, does not count). ENFILE: no free write
 *            slot (told after the two above). ENOTDIR: an area directory
 *            is something else, or a link. EEXIST: something that is no
 *            stored file stands at the new name. errno of mkdir, open,
 *            symlink, malloc.
 * Leaves:    success: the slot in use; the file empty, stamped and synced.
 *            The older file of this name and kind is gone (discarded) from
 *            "general", whatever the area (a link there takes its pass
 *            area's file), and from the area itself. A failure after the
 *            EALREADY, EAGAIN and ENFILE checks leaves that older file gone
 *            and the directories made; a failed link leaves the new empty
 *            file with the links made so far; a failed malloc removes the
 *            new file and leaves its links, dangling. The slot stays free.
 * Lock:      table lock for the whole work, two syncs or more included: the
 *            slowest common call. A failed malloc's removal follows the
 *            release. The activity counter is raised inside the call only:
 *            an open write stream does not count as activity.
 */
int  KovDskWriteOpen(const char *name, const char *short_tag,
                     const char *long_tag, unsigned int kind,
                     unsigned int area, uint64_t id, const char *user,
                     uint64_t pass, int tmp, const char *deadline);

/* KovDskWrite - appends data to a stored-file write stream. Whole 4096-byte
 * blocks go to the file past the cache (O_DIRECT); the rest waits in the
 * stream's buffer, in the opener's heap, for the next call or the close.
 * A stream of kind KOVDSK_KIND_UNBUFFERED writes all of data at once,
 * through the cache.
 *
 * Arguments: handle: from KovDskWriteOpen. data: length bytes, not NULL.
 *            length: in bytes, not 0.
 * Returns:   length; there is no partial count.
 * Errors:    EINIT; EINVAL: data NULL, length 0, handle out of range or a
 *            direct stream's. ENOENT: no stream in that slot, or its file
 *            is gone or no regular file, or a directory of its area is no
 *            directory (a link). ENOSPC: a block went to the disk short
 *            (the disk is full). errno of open, fstat, write.
 * Leaves:    success: the file stamped and synced; with kind
 *            KOVDSK_KIND_UNBUFFERED the accessed flag +1. Failure: the
 *            stream open; blocks written earlier in this call stay in the
 *            file and the buffer holds the bytes carried into the failing
 *            block, so how much of data went in cannot be told; the close
 *            still writes what the buffer holds. No stamp, no sync.
 * Lock:      none; the activity counter is raised for the call. Each call
 *            opens the file anew and syncs: large writes serve best.
 */
int  KovDskWrite(int handle, const void *data, unsigned int length);

/* KovDskWriteClose - ends a stored-file write stream: the bytes waiting in
 * its buffer go to the file without O_DIRECT, and the slot is freed.
 *
 * Arguments: handle: from KovDskWriteOpen.
 * Returns:   0.
 * Errors:    EINIT; EINVAL: handle out of range or a direct stream's.
 *            ENOENT: no stream in that slot, or the file is gone or no
 *            regular file when the waiting bytes are written. errno of
 *            open, fstat, write.
 * Leaves:    the stream over and the handle invalid on either result: the
 *            buffer freed, the slot cleared. Success: the accessed flag +1;
 *            if bytes were waiting, the file stamped and synced (else it
 *            keeps the time of the last write). Failure: the waiting bytes
 *            lost, the accessed flag as it was.
 * Lock:      table lock only to clear the slot; the activity counter raised
 *            while the waiting bytes are written.
 */
int  KovDskWriteClose(int handle);

/* KovDskReadOpen - opens a read stream on the stored file of a name and
 * kind in an area; a link is followed to its file. Of several (differing in
 * tags, deadline or flag) the directory's last is taken. A file may have
 * several readers, and one being written may be read, up to its size now.
 *
 * Arguments: name: the file name, not empty. kind: 0 to KOVDSK_KIND_MAX,
 *            compared exactly (0 is kind 0). area, id, user, pass: the area
 *            arguments, all four areas.
 * Returns:   the handle for KovDskRead and KovDskReadClose.
 * Errors:    EINIT; EINVAL: name NULL or empty, kind above KOVDSK_KIND_MAX,
 *            area above KOVDSK_AREA_PASS, user NULL. ENFILE: no free read
 *            slot (looked for first). ENOENT: no such stored file in the
 *            area, an absent area included, or the file behind its link is
 *            gone or no regular file. errno of open, fstat, malloc.
 * Leaves:    success: the slot in use; the activity counter +1 until the
 *            close, so an open read stream keeps the disk busy. Failure:
 *            the slot free, no counter moved.
 * Lock:      table lock for the search and the slot; the activity counter
 *            is raised after its release.
 */
int  KovDskReadOpen(const char *name, unsigned int kind, unsigned int area,
                    uint64_t id, const char *user, uint64_t pass);

/* KovDskRead - reads from a read stream, stored or direct. Whole 4096-byte
 * blocks come from the disk with O_DIRECT (the file's last part without);
 * what the caller does not take of a block waits for the next call.
 *
 * Arguments: handle: from KovDskReadOpen or KovDskReadOpenDirect. buffer:
 *            length bytes, not NULL. length: in bytes, not 0, any size.
 * Returns:   the bytes delivered: fewer than length only when the file
 *            ended, 0 at its end.
 * Errors:    EINIT; EINVAL: buffer NULL, length 0, handle out of range.
 *            ENFILE (not ENOENT): no stream in that slot. errno of read.
 * Leaves:    the stream open, also at the file's end. Failure: bytes copied
 *            in this call are not reported, and those of blocks fetched in
 *            it are lost to the stream.
 * Lock:      none; no counter moves.
 */
int  KovDskRead(int handle, void *buffer, unsigned int length);

/* KovDskReadClose - ends a read stream, stored or direct.
 *
 * Arguments: handle: from KovDskReadOpen or KovDskReadOpenDirect.
 * Returns:   the result of close on the stream's descriptor: 0.
 * Errors:    EINIT; EINVAL: handle out of range. ENOENT: no stream in that
 *            slot. errno of close.
 * Leaves:    unless EINIT, EINVAL or ENOENT: the buffer freed, the slot
 *            cleared, the accessed flag +1, the activity counter -1, the
 *            descriptor released (also when close reports an error).
 * Lock:      table lock to clear the slot; the activity counter and the
 *            close follow its release.
 */
int  KovDskReadClose(int handle);

/* ---- Deletion rules ----------------------------------------------------- */

/* KovDskDel - deletes the stored files of one area that match a name and
 * kind. If an open stream of that very area matches the same rule, the
 * whole call is refused before anything is deleted.
 *
 * Arguments: name: not NULL, may be ""; a file name or a prefix, by mode.
 *            kind: 0 to KOVDSK_KIND_MAX. mode: KOVDSK_MATCH_EXACT: this
 *            name and this kind (0 is kind 0). KOVDSK_MATCH_PREFIX: names
 *            that begin with name ("" begins every name), of this kind, or
 *            of any kind for 0. Any other value, KOVDSK_MATCH_ALL: every
 *            stored file, open or not; no stream is looked at. area, id,
 *            user, pass: the area arguments, all four areas.
 * Returns:   0, also when nothing matched.
 * Errors:    EINIT; EINVAL: name NULL, kind above KOVDSK_KIND_MAX, area
 *            above KOVDSK_AREA_PASS, user NULL. EAGAIN: a stream opened
 *            through this area matches (one opened through another, such
 *            as "general" for a pass area's file, does not count). errno of
 *            opendir of the area: ENOENT if it is absent (unlike
 *            KovDskList), ENOTDIR if it is a link. errno of a removal.
 * Leaves:    matching files of "general" and of id areas discarded, links
 *            there taken with their pass area's files; in user and pass
 *            areas each match goes with both links and the emptied
 *            directories. An id area left with no entry, or empty from the
 *            start, is removed. Synced. Failure: what was taken stays
 *            taken, no sync; with EAGAIN nothing deleted.
 * Lock:      table lock for the whole call; the activity counter raised in
 *            it once the streams are checked.
 */
int  KovDskDel(const char *name, uint32_t kind, int32_t mode, uint32_t area,
               uint64_t id, const char *user, uint64_t pass);

/* KovDskTimeDel - deletes every expired stored file of "general" and of the
 * id areas. A pass area's file goes through its link in "general"; one under
 * "usr" without that link is not reached. With trash mode off, every
 * regular file in ".trash" is removed too.
 *
 * Arguments: none.
 * Returns:   0.
 * Errors:    EINIT; ETIME: the date component failed, before anything. EAGAIN:
 *            an expired stored file is open in a stream of a kind other
 *            than 0 (direct streams are of kind 0); nothing deleted. errno of
 *            opendir of "general", "uid", an id area or ".trash" (ENOENT if
 *            absent, ENOTDIR if a link). errno of a removal.
 * Leaves:    the expired files discarded, a pass area's file with both links
 *            and the emptied directories; id areas left empty removed, empty
 *            ones too. Synced. The garbage flag is not touched. Failure:
 *            what was swept stays swept, no sync.
 * Lock:      table lock from the stream check to the end of the sweep; the
 *            sync and the lowering of the activity counter follow its
 *            release.
 */
int  KovDskTimeDel(void);

/* KovDskTmpDel - deletes every temporary file of "general" and of the id
 * areas: a regular file (in "general" also a link of the library's making)
 * with ".1" in its name, whether the name parses or not. ".trash" is left
 * alone.
 *
 * Arguments: none.
 * Returns:   0.
 * Errors:    EINIT; EAGAIN: a temporary file is open in a write stream, or
 *            in a read stream by its stored name; nothing deleted. errno of
 *            opendir of "general", "uid" or an id area. errno of a removal.
 * Leaves:    as KovDskTimeDel does.
 * Lock:      as KovDskTimeDel takes it.
 */
int  KovDskTmpDel(void);

/* ---- Listings and lookups ----------------------------------------------- */

/* KovDskList - lists the stored files of one area, filtered and sorted, as
 * records of 152 bytes. A link counts as its file, with its size and time.
 *
 * Arguments: name: a prefix of the file name; NULL or "" lets all through.
 *            kind: 0 lets every kind through (kind 0 alone cannot be asked
 *            for), 1 to KOVDSK_KIND_MAX only that one. area, id, user,
 *            pass: the area arguments, all four areas. filter:
 *            KOVDSK_FILTER_NONE, KOVDSK_FILTER_LIVE (expired files left
 *            out, not deleted), or KOVDSK_FILTER_SWEEP (KovDskTimeDel over
 *            the whole store first, before any other test; then as NONE).
 *            result: not NULL, filled in. sort: KOVDSK_SORT_KIND_NAME,
 *            KOVDSK_SORT_KIND_TAG or KOVDSK_SORT_TIME; records alike in every
 *            key stand in no set order.
 * Returns:   0; 1 if memory ran out.
 * Errors:    with KOVDSK_FILTER_SWEEP, first those of KovDskTimeDel. EINVAL:
 *            result NULL (tested before attachment). EINIT; EINVAL: kind,
 *            filter, sort or area out of range, user NULL. ETIME: the date
 *            component failed. errno of opendir of the area (ENOTDIR for a
 *            link); an absent area but "general" gives an empty list
 *            instead. errno of malloc.
 * Leaves:    count and total 0 on every failure but those of the sweep and
 *            a NULL result; entries the caller's while count is above 0.
 *            An area but "general" found empty is removed. Synced on
 *            success. Streams are not looked at: a file being written is
 *            listed with its present size.
 * Lock:      table lock, with the activity counter, for the scan; the sweep
 *            takes and releases it before, on its own.
 */
int  KovDskList(const char *name, uint32_t kind, uint32_t area, uint64_t id,
                const char *user, uint64_t pass, uint32_t filter,
                KovDskListRes *result, uint32_t sort);

/* KovDskUidList - lists the ids under "uid": each directory there (no link)
 * as a uint64_t, its name read in hex, ascending.
 *
 * Arguments: mode: KOVDSK_LIST_ALL, and any value but 1 and 2: every one.
 *            KOVDSK_LIST_LIVE: only those where KovDskRmnFle counts a live
 *            stored file (none while the date component fails).
 *            KOVDSK_LIST_SWEEP: KovDskTimeDel over the store first, then as
 *            ALL. count, list: not NULL; they receive the number of records
 *            and the array.
 * Returns:   0; 1 if memory ran out.
 * Errors:    with KOVDSK_LIST_SWEEP, those of KovDskTimeDel. EINIT; EINVAL:
 *            count or list NULL. errno of opendir of "uid" (ENOENT if
 *            absent, ENOTDIR if a link). errno of malloc.
 * Leaves:    *list the caller's while *count is above 0, NULL with 0.
 *            Failure: count and list not written, but a failed malloc sets
 *            *list to NULL. Nothing removed, no sync.
 * Lock:      table lock, with the activity counter, for the scan; the sweep
 *            takes and releases it before, on its own.
 */
int  KovDskUidList(uint32_t mode, uint32_t *count, uint64_t **list);

/* KovDskUsrList - lists the users under "usr": each directory there, a link
 * to one too, as a record of KOVDSK_USR_REC bytes: the user decoded from
 * its name, NUL-terminated, zero behind. Ascending by strcmp.
 *
 * Arguments: mode: as KovDskUidList; KOVDSK_LIST_LIVE counts the user's
 *            links, and hides a linked user. count, list: not NULL; record
 *            i lies at *list + i * KOVDSK_USR_REC.
 * Returns:   0; 1 if memory ran out.
 * Errors:    as KovDskUidList, for "usr".
 * Leaves:    as KovDskUidList. A name that would decode to more than 64
 *            bytes is passed over: no user of this library has one.
 * Lock:      as KovDskUidList.
 */
int  KovDskUsrList(uint32_t mode, uint32_t *count, char **list);

/* KovDskPasList - lists the passes of one user: each directory (no link)
 * in "usr/<user>", as a uint64_t, its name read in hex, ascending.
 *
 * Arguments: mode: as KovDskUidList. user: not NULL; its first 64 bytes
 *            count here (KOVDSK_USER_MAX elsewhere). count, list: as
 *            KovDskUidList.
 * Returns:   0; 1 if memory ran out.
 * Errors:    as KovDskUidList; EINVAL also for user NULL; ENOENT: the user
 *            has no directory.
 * Leaves:    as KovDskUidList.
 * Lock:      as KovDskUidList.
 */
int  KovDskPasList(uint32_t mode, const char *user, uint32_t *count,
                   uint64_t **list);

/* KovDskRmnFle - counts the live stored files in one directory: regular
 * files and links of the library's making whose names parse and are not
 * expired; temporary files count. In a user area it is the links that
 * count.
 *
 * Arguments: dir: the directory's full path, root included.
 * Returns:   the count, 0 or more.
 * Errors:    EINIT; EINVAL: dir NULL. ETIME: the date component failed.
 *            errno of opendir; ENOTDIR if dir is a link.
 * Leaves:    nothing changed.
 * Lock:      none; no counter moves.
 */
int  KovDskRmnFle(const char *dir);

/* KovDskPasCheck - tells whether the stored file of a name and kind in
 * "general" is a pass area's (a link there), and under which pass. Of
 * several, the directory's last is taken.
 *
 * Arguments: name: not NULL. kind: 0 to KOVDSK_KIND_MAX, compared exactly.
 *            flag: not NULL; receives 1 on success, else 0. pass: not NULL,
 *            KOVDSK_PASS_BUF bytes, word-aligned; receives the pass as a
 *            uint64_t in its first 8 bytes, the other 9 zero.
 * Returns:   0.
 * Errors:    EINIT; EINVAL: name, flag or pass NULL, kind above
 *            KOVDSK_KIND_MAX; also no such stored file in "general", or one
 *            of "general" itself. errno of readlink.
 * Leaves:    *flag 0 on every failure (set before any test); the pass
 *            buffer all zero once the arguments are accepted. Only the
 *            link's text is read: a link whose file is gone still answers.
 * Lock:      table lock, with the activity counter, for the search.
 */
int  KovDskPasCheck(const char *name, uint32_t kind, uint32_t *flag,
                    void *pass);

/* KovDskGetRealFileName - the full path of the regular file behind the
 * stored file of a name and kind in an area: for a link, its file in the
 * pass area. Of several, the directory's last is taken.
 *
 * Arguments: name: not NULL. kind: compared exactly; not range-tested (a
 *            kind above KOVDSK_KIND_MAX finds nothing). area, id, user,
 *            pass: the area arguments, all four areas. path: not NULL,
 *            KOVDSK_PATH_MAX bytes; receives the path, root included.
 * Returns:   0.
 * Errors:    EINIT; EINVAL: name or path NULL, area above KOVDSK_AREA_PASS,
 *            user NULL. ENOENT: no such stored file in the area, an absent
 *            area included.
 * Leaves:    nothing of use in path on failure. The path may be out of date
 *            the moment it is returned.
 * Lock:      none: only the activity counter brackets the search, which runs
 *            beside other processes' changes.
 */
int  KovDskGetRealFileName(const char *name, uint32_t kind, uint32_t area,
                           uint64_t id, const char *user, uint64_t pass,
                           char *path);

/* ---- Direct streams and directory listing -------------------------------
 * Streams on any regular file under the root by its plain path: no stored
 * name, no area. They use the slots and the 4096-byte blocks of the
 * stored-file streams, but protect no stored file from a delete. A direct stream
 * counts as activity from its open to its close; a write stream keeps its
 * descriptor open all the while. */

/* KovDskWriteOpenDirect - opens a direct write stream on a path, creating
 * the file, mode 0666, if it is missing.
 *
 * Arguments: path: relative to the root, not empty, below 256 bytes
 *            (KOVDSK_STORED_MAX). mode: KOVDSK_DIRECT_TRUNCATE (the file is
 *            emptied) or KOVDSK_DIRECT_APPEND (writes go behind its end,
 *            which may lie inside a 4096-byte block).
 * Returns:   the handle for KovDskWriteDirect and KovDskWriteCloseDirect.
 * Errors:    EINIT; EINVAL: path NULL, empty, with ".." or of 256 bytes or
 *            more, mode above 1. ENFILE: no free write slot, or the open
 *            failed, for whatever reason (a missing directory, something at
 *            path that is no regular file). ENOSPC: no memory for the buffer.
 * Leaves:    success: the slot in use, the file stamped, the activity
 *            counter +1 until the close. Failure: the slot free. ENOSPC: the
 *            descriptor closed and, with KOVDSK_DIRECT_TRUNCATE, the emptied
 *            file removed; an appended file keeps its data (one the open
 *            made stays, empty).
 * Lock:      table lock, with the operation counter; the clean-up of ENOSPC
 *            and the activity counter follow its release.
 */
int  KovDskWriteOpenDirect(const char *path, uint32_t mode);

/* KovDskWriteDirect - appends data to a direct write stream. After an
 * append open, the bytes up to the file's next 4096 boundary gather first
 * and go out at once without O_DIRECT; from then on whole blocks go out
 * with O_DIRECT and the rest waits in the buffer. A block the disk takes
 * short is counted as far as it went and the rest offered again.
 *
 * Arguments: handle: from KovDskWriteOpenDirect. data: size bytes, not
 *            NULL. size: in bytes, not 0.
 * Returns:   size.
 * Errors:    EINIT; EINVAL: data NULL, size 0, handle out of range or a
 *            stored-file stream's. ENOENT: no stream in that slot. errno of
 *            write.
 * Leaves:    success: the file stamped, unless an append's first bytes
 *            still gather short of the boundary. Failure: the stream open,
 *            its activity unit with it. A failed head write changes nothing,
 *            so the call can be made again; after a failed block the blocks
 *            before it stay, and the buffer holds the bytes carried into it.
 * Lock:      table lock, with the operation counter, for the whole call,
 *            disk writes included: a long write holds up every locked call
 *            of every process.
 */
int  KovDskWriteDirect(uint32_t handle, const void *data, uint32_t size);

/* KovDskWriteCloseDirect - ends a direct write stream: the bytes waiting in
 * the buffer go out without O_DIRECT and the descriptor is closed.
 *
 * Arguments: handle: from KovDskWriteOpenDirect.
 * Returns:   0.
 * Errors:    EINIT; EINVAL: handle out of range or a stored-file stream's.
 *            ENOENT: no stream in that slot. errno of write.
 * Leaves:    the stream over on either result: the buffer freed, the slot
 *            cleared, the descriptor closed, the activity counter -1.
 *            Success: the file stamped and synced, the accessed flag +1,
 *            also with nothing waiting. Failure: the waiting bytes lost; no
 *            stamp, no sync, no accessed flag.
 * Lock:      table lock, with the operation counter, for the waiting bytes
 *            and the slot; close, sync and the activity counter follow.
 */
int  KovDskWriteCloseDirect(uint32_t handle);

/* KovDskReadOpenDirect - opens a direct read stream on a regular file.
 *
 * Arguments: path: relative to the root, not empty.
 * Returns:   the handle for KovDskReadDirect and KovDskReadCloseDirect (or
 *            KovDskRead and KovDskReadClose: they are the same calls).
 * Errors:    EINIT; EINVAL: path NULL, empty or with "..". ENFILE: no free
 *            read slot, or the open failed, for whatever reason (missing,
 *            no regular file). ENOSPC: no memory for the buffer. errno of
 *            fstat.
 * Leaves:    success: the slot in use with no name, area or stored name;
 *            the activity counter +1 until the close. Failure: the slot
 *            free, the descriptor closed.
 * Lock:      table lock, with the operation counter; the activity counter
 *            is raised after its release.
 */
int  KovDskReadOpenDirect(const char *path);

/* KovDskReadDirect - KovDskRead under the direct streams' name.
 *
 * Arguments: as KovDskRead.
 * Returns:   as KovDskRead.
 * Errors:    as KovDskRead.
 * Leaves:    as KovDskRead.
 * Lock:      none.
 */
int  KovDskReadDirect(int handle, void *buffer, unsigned int length);

/* KovDskReadCloseDirect - KovDskReadClose under the direct streams' name.
 *
 * Arguments: as KovDskReadClose.
 * Returns:   as KovDskReadClose.
 * Errors:    as KovDskReadClose.
 * Leaves:    as KovDskReadClose.
 * Lock:      as KovDskReadClose.
 */
int  KovDskReadCloseDirect(int handle);

/* KovDskDirList - lists a plain directory under the root: names as they lie
 * on the disk, filtered by a pattern, sorted by alphasort, as records of
 * 272 bytes.
 *
 * Arguments: dir: relative to the root; "" is the root itself. pattern: not
 *            NULL, below 256 bytes, read by the modes EXACT and PREFIX.
 *            result: not NULL, filled in. mode: KOVDSK_DIRLIST_ALL,
 *            KOVDSK_DIRLIST_EXACT or KOVDSK_DIRLIST_PREFIX.
 * Returns:   0, also for no entry.
 * Errors:    EINIT; EINVAL: dir, pattern or result NULL, dir with "..",
 *            pattern of 256 bytes or more, mode above 2. errno of scandir
 *            (ENOENT for a missing dir). ENOSPC: no memory for the array.
 * Leaves:    success: count records, total the sum of their sizes, entries
 *            the caller's (NULL with count 0). Each record has the entry's
 *            name, st_size, st_mode by stat (a link followed) and time:
 *            st_atime as the date component shifts it, st_mtime if that
 *            fails. An entry whose stat fails stays an all-zero record and
 *            is counted. Failure: result untouched, but ENOSPC sets entries
 *            to NULL.
 * Lock:      table lock, with the operation counter and the activity
 *            counter.
 */
int  KovDskDirList(const char *dir, const char *pattern, KovDskDirRes *result,
                   uint32_t mode);

/* ---- Drive administration -----------------------------------------------
 * A device path is the device node's own path, not relative to the root.
 * The five ATA calls touch no table and work unattached; the caller keeps
 * drive commands and running streams apart. KovDskFdisk, KovDskFormat and
 * KovDskChk take no table lock either, so they can run while the caller
 * holds it after a 0 from KovDskOpenTblCheck. */

/* KovDskSetPasswd - sets an ATA security password of the drive: the
 * driver request 0x350, or where the kernel lacks it the drive's SECURITY
 * SET PASSWORD through SG_IO (ATA PASS-THROUGH).
 *
 * Arguments: path: the drive's device node, not empty. password: not
 *            empty; its first 32 bytes count, and 32 or more fill the field
 *            with no terminator. which: KOVDSK_PASSWD_USER or
 *            KOVDSK_PASSWD_MASTER.
 * Returns:   what the request returned: 0 on success.
 * Errors:    EINVAL: path or password NULL or empty, which above 1; nothing
 *            opened. errno of open, of the request. EIO: the drive refused
 *            the command sent through SG_IO (a wrong password, say).
 * Leaves:    the drive as it answered; the password's block wiped.
 * Lock:      none.
 */
int  KovDskSetPasswd(const char *path, const char *password,
                     unsigned char which);

/* KovDskUnlockPasswd - unlocks the drive with an ATA security password:
 * request 0x351, or SECURITY UNLOCK through SG_IO.
 *
 * Arguments: as KovDskSetPasswd.
 * Returns:   as KovDskSetPasswd.
 * Errors:    as KovDskSetPasswd.
 * Leaves:    as KovDskSetPasswd.
 * Lock:      none.
 */
int  KovDskUnlockPasswd(const char *path, const char *password,
                        unsigned char which);

/* KovDskDisablePasswd - disables the drive's ATA security password:
 * request 0x352, or SECURITY DISABLE PASSWORD through SG_IO.
 *
 * Arguments: as KovDskSetPasswd.
 * Returns:   as KovDskSetPasswd.
 * Errors:    as KovDskSetPasswd.
 * Leaves:    as KovDskSetPasswd.
 * Lock:      none.
 */
int  KovDskDisablePasswd(const char *path, const char *password,
                         unsigned char which);

/* KovDskReset - resets the drive (HDIO_DRIVE_RESET).
 *
 * Arguments: path: the drive's device node, not empty.
 * Returns:   what the request returned: 0 on success.
 * Errors:    EINVAL: path NULL or empty. errno of open, of the request.
 * Leaves:    nothing of the library's changed.
 * Lock:      none.
 */
int  KovDskReset(const char *path);

/* KovDskGetIdentify - reads the drive's IDENTIFY DEVICE data
 * (HDIO_DRIVE_CMD), trying three times 100 microseconds apart.
 *
 * Arguments: path: the drive's device node, not empty. buffer: not NULL,
 *            KOVDSK_IDENTIFY_SIZE bytes, any alignment; receives the data
 *            in the byte order the driver gives.
 * Returns:   0.
 * Errors:    EINVAL: path NULL or empty, buffer NULL. errno of open. errno
 *            of the third failed request, after "identify get failed!!" on
 *            standard output.
 * Leaves:    buffer all zero on every failure but EINVAL.
 * Lock:      none.
 */
int  KovDskGetIdentify(const char *path, void *buffer);

/* KovDskFdisk - writes a fresh partition table into sector 0 of a whole
 * disk: 1 to 4 primary partitions of type 0x83, none bootable, in whole
 * cylinders of the drive's geometry with no gap between them; then has the
 * kernel read it again (BLKRRPART).
 *
 * Arguments: path: the whole disk's device node, not NULL. count: 1 to 4
 *            partitions. size1 to size4: sizes in sectors, rounded down to
 *            whole cylinders. size1 counts from sector 0: partition 1
 *            starts behind the first track and ends where size1 sectors
 *            from sector 0 end. The last partition, the count-th or the
 *            first whose size reaches the disk's end, takes the rest: its
 *            size is not looked at, and size4 never is; each size before it
 *            must not be 0.
 * Returns:   0.
 * Errors:    EINIT; EINVAL: path NULL, count outside 1 to 4, a size before
 *            the last 0 (nothing done yet); after the geometry requests:
 *            zero heads or sectors, a size before the last below one
 *            cylinder, no whole cylinder behind the first track. errno of
 *            open, write, lseek, and of the requests BLKSSZGET, BLKGETSIZE,
 *            the geometry and BLKRRPART.
 * Leaves:    success: the table synced; entries behind the last all zero;
 *            whole cylinders that leave a partition nothing give it an
 *            entry of length 0. Bytes 8 to 445 of the sector are never
 *            touched. Failure: bytes 0 to 7 are zero once the device has
 *            taken them (the first write, before any request); the old
 *            table stays until the new one is written; after a failed
 *            BLKRRPART the new table is on the disk while the kernel keeps
 *            the old one.
 * Lock:      none; the activity counter raised for the call.
 */
int  KovDskFdisk(const char *path, int32_t count, uint32_t size1,
                 uint32_t size2, uint32_t size3, uint32_t size4);

/* KovDskFormat - makes an ext2 file system on a device by running
 * mke2fs <path> -q ["-b <block_size>" <block_count>], found through PATH,
 * with the caller's standard streams, and waiting for it.
 *
 * Arguments: path: the device node, not NULL. block_size: the block size in
 *            bytes. block_count: the size in blocks of that size. Both go to
 *            mke2fs only if both are not 0: 0 leaves mke2fs its defaults.
 *            Other values, negative ones too, go as they are.
 * Returns:   mke2fs's exit code, 0 to 255, uninterpreted; 255 also when
 *            mke2fs could not be run.
 * Errors:    EINIT; EINVAL: path NULL. errno of fork, waitpid. mke2fs ended
 *            by a signal: -1 with errno as on entry.
 * Leaves:    the system log (LOG_INFO) has " HDD format start..." from the
 *            call's start, before any test. With an exit code: all write
 *            and read slots cleared and the garbage flag 0, so every stream
 *            is gone and its handle names a free slot (descriptors and
 *            buffers stay with their processes); synced; " HDD format
 *            terminated." logged. With -1 after the start: nothing cleared,
 *            no end line.
 * Lock:      none, the clearing included: keep streams away by holding the
 *            lock from KovDskOpenTblCheck. The activity counter is raised
 *            while mke2fs runs.
 */
int  KovDskFormat(const char *path, int32_t block_size, int32_t block_count);

/* KovDskChk - checks and repairs a file system by running
 * e2fsck -f -F -y <path>, found through PATH, with the caller's standard
 * streams, and waiting for it.
 *
 * Arguments: path: the device node, not NULL.
 * Returns:   e2fsck's exit code, 0 to 255, uninterpreted (e2fsck: 0 clean,
 *            1 corrected, ...); 255 also when e2fsck could not be run.
 * Errors:    EINIT; EINVAL: path NULL. errno of fork, waitpid. e2fsck ended
 *            by a signal: -1 with errno as on entry.
 * Leaves:    " HDD data check start..." in the system log (LOG_INFO) from
 *            the start, before any test; with an exit code, synced and
 *            " HDD data check terminated." logged. Slots untouched.
 * Lock:      none; the activity counter is raised while e2fsck runs.
 */
int  KovDskChk(const char *path);

/* ---- Version-up ---------------------------------------------------------- */

/* KovDskVup001 - moves the old files, stored files of kinds 3 and 4 lying as
 * regular files in "general", into the pass area "usr/<user>/<pass>",
 * making both of its directories, and gives each its two links. Their
 * names, and so all they carry, stay.
 *
 * Arguments: user: not NULL; its first KOVDSK_USER_MAX bytes count. pass:
 *            the pass.
 * Returns:   0: old files were moved.
 * Errors:    EINIT; EINVAL: user NULL. ENOTDIR: "usr" is a link or no
 *            directory. No old file could be moved (there is none, or "usr"
 *            is missing): -1, errno of no meaning, " [KovDskVup001] No old
 *            files" logged. errno of mkdir of the user or the pass
 *            directory, EEXIST among them (both must be new), logged.
 * Leaves:    success: the files in the pass area with their links, synced;
 *            a link that could not be made is not reported. After a failed
 *            mkdir the files lie directly in "usr" and stay there until a
 *            call that moves a further old file makes both directories. A
 *            file whose move fails stays where it is. Streams are not looked
 *            at. Log lines go to the system log at LOG_INFO.
 * Lock:      table lock, with the activity counter, for the whole call.
 */
int  KovDskVup001(const char *user, uint64_t pass);

/* ---- Layout checks -------------------------------------------------------
 * C99 has no static assertion; an array of negative size stops the build. */
#define KOVDSK_CHECK(name, cond) typedef char kovdsk_check_##name[(cond) ? 1 : -1]

KOVDSK_CHECK(list_ent_size,   sizeof(KovDskListEnt) == 152);
KOVDSK_CHECK(list_short_tag,  offsetof(KovDskListEnt, short_tag) == 0);
KOVDSK_CHECK(list_long_tag,   offsetof(KovDskListEnt, long_tag) == 17);
KOVDSK_CHECK(list_name,       offsetof(KovDskListEnt, name) == 82);
KOVDSK_CHECK(list_kind,       offsetof(KovDskListEnt, kind) == 116);
KOVDSK_CHECK(list_tmp,        offsetof(KovDskListEnt, tmp) == 120);
KOVDSK_CHECK(list_deadline,   offsetof(KovDskListEnt, deadline) == 124);
KOVDSK_CHECK(list_time,       offsetof(KovDskListEnt, time) == 136);
KOVDSK_CHECK(list_size,       offsetof(KovDskListEnt, size) == 144);
KOVDSK_CHECK(list_res_count,  offsetof(KovDskListRes, count) == 0);
KOVDSK_CHECK(list_res_total,  offsetof(KovDskListRes, total) == 8);
KOVDSK_CHECK(list_res_ents,   offsetof(KovDskListRes, entries) == 16);
KOVDSK_CHECK(dir_ent_size,    sizeof(KovDskDirEnt) == 272);
KOVDSK_CHECK(dir_name,        offsetof(KovDskDirEnt, name) == 0);
KOVDSK_CHECK(dir_size,        offsetof(KovDskDirEnt, size) == 256);
KOVDSK_CHECK(dir_mode,        offsetof(KovDskDirEnt, mode) == 264);
KOVDSK_CHECK(dir_time,        offsetof(KovDskDirEnt, time) == 268);
KOVDSK_CHECK(dir_res_count,   offsetof(KovDskDirRes, count) == 0);
KOVDSK_CHECK(dir_res_total,   offsetof(KovDskDirRes, total) == 8);
KOVDSK_CHECK(dir_res_ents,    offsetof(KovDskDirRes, entries) == 16);
KOVDSK_CHECK(tbl_acc_cnt,     offsetof(KovDskAccTbl, acc_cnt) == 4096);
KOVDSK_CHECK(tbl_accessed,    offsetof(KovDskAccTbl, accessed) == 4100);
KOVDSK_CHECK(tbl_trash_mode,  offsetof(KovDskAccTbl, trash_mode) == 4104);
KOVDSK_CHECK(tbl_gbg_flag,    offsetof(KovDskAccTbl, gbg_flag) == 4108);
KOVDSK_CHECK(tbl_trash_seq,   offsetof(KovDskAccTbl, trash_seq) == 4112);
KOVDSK_CHECK(tbl_op_cnt,      offsetof(KovDskAccTbl, op_cnt) == 4116);
KOVDSK_CHECK(tbl_wr,          offsetof(KovDskAccTbl, wr) == 4120);
KOVDSK_CHECK(wr_name,         offsetof(KovDskAccWrEnt, name) == 8);
KOVDSK_CHECK(wr_kind,         offsetof(KovDskAccWrEnt, kind) == 44);
KOVDSK_CHECK(wr_dir,          offsetof(KovDskAccWrEnt, dir) == 52);
KOVDSK_CHECK(wr_file,         offsetof(KovDskAccWrEnt, file) == 4148);
KOVDSK_CHECK(rd_kind,         offsetof(KovDskAccRdEnt, kind) == 44);
KOVDSK_CHECK(rd_dir,          offsetof(KovDskAccRdEnt, dir) == 48);
KOVDSK_CHECK(rd_file,         offsetof(KovDskAccRdEnt, file) == 4144);

#if UINTPTR_MAX == 0xFFFFFFFFu
/* The 32-bit target: the sizes every process of the appliance agrees on. */
KOVDSK_CHECK(tbl_size,        sizeof(KovDskAccTbl) == 287128);
KOVDSK_CHECK(wr_size,         sizeof(KovDskAccWrEnt) == 4420);
KOVDSK_CHECK(rd_size,         sizeof(KovDskAccRdEnt) == 4424);
KOVDSK_CHECK(tbl_rd,          offsetof(KovDskAccTbl, rd) == 145560);
KOVDSK_CHECK(wr_rawbuf,       offsetof(KovDskAccWrEnt, rawbuf) == 4404);
KOVDSK_CHECK(wr_head,         offsetof(KovDskAccWrEnt, head) == 4416);
KOVDSK_CHECK(rd_rawbuf,       offsetof(KovDskAccRdEnt, rawbuf) == 4400);
KOVDSK_CHECK(rd_remain,       offsetof(KovDskAccRdEnt, remain) == 4416);
#endif

#undef KOVDSK_CHECK

#ifdef __cplusplus
}
#endif

#endif /* KOVDSK_H */
