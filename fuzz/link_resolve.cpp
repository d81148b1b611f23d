/*
 * link_resolve.cpp - KovDskLinkResolve over arbitrary link texts. The
 * library follows the links it finds in "general" and in the user areas to
 * read, list and delete the files behind them, so whatever a link holds
 * must resolve to a path under the root or fail.
 *
 * Once per process the target makes a private table and a temporary
 * directory. The table is a segment of its own (IPC_PRIVATE, removed at once
 * so that it goes with the process), attached as AccTbl; nothing but its
 * root is used. For each input without a NUL and of at most 4095 bytes a
 * symlink holding the input is made in the temporary directory and resolved
 * twice: under a short root and under the longest root KovDskInitSet takes
 * (3696 bytes), so that results that would not fit the 4096-byte path are
 * reached too.
 *
 * Properties: 0, or -1 with EINVAL, ENAMETOOLONG or ENOTDIR (a directory on
 * the way that is none) and the output untouched. On success the output is
 * root "/usr/" user "/" pass "/" file with the pieces KovDskPathSplit gives
 * for the text, the file lies directly in the pass area, and the
 * components, taken as they are, never climb above the root.
 */
#include "fuzz.h"

#include "store/store.h"

#include <cerrno>
#include <climits>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <unistd.h>

namespace {

constexpr size_t kRootMax = 3696;  // KovDskInitSet's limit

// The temporary directory and the link in it, in plain buffers so that the
// exit handler that removes them needs nothing that may be destroyed first.
char g_dir[PATH_MAX];
char g_link[PATH_MAX];
std::string g_roots[2];

void RemoveLink()
{
    unlink(g_link);
    rmdir(g_dir);
}

void SetUpOnce()
{
    int shm = shmget(IPC_PRIVATE, sizeof(KovDskAccTbl), IPC_CREAT | 0600);
    void *at = shm == -1 ? reinterpret_cast<void *>(-1) : shmat(shm, nullptr, 0);
    if (shm != -1)
        shmctl(shm, IPC_RMID, nullptr);  // goes when the process detaches
    // Without System V IPC, a table in the process's own memory does.
    static KovDskAccTbl fallback;
    AccTbl = at == reinterpret_cast<void *>(-1) ? &fallback : static_cast<KovDskAccTbl *>(at);
    memset(AccTbl, 0, sizeof *AccTbl);

    const char *tmp = getenv("TMPDIR");
    snprintf(g_dir, sizeof g_dir, "%s/kovdsk-fuzz-XXXXXX", tmp != nullptr && *tmp != '\0' ? tmp : "/tmp");
    if (mkdtemp(g_dir) == nullptr) {
        perror("mkdtemp");
        abort();
    }
    snprintf(g_link, sizeof g_link, "%s/link", g_dir);
    atexit(RemoveLink);
    g_roots[0] = "/mnt/store";
    g_roots[1] = "/mnt/" + std::string(kRootMax - 5, 'r');
}

// The components of rel, taken as they are, never climb above where rel
// starts.
bool StaysBelow(const std::string &rel)
{
    int depth = 0;
    size_t at = 0;
    while (at <= rel.size()) {
        size_t end = rel.find('/', at);
        if (end == std::string::npos)
            end = rel.size();
        std::string part = rel.substr(at, end - at);
        if (part == "..") {
            if (--depth < 0)
                return false;
        } else if (!part.empty() && part != ".") {
            depth++;
        }
        at = end + 1;
    }
    return true;
}

void Resolve(const std::string &text, const std::string &root, const char *link)
{
    strcpy(AccTbl->root, root.c_str());
    static char out[KOVDSK_PATH_MAX];
    memset(out, 'X', sizeof out);
    errno = 0;
    int rc = KovDskLinkResolve(link, out);
    if (rc != 0) {
        KOVFUZZ_CHECK(rc == -1 && (errno == EINVAL || errno == ENAMETOOLONG || errno == ENOTDIR), text);
        for (char c : out)
            KOVFUZZ_CHECK(c == 'X', text);
        return;
    }
    KOVFUZZ_CHECK(strnlen(out, sizeof out) < sizeof out, text);
    char user[KOVDSK_USER_HEX_BUF], pass[KOVDSK_PASS_HEX_BUF], file[KOVDSK_STORED_MAX];
    KOVFUZZ_CHECK(KovDskPathSplit(text.c_str(), user, pass, file) == 0, text);
    KOVFUZZ_CHECK(strchr(file, '/') == nullptr, text);
    std::string want = root + "/usr/" + user + "/" + pass + "/" + file;
    KOVFUZZ_CHECK(want == out, text);
    KOVFUZZ_CHECK(StaysBelow(want.substr(root.size())), text);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0 || size >= KOVDSK_PATH_MAX || memchr(data, '\0', size) != nullptr)
        return 0;
    static bool ready = (SetUpOnce(), true);
    (void)ready;
    std::string text(reinterpret_cast<const char *>(data), size);
    unlink(g_link);
    if (symlink(text.c_str(), g_link) != 0)
        return 0;
    for (const std::string &root : g_roots)
        Resolve(text, root, g_link);
    return 0;
}
