/*
 * soak.cpp - many processes on one table and one root for a bounded time.
 *
 * The parent makes the table and the store; eight workers attach as every
 * process of the appliance does and run a random mix of every stream
 * (stored files of several kinds in the common, id and pass areas, kind 6
 * among them; direct writes, appends and reads), deletes by name and by
 * prefix, both sweeps, the listings and lookups, and the plain path
 * operations. Every file's bytes follow from its name and a generation
 * number that travels in its first line and in its short tag, so a reader
 * knows what each byte must be and any corruption shows.
 *
 * Shared names are written, read and deleted by every worker: what the
 * library refuses there (EAGAIN, EALREADY, ENOENT after another process
 * deleted a file, a lookup that finds nothing) is counted, not a failure.
 * Private names and direct files belong to one worker, which therefore
 * knows exactly what must exist; it keeps a ledger in shared memory.
 *
 * Afterwards the parent checks: every file of a ledger is there byte for
 * byte, and no other private file; every stored file whole and as its
 * name says; nothing in the tree outside the store's layout; all slots
 * free, counters at rest, both locks free; `kovdsk status --json` says the
 * same. With --kill one worker opens four streams, stops between calls and
 * is killed with SIGKILL: the others must keep working, the status must
 * show its orphaned slots, and the final checks expect exactly those.
 *
 *   kovdsk_soak [--seconds N] [--workers N] [--kill] [--seed S] [--kovdsk PATH]
 *
 * Run it in an IPC namespace of its own (tests/run-isolated.sh); without
 * one it removes its table at the end.
 */
#include <kovdsk.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <map>
#include <nlohmann/json.hpp>
#include <random>
#include <set>
#include <string>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

// The date component's time for the whole run: deadlines before it have
// passed, those after it have not.
constexpr char kNow[] = "2026-06-15 12:00:00";
constexpr char kPast[] = "2606011200";
constexpr char kFuture[] = "2712312359";

constexpr int kMaxWorkers = 16;
constexpr int kPrivate = 4;   // stored names per worker
constexpr int kDirect = 2;    // direct files per worker
constexpr size_t kBlock = 4096;

// ---- Names and what their bytes are ---------------------------------------

struct Target {
    std::string name;
    unsigned kind;
    unsigned area;  // 0 general, 1 id, 3 pass
    uint64_t id;
    std::string user;
    uint64_t pass;
};

std::string Hex(const std::string &s)
{
    static const char d[] = "0123456789ABCDEF";
    std::string out;
    for (unsigned char c : s) {
        out += d[c >> 4];
        out += d[c & 15];
    }
    return out;
}

std::string Num16(uint64_t v)
{
    char buf[17];
    snprintf(buf, sizeof buf, "%016llX", static_cast<unsigned long long>(v));
    return buf;
}

std::string AreaPath(const Target &t)
{
    if (t.area == 0)
        return "general";
    if (t.area == 1)
        return "uid/" + Num16(t.id);
    return "usr/" + Hex(t.user) + "/" + Num16(t.pass);
}

// Shared names: every worker writes, reads and deletes them.
const std::vector<Target> kShared = {
    {"s00", 1, 0, 0, "", 0},      {"s01", 3, 0, 0, "", 0},      {"s02", 6, 0, 0, "", 0},
    {"s03", 1, 1, 1, "", 0},      {"s04", 4, 1, 2, "", 0},      {"s05", 6, 1, 1, "", 0},
    {"s06", 3, 3, 0, "alice", 1}, {"s07", 1, 3, 0, "alice", 2}, {"s08", 6, 3, 0, "bob", 1},
    {"s09", 4, 3, 0, "bob", 1},   {"s10", 5, 0, 0, "", 0},      {"s11", 2, 1, 3, "", 0},
};

// A worker's own names: the same pass area for all ("dave"), one of its own.
Target Private(int w, int i)
{
    std::string name = "w" + std::to_string(w) + static_cast<char>('a' + i);
    switch (i) {
    case 0: return {name, 1, 0, 0, "", 0};
    case 1: return {name, 3, 1, static_cast<uint64_t>(10 + w), "", 0};
    case 2: return {name, 6, 3, 0, "carol", static_cast<uint64_t>(100 + w)};
    default: return {name, 2, 3, 0, "dave", 1};
    }
}

std::string DirectPath(int w, int i) { return "direct/w" + std::to_string(w) + static_cast<char>('x' + i); }

uint64_t Fnv(const std::string &s, uint64_t h = 1469598103934665603ull)
{
    for (unsigned char c : s) {
        h ^= c;
        h *= 1099511628211ull;
    }
    return h;
}

// The length a generation of a name has: under a block, whole blocks, or
// anything up to ten blocks.
size_t Length(const std::string &key, uint32_t gen)
{
    uint64_t h = Fnv(key + "#" + std::to_string(gen));
    size_t len;
    switch (h % 10) {
    case 0: case 1: case 2: len = h / 10 % kBlock; break;
    case 3: case 4: len = (1 + h / 10 % 6) * kBlock; break;
    default: len = h / 10 % (10 * kBlock); break;
    }
    return std::max<size_t>(len, 64);
}

// "KOVSOAK <key> <gen> <length>\n", then bytes that follow from both.
std::string Bytes(const std::string &key, uint32_t gen)
{
    size_t len = Length(key, gen);
    std::string s = "KOVSOAK " + key + " " + std::to_string(gen) + " " + std::to_string(len) + "\n";
    uint64_t x = Fnv(key, gen * 2654435761ull + 1);
    while (s.size() < len) {
        x ^= x << 13;
        x ^= x >> 7;
        x ^= x << 17;
        s += static_cast<char>(x >> 24);
    }
    s.resize(len);
    return s;
}

enum class Verdict { Whole, Partial, Bad };

