/*
 * store.cpp - the store's commands: put and get a stored file, list an
 * area and the areas, find the real path, delete by rule, sweep, and the
 * trash.
 */
#include "cli.h"

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <sys/stat.h>
#include <unistd.h>

namespace kovcli {
namespace {

constexpr size_t kChunk = 1 << 20;

// A progress bar on a terminal, for files worth watching; nothing when
// standard error is piped.
class Progress {
public:
    Progress(int64_t total) : total_(total), on_(isatty(2) && total > 4 * int64_t{kChunk}) {}
    void Add(size_t n)
    {
        done_ += static_cast<int64_t>(n);
        if (!on_)
            return;
        int pct = static_cast<int>(done_ * 100 / total_);
        fprintf(stderr, "\r[%-40s] %3d%% %s", std::string(pct * 40 / 100, '#').c_str(), pct,
                HumanSize(done_).c_str());
    }
    ~Progress()
    {
        if (on_)
            fprintf(stderr, "\n");
    }

private:
    int64_t total_, done_ = 0;
    bool on_;
};

struct PutArgs {
    FileArgs file;
    std::string input = "-", short_tag, long_tag, deadline;
    bool tmp = false;
};

// A failed input or write ends the stream and deletes what it made: no
// stored file is left half written.
void Put(const PutArgs &a)
{
    Area area = ParseArea(a.file.area);
    FILE *in = a.input == "-" ? stdin : fopen(a.input.c_str(), "rb");
    if (in == nullptr)
        Fail("open " + a.input, errno);
    struct stat st;
    int64_t size = fstat(fileno(in), &st) == 0 && S_ISREG(st.st_mode) ? st.st_size : 0;
    Attach();
    int h = KovDskWriteOpen(a.file.name.c_str(), a.short_tag.c_str(), a.long_tag.c_str(),
                            a.file.kind, area.selector, area.id, area.user_or_null(), area.pass,
                            a.tmp, a.deadline.empty() ? nullptr : a.deadline.c_str());
    if (h < 0) {
        int e = errno;
        if (in != stdin)
            fclose(in);
        Fail("KovDskWriteOpen", e);
    }
    std::string stored = AccTbl->wr[h].file;
    std::unique_ptr<char[]> buf(new char[kChunk]);
    std::string failed;
    int err = 0;
    {
        Progress bar(size);
        size_t n;
        while ((n = fread(buf.get(), 1, kChunk, in)) > 0) {
            if (KovDskWrite(h, buf.get(), static_cast<unsigned>(n)) < 0) {
                failed = "KovDskWrite";
                err = errno;
                break;
            }
            bar.Add(n);
        }
        if (failed.empty() && ferror(in)) {
            failed = "read " + a.input;
            err = errno ? errno : EIO;
        }
    }
    if (in != stdin)
        fclose(in);
    if (KovDskWriteClose(h) != 0 && failed.empty()) {
        failed = "KovDskWriteClose";
        err = errno;
    }
    if (!failed.empty()) {
        KovDskDel(a.file.name.c_str(), a.file.kind, 1, area.selector, area.id, area.user_or_null(),
                  area.pass);
        Fail(failed, err);
    }
    std::cout << stored << "\n";
}

struct GetArgs {
    FileArgs file;
    std::string output = "-";
};

void Get(const GetArgs &a)
{
    Area area = ParseArea(a.file.area);
    Attach();
    int h = KovDskReadOpen(a.file.name.c_str(), a.file.kind, area.selector, area.id,
                           area.user_or_null(), area.pass);
    if (h < 0)
        Fail("KovDskReadOpen", errno);
    int64_t size = static_cast<int64_t>(AccTbl->rd[h].remain);
    FILE *out = a.output == "-" ? stdout : fopen(a.output.c_str(), "wb");
    if (out == nullptr) {
        int e = errno;
        KovDskReadClose(h);
        Fail("open " + a.output, e);
    }
    std::unique_ptr<char[]> buf(new char[kChunk]);
    int n = 0;
    {
        Progress bar(size);
        while ((n = KovDskRead(h, buf.get(), kChunk)) > 0) {
            if (fwrite(buf.get(), 1, static_cast<size_t>(n), out) != static_cast<size_t>(n)) {
                n = -2;
                break;
            }
            bar.Add(static_cast<size_t>(n));
        }
    }
    int e = errno;
    KovDskReadClose(h);
    if (fclose(out) != 0 && n == 0) {
        n = -2;
        e = errno;
    }
    if (n == -1)
        Fail("KovDskRead", e);
    if (n == -2)
        Fail("write " + a.output, e);
}

struct ListArgs {
    std::string area = "general", name, sort = "name";
    unsigned kind = 0;
    bool hide_expired = false, sweep = false, human = false, json = false;
};

void List(const ListArgs &a)
{
    Area area = ParseArea(a.area);
    uint32_t sort = a.sort == "name" ? 0 : a.sort == "tag" ? 1 : 2;
    Attach();
    KovDskListRes res = {};
    int rc = KovDskList(a.name.c_str(), a.kind, area.selector, area.id, area.user_or_null(),
                        area.pass, a.sweep ? 2 : a.hide_expired ? 1 : 0, &res, sort);
    if (rc < 0)
        Fail("KovDskList", errno);
    Table t;
    t.header = {"NAME", "KIND", "TMP", "SHORT TAG", "LONG TAG", "DEADLINE", "SIZE", "TIME"};
    for (uint32_t i = 0; i < res.count; i++) {
        const KovDskListEnt &e = res.entries[i];
        t.rows.push_back({e.name, std::to_string(e.kind), e.tmp ? "yes" : "no", e.short_tag,
                          e.long_tag, e.deadline,
                          a.human ? HumanSize(e.size) : std::to_string(e.size),
                          a.human ? HumanTime(e.time) : std::to_string(e.time)});
        t.json.push_back({{"name", e.name}, {"kind", e.kind}, {"temporary", e.tmp == 1},
                          {"short_tag", e.short_tag}, {"long_tag", e.long_tag},
                          {"deadline", e.deadline}, {"size", e.size}, {"time", e.time}});
    }
    if (res.count)
        free(res.entries);
    Print(t, a.json);
    if (rc == 1)
        fprintf(stderr, "kovdsk: memory ran out: the list is partial\n");
}

struct AreasArgs {
    std::string user;
    bool live = false, sweep = false, json = false;
    uint32_t mode() const { return sweep ? 2 : live ? 1 : 0; }
};

void Numbers(const char *what, const AreasArgs &a)
{
    Attach();
    uint32_t count = 0;
    uint64_t *list = nullptr;
    bool ids = what[0] == 'i';
    int rc = ids ? KovDskUidList(a.mode(), &count, &list)
                 : KovDskPasList(a.mode(), a.user.c_str(), &count, &list);
    if (rc < 0)
        Fail(ids ? "KovDskUidList" : "KovDskPasList", errno);
    Table t;
    t.header = {ids ? "ID" : "PASS", "HEX"};
    for (uint32_t i = 0; i < count; i++) {
        char hex[20];
        snprintf(hex, sizeof hex, "%016" PRIX64, list[i]);
        t.rows.push_back({std::to_string(list[i]), hex});
        t.json.push_back(list[i]);
    }
    if (count)
        free(list);
    Print(t, a.json);
}

void Users(const AreasArgs &a)
{
    Attach();
    uint32_t count = 0;
    char *list = nullptr;
    if (KovDskUsrList(a.mode(), &count, &list) < 0)
        Fail("KovDskUsrList", errno);
    Table t;
    t.header = {"USER"};
    for (uint32_t i = 0; i < count; i++) {
        t.rows.push_back({list + i * KOVDSK_USR_REC});
        t.json.push_back(list + i * KOVDSK_USR_REC);
    }
    if (count)
        free(list);
    Print(t, a.json);
}

void Where(const FileArgs &f)
{
    Area area = ParseArea(f.area);
    Attach();
    char path[KOVDSK_PATH_MAX];
    if (KovDskGetRealFileName(f.name.c_str(), f.kind, area.selector, area.id, area.user_or_null(),
                              area.pass, path) != 0)
        Fail("KovDskGetRealFileName", errno);
    std::cout << path << "\n";
}

struct RmArgs {
    FileArgs file;
    bool prefix = false, all = false;
};

void Remove(const RmArgs &a)
{
    Area area = ParseArea(a.file.area);
    Attach();
    int mode = a.all ? 0 : a.prefix ? 2 : 1;
    if (KovDskDel(a.file.name.c_str(), a.file.kind, mode, area.selector, area.id,
                  area.user_or_null(), area.pass) != 0)
        Fail("KovDskDel", errno);
}

void Sweep(bool expired, bool temporary)
{
    if (expired == temporary)
        Usage("sweep: name one of --expired and --temporary");
    Attach();
    if ((expired ? KovDskTimeDel() : KovDskTmpDel()) != 0)
        Fail(expired ? "KovDskTimeDel" : "KovDskTmpDel", errno);
}

void Trash(const std::string &what, bool all)
{
    Attach();
    if (what == "on" || what == "off") {
        KovDskSelDel(what == "on");
    } else if (what == "scan") {
        int rc = KovDskGbgIni();
        if (rc < 0)
            Fail("KovDskGbgIni", errno);
        std::cout << (rc ? "garbage in .trash" : AccTbl->trash_mode ? "no garbage" : "trash mode is off")
                  << "\n";
    } else {
        int shredded = 0, rc;
        while ((rc = KovDskFleSrd()) == 1) {
            shredded++;
            if (!all)
                break;
        }
        if (rc < 0)
            Fail("KovDskFleSrd", errno);
        std::cout << shredded << " file(s) shredded\n";
    }
}

} // namespace

void AddStoreCommands(CLI::App &app)
{
    static PutArgs put;
    auto *p = app.add_subcommand("put", "store a file or standard input as a stored file");
    AddFileArgs(p, put.file);
    p->add_option("-i,--input", put.input, "file to store, - for standard input")->capture_default_str();
    p->add_option("-s,--short-tag", put.short_tag, "short tag, up to 16 bytes");
    p->add_option("-l,--long-tag", put.long_tag, "long tag, up to 64 bytes");
    p->add_option("-d,--deadline", put.deadline, "deadline YYMMDDHHMM");
    p->add_flag("-t,--temporary", put.tmp, "a temporary file");
    p->callback([] { Put(put); });

    static GetArgs get;
    auto *g = app.add_subcommand("get", "read a stored file to a file or standard output");
    AddFileArgs(g, get.file);
    g->add_option("-o,--output", get.output, "file to write, - for standard output")->capture_default_str();
    g->callback([] { Get(get); });

    static ListArgs ls;
    auto *l = app.add_subcommand("ls", "list the stored files of an area");
    l->add_option("-a,--area", ls.area, "general, uid:ID, usr:USER or usr:USER:PASS")->capture_default_str();
    l->add_option("-n,--name", ls.name, "file name prefix");
    l->add_option("-k,--kind", ls.kind, "only this kind (0: every kind)")->check(CLI::Range(0, 255));
    l->add_flag("--hide-expired", ls.hide_expired, "leave out files whose deadline has passed");
    l->add_flag("--sweep", ls.sweep, "delete expired files of the whole store first");
    l->add_option("--sort", ls.sort, "name, tag or time")->check(CLI::IsMember({"name", "tag", "time"}))
        ->capture_default_str();
    l->add_flag("-H,--human", ls.human, "sizes and times for humans");
    l->add_flag("--json", ls.json, "as JSON");
    l->callback([] { List(ls); });

    static AreasArgs areas;
    for (const char *name : {"ids", "users", "passes"}) {
        auto *c = app.add_subcommand(name, name[0] == 'i'   ? "list the id areas"
                                           : name[0] == 'u' ? "list the users"
                                                            : "list the passes of a user");
        if (name[0] == 'p')
            c->add_option("user", areas.user, "the user")->required();
        c->add_flag("--live", areas.live, "only areas holding a live stored file");
        c->add_flag("--sweep", areas.sweep, "delete expired files of the whole store first");
        c->add_flag("--json", areas.json, "as JSON");
        c->callback([name] { name[0] == 'u' ? Users(areas) : Numbers(name, areas); });
    }

    static FileArgs where;
    auto *w = app.add_subcommand("where", "the real path of a stored file");
    AddFileArgs(w, where);
    w->callback([] { Where(where); });

    static RmArgs rm;
    auto *r = app.add_subcommand("rm", "delete stored files of an area by rule");
    AddFileArgs(r, rm.file);
    r->add_flag("--prefix", rm.prefix, "every file whose name begins with NAME (kind 0: any kind)");
    r->add_flag("--all", rm.all, "every stored file of the area, open or not");
    r->callback([] { Remove(rm); });

    static bool expired = false, temporary = false;
    auto *s = app.add_subcommand("sweep", "delete expired or temporary files");
    s->add_flag("--expired", expired, "files whose deadline has passed");
    s->add_flag("--temporary", temporary, "temporary files");
    s->callback([] { Sweep(expired, temporary); });

    static std::string what;
    static bool all = false;
    auto *t = app.add_subcommand("trash", "trash mode and shredding");
    t->add_option("what", what, "on, off, scan or shred")->required()
        ->check(CLI::IsMember({"on", "off", "scan", "shred"}));
    t->add_flag("--all", all, "shred until .trash holds nothing more");
    t->callback([] { Trash(what, all); });
}

} // namespace kovcli
