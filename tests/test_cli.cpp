// kovdsk, the operator's command, installed as an operator gets it and run
// as a real subprocess: output, exit codes, JSON parsed back, signals and a
// closed pipe on real processes, and after each the slots, the counters
// and the stored files.
#include "harness/store.h"

#include <algorithm>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <nlohmann/json.hpp>
#include <sstream>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace kovtest;
using nlohmann::json;

namespace {

struct Result {
    int code = -1;
    std::string out, err;
};

struct Opts {
    std::string input = "/dev/null", cwd;
    uid_t uid = 0;  // 0: as this process
};

// Starts the installed kovdsk on the given descriptors; under emulation
// through the emulator, since an emulated process cannot exec a program of
// the target itself.
pid_t Start(const std::vector<std::string> &args, int in, int out, int err, const Opts &o = {})
{
    std::vector<std::string> argv;
    if (getenv("KOVTEST_EMULATED") != nullptr) {
        std::stringstream runner(KOVTEST_RUNNER);
        for (std::string word; std::getline(runner, word, '|');)
            argv.push_back(word);
    }
    argv.push_back(KOVTEST_KOVDSK);
    argv.insert(argv.end(), args.begin(), args.end());
    return StartChild([&] {
        if (dup2(in, 0) < 0 || dup2(out, 1) < 0 || dup2(err, 2) < 0)
            return 126;
        closefrom(3);  // a pipe's other end held here would hide its close
        if ((!o.cwd.empty() && chdir(o.cwd.c_str()) != 0) || (o.uid != 0 && setuid(o.uid) != 0))
            return 126;
        std::vector<char *> cargv;
        for (std::string &a : argv)
            cargv.push_back(a.data());
        cargv.push_back(nullptr);
        execvp(cargv[0], cargv.data());
        return 127;
    });
}

// Waits up to 10 s for a condition another process brings about.
bool Eventually(const std::function<bool()> &cond)
{
    for (int i = 0; i < 1000 && !cond(); i++)
        usleep(10000);
    return cond();
}

int UsedSlots()
{
    int n = 0;
    for (int i = 0; i < KOVDSK_SLOTS; i++)
        n += AccTbl->wr[i].used + AccTbl->rd[i].used;
    return n;
}

class Cli : public Store {
protected:
    void SetUp() override { Boot::SetUp(); }  // kovdsk makes the table itself
    void Init()
    {
        Result r = Kovdsk({"init", root_});
        ASSERT_EQ(r.code, 0) << r.err;
        ASSERT_EQ(Kovdsk({"mkdirs"}).code, 0);
        ASSERT_EQ(KovDskInit(), 0);
    }
    // Runs kovdsk to its end, its output caught in files beside the store.
    Result Kovdsk(const std::vector<std::string> &args, const Opts &o = {})
    {
        int in = open(o.input.c_str(), O_RDONLY);
        int out = open(Path(".out").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666);
        int err = open(Path(".err").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666);
        pid_t pid = Start(args, in, out, err, o);
        for (int fd : {in, out, err})
            close(fd);
        return {WaitChild(pid), Content(".out"), Content(".err")};
    }
    json Json(const std::vector<std::string> &args)
    {
        Result r = Kovdsk(args);
        EXPECT_EQ(r.code, 0) << r.err;
        return json::parse(r.out);  // throws, failing the test, on invalid JSON
    }
    // A child attached to the table that does `fn` and then waits to be killed.
    pid_t Holder(const std::function<bool()> &fn)
    {
        int ready[2];
        EXPECT_EQ(pipe(ready), 0);
        pid_t child = StartChild([&] { return fn() && write(ready[1], "x", 1) == 1 ? pause() : 1; });
        char c;
        EXPECT_EQ(read(ready[0], &c, 1), 1);
        close(ready[0]);
        close(ready[1]);
        return child;
    }
};

} // namespace