// What a file's bytes say of themselves. A file that a writer has open
// may be a prefix: empty, or for a block stream whole blocks.
Verdict Judge(const std::string &key, unsigned kind, const std::string &got, uint32_t *gen, std::string *why)
{
    if (got.empty())
        return Verdict::Partial;
    std::string head = "KOVSOAK " + key + " ";
    size_t nl = got.find('\n');
    unsigned long g = 0, len = 0;
    if (got.compare(0, head.size(), head) != 0 || nl == std::string::npos ||
        sscanf(got.c_str() + head.size(), "%lu %lu", &g, &len) != 2) {
        *why = "no header of " + key;
        return Verdict::Bad;
    }
    *gen = static_cast<uint32_t>(g);
    if (len != Length(key, *gen)) {
        *why = "header of " + key + " names a wrong length";
        return Verdict::Bad;
    }
    std::string want = Bytes(key, *gen);
    if (got.size() > want.size() || want.compare(0, got.size(), got) != 0) {
        *why = key + " generation " + std::to_string(*gen) + ": bytes differ";
        return Verdict::Bad;
    }
    if (got.size() == want.size())
        return Verdict::Whole;
    if (kind != 6 && got.size() % kBlock != 0) {
        *why = key + ": a prefix off the block grid";
        return Verdict::Bad;
    }
    return Verdict::Partial;
}

// ---- What the processes share -------------------------------------------

enum Op {
    kWriteStored, kReadStored, kDelete, kDeletePrefix, kTimeSweep, kTmpSweep, kList, kListAreas,
    kLookup, kWriteDirect, kAppendDirect, kReadDirect, kPathOps, kDirList, kTableCheck, kOps
};
const char *const kOpNames[kOps] = {
    "stored write",  "stored read",  "delete",        "delete by prefix", "expiry sweep",
    "temporary sweep", "file listing", "area listings", "lookups",         "direct write",
    "direct append", "direct read",  "path operations", "directory listing", "table check"};

enum Refusal { kEagain, kEalready, kEnoent, kNotFound, kRefusals };
const char *const kRefusalNames[kRefusals] = {
    "EAGAIN (file in use)", "EALREADY (open for writing)", "ENOENT (deleted or absent)",
    "EINVAL (lookup found no pass file)"};

enum Check {
    kWholeReads, kPartialReads, kListRecords, kLedgerReads, kDirectReads, kFinalFiles, kChecks
};
const char *const kCheckNames[kChecks] = {
    "whole stored files read back byte for byte", "prefixes of files being written, byte for byte",
    "list records held against their names",    "own files found exactly as the ledger says",
    "direct files read back byte for byte",      "files checked by the parent at the end"};

struct Ledger {
    uint32_t gen[kPrivate];     // 0: absent
    uint8_t writing[kPrivate];  // a stream of it left open by a killed worker
    uint32_t dlen[kDirect];
    uint64_t dhash[kDirect];
    uint8_t dexists[kDirect];
};

struct Board {
    std::atomic<long> ops[kMaxWorkers][kOps];
    std::atomic<long> refused[kMaxWorkers][kRefusals];
    std::atomic<long> checks[kMaxWorkers][kChecks];
    std::atomic<long> failures;
    std::atomic<int> victim_ready;  // the victim stopped with its streams open
    Ledger ledger[kMaxWorkers];
};

Board *board;
std::string root;

std::chrono::steady_clock::time_point After(double seconds)
{
    return std::chrono::steady_clock::now() +
           std::chrono::duration_cast<std::chrono::steady_clock::duration>(std::chrono::duration<double>(seconds));
}

long Total(int workers)
{
    long n = 0;
    for (int w = 0; w < workers; w++)
        for (int o = 0; o < kOps; o++)
            n += board->ops[w][o].load();
    return n;
}

// ---- One worker -------------------------------------------------------------

class Worker {
public:
    Worker(int id, unsigned seed, double seconds)
        : id_(id), rng_(seed * 7919u + static_cast<unsigned>(id)),
          end_(After(seconds))
    {
    }

    void Run(bool victim_at_third, double seconds);

private:
    int id_;
    std::mt19937 rng_;
    std::chrono::steady_clock::time_point end_;
    std::string direct_[kDirect];  // what each direct file holds
    bool direct_exists_[kDirect] = {};

    unsigned R(unsigned n) { return static_cast<unsigned>(rng_() % n); }
    Ledger &L() { return board->ledger[id_]; }

    void Fail(const std::string &what)
    {
        fprintf(stderr, "worker %d: %s\n", id_, what.c_str());
        board->failures++;
    }
    void Done(Op op) { board->ops[id_][op]++; }
    void Refused(Refusal r) { board->refused[id_][r]++; }
    void Checked(Check c, long n = 1) { board->checks[id_][c] += n; }

    // An errno that this operation may meet because of the others.
    bool Refusable(int err, std::initializer_list<int> allowed)
    {
        for (int a : allowed) {
            if (err == a) {
                Refused(err == EAGAIN     ? kEagain
                        : err == EALREADY ? kEalready
                        : err == ENOENT   ? kEnoent
                                          : kNotFound);
                return true;
            }
        }
        return false;
    }

    // Now and then a pause inside a stream, so that streams overlap.
    void Pause()
    {
        if (R(4) == 0)
            usleep(R(20000));
    }

    // Stored files.
    int WriteStored(const Target &t, uint32_t gen, bool shared, int *left_open = nullptr);
    void ReadStored(const Target &t, bool shared);
    void ListArea();
    void ListAreas();
    void Lookup();
    void DeleteShared(bool prefix);
    void DeletePrivate();
    void Sweep(bool temporary);

    // Direct files and paths.
    void WriteDirect(int i, bool append, bool stop_midway);
    void ReadDirect(int i);
    void PathOps(int i);
    void DirList();
    void TableCheck();
    void SaveDirect(int i)
    {
        L().dexists[i] = direct_exists_[i];
        L().dlen[i] = static_cast<uint32_t>(direct_[i].size());
        L().dhash[i] = Fnv(direct_[i]);
    }

    void Victim();
};

