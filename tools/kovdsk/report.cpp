/*
 * report.cpp - how a command ends: messages that name the operation, the
 * errno and what the library means by it, the exit statuses, and attaching
 * to the table with the checks that spare the operator a silent hang.
 */
#include "cli.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <unistd.h>

namespace kovcli {
namespace {

// What the library means by an errno, where that is more than the system's
// text. An empty operation stands for every library operation, which is
// named by the first word of the operation; the first row that fits wins.
struct Meaning {
    int err;
    const char *operation;
    const char *text;
};
const Meaning kMeanings[] = {
    {EINIT, "", "the process is not attached: no table exists in this boot"},
    {EAGAIN, "", "the file is open in a stream"},
    {ENFILE, "", "no free slot: 32 streams of this sort are open"},
    {EALREADY, "KovDskInitSet", "the table of this boot exists already"},
    {EINVAL, "KovDskInitSet", "the library takes no root that holds \".1\" or lies in a directory named usr"},
    {EALREADY, "", "the file is open for writing already"},
    {ETIME, "", "the date component failed"},
    {ENOMEM, "KovDskInitSet", "no shared memory to be had"},
    {ENOMEM, "KovDskInit", "no shared memory to be had"},
    {EINVAL, "KovDskWrite", "the root's file system does not take O_DIRECT"},
    {EINVAL, "KovDskReadOpen", "the root's file system does not take O_DIRECT"},
    {EINVAL, "KovDskRead", "the root's file system does not take O_DIRECT"},
    {ENOENT, "KovDskReadOpen", "no such stored file in the area"},
    {ENOENT, "KovDskGetRealFileName", "no such stored file in the area"},
    {ENOENT, "KovDskDel", "the area does not exist"},
};

bool IsLibrary(const std::string &operation) { return operation.rfind("KovDsk", 0) == 0; }

} // namespace

std::string Explain(const std::string &operation, int err)
{
    const char *name = err == EINIT ? "EINIT" : strerrorname_np(err);
    std::string meaning = strerror(err);
    if (IsLibrary(operation)) {
        std::string call = operation.substr(0, operation.find(' '));
        for (const Meaning &m : kMeanings) {
            if (m.err == err && (*m.operation == '\0' || call == m.operation)) {
                meaning = m.text;
                break;
            }
        }
    }
    return std::string(name ? name : std::to_string(err).c_str()) + " (" + meaning + ")";
}

void Fail(const std::string &operation, int err, const std::string &hint)
{
    fprintf(stderr, "kovdsk: %s: %s\n", operation.c_str(), Explain(operation, err).c_str());
    if (!hint.empty())
        fprintf(stderr, "kovdsk: %s\n", hint.c_str());
    else if (err == EINIT)
        fprintf(stderr, "kovdsk: create the table with: kovdsk init ROOT\n");
    throw Ended{kExitFailure};
}

void Refuse(const std::string &message)
{
    fprintf(stderr, "kovdsk: %s\n", message.c_str());
    throw Ended{kExitFailure};
}

void Usage(const std::string &message)
{
    fprintf(stderr, "kovdsk: %s\n", message.c_str());
    throw Ended{kExitUsage};
}

void Warn(const std::string &message) { fprintf(stderr, "kovdsk: %s\n", message.c_str()); }

void WarnIfNotRoot()
{
    static bool warned = false;
    if (warned || geteuid() == 0)
        return;
    warned = true;
    Warn("warning: not running as root: the store's directories have mode 0666, so other "
         "users cannot search them and see every area empty");
}

void Attach(bool takes_locks)
{
    WarnIfNotRoot();
    if (KovDskInit() != 0)
        Fail("KovDskInit", errno);
    if (!takes_locks)
        return;
    for (auto [which, semid] : {std::pair{"table", KovDskTblSem_id}, {"access", KovDskAccSem_id}}) {
        nlohmann::json lock = LockState(which, semid);
        if (lock["stale"].get<bool>())
            Refuse(std::string("the ") + which + " lock is held by pid " + lock["last_pid"].dump() +
                   ", which no longer exists, so every call would wait for ever; release it with: "
                   "kovdsk recover lock " + which);
    }
}

} // namespace kovcli