TEST_F(Cli, StoreListReadBackAndDelete)
{
    Init();
    std::string data = Pattern(10 << 20);
    PutFile("in.bin", data);
    Result r = Kovdsk({"put", "report", "-k", "42", "-a", "usr:abc:1", "-i", Path("in.bin"),
                       "-s", "q3", "-l", "figures", "-d", "2612312359"});
    ASSERT_EQ(r.code, 0) << r.err;
    EXPECT_EQ(r.out, "t2atn7265706F7274nf7133fs66696775726573sd26123123dm59m.0\n");
    EXPECT_EQ(r.err, "");  // no progress bar off a terminal

    ASSERT_EQ(Kovdsk({"get", "report", "-k", "42", "-o", Path("out.bin")}).code, 0);
    EXPECT_TRUE(Content("out.bin") == data);
    json ls = Json({"ls", "--json"});
    ASSERT_EQ(ls.size(), 1u);
    EXPECT_EQ(ls[0], json({{"name", "report"}, {"kind", 42}, {"temporary", false}, {"short_tag", "q3"},
                           {"long_tag", "figures"}, {"deadline", "2612312359"}, {"size", 10 << 20},
                           {"time", ls[0]["time"]}}));
    EXPECT_NE(Kovdsk({"ls", "-H", "-a", "usr:abc"}).out.find("10.0 MiB"), std::string::npos);
    EXPECT_EQ(Kovdsk({"where", "report", "-k", "42"}).out, Path("usr/616263/0000000000000001/") + r.out);
    EXPECT_EQ(Json({"users", "--json"}), json({{{"user", "abc"}}}));
    EXPECT_EQ(Json({"passes", "abc", "--json"}), json({1}));
    EXPECT_EQ(Json({"ids", "--json"}), json::array());

    ASSERT_EQ(Kovdsk({"rm", "report", "-k", "42"}).code, 0);
    EXPECT_FALSE(Exists("usr/616263"));
    EXPECT_EQ(Json({"ls", "--json"}), json::array());
    ExpectAllFree();
}

// 1. A closed pipe and SIGINT, SIGTERM and SIGHUP end a get or a put with
// its stream closed, the file a put began deleted, and 128 + the signal.
TEST_F(Cli, PipesAndSignalsLeaveNoSlotOrCountBehind)
{
    Init();
    std::string stored = Put("big", 0, 0, 0, nullptr, 0, Pattern(8 << 20));
    int quiet = open(Path("err").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666);
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    pid_t get = Start({"get", "big"}, quiet, p[1], quiet);
    close(p[1]);
    char head[100];
    ASSERT_EQ(read(p[0], head, sizeof head), static_cast<ssize_t>(sizeof head));
    close(p[0]);
    EXPECT_EQ(WaitChild(get), 141);
    EXPECT_EQ(Content("err"), "");

    struct {
        const char *cmd;
        int sig;
    } cases[] = {{"put", SIGINT}, {"put", SIGTERM}, {"put", SIGHUP}, {"get", SIGTERM}};
    for (auto [cmd, sig] : cases) {
        SCOPED_TRACE(std::string(cmd) + " " + strsignal(sig));
        ASSERT_EQ(pipe(p), 0);
        bool put = cmd[0] == 'p';
        // A put reads from a pipe kept open; a get writes into a pipe nobody reads.
        pid_t pid = put ? Start({"put", "half"}, p[0], quiet, quiet)
                        : Start({"get", "big"}, quiet, p[1], quiet);
        close(put ? p[0] : p[1]);
        if (put) {
            std::string some = Pattern(10000);
            ASSERT_EQ(write(p[1], some.data(), some.size()), static_cast<ssize_t>(some.size()));
            EXPECT_TRUE(Eventually([&] {
                return AccTbl->wr[0].used && Size(std::string("general/") + AccTbl->wr[0].file) == 8192;
            }));
        } else {
            EXPECT_TRUE(Eventually([&] { return AccTbl->rd[0].used && AccTbl->rd[0].remain < (8u << 20); }));
        }
        kill(pid, sig);
        EXPECT_EQ(WaitChild(pid), 128 + sig);
        close(put ? p[1] : p[0]);
        EXPECT_EQ(Entries("general"), stored);
        EXPECT_EQ(UsedSlots(), 0);
        ExpectAllFree();
    }

    // A signal does not cut a library call short: one cut in its wait for
    // the table lock would go on without the lock.
    ASSERT_EQ(KovDskOpenTblCheck(), 0);
    pid_t ls = Start({"ls"}, quiet, quiet, quiet);
    EXPECT_TRUE(Eventually([] { return SemWaiting(KovDskTblSem_id) == 1; }));
    kill(ls, SIGTERM);
    usleep(300000);
    EXPECT_EQ(waitpid(ls, nullptr, WNOHANG), 0);
    ASSERT_EQ(KovDskTblSemFree(), 0);
    EXPECT_EQ(WaitChild(ls), 128 + SIGTERM);
    ExpectAllFree();
    close(quiet);
}

