/*
 * copy.cpp - put and get: a stored file to and from a file or a pipe.
 *
 * Each stream is held by a scope guard, so however the command ends (an
 * error, a signal, a closed pipe) the slot is given back before the exit;
 * a put that did not finish also deletes the stored file it began, since
 * its write open has already taken the old version away. What can be
 * checked before that open is checked first: the input, and the room on
 * the root's file system.
 */
#include "cli.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace kovcli {
namespace {

constexpr size_t kChunk = 1 << 20;

// A progress bar on a terminal, for files worth watching; nothing when
// standard error is piped.
class Progress {
public:
    explicit Progress(int64_t total) : total_(total), on_(isatty(2) && total > 4 * int64_t{kChunk}) {}
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

// A descriptor of kovdsk's own, closed at the end of its scope.
class Fd {
public:
    explicit Fd(int fd) : fd_(fd) {}
    ~Fd()
    {
        if (fd_ > STDERR_FILENO)
            close(fd_);
    }
    Fd(const Fd &) = delete;
    Fd &operator=(const Fd &) = delete;
    int get() const { return fd_; }
    int release()
    {
        int fd = fd_;
        fd_ = -1;
        return fd;
    }

private:
    int fd_;
};

struct PutArgs {
    FileArgs file;
    std::string input = "-", short_tag, long_tag, deadline;
    bool tmp = false;
};

// A write stream and the stored file it began: unless Finish succeeds, the
// stream is closed and the file deleted.
class WriteStream {
public:
    WriteStream(int handle, const PutArgs &a, const Area &area) : h_(handle), a_(a), area_(area) {}
    ~WriteStream()
    {
        if (h_ >= 0) {
            KovDskWriteClose(h_);
            Delete();
        }
    }
    WriteStream(const WriteStream &) = delete;
    WriteStream &operator=(const WriteStream &) = delete;
    void Finish()
    {
        int h = h_;
        h_ = -1;
        if (KovDskWriteClose(h) != 0) {
            int err = errno;
            Delete();
            Fail("KovDskWriteClose", err);
        }
    }

private:
    void Delete()
    {
        KovDskDel(a_.file.name.c_str(), a_.file.kind, 1, area_.selector, area_.id, area_.user_or_null(),
                  area_.pass);
    }
    int h_;
    const PutArgs &a_;
    const Area &area_;
};

// Refuses a file that clearly does not fit: more than the free space, with
// what the old version frees counted in unless trash mode keeps it.
void CheckRoom(int64_t size, const PutArgs &a, const Area &area)
{
    struct statvfs fs;
    if (statvfs(AccTbl->root, &fs) != 0)
        return;
    int64_t room = static_cast<int64_t>(fs.f_bavail) * static_cast<int64_t>(fs.f_frsize);
    char old[KOVDSK_PATH_MAX];
    struct stat st;
    if (AccTbl->trash_mode == 0 &&
        KovDskGetRealFileName(a.file.name.c_str(), a.file.kind, area.selector, area.id,
                              area.user_or_null(), area.pass, old) == 0 &&
        stat(old, &st) == 0)
        room += st.st_size;
    if (size > room)
        Refuse("put: " + Escape(a.input) + " has " + std::to_string(size) +
               " bytes; the root's file system has room for " + std::to_string(room) + ": " +
               Explain("", ENOSPC));
}

void Put(const PutArgs &a)
{
    CheckName(a.file.name);
    CheckTags(a.short_tag, a.long_tag);
    CheckDeadline(a.deadline);
    Area area = ParseArea(a.file.area, kAreasWrite);
    Fd in(a.input == "-" ? STDIN_FILENO : open(a.input.c_str(), O_RDONLY | O_CLOEXEC));
    if (in.get() < 0)
        Fail("open " + a.input, errno);
    struct stat st;
    if (fstat(in.get(), &st) != 0)
        Fail("input " + a.input, errno);
    if (S_ISDIR(st.st_mode))
        Refuse("put: input " + Escape(a.input) + ": " + Explain("", EISDIR) +
               ": a regular file is stored, or standard input (-)");
    int64_t size = S_ISREG(st.st_mode) ? st.st_size : 0;
    Attach();
    if (S_ISREG(st.st_mode))
        CheckRoom(size, a, area);

    int h = KovDskWriteOpen(a.file.name.c_str(), a.short_tag.c_str(), a.long_tag.c_str(),
                            a.file.kind, area.selector, area.id, area.user_or_null(), area.pass,
                            a.tmp, a.deadline.empty() ? nullptr : a.deadline.c_str());
    if (h < 0)
        Fail("KovDskWriteOpen", errno);
    WriteStream stream(h, a, area);
    std::string stored = Field(AccTbl->wr[h].file, sizeof AccTbl->wr[h].file);
    std::unique_ptr<char[]> buf(new char[kChunk]);
    {
        Progress bar(size);
        long n;
        while ((n = ReadSome(in.get(), buf.get(), kChunk)) > 0) {
            CheckSignal();
            if (KovDskWrite(h, buf.get(), static_cast<unsigned>(n)) < 0)
                Fail("KovDskWrite", errno);
            bar.Add(static_cast<size_t>(n));
        }
        if (n < 0)
            Fail("read " + a.input, errno);
    }
    CheckSignal();
    stream.Finish();
    Out() << stored << "\n";
}

struct GetArgs {
    FileArgs file;
    std::string output = "-";
    bool partial = false;
};

class ReadStream {
public:
    explicit ReadStream(int handle) : h_(handle) {}
    ~ReadStream()
    {
        if (h_ >= 0)
            KovDskReadClose(h_);
    }
    ReadStream(const ReadStream &) = delete;
    ReadStream &operator=(const ReadStream &) = delete;
    void Finish()
    {
        int h = h_;
        h_ = -1;
        if (KovDskReadClose(h) != 0)
            Fail("KovDskReadClose", errno);
    }

private:
    int h_;
};

// The write slot that has the same file open as read handle h, or -1.
// The library lets a file open for writing be read: the reader would get
// what the writer has put out so far, with nothing to tell it is short.
int Writer(int h)
{
    struct stat mine, theirs;
    if (fstat(AccTbl->rd[h].fd, &mine) != 0)
        return -1;
    std::string root = Field(AccTbl->root, sizeof AccTbl->root) + "/";
    for (int i = 0; i < KOVDSK_SLOTS; i++) {
        const KovDskAccWrEnt &w = AccTbl->wr[i];
        if (!w.used)
            continue;
        std::string path = root + (w.dir[0] ? Field(w.dir, sizeof w.dir) + "/" : "") +
                           Field(w.file, sizeof w.file);
        if (stat(path.c_str(), &theirs) == 0 && theirs.st_dev == mine.st_dev && theirs.st_ino == mine.st_ino)
            return i;
    }
    return -1;
}

// A regular output file: removed again unless the copy finished, so that
// no short copy looks like a whole one.
class OutputFile {
public:
    explicit OutputFile(const std::string &path) : path_(path) {}
    ~OutputFile()
    {
        if (!path_.empty())
            unlink(path_.c_str());
    }
    OutputFile(const OutputFile &) = delete;
    OutputFile &operator=(const OutputFile &) = delete;
    void Keep() { path_.clear(); }

private:
    std::string path_;
};

void Get(const GetArgs &a)
{
    CheckName(a.file.name);
    Area area = ParseArea(a.file.area);
    Attach();
    int h = KovDskReadOpen(a.file.name.c_str(), a.file.kind, area.selector, area.id,
                           area.user_or_null(), area.pass);
    if (h < 0)
        Fail("KovDskReadOpen", errno);
    ReadStream stream(h);
    int64_t size = static_cast<int64_t>(AccTbl->rd[h].remain);
    int writer = Writer(h);
    if (writer >= 0 && !a.partial)
        Refuse("get: \"" + Escape(a.file.name) + "\" is open for writing (write slot " +
               std::to_string(writer) + "): it would come out short; --partial reads what is written so far");

    bool to_file = a.output != "-";
    Fd out(to_file ? open(a.output.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666) : STDOUT_FILENO);
    if (out.get() < 0)
        Fail("open " + a.output, errno);
    struct stat st;
    OutputFile made(to_file && fstat(out.get(), &st) == 0 && S_ISREG(st.st_mode) ? a.output : "");
    std::unique_ptr<char[]> buf(new char[kChunk]);
    {
        Progress bar(size);
        int n;
        while ((n = KovDskRead(h, buf.get(), kChunk)) > 0) {
            WriteAll(out.get(), buf.get(), static_cast<size_t>(n), a.output);
            bar.Add(static_cast<size_t>(n));
        }
        if (n < 0)
            Fail("KovDskRead", errno);
    }
    if (to_file && close(out.release()) != 0)
        Fail("write " + a.output, errno);
    CheckSignal();
    stream.Finish();
    made.Keep();
}

} // namespace

void AddCopyCommands(CLI::App &app)
{
    static PutArgs put;
    auto *p = app.add_subcommand("put", "store a file or standard input as a stored file");
    AddFileArgs(p, put.file)->description("file name, 1 to 32 bytes");
    p->get_option("--area")->description("general, uid:ID or usr:USER:PASS");
    p->add_option("-i,--input", put.input, "file to store, - for standard input")->capture_default_str();
    p->add_option("-s,--short-tag", put.short_tag, "short tag, up to 16 bytes");
    p->add_option("-l,--long-tag", put.long_tag, "long tag, up to 64 bytes");
    p->add_option("-d,--deadline", put.deadline, "deadline YYMMDDHHMM (UTC)");
    p->add_flag("-t,--temporary", put.tmp, "a temporary file");
    p->callback([] { Put(put); });

    static GetArgs get;
    auto *g = app.add_subcommand("get", "read a stored file to a file or standard output");
    AddFileArgs(g, get.file);
    g->add_option("-o,--output", get.output, "file to write, - for standard output")->capture_default_str();
    g->add_flag("--partial", get.partial, "read a file that is open for writing: what is written so far");
    g->callback([] { Get(get); });
}

} // namespace kovcli
