/*
 * store.h - the store's naming and layout: the stored-name codec
 * (codec.cpp), the area directories, searches and links (tree.cpp), and how
 * a file leaves the store (trash.cpp, shred.cpp).
 *
 * A stored file's metadata lives in its own directory-entry name, e.g.
 * t2atn616263nf7879fs6D656D6Fsd26013115dm30m.1: kind, file name, short tag,
 * long tag, deadline (date and hour, then minute) and the temporary flag.
 * None of these routines takes a lock: the exported operation that calls
 * them holds the table lock where the tree is searched or changed.
 */
#ifndef KOVDSK_STORE_H
#define KOVDSK_STORE_H

#include "shared/shared.h"

#include <cstdint>

// The caller buffers of the parser: each value's limit and a terminator.
constexpr int KOVDSK_FNAME_BUF = KOVDSK_NAME_MAX + 1;
constexpr int KOVDSK_STAG_BUF = KOVDSK_SHORT_TAG_MAX + 1;
constexpr int KOVDSK_LTAG_BUF = KOVDSK_LONG_TAG_MAX + 1;
constexpr int KOVDSK_DEADLINE_BUF = KOVDSK_DEADLINE_LEN + 1;
constexpr int KOVDSK_USER_SIZE = KOVDSK_USER_MAX + 1;  // the hex encoder's size for a user
constexpr int KOVDSK_USER_HEX_BUF = 136;  // the splitter's user buffer
constexpr int KOVDSK_PASS_HEX_BUF = 40;   // the splitter's pass buffer

// ---- Codec (codec.cpp) ---------------------------------------------------

// Upper-case hex of at most size - 1 source bytes; always terminated.
// Returns the characters written.
int KovDskHexEnc(const char *src, char *dst, int size);
// Hex text back to bytes, upper or lower case, terminated. Cannot fail.
int KovDskHexDec(const char *src, char *dst);
// The stored name into out (256 bytes, zeroed first). -1 with EINVAL for an
// empty name, a kind of 256 or more, or no output.
int KovDskNameBuild(unsigned kind, const char *name, const char *short_tag,
                    const char *long_tag, const char *deadline, int tmp, char *out);
// The values back from a stored name; every output may be NULL. -1 with
// EINVAL for no name, a field with no closing delimiter, or a field longer
// than its value's limit.
int KovDskNameParse(const char *stored, int *kind, char *name, char *short_tag,
                    char *long_tag, char *deadline, int *tmp);
// A deadline a stored name takes: exactly ten decimal digits. Any other is
// dropped without an error.
bool KovDskIsDeadline(const char *deadline);

// The one rule by which a file name and kind match a given name and kind,
// for stored names and open slots alike: mode 1 exact (kind 0 is kind 0),
// mode 2 the name a prefix and kind 0 any kind, any other mode everything.
bool KovDskNameMatches(int mode, const char *name, unsigned kind, const char *got_name,
                       unsigned got_kind);

// ---- Areas and links (tree.cpp) -------------------------------------------

// Selectors an operation accepts, as a set of bits.
constexpr unsigned KOVDSK_AREAS_WRITE =
    1u << KOVDSK_AREA_GENERAL | 1u << KOVDSK_AREA_ID | 1u << KOVDSK_AREA_PASS;
constexpr unsigned KOVDSK_AREAS_ALL = KOVDSK_AREAS_WRITE | 1u << KOVDSK_AREA_USER;

// The link flag of KovDskNameFind.
constexpr int KOVDSK_FILES_ONLY = 0;
constexpr int KOVDSK_LINKS_TOO = 1;

// The area path of a selector ("general", "uid/<id>", "usr/<user>",
// "usr/<user>/<pass>") into a buffer of KOVDSK_PATH_MAX bytes. -1 with EINVAL
// for a selector outside `accepted`, or a NULL user where one is needed.
int KovDskAreaPath(char *out, unsigned area, uint64_t id, const char *user,
                   uint64_t pass, unsigned accepted);
// The argument tests of an operation on the stored files of an area, in
// the library's order: attached, then `bad` (the caller's tests of its
// texts and ranges), then the selector; the area path into areapath.
// -1 with EINIT or EINVAL.
int KovDskAreaArg(bool bad, unsigned area, uint64_t id, const char *user, uint64_t pass,
                  unsigned accepted, char *areapath);
// "usr/" + the user in hex, encoded at the given size.
void KovDskUserPath(char *out, const char *user, int size);

// Stored names in an area that match (KovDskNameMatches); with the link
// flag, links of the library's own making too. The last match goes to out
// (256 bytes).
int KovDskNameFind(const char *area, unsigned kind, const char *name, char *out,
                   int mode, int linkflag);
// ".../usr/<user>/<pass>/<file>" taken apart. -1 with EINVAL.
int KovDskPathSplit(const char *path, char *user, char *pass, char *file);
// The links of a pass area's file in "general" and in its user's directory.
int KovDskLinkMake(const char *fullpath);
// The real file behind a link of the library's making, under the root of
// the table: the link's text taken apart at "/usr/" into user, pass and a
// file directly in the pass area, with no ".." and no link on the way. -1
// with EINVAL (or the errno of the step that failed) for any other link: it
// is no stored file and is never followed.
int KovDskLinkResolve(const char *link, char *out);
// Whether a path is a link of the library's making (KovDskLinkResolve).
bool KovDskOwnLink(const char *path);
// A path that names a link becomes the real file's path; on a failure, or
// for anything but a link, the path stays as it is.
void KovDskResolveInPlace(char *path);

// ---- Leaving the store (trash.cpp, shred.cpp) -----------------------------

// Removes a regular file, or moves it to ".trash" in trash mode.
int KovDskDiscard(const char *fullpath);
// Takes a pass area's file with both links and emptied directories.
int KovDskLinkedDel(const char *path);
// Runs shred on a file; its exit code, or -1.
int KovDskShredRun(const char *path, int passes, int zero, long long size, int unlink);

#endif // KOVDSK_STORE_H