// 2. A lock whose holder is gone is named instead of waited for, and
// released; slots are freed when kovdsk can tell they are orphaned or the
// operator says so; the table goes when nothing holds it.
TEST_F(Cli, RecoverLocksSlotsAndTheTable)
{
    Init();
    pid_t holder = Holder([] { return KovDskOpenTblCheck() == 0; });
    kill(holder, SIGKILL);
    EXPECT_EQ(WaitChild(holder), -1);
    json s = Json({"status", "--json"});
    EXPECT_EQ(s["locks"][0]["last_pid"], holder);
    EXPECT_EQ(s["locks"][0]["stale"], true);
    EXPECT_NE(Kovdsk({"status"}).out.find("HELD BY A PROCESS THAT NO LONGER EXISTS"), std::string::npos);
    Result r = Kovdsk({"ls"});
    EXPECT_EQ(r.code, 1);
    EXPECT_NE(r.err.find("kovdsk recover lock table"), std::string::npos) << r.err;
    EXPECT_EQ(Kovdsk({"recover", "lock", "table"}).code, 0);
    EXPECT_EQ(SemValue(KovDskTblSem_id), 1);
    ASSERT_EQ(KovDskOpenTblCheck(), 0);  // a holder that lives
    r = Kovdsk({"recover", "lock", "table"});
    EXPECT_EQ(r.code, 1);
    EXPECT_NE(r.err.find("alive"), std::string::npos) << r.err;
    ASSERT_EQ(KovDskTblSemFree(), 0);

    // A process killed with a read stream and a write stream open.
    Put("a", 1, 0, 0, nullptr, 0, "x");
    holder = Holder([] { return KovDskReadOpen("a", 1, 0, 0, nullptr, 0) == 0 &&
                                KovDskWriteOpen("b", "", "", 1, 0, 0, nullptr, 0, 0, nullptr) == 0; });
    kill(holder, SIGKILL);
    WaitChild(holder);
    EXPECT_EQ(AccTbl->acc_cnt, 1);
    s = Json({"status", "--json"});
    EXPECT_EQ(s["attached"], 2);  // kovdsk and this test: it cannot tell
    EXPECT_EQ(s["read_slots"][0]["orphaned"], false);
    r = Kovdsk({"recover", "slot", "read", "0"});
    EXPECT_EQ(r.code, 1);
    EXPECT_NE(r.err.find("--yes"), std::string::npos) << r.err;
    Detach();
    s = Json({"status", "--json"});
    EXPECT_EQ(s["attached"], 1);
    EXPECT_EQ(s["read_slots"][0]["orphaned"], true);
    EXPECT_EQ(s["write_slots"][0]["orphaned"], true);
    EXPECT_EQ(Kovdsk({"recover", "slot", "read", "0"}).code, 0);
    EXPECT_EQ(Kovdsk({"recover", "slot", "write", "0"}).code, 0);
    ASSERT_EQ(KovDskInit(), 0);
    EXPECT_EQ(UsedSlots(), 0);
    ExpectAllFree();  // the read stream's unit given back, none for the write stream

    // A slot whose file is gone, freed on the operator's word.
    AccTbl->rd[5].used = 1;
    strcpy(AccTbl->rd[5].dir, "general");
    strcpy(AccTbl->rd[5].file, "t01tn676F6E65n.0");
    AccTbl->acc_cnt = 1;
    EXPECT_EQ(Json({"status", "--json"})["read_slots"][0]["file_gone"], true);
    EXPECT_EQ(Kovdsk({"recover", "slot", "read", "5", "--yes"}).code, 0);
    ExpectAllFree();

    r = Kovdsk({"recover", "table"});
    EXPECT_EQ(r.code, 1);
    EXPECT_NE(r.err.find("1 other process is attached"), std::string::npos) << r.err;
    Detach();
    EXPECT_EQ(Kovdsk({"recover", "table"}).code, 0);
    EXPECT_EQ(KovDskInit(), -1);
    EXPECT_EQ(errno, EINIT);
    Init();
}