// Writes one generation in chunks of random sizes. 1 when written and
// closed, 0 when refused, -1 on a failure. With left_open the stream stays
// open before its last chunk, its handle there.
int Worker::WriteStored(const Target &t, uint32_t gen, bool shared, int *left_open)
{
    std::string bytes = Bytes(t.name, gen);
    char tag[17];
    snprintf(tag, sizeof tag, "g%u", gen);
    const char *deadline = nullptr;
    int tmp = 0;
    if (shared) {
        unsigned pick = R(6);
        deadline = pick == 0 ? kPast : pick == 1 ? kFuture : nullptr;
        tmp = R(5) == 0;
    }
    int h = KovDskWriteOpen(t.name.c_str(), tag, "soak", t.kind, t.area, t.id, t.user.c_str(), t.pass,
                            tmp, deadline);
    if (h < 0) {
        if (shared && Refusable(errno, {EALREADY, EAGAIN}))
            return 0;
        Fail("write open of " + t.name + ": " + strerror(errno));
        return -1;
    }
    size_t at = 0;
    // A kind-6 file reaches the disk with each write: its first line goes
    // whole, so that a reader never meets half a header.
    size_t first = bytes.find('\n') + 1;
    while (at < bytes.size()) {
        size_t n = std::min<size_t>(bytes.size() - at, 1 + R(R(2) ? 9000 : 500));
        if (at == 0)
            n = std::max(n, first);
        if (left_open != nullptr && at + n >= bytes.size()) {
            *left_open = h;
            return 1;
        }
        if (KovDskWrite(h, bytes.data() + at, static_cast<unsigned>(n)) != static_cast<int>(n)) {
            int err = errno;
            KovDskWriteClose(h);
            // A delete through another area path does not see this stream:
            // only a pass area's file has other paths ("general", the user's).
            if (shared && t.area == 3 && Refusable(err, {ENOENT}))
                return 0;
            Fail("write of " + t.name + ": " + strerror(err));
            return -1;
        }
        at += n;
        Pause();
    }
    if (KovDskWriteClose(h) != 0) {
        if (shared && t.area == 3 && Refusable(errno, {ENOENT}))
            return 0;
        Fail("write close of " + t.name + ": " + strerror(errno));
        return -1;
    }
    Done(kWriteStored);
    return 1;
}

// Through its own area, or a pass file through its links in "general" and
// in the user's area.
void Worker::ReadStored(const Target &t, bool shared)
{
    unsigned area = t.area;
    if (area == 3)
        area = std::vector<unsigned>{0, 2, 3}[R(3)];
    int h = KovDskReadOpen(t.name.c_str(), t.kind, area, t.id, t.user.c_str(), t.pass);
    int slot = -1;
    if (!shared)
        for (int i = 0; i < kPrivate; i++)
            if (Private(id_, i).name == t.name)
                slot = i;
    if (h < 0) {
        if (shared && Refusable(errno, {ENOENT}))
            return;
        if (!shared && errno == ENOENT && L().gen[slot] == 0) {
            Checked(kLedgerReads);
            return;
        }
        Fail("read open of " + t.name + ": " + strerror(errno));
        return;
    }
    std::string got;
    std::vector<char> buf(12000);
    int n;
    while ((n = KovDskRead(h, buf.data(), 1 + R(static_cast<unsigned>(buf.size())))) > 0) {
        got.append(buf.data(), static_cast<size_t>(n));
        if (R(8) == 0)
            Pause();
    }
    int err = errno;
    if (KovDskReadClose(h) != 0)
        Fail("read close of " + t.name + ": " + strerror(errno));
    if (n < 0) {
        Fail("read of " + t.name + ": " + strerror(err));
        return;
    }
    uint32_t gen = 0;
    std::string why;
    Verdict v = Judge(t.name, t.kind, got, &gen, &why);
    if (v == Verdict::Bad) {
        Fail("read back: " + why);
        return;
    }
    if (!shared) {
        if (v != Verdict::Whole || gen != L().gen[slot])
            Fail(t.name + ": not the generation the ledger holds");
        else
            Checked(kLedgerReads);
    }
    Checked(v == Verdict::Whole ? kWholeReads : kPartialReads);
    Done(kReadStored);
}

// A listing of one area: sorted, every record's size that of its
// generation (from the short tag), or a prefix of it while being written.
void Worker::ListArea()
{
    // Mostly a shared name's area, else one of any worker's own.
    Target t = R(3) ? kShared[R(static_cast<unsigned>(kShared.size()))]
                    : Private(static_cast<int>(R(8)), static_cast<int>(R(kPrivate)));
    unsigned area = t.area == 3 ? std::vector<unsigned>{0, 2, 3}[R(3)] : t.area;
    unsigned filter = R(3), sort = R(3);
    KovDskListRes res;
    int rc = KovDskList(R(2) ? "s" : nullptr, 0, area, t.id, t.user.c_str(), t.pass, filter, &res, sort);
    if (rc == -1) {
        if (filter == 2 && Refusable(errno, {EAGAIN}))  // the sweep before
            return;
        Fail(std::string("list: ") + strerror(errno));
        return;
    }
    if (rc != 0) {
        Fail("list returned " + std::to_string(rc));
        return;
    }
    uint64_t sum = 0;
    for (uint32_t i = 0; i < res.count; i++) {
        const KovDskListEnt &e = res.entries[i];
        sum += static_cast<uint64_t>(e.size);
        unsigned gen = 0;
        if (sscanf(e.short_tag, "g%u", &gen) != 1) {
            Fail(std::string("list record without a generation: ") + e.name);
            continue;
        }
        size_t len = Length(e.name, gen);
        bool ok = static_cast<size_t>(e.size) == len ||
                  (static_cast<size_t>(e.size) < len && (e.kind == 6 || e.size % kBlock == 0));
        if (!ok)
            Fail(std::string("list record of ") + e.name + ": size " + std::to_string(e.size));
        if (i > 0) {
            const KovDskListEnt &p = res.entries[i - 1];
            bool ordered = sort == 2 ? p.time <= e.time : p.kind <= e.kind;
            if (!ordered)
                Fail("list not sorted");
        }
        Checked(kListRecords);
    }
    if (sum != res.total)
        Fail("list total is not the sum of its sizes");
    if (res.count != 0)
        free(res.entries);
    Done(kList);
}

