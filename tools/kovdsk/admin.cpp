/*
 * admin.cpp - the table itself: init, mkdirs, status; and the stored-name
 * codec for humans (name encode|decode).
 */
#include "cli.h"

#include "store/store.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <iostream>
#include <memory>
#include <sys/sem.h>

namespace kovcli {
namespace {

void Init(const std::string &root)
{
    if (KovDskInitSet(root.c_str()) != 0)
        Fail("KovDskInitSet", errno);
    std::cout << "table created, root " << root << "\n";
}

void MakeDirs()
{
    Attach();
    for (const char *d : {"general", "uid", "usr", ".trash"}) {
        if (KovDskDirMake(d) == 0)
            std::cout << "made " << d << "\n";
        else if (errno == EEXIST)
            std::cout << d << " exists\n";
        else
            Fail(std::string("KovDskDirMake ") + d, errno);
    }
}

// A lock's state: value, waiters and the last process to operate on it,
// which, when the lock is taken and that process is gone, will never
// give it back.
nlohmann::json LockState(const char *which, int semid)
{
    int value = semctl(semid, 0, GETVAL);
    int waiting = semctl(semid, 0, GETNCNT);
    int pid = semctl(semid, 0, GETPID);
    bool gone = pid > 0 && kill(pid, 0) == -1 && errno == ESRCH;
    return {{"lock", which}, {"value", value}, {"free", value == 1}, {"waiting", waiting},
            {"last_pid", pid}, {"stale", value == 0 && gone}};
}

std::string Field(const char *text, size_t size) { return std::string(text, strnlen(text, size)); }

void Status(bool json)
{
    Attach();
    const KovDskAccTbl *t = AccTbl;
    nlohmann::json s = {
        {"root", Field(t->root, sizeof t->root)},
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
    for (int i = 0; i < KOVDSK_SLOTS; i++) {
        const KovDskAccWrEnt &w = t->wr[i];
        if (w.used)
            s["write_slots"].push_back({{"handle", i}, {"kind", w.kind}, {"name", Field(w.name, 33)},
                                        {"area", Field(w.dir, sizeof w.dir)},
                                        {"file", Field(w.file, sizeof w.file)}, {"waiting", w.fill}});
        const KovDskAccRdEnt &r = t->rd[i];
        if (r.used)
            s["read_slots"].push_back({{"handle", i}, {"kind", r.kind}, {"name", Field(r.name, 33)},
                                       {"area", Field(r.dir, sizeof r.dir)},
                                       {"file", Field(r.file, sizeof r.file)}, {"remain", r.remain}});
    }
    if (json) {
        std::cout << s.dump(2) << "\n";
        return;
    }
    std::cout << "root         " << s["root"].get<std::string>() << "\n"
              << "activity     " << t->acc_cnt << "\n"
              << "accessed     " << t->accessed << "\n"
              << "operations   " << t->op_cnt << "\n"
              << "trash        " << (t->trash_mode ? "on" : "off") << ", garbage "
              << (t->gbg_flag ? "yes" : "no") << ", next number " << t->trash_seq << "\n";
    for (const auto &lock : s["locks"]) {
        std::string label = lock["lock"].get<std::string>() + " lock";
        std::cout << label << std::string(13 - label.size(), ' ')
                  << (lock["free"].get<bool>() ? "free" : "taken") << ", " << lock["waiting"]
                  << " waiting, last operated by pid " << lock["last_pid"];
        if (lock["stale"].get<bool>())
            std::cout << "  HELD BY A PROCESS THAT NO LONGER EXISTS";
        std::cout << "\n";
    }
    for (const char *dir : {"write_slots", "read_slots"}) {
        for (const auto &slot : s[dir])
            std::cout << (dir[0] == 'w' ? "write " : "read  ") << slot["handle"] << ": kind "
                      << slot["kind"] << ", \"" << slot["name"].get<std::string>() << "\" in "
                      << (slot["area"].get<std::string>().empty() ? "(direct)" : slot["area"].get<std::string>())
                      << ", " << slot["file"].get<std::string>() << "\n";
    }
    if (s["write_slots"].empty() && s["read_slots"].empty())
        std::cout << "no stream open\n";
}

struct NameArgs {
    std::string name, short_tag, long_tag, deadline, stored;
    unsigned kind = 0;
    bool tmp = false, json = false;
};

void Encode(const NameArgs &a)
{
    char out[KOVDSK_STORED_MAX];
    if (KovDskNameBuild(a.kind, a.name.c_str(), a.short_tag.c_str(), a.long_tag.c_str(),
                        a.deadline.c_str(), a.tmp, out) != 0)
        Fail("encode", errno);
    std::cout << out << "\n";
}

void Decode(const NameArgs &a)
{
    int kind = 0, tmp = 0;
    char name[KOVDSK_FNAME_BUF], stag[KOVDSK_STAG_BUF], ltag[KOVDSK_LTAG_BUF];
    char deadline[KOVDSK_DEADLINE_BUF];
    if (KovDskNameParse(a.stored.c_str(), &kind, name, stag, ltag, deadline, &tmp) != 0)
        Usage("not a stored name: \"" + a.stored + "\"");
    nlohmann::json j = {{"kind", kind}, {"name", name}, {"short_tag", stag},
                        {"long_tag", ltag}, {"deadline", deadline}, {"temporary", tmp == 1}};
    if (a.json) {
        std::cout << j.dump(2) << "\n";
        return;
    }
    for (auto &[key, value] : j.items())
        std::cout << key << std::string(11 - key.size(), ' ')
                  << (value.is_string() ? value.get<std::string>() : value.dump()) << "\n";
}

} // namespace

void AddAdminCommands(CLI::App &app)
{
    static std::string root;
    auto *init = app.add_subcommand("init", "create the table with the store's root (once a boot)");
    init->add_option("root", root, "the directory that holds the store")->required();
    init->callback([] { Init(root); });

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
    enc->add_option("name", n.name, "file name")->required();
    enc->add_option("-k,--kind", n.kind, "kind, 0 to 255")->check(CLI::Range(0, 255));
    enc->add_option("-s,--short-tag", n.short_tag, "short tag");
    enc->add_option("-l,--long-tag", n.long_tag, "long tag");
    enc->add_option("-d,--deadline", n.deadline, "deadline YYMMDDHHMM");
    enc->add_flag("-t,--temporary", n.tmp, "temporary file");
    enc->callback([] { Encode(n); });
    auto *dec = name->add_subcommand("decode", "a stored name to its values");
    dec->add_option("stored", n.stored, "stored name")->required();
    dec->add_flag("--json", n.json, "as JSON");
    dec->callback([] { Decode(n); });
}

} // namespace kovcli