// 3. JSON stays valid and keeps every byte; a table row stays one line.
TEST_F(Cli, JsonAndTablesKeepEveryByte)
{
    Init();
    PutFile("general/t01tnFFn.0");  // the file name 0xFF, planted
    Put("two\nlines", 1, 0, 0, nullptr, 0, "x");
    Put("x", 1, 3, 0, "b\xff", 1, "x");
    int h = KovDskReadOpen("\xff", 1, 0, 0, nullptr, 0);
    ASSERT_GE(h, 0);
    const std::string replaced = "\xEF\xBF\xBD";
    bool seen = false;
    for (const json &e : Json({"ls", "--json"}))
        seen |= e["name"] == replaced && e["name_hex"] == "ff";
    EXPECT_TRUE(seen);
    EXPECT_EQ(Json({"users", "--json"}), json({{{"user", "b" + replaced}, {"user_hex", "62ff"}}}));
    json slot = Json({"status", "--json"})["read_slots"][0];
    EXPECT_EQ(slot["name"], replaced);
    EXPECT_EQ(slot["name_hex"], "ff");
    json decoded = Json({"name", "decode", "t01tnFFn.0", "--json"});
    EXPECT_EQ(decoded["name_hex"], "ff");

    std::string table = Kovdsk({"ls"}).out;
    EXPECT_EQ(std::count(table.begin(), table.end(), '\n'), 4) << table;  // header and 3 rows
    EXPECT_NE(table.find("two\\nlines"), std::string::npos) << table;
    EXPECT_NE(table.find("\\xFF"), std::string::npos) << table;
    ASSERT_EQ(KovDskReadClose(h), 0);
}

// 4. What the library would cut, drop or misread is a usage error that
// says what is allowed; nothing is stored.
TEST_F(Cli, InputTheLibraryWouldReshapeIsRefused)
{
    Init();
    struct {
        std::vector<std::string> args;
        const char *says;
    } bad[] = {
        {{"put", std::string(33, 'n')}, "1 to 32"},
        {{"get", std::string(36, 'n')}, "1 to 32"},
        {{"name", "encode", std::string(33, 'n')}, "1 to 32"},
        {{"put", "x", "-a", "usr:" + std::string(64, 'u') + ":1"}, "1 to 63"},
        {{"put", "x", "-s", std::string(17, 's')}, "at most 16"},
        {{"put", "x", "-l", std::string(65, 'l')}, "at most 64"},
        {{"put", "x", "-d", "abc"}, "10 digits"},
        {{"put", "x", "-d", "26013115305"}, "10 digits"},
        {{"put", "x", "-d", "9913311299"}, "month 13"},
        {{"put", "x", "-d", "2902291200"}, "day 29"},
        {{"put", "x", "-d", "2601312400"}, "hour 24"},
        {{"put", "x", "-d", "2601311260"}, "minute 60"},
        {{"rm", "x", "--prefix", "--all"}, "excludes"},
        {{"trash", "on", "--all"}, "shred only"},
        {{"put", "x", "-a", "usr:bob"}, "usr:USER:PASS"},
        {{"ls", "-a", "uid:twelve"}, "not a number for the id"},
        {{"put", "x", "-k", "256"}, "256"},
        {{"ls", "--bogus"}, "--bogus"},
        {{"get"}, "name"},
    };
    for (const auto &[args, says] : bad) {
        Result r = Kovdsk(args);
        EXPECT_EQ(r.code, 2) << args[0] << " " << args.back();
        EXPECT_NE(r.err.find(says), std::string::npos) << r.err;
    }
    EXPECT_EQ(Entries("general"), "");
    EXPECT_EQ(Kovdsk({"put", "x", "-d", "2802291200"}).code, 0);  // a leap day is a real date
}