void Worker::ListAreas()
{
    uint32_t count = 0;
    uint64_t *ids = nullptr;
    char *users = nullptr;
    unsigned mode = R(3);
    int rc;
    switch (R(4)) {
    case 0:
        rc = KovDskUidList(mode, &count, &ids);
        break;
    case 1:
        rc = KovDskUsrList(mode, &count, &users);
        break;
    case 2:
        rc = KovDskPasList(mode, R(2) ? "alice" : "dave", &count, &ids);
        break;
    default: {
        std::string dir = root + "/" + (R(2) ? "general" : "usr/" + Hex("dave") + "/" + Num16(1));
        rc = KovDskRmnFle(dir.c_str());
        if (rc < 0 && !Refusable(errno, {ENOENT}))
            Fail(std::string("remaining files: ") + strerror(errno));
        Done(kListAreas);
        return;
    }
    }
    if (rc == -1) {
        if (!Refusable(errno, {EAGAIN, ENOENT}))  // a sweep first; a user with no area now
            Fail(std::string("area listing: ") + strerror(errno));
        return;
    }
    for (uint32_t i = 1; ids != nullptr && i < count; i++)
        if (ids[i - 1] >= ids[i])
            Fail("ids not sorted");
    for (uint32_t i = 1; users != nullptr && i < count; i++)
        if (strcmp(users + (i - 1) * KOVDSK_USR_REC, users + i * KOVDSK_USR_REC) >= 0)
            Fail("users not sorted");
    if (count != 0) {
        free(ids);
        free(users);
    }
    Done(kListAreas);
}

void Worker::Lookup()
{
    const Target &t = kShared[R(static_cast<unsigned>(kShared.size()))];
    if (R(2)) {
        uint32_t flag = 0;
        alignas(8) unsigned char pass[17];
        int rc = KovDskPasCheck(t.name.c_str(), t.kind, &flag, pass);
        uint64_t p;
        memcpy(&p, pass, 8);
        if (rc == 0 && (t.area != 3 || flag != 1 || p != t.pass))
            Fail("pass check of " + t.name);
        else if (rc == -1 && !Refusable(errno, {EINVAL}))  // not in "general", or no link
            Fail("pass check of " + t.name + ": " + strerror(errno));
    } else {
        char path[KOVDSK_PATH_MAX];
        int rc = KovDskGetRealFileName(t.name.c_str(), t.kind, t.area, t.id, t.user.c_str(), t.pass, path);
        std::string want = root + "/" + AreaPath(t) + "/";
        if (rc == 0 && strncmp(path, want.c_str(), want.size()) != 0)
            Fail("real path of " + t.name + ": " + path);
        else if (rc == -1 && !Refusable(errno, {ENOENT}))
            Fail("real path of " + t.name + ": " + strerror(errno));
    }
    Done(kLookup);
}

void Worker::DeleteShared(bool prefix)
{
    const Target &t = kShared[R(static_cast<unsigned>(kShared.size()))];
    unsigned area = t.area == 3 ? std::vector<unsigned>{0, 2, 3}[R(3)] : t.area;
    int rc = prefix ? KovDskDel("s0", 0, 2, area, t.id, t.user.c_str(), t.pass)
                    : KovDskDel(t.name.c_str(), t.kind, 1, area, t.id, t.user.c_str(), t.pass);
    if (rc == -1) {
        if (!Refusable(errno, {EAGAIN, ENOENT}))  // in use; an area no longer there
            Fail("delete of " + t.name + ": " + strerror(errno));
        return;
    }
    Done(prefix ? kDeletePrefix : kDelete);
}

void Worker::DeletePrivate()
{
    int i = static_cast<int>(R(kPrivate));
    Target t = Private(id_, i);
    int rc = KovDskDel(t.name.c_str(), t.kind, 1, t.area, t.id, t.user.c_str(), t.pass);
    // An area that is gone holds nothing: its directory went with its last file.
    if (rc == -1 && !(errno == ENOENT && L().gen[i] == 0)) {
        Fail("delete of " + t.name + ": " + strerror(errno));
        return;
    }
    L().gen[i] = 0;
    Done(kDelete);
}

void Worker::Sweep(bool temporary)
{
    int rc = temporary ? KovDskTmpDel() : KovDskTimeDel();
    if (rc == -1) {
        if (!Refusable(errno, {EAGAIN}))
            Fail(std::string("sweep: ") + strerror(errno));
        return;
    }
    Done(temporary ? kTmpSweep : kTimeSweep);
}

void Worker::WriteDirect(int i, bool append, bool stop_midway)
{
    std::string path = DirectPath(id_, i);
    if (append && direct_[i].size() > 200000)
        append = false;
    uint32_t gen = rng_();
    std::string bytes = Bytes(path + (append ? "+" : ""), gen);
    int h = KovDskWriteOpenDirect(path.c_str(), append ? 1 : 0);
    if (h < 0) {
        Fail("direct open of " + path + ": " + strerror(errno));
        return;
    }
    if (!append) {
        direct_[i].clear();
        direct_exists_[i] = true;
        SaveDirect(i);
    }
    size_t at = 0;
    while (at < bytes.size()) {
        size_t n = std::min<size_t>(bytes.size() - at, 1 + R(6000));
        if (KovDskWriteDirect(static_cast<uint32_t>(h), bytes.data() + at, static_cast<uint32_t>(n)) !=
            static_cast<int>(n)) {
            Fail("direct write of " + path + ": " + strerror(errno));
            KovDskWriteCloseDirect(static_cast<uint32_t>(h));
            return;
        }
        at += n;
        if (stop_midway && at > bytes.size() / 2)
            return;
    }
    if (KovDskWriteCloseDirect(static_cast<uint32_t>(h)) != 0) {
        Fail("direct close of " + path + ": " + strerror(errno));
        return;
    }
    direct_[i] += bytes;
    direct_exists_[i] = true;
    SaveDirect(i);
    Done(append ? kAppendDirect : kWriteDirect);
}

