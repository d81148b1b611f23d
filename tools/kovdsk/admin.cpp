/*
 * admin.cpp - the table itself: init, mkdirs, status; and the stored-name
 * codec for humans (name encode|decode). What status judges of locks and
 * slots is recover.cpp's, which acts on it.
 */
#include "cli.h"

#include "store/store.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>

namespace kovcli {
namespace {

// The longest tail the store puts behind the root: "/usr/", a user in hex,
// "/", a pass, "/" and a stored name.
constexpr size_t kRootMax = KOVDSK_PATH_MAX - 1 - (5 + 126 + 1 + 16 + 1 + 250);

struct InitArgs {
    std::string root;
    bool mkdir = false;
};

// mkdir -p, mode 0755: the root is the operator's directory, not the store's.
void MakeRoot(const std::string &root)
{
    for (size_t at = 1; at != std::string::npos;) {
        at = root.find('/', at + 1);
        std::string part = root.substr(0, at);
        if (mkdir(part.c_str(), 0755) != 0 && errno != EEXIST)
            Fail("mkdir " + part, errno);
    }
}

// The library is handed an absolute path with no link on its way, so the
// root means the same to every process whatever its working directory.
void Init(const InitArgs &a)
{
    if (a.root.empty())
        Usage("init: the root is empty");
    WarnIfNotRoot();
    struct stat st;
    if (stat(a.root.c_str(), &st) != 0) {
        if (errno != ENOENT)
            Fail("stat " + a.root, errno);
        if (!a.mkdir)
            Refuse("init: the root \"" + Escape(a.root) +
                   "\" does not exist; make it first, or ask init for it with --mkdir");
        MakeRoot(a.root);
    } else if (!S_ISDIR(st.st_mode)) {
        Refuse("init: the root \"" + Escape(a.root) + "\" is not a directory");
    }
    char real[PATH_MAX];
    if (realpath(a.root.c_str(), real) == nullptr)
        Fail("realpath " + a.root, errno);
    std::string root = real, quoted = "\"" + Escape(root) + "\"";
    if (root.find(".1") != std::string::npos)
        Refuse("init: the root " + quoted + " holds \".1\", the mark of a temporary file: "
               "every stored file under it would count as temporary");
    if ((root + "/").find("/usr/") != std::string::npos)
        Refuse("init: the root " + quoted + " lies in a directory named usr: the links of the "
               "pass areas are taken apart at the first \"/usr/\" of a path");
    if (root.size() > kRootMax)
        Refuse("init: the root " + quoted + " has " + std::to_string(root.size()) +
               " bytes; the store's paths need it at most " + std::to_string(kRootMax));
    if (KovDskInitSet(root.c_str()) != 0) {
        int err = errno;
        Fail("KovDskInitSet", err,
             err == EALREADY ? "kovdsk recover table removes it when nothing holds it" : "");
    }
    Out() << "table created, root " << Escape(root) << "\n";
}

void MakeDirs()
{
    Attach();
    for (const char *d : {"general", "uid", "usr", ".trash"}) {
        if (KovDskDirMake(d) == 0)
            Out() << "made " << d << "\n";
        else if (errno == EEXIST)
            Out() << d << " exists\n";
        else
            Fail(std::string("KovDskDirMake ") + d, errno);
    }
}

template <typename Slot>
nlohmann::json SlotState(int handle, const Slot &slot, const std::string &orphan)
{
    nlohmann::json j = {{"handle", handle}, {"kind", slot.kind}, {"direct", slot.dir[0] == '\0'},
                        {"orphaned", !orphan.empty()}, {"file_gone", FileGone(slot)}};
    PutText(j, "name", Field(slot.name, sizeof slot.name));
    PutText(j, "area", Field(slot.dir, sizeof slot.dir));
    PutText(j, "file", Field(slot.file, sizeof slot.file));
    return j;
}

void Status(bool json)
{
    Attach(false);
    const KovDskAccTbl *t = AccTbl;
    int attached = Attached();
    std::string orphan = OrphanReason(attached);
    nlohmann::json s = {
        {"attached", attached},
        {"activity", t->acc_cnt},
        {"accessed", t->accessed},
        {"operations", t->op_cnt},
        {"trash_mode", t->trash_mode},
        {"garbage", t->gbg_flag},
        {"trash_seq", t->trash_seq},
        {"locks", {LockState("table", KovDskTblSem_id), LockState("access", KovDskAccSem_id)}},
        {"write_slots", nlohmann::json::array()},
        {"read_slots", nlohmann::json::array()},
    };
    PutText(s, "root", Field(t->root, sizeof t->root));
    for (int i = 0; i < KOVDSK_SLOTS; i++) {
        if (t->wr[i].used) {
            s["write_slots"].push_back(SlotState(i, t->wr[i], orphan));
            s["write_slots"].back()["waiting"] = t->wr[i].fill;
        }
        if (t->rd[i].used) {
            s["read_slots"].push_back(SlotState(i, t->rd[i], orphan));
            s["read_slots"].back()["remain"] = t->rd[i].remain;
        }
    }
    if (json) {
        Out() << Dump(s) << "\n";
        return;
    }
    Out() << "root         " << Escape(Field(t->root, sizeof t->root)) << "\n"
          << "attached     " << attached << (attached == 1 ? " process" : " processes")
          << ", this one included\n"
          << "activity     " << t->acc_cnt << "\n"
          << "accessed     " << t->accessed << "\n"
          << "operations   " << t->op_cnt << "\n"
          << "trash        " << (t->trash_mode ? "on" : "off") << ", garbage "
          << (t->gbg_flag ? "yes" : "no") << ", next number " << t->trash_seq << "\n";
    for (const auto &lock : s["locks"]) {
        std::string label = lock["lock"].get<std::string>() + " lock";
        Out() << label << std::string(13 - label.size(), ' ')
              << (lock["free"].get<bool>() ? "free" : "taken") << ", " << lock["waiting"]
              << " waiting, last operated by pid " << lock["last_pid"];
        if (lock["stale"].get<bool>())
            Out() << "  HELD BY A PROCESS THAT NO LONGER EXISTS";
        Out() << "\n";
    }
    auto line = [&](const char *sort, int handle, const auto &slot) {
        Out() << sort << handle << ": ";
        if (slot.dir[0] == '\0')
            Out() << "direct " << Escape(Field(slot.file, sizeof slot.file));
        else
            Out() << "kind " << slot.kind << ", \"" << Escape(Field(slot.name, sizeof slot.name))
                  << "\" in " << Escape(Field(slot.dir, sizeof slot.dir)) << ", "
                  << Escape(Field(slot.file, sizeof slot.file));
        if (!orphan.empty())
            Out() << "  ORPHANED: " << orphan;
        if (FileGone(slot))
            Out() << "  ITS FILE NO LONGER EXISTS";
        Out() << "\n";
    };
    for (int i = 0; i < KOVDSK_SLOTS; i++)
        if (t->wr[i].used)
            line("write ", i, t->wr[i]);
    for (int i = 0; i < KOVDSK_SLOTS; i++)
        if (t->rd[i].used)
            line("read  ", i, t->rd[i]);
    if (s["write_slots"].empty() && s["read_slots"].empty())
        Out() << "no stream open\n";
}

struct NameArgs {
    std::string name, short_tag, long_tag, deadline, stored;
    unsigned kind = 0;
    bool tmp = false, json = false;
};

void Encode(const NameArgs &a)
{
    CheckName(a.name);
    CheckTags(a.short_tag, a.long_tag);
    CheckDeadline(a.deadline);
    char out[KOVDSK_STORED_MAX];
    if (KovDskNameBuild(a.kind, a.name.c_str(), a.short_tag.c_str(), a.long_tag.c_str(),
                        a.deadline.c_str(), a.tmp, out) != 0)
        Fail("encode", errno);
    Out() << out << "\n";
}

void Decode(const NameArgs &a)
{
    int kind = 0, tmp = 0;
    char name[KOVDSK_FNAME_BUF], stag[KOVDSK_STAG_BUF], ltag[KOVDSK_LTAG_BUF];
    char deadline[KOVDSK_DEADLINE_BUF];
    if (KovDskNameParse(a.stored.c_str(), &kind, name, stag, ltag, deadline, &tmp) != 0)
        Usage("not a stored name: \"" + Escape(a.stored) + "\"");
    nlohmann::json j = {{"kind", kind}, {"temporary", tmp == 1}};
    PutText(j, "name", name);
    PutText(j, "deadline", deadline);
    PutText(j, "short_tag", stag);
    PutText(j, "long_tag", ltag);
    if (a.json) {
        Out() << Dump(j) << "\n";
        return;
    }
    for (auto [key, value] : std::initializer_list<std::pair<const char *, std::string>>{
             {"kind", std::to_string(kind)}, {"name", name}, {"short_tag", stag},
             {"long_tag", ltag}, {"deadline", deadline}, {"temporary", tmp == 1 ? "true" : "false"}})
        Out() << key << std::string(11 - strlen(key), ' ') << Escape(value) << "\n";
}

} // namespace

void AddAdminCommands(CLI::App &app)
{
    static InitArgs init;
    auto *i = app.add_subcommand("init", "create the table with the store's root (once a boot)");
    i->add_option("root", init.root, "the directory that holds the store")->required();
    i->add_flag("--mkdir", init.mkdir, "make the root (and its parents) if it does not exist");
    i->callback([] { Init(init); });

    app.add_subcommand("mkdirs", "make the store's top directories general, uid, usr, .trash")
        ->callback(MakeDirs);

    static bool json = false;
    auto *status = app.add_subcommand("status", "root, counters, trash, locks and open streams");
    status->add_flag("--json", json, "as JSON");
    status->callback([] { Status(json); });

    static NameArgs n;
    auto *name = app.add_subcommand("name", "the stored-name codec");
    name->require_subcommand(1);
    auto *enc = name->add_subcommand("encode", "values to a stored name");
    enc->add_option("name", n.name, "file name, 1 to 32 bytes")->required();
    enc->add_option("-k,--kind", n.kind, "kind, 0 to 255")->check(CLI::Range(0, 255));
    enc->add_option("-s,--short-tag", n.short_tag, "short tag, up to 16 bytes");
    enc->add_option("-l,--long-tag", n.long_tag, "long tag, up to 64 bytes");
    enc->add_option("-d,--deadline", n.deadline, "deadline YYMMDDHHMM (UTC)");
    enc->add_flag("-t,--temporary", n.tmp, "temporary file");
    enc->callback([] { Encode(n); });
    auto *dec = name->add_subcommand("decode", "a stored name to its values");
    dec->add_option("stored", n.stored, "stored name")->required();
    dec->add_flag("--json", n.json, "as JSON");
    dec->callback([] { Decode(n); });
}

} // namespace kovcli