// 5. An input that cannot be stored is refused before the old version goes.
TEST_F(Cli, AnInputThatFailsKeepsTheOldVersion)
{
    Init();
    Put("report", 0, 0, 0, nullptr, 0, "old");
    ASSERT_EQ(mkdir(Path("dir").c_str(), 0777), 0);
    struct statvfs64 fs;
    ASSERT_EQ(statvfs64(root_.c_str(), &fs), 0);
    int fd = open(Path("huge").c_str(), O_CREAT | O_WRONLY, 0666);
    EXPECT_EQ(ftruncate64(fd, static_cast<off64_t>(fs.f_bavail * fs.f_frsize) + (1 << 30)), 0);  // sparse
    close(fd);
    for (auto [input, says] : {std::pair{"dir", "EISDIR"}, {"missing", "ENOENT"}, {"huge", "ENOSPC"}}) {
        Result r = Kovdsk({"put", "report", "-i", Path(input)});
        EXPECT_EQ(r.code, 1) << input;
        EXPECT_NE(r.err.find(says), std::string::npos) << r.err;
        EXPECT_EQ(Get("report", 0, 0, 0, nullptr, 0), "old");
    }
    // Removed here: the fixture's cleanup cannot stat a file this large in
    // a 32-bit process.
    EXPECT_EQ(unlink(Path("huge").c_str()), 0);
    ExpectAllFree();
}