void Worker::ReadDirect(int i)
{
    std::string path = DirectPath(id_, i);
    if (!direct_exists_[i])
        return;
    int h = KovDskReadOpenDirect(path.c_str());
    if (h < 0) {
        Fail("direct read open of " + path + ": " + strerror(errno));
        return;
    }
    std::string got;
    std::vector<char> buf(9000);
    int n;
    while ((n = KovDskReadDirect(h, buf.data(), 1 + R(static_cast<unsigned>(buf.size())))) > 0)
        got.append(buf.data(), static_cast<size_t>(n));
    if (n < 0)
        Fail("direct read of " + path + ": " + strerror(errno));
    if (KovDskReadCloseDirect(h) != 0)
        Fail("direct read close of " + path);
    if (got != direct_[i])
        Fail(path + ": direct bytes differ");
    else
        Checked(kDirectReads);
    Done(kReadDirect);
}

void Worker::PathOps(int i)
{
    std::string path = DirectPath(id_, i), moved = path + ".mv";
    int type = KovDskFileChk(path.c_str(), 0);
    if (type != (direct_exists_[i] ? 0 : 1))
        Fail("file check of " + path);
    if (!direct_exists_[i]) {
        Done(kPathOps);
        return;
    }
    if (KovDskFileSize(path.c_str()) != static_cast<int>(direct_[i].size()))
        Fail("size of " + path);
    if (KovDskFileRename(path.c_str(), moved.c_str()) != 0 || KovDskChgTimeStamp(moved.c_str()) != 0 ||
        KovDskFileRename(moved.c_str(), path.c_str()) != 0)
        Fail("rename of " + path + ": " + strerror(errno));
    if (R(10) == 0) {  // gone, and made again by a later write
        if (KovDskFileRemove(path.c_str()) != 0)
            Fail("remove of " + path + ": " + strerror(errno));
        direct_[i].clear();
        direct_exists_[i] = false;
        SaveDirect(i);
    }
    Done(kPathOps);
}

void Worker::DirList()
{
    KovDskDirRes res;
    std::string prefix = "w" + std::to_string(id_);
    int rc = KovDskDirList("direct", R(2) ? "" : prefix.c_str(), &res, R(2) ? 0 : 2);
    if (rc != 0) {
        Fail(std::string("directory listing: ") + strerror(errno));
        return;
    }
    for (int i = 1; i < res.count; i++)
        if (res.entries[i - 1].name[0] != '\0' && res.entries[i].name[0] != '\0' &&
            strcmp(res.entries[i - 1].name, res.entries[i].name) >= 0)
            Fail("directory listing not sorted");
    if (res.count > 0)
        free(res.entries);
    Done(kDirList);
}

void Worker::TableCheck()
{
    int rc = KovDskOpenTblCheck();
    if (rc == 0)
        rc = KovDskTblSemFree();
    else if (rc != 1)
        Fail(std::string("table check: ") + strerror(errno));
    if (rc == -1)
        Fail("table lock not given back");
    Done(kTableCheck);
}

// Stops with four streams open, between calls, to be killed: a stored
// write with blocks on the disk, a stored read, a direct write with bytes
// in its buffer, a direct read.
void Worker::Victim()
{
    Target w = Private(id_, 0), r = Private(id_, 1);
    // The file to be read must exist: written now if need be.
    if (L().gen[1] == 0) {
        uint32_t g = rng_() | 1;
        if (WriteStored(r, g, false) == 1)
            L().gen[1] = g;
    }
    uint32_t gen = rng_() | 1;
    L().gen[0] = gen;
    L().writing[0] = 1;
    int wh = -1;
    WriteStored(w, gen, false, &wh);
    int rh = KovDskReadOpen(r.name.c_str(), r.kind, r.area, r.id, r.user.c_str(), r.pass);
    WriteDirect(0, false, true);
    if (!direct_exists_[1])
        WriteDirect(1, false, false);
    int dh = KovDskReadOpenDirect(DirectPath(id_, 1).c_str());
    if (wh < 0 || rh < 0 || dh < 0)
        Fail("the victim could not open its streams");
    // The direct file half written: the ledger cannot know its end.
    L().dexists[0] = 2;
    board->victim_ready = 1;
    for (;;)
        pause();
}

void Worker::Run(bool victim_at_third, double seconds)
{
    if (KovDskInit() != 0) {
        Fail(std::string("attach: ") + strerror(errno));
        return;
    }
    auto victim_time = After(seconds / 3);
    while (std::chrono::steady_clock::now() < end_) {
        if (victim_at_third && std::chrono::steady_clock::now() >= victim_time)
            Victim();
        unsigned pick = R(100);
        const Target &shared = kShared[R(static_cast<unsigned>(kShared.size()))];
        int mine = static_cast<int>(R(kPrivate));
        if (pick < 22) {
            WriteStored(shared, rng_() | 1, true);
        } else if (pick < 30) {
            uint32_t gen = rng_() | 1;
            if (WriteStored(Private(id_, mine), gen, false) == 1)
                L().gen[mine] = gen;
        } else if (pick < 44) {
            ReadStored(shared, true);
        } else if (pick < 50) {
            ReadStored(Private(id_, mine), false);
        } else if (pick < 54) {
            DeleteShared(false);
        } else if (pick < 56) {
            DeleteShared(true);
        } else if (pick < 58) {
            DeletePrivate();
        } else if (pick < 61) {
            Sweep(false);
        } else if (pick < 63) {
            Sweep(true);
        } else if (pick < 70) {
            ListArea();
        } else if (pick < 73) {
            ListAreas();
        } else if (pick < 76) {
            Lookup();
        } else if (pick < 82) {
            WriteDirect(static_cast<int>(R(kDirect)), false, false);
        } else if (pick < 87) {
            WriteDirect(static_cast<int>(R(kDirect)), true, false);
        } else if (pick < 93) {
            ReadDirect(static_cast<int>(R(kDirect)));
        } else if (pick < 96) {
            PathOps(static_cast<int>(R(kDirect)));
        } else if (pick < 98) {
            DirList();
        } else {
            TableCheck();
        }
    }
}

// ---- The parent's checks -----------------------------------------------------

int problems;

void Problem(const std::string &what)
{
    fprintf(stderr, "CHECK FAILED: %s\n", what.c_str());
    problems++;
}

std::string ReadFile(const std::string &path)
{
    std::string s;
    int fd = open(path.c_str(), O_RDONLY);
    if (fd < 0)
        return s;
    char buf[65536];
    ssize_t n;
    while ((n = read(fd, buf, sizeof buf)) > 0)
        s.append(buf, static_cast<size_t>(n));
    close(fd);
    return s;
}

