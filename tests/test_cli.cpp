// kovdsk, the operator's command, run as a real subprocess: output, exit
// codes, JSON parsed back, and a 10 MiB file in and out byte for byte.
#include "harness/store.h"

#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <nlohmann/json.hpp>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>

using namespace kovtest;
using nlohmann::json;

namespace {

struct Result {
    int code = -1;
    std::string out, err;
};

// Drains a pipe into a string.
std::string Drain(int fd)
{
    std::string s;
    char buf[65536];
    ssize_t n;
    while ((n = read(fd, buf, sizeof buf)) > 0)
        s.append(buf, static_cast<size_t>(n));
    close(fd);
    return s;
}

// Runs kovdsk with its arguments; under emulation through the emulator,
// since an emulated process cannot exec a program of the target itself.
Result Kovdsk(std::vector<std::string> args, const std::string &input_file = "")
{
    std::vector<std::string> argv;
    if (getenv("KOVTEST_EMULATED") != nullptr) {
        std::stringstream runner(KOVTEST_RUNNER);
        for (std::string word; std::getline(runner, word, '|');)
            argv.push_back(word);
    }
    argv.push_back(KOVTEST_KOVDSK);
    argv.insert(argv.end(), args.begin(), args.end());
    int out[2], err[2];
    if (pipe(out) != 0 || pipe(err) != 0)
        return {};
    pid_t pid = fork();
    if (pid == 0) {
        dup2(out[1], 1);
        dup2(err[1], 2);
        int in = open(input_file.empty() ? "/dev/null" : input_file.c_str(), O_RDONLY);
        dup2(in, 0);
        for (int fd : {out[0], out[1], err[0], err[1]})
            close(fd);
        std::vector<char *> cargv;
        for (std::string &a : argv)
            cargv.push_back(a.data());
        cargv.push_back(nullptr);
        execvp(cargv[0], cargv.data());
        _exit(127);
    }
    close(out[1]);
    close(err[1]);
    Result r;
    r.out = Drain(out[0]);  // small outputs: stderr fits its pipe meanwhile
    r.err = Drain(err[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    r.code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return r;
}

class Cli : public Store {
protected:
    void SetUp() override { Boot::SetUp(); }  // kovdsk makes the table itself
    void Init()
    {
        Result r = Kovdsk({"init", root_});
        ASSERT_EQ(r.code, 0) << r.err;
        r = Kovdsk({"mkdirs"});
        ASSERT_EQ(r.code, 0) << r.err;
        ASSERT_EQ(KovDskInit(), 0);
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
    EXPECT_EQ(r.err, "");  // no progress bar into a pipe

    r = Kovdsk({"get", "report", "-k", "42", "-o", Path("out.bin")});
    ASSERT_EQ(r.code, 0) << r.err;
    EXPECT_TRUE(Content("out.bin") == data);

    r = Kovdsk({"ls", "--json"});
    ASSERT_EQ(r.code, 0) << r.err;
    json ls = json::parse(r.out);
    ASSERT_EQ(ls.size(), 1u);
    EXPECT_EQ(ls[0]["name"], "report");
    EXPECT_EQ(ls[0]["kind"], 42);
    EXPECT_EQ(ls[0]["short_tag"], "q3");
    EXPECT_EQ(ls[0]["deadline"], "2612312359");
    EXPECT_EQ(ls[0]["size"], 10 << 20);
    r = Kovdsk({"ls", "-H", "-a", "usr:abc"});
    EXPECT_NE(r.out.find("10.0 MiB"), std::string::npos) << r.out;

    r = Kovdsk({"where", "report", "-k", "42"});
    EXPECT_EQ(r.out, Path("usr/616263/0000000000000001/t2atn7265706F7274nf7133fs66696775726573sd26123123dm59m.0") + "\n");
    EXPECT_EQ(json::parse(Kovdsk({"users", "--json"}).out), json({"abc"}));
    EXPECT_EQ(json::parse(Kovdsk({"passes", "abc", "--json"}).out), json({1}));
    EXPECT_EQ(json::parse(Kovdsk({"ids", "--json"}).out), json::array());

    r = Kovdsk({"rm", "report", "-k", "42"});
    ASSERT_EQ(r.code, 0) << r.err;
    EXPECT_FALSE(Exists("usr/616263"));
    EXPECT_EQ(json::parse(Kovdsk({"ls", "--json"}).out), json::array());
    ExpectAllFree();
}

TEST_F(Cli, StatusShowsSlotsLocksAndAStaleLock)
{
    Init();
    Put("open", 3, 1, 7, nullptr, 0, "x");
    int h = KovDskReadOpen("open", 3, 1, 7, nullptr, 0);
    ASSERT_GE(h, 0);
    json s = json::parse(Kovdsk({"status", "--json"}).out);
    EXPECT_EQ(s["root"], root_);
    EXPECT_EQ(s["activity"], 1);
    ASSERT_EQ(s["read_slots"].size(), 1u);
    EXPECT_EQ(s["read_slots"][0]["handle"], h);
    EXPECT_EQ(s["read_slots"][0]["area"], "uid/0000000000000007");
    EXPECT_EQ(s["locks"][0]["free"], true);
    EXPECT_EQ(s["locks"][0]["stale"], false);
    ASSERT_EQ(KovDskReadClose(h), 0);

    // A child takes the table lock and is killed holding it.
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    pid_t child = StartChild([&] {
        if (KovDskOpenTblCheck() != 0 || write(ready[1], "x", 1) != 1)
            return 1;
        pause();
        return 0;
    });
    char c;
    ASSERT_EQ(read(ready[0], &c, 1), 1);
    kill(child, SIGKILL);
    EXPECT_EQ(WaitChild(child), -1);
    s = json::parse(Kovdsk({"status", "--json"}).out);
    EXPECT_EQ(s["locks"][0]["free"], false);
    EXPECT_EQ(s["locks"][0]["last_pid"], child);
    EXPECT_EQ(s["locks"][0]["stale"], true);
    Result r = Kovdsk({"status"});
    EXPECT_NE(r.out.find("HELD BY A PROCESS THAT NO LONGER EXISTS"), std::string::npos) << r.out;
    close(ready[0]);
    close(ready[1]);
    KovDskTblSemFree();
}

TEST_F(Cli, BadInputGivesOneLineAndNoHalfFile)
{
    Result r = Kovdsk({"ls"});
    EXPECT_EQ(r.code, 1);
    EXPECT_NE(r.err.find("KovDskInit: EINIT"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("kovdsk init ROOT"), std::string::npos) << r.err;
    Init();
    EXPECT_NE(Kovdsk({"put", "x", "-k", "256"}).code, 0);
    EXPECT_NE(Kovdsk({"ls", "--bogus"}).code, 0);
    EXPECT_NE(Kovdsk({"get"}).code, 0);
    r = Kovdsk({"ls", "-a", "uid:twelve"});
    EXPECT_EQ(r.code, 2);
    EXPECT_EQ(r.err, "kovdsk: not a number for the id: \"twelve\"\n");
    r = Kovdsk({"put", "x", "-i", Path("missing")});
    EXPECT_EQ(r.code, 1);
    EXPECT_EQ(r.err, "kovdsk: open " + Path("missing") + ": ENOENT (No such file or directory)\n");
    r = Kovdsk({"get", "nothing"});
    EXPECT_EQ(r.err, "kovdsk: KovDskReadOpen: ENOENT (No such file or directory)\n");

    // Input that fails half way: the stored file is closed and deleted.
    ASSERT_EQ(mkdir(Path("a-directory").c_str(), 0777), 0);
    r = Kovdsk({"put", "half", "-i", Path("a-directory")});
    EXPECT_EQ(r.code, 1);
    EXPECT_NE(r.err.find("EISDIR"), std::string::npos) << r.err;
    EXPECT_EQ(Entries("general"), "");
    ExpectAllFree();
}

TEST_F(Cli, NamesSweepsTrashAndHelp)
{
    Result r = Kovdsk({"name", "encode", "abc", "-k", "42", "-s", "xy", "-l", "memo", "-d",
                       "2601311530", "-t"});
    EXPECT_EQ(r.out, "t2atn616263nf7879fs6D656D6Fsd26013115dm30m.1\n");
    json d = json::parse(Kovdsk({"name", "decode", "t2atn616263n.1", "--json"}).out);
    EXPECT_EQ(d, json({{"kind", 42}, {"name", "abc"}, {"short_tag", ""}, {"long_tag", ""},
                       {"deadline", ""}, {"temporary", true}}));
    EXPECT_EQ(Kovdsk({"name", "decode", "t2atn6162"}).code, 2);

    Init();
    SetNow("2026-01-31 15:30:00");
    Put("old", 1, 0, 0, nullptr, 0, "x", 0, "2601311530");
    Put("tmp", 1, 0, 0, nullptr, 0, "x", 1);
    EXPECT_EQ(Kovdsk({"sweep"}).code, 2);
    ASSERT_EQ(Kovdsk({"sweep", "--expired"}).code, 0);
    ASSERT_EQ(Kovdsk({"sweep", "--temporary"}).code, 0);
    EXPECT_EQ(Entries("general"), "");

    ASSERT_EQ(Kovdsk({"trash", "on"}).code, 0);
    Put("a", 1, 0, 0, nullptr, 0, "x");
    Put("b", 1, 0, 0, nullptr, 0, "x");
    ASSERT_EQ(Kovdsk({"rm", "", "--prefix"}).code, 0);
    EXPECT_EQ(Entries(".trash"), "0000000000000000 0000000000000001");
    EXPECT_EQ(Kovdsk({"trash", "scan"}).out, "garbage in .trash\n");
    EXPECT_EQ(Kovdsk({"trash", "shred", "--all"}).out, "2 file(s) shredded\n");
    EXPECT_EQ(Entries(".trash"), "");

    for (std::string cmd : {"init", "mkdirs", "put", "get", "ls", "ids", "users", "passes",
                            "where", "rm", "sweep", "trash", "status", "name", "name encode",
                            "name decode", "drive", "drive identify", "drive fdisk",
                            "drive format", "drive check"}) {
        std::vector<std::string> args;
        std::stringstream words(cmd);
        for (std::string w; words >> w;)
            args.push_back(w);
        args.push_back("--help");
        r = Kovdsk(args);
        EXPECT_EQ(r.code, 0) << cmd;
        EXPECT_NE(r.out.find("Usage"), std::string::npos) << cmd;
    }
    ExpectAllFree();
}

TEST_F(Cli, DriveCommands)
{
    Init();
    // Not a drive: the request's error, named.
    PutFile("not-a-drive", "x");
    Result r = Kovdsk({"drive", "identify", Path("not-a-drive")});
    EXPECT_EQ(r.code, 1);
    EXPECT_NE(r.err.find("KovDskGetIdentify"), std::string::npos) << r.err;
    r = Kovdsk({"drive", "fdisk", Path("not-a-drive"), "-n", "2", "-s", "100000"});
    EXPECT_EQ(r.code, 1);
    EXPECT_NE(r.err.find("KovDskFdisk"), std::string::npos) << r.err;
    EXPECT_NE(Kovdsk({"drive", "fdisk", Path("not-a-drive"), "-n", "5"}).code, 0);

    // The real tools on an image file; their exit codes come through as
    // they are (e2fsck answers 8 on a plain file, whose flush it cannot ask).
    if (system("command -v mke2fs >/dev/null && command -v e2fsck >/dev/null") != 0)
        GTEST_SKIP() << "mke2fs and e2fsck are not installed";
    int fd = open(Path("disk.img").c_str(), O_CREAT | O_WRONLY, 0666);
    ASSERT_EQ(ftruncate(fd, 16 << 20), 0);
    close(fd);
    AccTbl->rd[3].used = 1;  // a stream a format will forget
    r = Kovdsk({"drive", "format", Path("disk.img"), "-b", "1024", "-c", "5000"});
    EXPECT_EQ(r.code, 0) << r.err;
    EXPECT_EQ(r.out, "KovDskFormat: exit code 0\n");
    EXPECT_EQ(AccTbl->rd[3].used, 0);
    r = Kovdsk({"drive", "check", Path("disk.img")});
    int by_hand = system(("e2fsck -f -F -y " + Path("disk.img") + " >/dev/null 2>&1").c_str());
    EXPECT_EQ(r.code, WEXITSTATUS(by_hand));
    EXPECT_EQ(r.out, "KovDskChk: exit code " + std::to_string(WEXITSTATUS(by_hand)) + "\n");
}