// 6. init takes a root that exists (or makes it when asked) and hands the
// library its absolute path; roots the library would misread are refused.
TEST_F(Cli, InitTakesAnExistingRootAsAnAbsolutePath)
{
    for (const char *dir : {"x.1", "usr"})
        ASSERT_EQ(mkdir(Path(dir).c_str(), 0777), 0);
    for (auto [root, says] :
         {std::pair{"missing", "does not exist"}, {"x.1", "\".1\""}, {"usr", "named usr"}}) {
        Result r = Kovdsk({"init", Path(root)});
        EXPECT_EQ(r.code, 1) << root;
        EXPECT_NE(r.err.find(says), std::string::npos) << r.err;
    }
    EXPECT_EQ(KovDskInit(), -1);  // no table was made

    Opts here;
    here.cwd = root_;
    ASSERT_EQ(Kovdsk({"init", "new/store", "--mkdir"}, here).code, 0);
    char real[PATH_MAX];
    ASSERT_NE(realpath(root_.c_str(), real), nullptr);
    EXPECT_EQ(Json({"status", "--json"})["root"], std::string(real) + "/new/store");
    Result r = Kovdsk({"init", root_});
    EXPECT_EQ(r.code, 1);
    EXPECT_NE(r.err.find("EALREADY (the table of this boot exists already)"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("kovdsk recover table"), std::string::npos) << r.err;
}

// 7. Messages, exit statuses, --version, help, the manual page and the
// completion, confirmations, the partial read, the warning for non-root.
TEST_F(Cli, MessagesAndConventions)
{
    Result r = Kovdsk({"ls"});
    EXPECT_EQ(r.code, 1);
    EXPECT_NE(r.err.find("KovDskInit: EINIT (the process is not attached"), std::string::npos) << r.err;
    Init();
    Put("open", 1, 0, 0, nullptr, 0, "x");
    int h = KovDskReadOpen("open", 1, 0, 0, nullptr, 0);
    int w = KovDskWriteOpen("busy", "", "", 1, 0, 0, nullptr, 0, 0, nullptr);
    ASSERT_GE(h, 0);
    ASSERT_GE(w, 0);
    std::string block = Pattern(8192);
    ASSERT_EQ(KovDskWrite(w, block.data(), 8192), 8192);
    struct {
        std::vector<std::string> args;
        int code;
        const char *says;
    } cases[] = {
        {{"rm", "open", "-k", "1"}, 1, "KovDskDel: EAGAIN (the file is open in a stream)"},
        {{"put", "busy", "-k", "1"}, 1, "KovDskWriteOpen: EALREADY (the file is open for writing already)"},
        {{"get", "nothing"}, 1, "KovDskReadOpen: ENOENT (no such stored file in the area)"},
        {{"get", "busy", "-k", "1"}, 1, "open for writing (write slot 0)"},
        {{"sweep"}, 2, "--expired"},
        {{"drive", "fdisk", Path("disk.img")}, 1, "geometry"},
        {{"drive", "format", Path("disk.img")}, 2, "--yes"},
        {{"rm", "--all"}, 2, "--yes"},
    };
    PutFile("disk.img", Pattern(4096));
    for (const auto &[args, code, says] : cases) {
        r = Kovdsk(args);
        EXPECT_EQ(r.code, code) << args[0] << " " << args.back();
        EXPECT_NE(r.err.find(says), std::string::npos) << r.err;
    }
    EXPECT_TRUE(Content("disk.img") == Pattern(4096));  // not a disk: nothing written
    r = Kovdsk({"get", "busy", "-k", "1", "--partial"});
    EXPECT_EQ(r.code, 0) << r.err;
    EXPECT_TRUE(r.out == block);
    for (int i = 0; i < KOVDSK_SLOTS; i++)  // the others' read streams fill the table
        AccTbl->rd[i].used = 1;
    EXPECT_NE(Kovdsk({"get", "open", "-k", "1"}).err.find("ENFILE (no free slot"), std::string::npos);
    for (int i = 0; i < KOVDSK_SLOTS; i++)
        AccTbl->rd[i].used = i == h;
    FailDate("utc");
    EXPECT_NE(Kovdsk({"sweep", "--expired"}).err.find("KovDskTimeDel: ETIME (the date component failed)"),
              std::string::npos);
    FailDate(nullptr);
    ASSERT_EQ(KovDskWriteClose(w), 0);
    ASSERT_EQ(KovDskReadClose(h), 0);

    r = Kovdsk({"--version"});
    EXPECT_EQ(r.out, "kovdsk 1.0.0 (libKovDsk.so.1)\n");
    std::string page = Output("cat " KOVTEST_MANPAGE);
    for (std::string cmd : {"init", "mkdirs", "put", "get", "ls", "ids", "users", "passes", "where", "rm",
                            "sweep", "trash", "status", "name encode", "name decode", "recover lock",
                            "recover slot", "recover table", "drive identify", "drive fdisk",
                            "drive format", "drive check"}) {
        std::vector<std::string> args;
        std::stringstream words(cmd);
        for (std::string word; words >> word;)
            args.push_back(word);
        args.push_back("--help");
        r = Kovdsk(args);
        EXPECT_EQ(r.code, 0) << cmd;
        EXPECT_NE(r.out.find("Usage"), std::string::npos) << cmd;
        for (size_t w = 0; w + 1 < args.size(); w++)
            EXPECT_NE(page.find(args[w]), std::string::npos) << cmd << " is not in the manual page";
    }
    if (Have("groff")) {
        EXPECT_EQ(Output("groff -man -ww -z " KOVTEST_MANPAGE " 2>&1; echo $?"), "0\n");
    }
    for (auto [line, offered] :
         {std::pair{"kovdsk re", "recover"}, {"kovdsk drive f", "fdisk format"}, {"kovdsk ls --so", "--sort"},
          {"kovdsk recover lock \"\"", "table access --help"}, {"kovdsk put x -a \"\"", "general uid: usr:"}}) {
        EXPECT_EQ(Output(std::string("bash -c 'source " KOVTEST_COMPLETION "; COMP_WORDS=(") + line +
                         "); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); _kovdsk; echo ${COMPREPLY[*]}'"),
                  std::string(offered) + "\n") << line;
    }

    if (geteuid() != 0)
        GTEST_SKIP() << "the warning for other users is checked as root";
    const char *warning = "not running as root";
    EXPECT_EQ(Kovdsk({"status"}).err.find(warning), std::string::npos);
    Opts nobody;
    nobody.uid = 65534;
    r = Kovdsk({"status"}, nobody);
    EXPECT_NE(r.err.find(warning), std::string::npos) << r.err;
    EXPECT_EQ(r.err.find(warning), r.err.rfind(warning));  // once
}

TEST_F(Cli, DriveCommands)
{
    Init();
    // Not a drive: the request's error, named.
    PutFile("not-a-drive", "x");
    Result r = Kovdsk({"drive", "identify", Path("not-a-drive")});
    EXPECT_EQ(r.code, 1);
    EXPECT_NE(r.err.find("KovDskGetIdentify"), std::string::npos) << r.err;

    // A layout the library would refuse is refused before sector 0 changes.
    if (getenv("KOVTEST_EMULATED") == nullptr && geteuid() == 0 && Have("losetup")) {
        std::string sector = Pattern(512);
        PutFile("disk.img", sector);
        ASSERT_EQ(truncate(Path("disk.img").c_str(), 32 << 20), 0);  // 4 cylinders of 255 by 63
        std::string loop = Output("losetup -f --show -P '" + Path("disk.img") + "' 2>/dev/null");
        if (loop.rfind("/dev/loop", 0) == 0) {
            loop.pop_back();
            r = Kovdsk({"drive", "fdisk", loop, "-n", "2", "-s", "100", "--yes"});
            EXPECT_EQ(r.code, 1);
            EXPECT_NE(r.err.find("would refuse this layout"), std::string::npos) << r.err;
            EXPECT_TRUE(Content("disk.img").substr(0, 512) == sector);
            EXPECT_EQ(Kovdsk({"drive", "fdisk", loop, "-n", "2", "-s", "48195"}).code, 2);  // asks first
            r = Kovdsk({"drive", "fdisk", loop, "-n", "2", "-s", "48195", "--yes"});
            EXPECT_EQ(r.code, 0) << r.err;
            EXPECT_NE(r.out.find("partition 1: from sector 63, 48132 sectors\n"), std::string::npos) << r.out;
            EXPECT_EQ(system(("losetup -d " + loop).c_str()), 0);
            EXPECT_TRUE(Content("disk.img").substr(0, 8) == Zeros(8));
        }
    }

    // The real tools on an image file; their exit codes are shown, and one
    // other than 0 fails the command (e2fsck answers 8 on a plain file,
    // whose flush it cannot ask).
    if (!Have("mke2fs") || !Have("e2fsck"))
        GTEST_SKIP() << "mke2fs and e2fsck are not installed";
    int fd = open(Path("fs.img").c_str(), O_CREAT | O_WRONLY, 0666);
    ASSERT_EQ(ftruncate(fd, 16 << 20), 0);
    close(fd);
    AccTbl->rd[3].used = 1;  // a stream a format will forget
    r = Kovdsk({"drive", "format", Path("fs.img"), "-b", "1024", "-c", "5000", "--yes"});
    EXPECT_EQ(r.code, 0) << r.err;
    EXPECT_EQ(r.out, "mke2fs exited with code 0\n");
    EXPECT_EQ(AccTbl->rd[3].used, 0);
    r = Kovdsk({"drive", "check", Path("fs.img")});
    int by_hand = WEXITSTATUS(system(("e2fsck -f -F -y " + Path("fs.img") + " >/dev/null 2>&1").c_str()));
    EXPECT_EQ(r.code, by_hand == 0 ? 0 : 1);
    EXPECT_EQ(r.out, "e2fsck exited with code " + std::to_string(by_hand) + "\n");
}