std::vector<std::string> Names(const std::string &dir)
{
    std::vector<std::string> out;
    if (DIR *d = opendir(dir.c_str())) {
        while (struct dirent *e = readdir(d))
            if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0)
                out.push_back(e->d_name);
        closedir(d);
    }
    std::sort(out.begin(), out.end());
    return out;
}

struct Known {
    Target target;
    int owner;  // -1 for a shared name
    int slot;
};

// Every name in play, by name.
std::map<std::string, Known> AllNames(int workers)
{
    std::map<std::string, Known> all;
    for (const Target &t : kShared)
        all[t.name] = {t, -1, -1};
    for (int w = 0; w < workers; w++)
        for (int i = 0; i < kPrivate; i++)
            all[Private(w, i).name] = {Private(w, i), w, i};
    return all;
}

// A field of a stored name, decoded from hex: the file name between the
// "n"s, the short tag between the "f"s behind it. "" if there is none.
std::string StoredField(const std::string &stored, char delim)
{
    size_t a = stored.find(delim, 4);
    size_t b = a == std::string::npos ? a : stored.find(delim, a + 1);
    if (stored.size() < 10 || stored[0] != 't' || b == std::string::npos)
        return "";
    std::string hex = stored.substr(a + 1, b - a - 1), out;
    for (size_t i = 0; i + 1 < hex.size(); i += 2)
        out += static_cast<char>(strtol(hex.substr(i, 2).c_str(), nullptr, 16));
    return out;
}

// One stored file found in the tree: a name in play, of the area it
// belongs to, whole (or, left by the victim, a prefix).
void CheckStored(const std::map<std::string, Known> &all, const std::string &area, const std::string &stored,
                 std::map<std::string, int> *found, long *files)
{
    std::string name = StoredField(stored, 'n');
    auto it = all.find(name);
    if (it == all.end() || AreaPath(it->second.target) != area) {
        Problem("stray entry " + area + "/" + stored);
        return;
    }
    const Known &k = it->second;
    uint32_t gen = 0;
    std::string why;
    std::string bytes = ReadFile(root + "/" + area + "/" + stored);
    bool got_empty = bytes.empty();
    Verdict v = Judge(name, k.target.kind, bytes, &gen, &why);
    bool victim_left = k.owner >= 0 && board->ledger[k.owner].writing[k.slot];
    if (v == Verdict::Bad || (v == Verdict::Partial && !victim_left))
        Problem(area + "/" + stored + ": " + (why.empty() ? "not whole" : why));
    // The short tag carries the generation of the bytes.
    if (v != Verdict::Bad && !got_empty && StoredField(stored, 'f') != "g" + std::to_string(gen))
        Problem(area + "/" + stored + ": its tag is not its generation");
    if (k.owner >= 0 && board->ledger[k.owner].gen[k.slot] != gen && !(victim_left && got_empty))
        Problem(name + ": generation " + std::to_string(gen) + ", the ledger says " +
                std::to_string(board->ledger[k.owner].gen[k.slot]));
    (*found)[name]++;
    (*files)++;
}

// The whole tree against the store's layout, every file against its name.
void CheckTree(int workers, long *files)
{
    std::map<std::string, Known> all = AllNames(workers);
    std::map<std::string, int> found;
    std::set<std::string> top = {"general", "uid", "usr", ".trash", "direct"};
    for (const std::string &n : Names(root))
        if (top.count(n) == 0)
            Problem("stray entry at the root: " + n);
    for (const std::string &n : Names(root + "/.trash"))
        Problem("left in .trash: " + n);

    struct stat st;
    for (const std::string &n : Names(root + "/general")) {
        std::string p = root + "/general/" + n;
        lstat(p.c_str(), &st);
        if (S_ISREG(st.st_mode)) {
            CheckStored(all, "general", n, &found, files);
        } else if (S_ISLNK(st.st_mode)) {
            char text[KOVDSK_PATH_MAX] = {};
            if (readlink(p.c_str(), text, sizeof text - 1) < 0 || stat(text, &st) != 0 || !S_ISREG(st.st_mode))
                Problem("link to nothing: general/" + n);
        } else {
            Problem("stray entry general/" + n);
        }
    }
    for (const std::string &id : Names(root + "/uid")) {
        std::string dir = "uid/" + id;
        if (lstat((root + "/" + dir).c_str(), &st) != 0 || !S_ISDIR(st.st_mode) || id.size() != 16) {
            Problem("stray entry " + dir);
            continue;
        }
        for (const std::string &n : Names(root + "/" + dir))
            CheckStored(all, dir, n, &found, files);
    }
    for (const std::string &user : Names(root + "/usr")) {
        std::string udir = "usr/" + user;
        for (const std::string &n : Names(root + "/" + udir)) {
            std::string p = root + "/" + udir + "/" + n;
            lstat(p.c_str(), &st);
            if (S_ISDIR(st.st_mode)) {
                for (const std::string &f : Names(p)) {
                    CheckStored(all, udir + "/" + n, f, &found, files);
                    // A pass area's file has its two links, holding its path.
                    std::string real = p + "/" + f;
                    for (const std::string &link : {root + "/general/" + f, root + "/" + udir + "/" + f}) {
                        char text[KOVDSK_PATH_MAX] = {};
                        if (readlink(link.c_str(), text, sizeof text - 1) < 0 || real != text)
                            Problem("missing link " + link);
                    }
                }
            } else if (S_ISLNK(st.st_mode)) {
                char text[KOVDSK_PATH_MAX] = {};
                if (readlink(p.c_str(), text, sizeof text - 1) < 0 ||
                    std::string(text).rfind(root + "/" + udir + "/", 0) != 0 || stat(text, &st) != 0)
                    Problem("link to nothing: " + udir + "/" + n);
            } else {
                Problem("stray entry " + udir + "/" + n);
            }
        }
    }
    for (const auto &f : found)
        if (f.second > 1)
            Problem(f.first + " stored " + std::to_string(f.second) + " times");
    // Every private file the ledger holds is there.
    for (const auto &k : all) {
        if (k.second.owner < 0)
            continue;
        const Ledger &l = board->ledger[k.second.owner];
        bool want = l.gen[k.second.slot] != 0;
        if (want != (found.count(k.first) != 0))
            Problem(k.first + (want ? " lost" : " there, though deleted"));
    }
    // Direct files: exactly the ledger's, byte for byte by hash.
    std::set<std::string> direct;
    for (int w = 0; w < workers; w++) {
        for (int i = 0; i < kDirect; i++) {
            const Ledger &l = board->ledger[w];
            std::string rel = DirectPath(w, i);
            std::string name = rel.substr(7);
            if (l.dexists[i] == 0)
                continue;
            direct.insert(name);
            std::string got = ReadFile(root + "/" + rel);
            (*files)++;
            if (l.dexists[i] == 1 && (got.size() != l.dlen[i] || Fnv(got) != l.dhash[i]))
                Problem(rel + ": not what its worker wrote");
        }
    }
    for (const std::string &n : Names(root + "/direct"))
        if (direct.count(n) == 0)
            Problem("stray entry direct/" + n);
}

