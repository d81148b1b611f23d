/*
 * store.cpp - the store's commands besides put and get: list an area and
 * the areas, find the real path, delete by rule, sweep, and the trash.
 */
#include "cli.h"

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>

namespace kovcli {
namespace {

struct ListArgs {
    std::string area = "general", name, sort = "name";
    unsigned kind = 0;
    bool hide_expired = false, sweep = false, human = false, json = false;
};

void List(const ListArgs &a)
{
    CheckName(a.name, true);
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
        nlohmann::json j = {{"kind", e.kind}, {"temporary", e.tmp == 1}, {"size", e.size}, {"time", e.time}};
        PutText(j, "name", e.name);
        PutText(j, "deadline", e.deadline);
        PutText(j, "short_tag", e.short_tag);
        PutText(j, "long_tag", e.long_tag);
        t.json.push_back(j);
    }
    if (res.count)
        free(res.entries);
    Print(t, a.json);
    if (rc == 1)
        Warn("memory ran out: the list is partial");
}

struct AreasArgs {
    std::string user;
    bool live = false, sweep = false, json = false;
    uint32_t mode() const { return sweep ? 2 : live ? 1 : 0; }
};

void Numbers(const char *what, const AreasArgs &a)
{
    bool ids = what[0] == 'i';
    if (!ids)
        CheckUser(a.user);
    Attach();
    uint32_t count = 0;
    uint64_t *list = nullptr;
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
        std::string user = Field(list + i * KOVDSK_USR_REC, KOVDSK_USR_REC);
        t.rows.push_back({user});
        nlohmann::json j;
        PutText(j, "user", user);
        t.json.push_back(j);
    }
    if (count)
        free(list);
    Print(t, a.json);
}

void Where(const FileArgs &f)
{
    CheckName(f.name);
    Area area = ParseArea(f.area);
    Attach();
    char path[KOVDSK_PATH_MAX];
    if (KovDskGetRealFileName(f.name.c_str(), f.kind, area.selector, area.id, area.user_or_null(),
                              area.pass, path) != 0)
        Fail("KovDskGetRealFileName", errno);
    Out() << path << "\n";
}

struct RmArgs {
    FileArgs file;
    bool prefix = false, all = false, yes = false;
};

// --all deletes every stored file of the area, open ones too, so it takes
// no name and asks first.
void Remove(const RmArgs &a)
{
    if (a.all && !a.file.name.empty())
        Usage("rm --all takes no NAME: it deletes every stored file of the area");
    if (!a.all)
        CheckName(a.file.name, a.prefix);
    Area area = ParseArea(a.file.area);
    if (a.all)
        Confirm("rm --all", "Delete every stored file of " + Escape(a.file.area) + ", open or not?", a.yes);
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
    if (all && what != "shred")
        Usage("trash " + what + ": --all goes with shred only");
    Attach();
    if (what == "on" || what == "off") {
        KovDskSelDel(what == "on");
    } else if (what == "scan") {
        int rc = KovDskGbgIni();
        if (rc < 0)
            Fail("KovDskGbgIni", errno);
        Out() << (rc ? "garbage in .trash" : AccTbl->trash_mode ? "no garbage" : "trash mode is off") << "\n";
    } else {
        int shredded = 0, rc;
        while ((rc = KovDskFleSrd()) == 1) {
            shredded++;
            if (!all)
                break;
            CheckSignal();
        }
        if (rc < 0)
            Fail("KovDskFleSrd", errno);
        Out() << shredded << " file(s) shredded\n";
    }
}

} // namespace

void AddStoreCommands(CLI::App &app)
{
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
    AddFileArgs(r, rm.file)->required(false)->description("file name, or prefix with --prefix");
    auto *prefix =
        r->add_flag("--prefix", rm.prefix, "every file whose name begins with NAME (kind 0: any kind)");
    r->add_flag("--all", rm.all, "every stored file of the area, open or not")->excludes(prefix);
    r->add_flag("-y,--yes", rm.yes, "do not ask before --all");
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