int UsedSlots()
{
    int n = 0;
    for (const KovDskAccWrEnt &w : AccTbl->wr)
        n += w.used != 0;
    for (const KovDskAccRdEnt &r : AccTbl->rd)
        n += r.used != 0;
    return n;
}

// kovdsk status --json, parsed; null if it did not run.
nlohmann::json Status(const std::string &kovdsk)
{
    if (kovdsk.empty())
        return nullptr;
    std::string cmd = "'" + kovdsk + "' status --json 2>/dev/null", out;
    FILE *p = popen(cmd.c_str(), "r");
    if (p == nullptr)
        return nullptr;
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, p)) > 0)
        out.append(buf, n);
    if (pclose(p) != 0)
        return nullptr;
    return nlohmann::json::parse(out, nullptr, false);
}

bool TakesODirect(const std::string &dir)
{
    std::string probe = dir + "/.odirect";
    int fd = open(probe.c_str(), O_CREAT | O_WRONLY | O_DIRECT, 0600);
    if (fd == -1)
        return false;
    close(fd);
    unlink(probe.c_str());
    return true;
}

void RemoveTree(const std::string &path)
{
    struct stat st;
    if (lstat(path.c_str(), &st) != 0)
        return;
    if (S_ISDIR(st.st_mode)) {
        chmod(path.c_str(), 0700);
        for (const std::string &n : Names(path))
            RemoveTree(path + "/" + n);
        rmdir(path.c_str());
    } else {
        unlink(path.c_str());
    }
}

void RemoveTable()
{
    if (AccTbl != nullptr)
        shmdt(AccTbl);
    for (int sem : {KovDskTblSem_id, KovDskAccSem_id})
        semctl(sem, 0, IPC_RMID);
    shmctl(KovDskTblShm_id, IPC_RMID, nullptr);
}

} // namespace

int main(int argc, char **argv)
{
    double seconds = 60;
    int workers = 8;
    bool kill_one = false;
    unsigned seed = static_cast<unsigned>(time(nullptr));
    std::string kovdsk;
    for (int i = 1; i < argc; i++) {
        std::string a = argv[i];
        if (a == "--seconds" && i + 1 < argc)
            seconds = atof(argv[++i]);
        else if (a == "--workers" && i + 1 < argc)
            workers = atoi(argv[++i]);
        else if (a == "--seed" && i + 1 < argc)
            seed = static_cast<unsigned>(strtoul(argv[++i], nullptr, 10));
        else if (a == "--kovdsk" && i + 1 < argc)
            kovdsk = argv[++i];
        else if (a == "--kill")
            kill_one = true;
        else {
            fprintf(stderr, "usage: %s [--seconds N] [--workers N] [--kill] [--seed S] [--kovdsk PATH]\n", argv[0]);
            return 2;
        }
    }
    if (workers < 2 || workers > kMaxWorkers || seconds <= 0) {
        fprintf(stderr, "2 to %d workers, and some seconds\n", kMaxWorkers);
        return 2;
    }
    setenv("TZ", "UTC", 1);
    setenv("KOVDATE_NOW", kNow, 1);
    unsetenv("KOVDATE_FAIL");
    unsetenv("KOVDATE_DIFFER");

    // A root on a file system that takes O_DIRECT, named like the test
    // roots, so that a leftover one is noticed.
    const char *tmp = getenv("TMPDIR");
    for (std::string base : {std::string(tmp != nullptr && *tmp ? tmp : "/tmp"), std::string("/dev/shm")}) {
        std::string templ = base + "/kovdsk-test-soak-XXXXXX";
        if (mkdtemp(templ.data()) == nullptr)
            continue;
        if (TakesODirect(templ)) {
            root = templ;
            break;
        }
        rmdir(templ.c_str());
    }
    if (root.empty()) {
        fprintf(stderr, "no directory that takes O_DIRECT\n");
        return 1;
    }
    printf("soak: %d workers for %.0f s on %s, seed %u%s\n", workers, seconds, root.c_str(), seed,
           kill_one ? ", one killed mid-stream" : "");
    fflush(stdout);

    if (KovDskInitSet(root.c_str()) != 0) {
        fprintf(stderr, "KovDskInitSet: %s (run it in an IPC namespace of its own)\n", strerror(errno));
        RemoveTree(root);
        return 1;
    }
    for (const char *d : {"general", "uid", "usr", ".trash", "direct"})
        if (KovDskDirMake(d) != 0)
            Problem(std::string("make ") + d);

    board = static_cast<Board *>(
        mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    if (board == MAP_FAILED) {
        perror("mmap");
        return 1;
    }
    memset(static_cast<void *>(board), 0, sizeof(Board));

    std::vector<pid_t> pids;
    for (int w = 0; w < workers; w++) {
        fflush(nullptr);
        pid_t pid = fork();
        if (pid == 0) {
            // A process of its own: attach as every other process does.
            shmdt(AccTbl);
            AccTbl = nullptr;
            Worker worker(w, seed, seconds);
            worker.Run(kill_one && w == 0, seconds);
            _exit(0);
        }
        pids.push_back(pid);
    }

    // The victim: killed between calls, its streams open; the others must
    // go on, and the operator sees its slots.
    int orphaned_slots = 0, orphaned_activity = 0;
    if (kill_one) {
        while (board->victim_ready.load() == 0 && waitpid(pids[0], nullptr, WNOHANG) == 0)
            usleep(10000);
        if (board->victim_ready.load() == 0) {
            Problem("the worker to be killed ended first");
        } else {
            kill(pids[0], SIGKILL);
            int status = 0;
            waitpid(pids[0], &status, 0);
            if (!WIFSIGNALED(status) || WTERMSIG(status) != SIGKILL)
                Problem("the victim did not die of SIGKILL");
            pids[0] = 0;
            // Two write slots (a stored and a direct stream), two read
            // slots; the stored write stream alone is not counted busy.
            orphaned_slots = 4;
            orphaned_activity = 3;
            nlohmann::json s = Status(kovdsk);
            if (!kovdsk.empty()) {
                // The victim's four streams, among those of the others at
                // work; neither lock left with the dead process.
                int mine = 0;
                if (s.is_object()) {
                    for (const auto &slot : s["write_slots"])
                        mine += slot["name"] == Private(0, 0).name || slot["file"] == DirectPath(0, 0);
                    for (const auto &slot : s["read_slots"])
                        mine += slot["name"] == Private(0, 1).name;
                    mine += s["locks"][0]["stale"] == false && s["locks"][1]["stale"] == false;
                }
                if (mine != 4)
                    Problem("kovdsk status does not show the orphaned slots: " + (s.is_null() ? "no output" : s.dump()));
                else
                    printf("kovdsk status after the kill shows the victim's streams: stored write \"%s\", "
                           "direct write \"%s\", stored read \"%s\" (and its direct read); no lock stale\n",
                           Private(0, 0).name.c_str(), DirectPath(0, 0).c_str(), Private(0, 1).name.c_str());
            }
            long before = Total(workers);
            usleep(3000000);
            long after = Total(workers);
            printf("after the kill the others did %ld operations in 3 s\n", after - before);
            if (after <= before)
                Problem("the others stopped working after the kill");
        }
    }

    // Wait for the rest, with a watchdog: a lock left taken would hang them.
    auto give_up = After(seconds + 120);
    for (pid_t &pid : pids) {
        while (pid > 0) {
            int status = 0;
            pid_t got = waitpid(pid, &status, WNOHANG);
            if (got == pid) {
                if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
                    Problem("a worker did not end normally");
                pid = 0;
            } else if (std::chrono::steady_clock::now() > give_up) {
                Problem("workers hang: table lock " + std::to_string(semctl(KovDskTblSem_id, 0, GETVAL)) +
                        ", access lock " + std::to_string(semctl(KovDskAccSem_id, 0, GETVAL)));
                for (pid_t p : pids)
                    if (p > 0)
                        kill(p, SIGKILL);
                while (wait(nullptr) > 0) {
                }
                break;
            } else {
                usleep(20000);
            }
        }
    }

    // At rest: locks, counters and slots, and the tree.
    long checks = 0;
    auto expect = [&](bool ok, const std::string &what) {
        checks++;
        if (!ok)
            Problem(what);
    };
    expect(semctl(KovDskTblSem_id, 0, GETVAL) == 1, "table lock not free");
    expect(semctl(KovDskAccSem_id, 0, GETVAL) == 1, "access lock not free");
    expect(AccTbl->op_cnt == 0, "operation counter " + std::to_string(AccTbl->op_cnt));
    expect(AccTbl->acc_cnt == orphaned_activity, "activity counter " + std::to_string(AccTbl->acc_cnt) +
                                                      ", expected " + std::to_string(orphaned_activity));
    expect(UsedSlots() == orphaned_slots, std::to_string(UsedSlots()) + " slots in use, expected " +
                                              std::to_string(orphaned_slots));
    long files = 0;
    CheckTree(workers, &files);
    checks += files;
    if (!kovdsk.empty()) {
        nlohmann::json s = Status(kovdsk);
        expect(s.is_object() && s["locks"][0]["free"] == true && s["locks"][1]["free"] == true &&
                   static_cast<int>(s["write_slots"].size() + s["read_slots"].size()) == orphaned_slots &&
                   s["activity"] == orphaned_activity,
               "kovdsk status at the end: " + (s.is_null() ? std::string("no output") : s.dump()));
    }

    // What was done.
    long total_ops = 0, total_refused = 0, total_checks = checks;
    printf("operations:\n");
    for (int o = 0; o < kOps; o++) {
        long n = 0;
        for (int w = 0; w < workers; w++)
            n += board->ops[w][o].load();
        total_ops += n;
        printf("  %-20s %8ld\n", kOpNames[o], n);
    }
    printf("  %-20s %8ld\n", "all", total_ops);
    printf("refused as expected, counted:\n");
    for (int r = 0; r < kRefusals; r++) {
        long n = 0;
        for (int w = 0; w < workers; w++)
            n += board->refused[w][r].load();
        total_refused += n;
        printf("  %-36s %8ld\n", kRefusalNames[r], n);
    }
    printf("checks:\n");
    for (int c = 0; c < kChecks; c++) {
        long n = c == kFinalFiles ? files : 0;
        for (int w = 0; w < workers; w++)
            n += board->checks[w][c].load();
        if (c != kFinalFiles)
            total_checks += n;
        printf("  %-48s %8ld\n", kCheckNames[c], n);
    }
    printf("  %-48s %8ld\n", "locks, counters, slots and status at the end", checks - files);
    printf("  %-48s %8ld\n", "all", total_checks);
    long failures = board->failures.load();
    printf("failures: %ld in the workers, %d in the final checks\n", failures, problems);

    RemoveTable();
    RemoveTree(root);
    munmap(board, sizeof(Board));
    bool ok = failures == 0 && problems == 0 && total_ops > 0;
    printf("%s\n", ok ? "soak passed" : "soak FAILED");
    return ok ? 0 : 1;
}
