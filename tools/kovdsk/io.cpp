/*
 * io.cpp - signals, standard output and the operator's confirmation.
 *
 * The library's calls are not async-signal-safe, and one that waits for a
 * lock goes on without it when a signal cuts the wait. So the ending
 * signals stay blocked for the whole run and are let through only while
 * kovdsk waits in ppoll for its own input or output; a handler notes the
 * signal, and CheckSignal, called between library calls, ends the command.
 * The scope guards of the open streams then close them (and a put deletes
 * its file) before the exit status 128 + N says which signal it was. A
 * closed pipe is the same with SIGPIPE ignored and EPIPE seen: 141, and no
 * message, as a shell expects of a process the pipe ended.
 *
 * The library's children (mke2fs, e2fsck, shred) get the mask and the
 * SIGPIPE disposition kovdsk started with, so Ctrl-C reaches them as usual.
 */
#include "cli.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <poll.h>
#include <pthread.h>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

namespace kovcli {
namespace {

const int kEnding[] = {SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGUSR1, SIGUSR2, SIGALRM};

volatile sig_atomic_t g_caught = 0;
sigset_t g_ending;      // the ending signals kovdsk handles (not those it inherited ignored)
sigset_t g_original;    // the mask kovdsk started with
sigset_t g_waiting;     // the mask while it waits: g_original less g_ending
struct sigaction g_pipe_original;

void OnSignal(int sig)
{
    if (g_caught == 0)
        g_caught = sig;
}

void InChild()
{
    sigaction(SIGPIPE, &g_pipe_original, nullptr);
    sigprocmask(SIG_SETMASK, &g_original, nullptr);
}

std::ostringstream &Buffer()
{
    static std::ostringstream out;
    return out;
}

// Regular files and block devices never keep a reader or writer waiting
// for another process; anything else may, and is waited for in ppoll.
bool MayWait(int fd)
{
    struct stat st;
    return fstat(fd, &st) != 0 || !(S_ISREG(st.st_mode) || S_ISBLK(st.st_mode));
}

// Until fd is ready; an ending signal ends the command. Other failures of
// ppoll are left for the read or write to report.
void WaitFor(int fd, short events)
{
    struct pollfd p = {fd, events, 0};
    while (ppoll(&p, 1, nullptr, &g_waiting) == -1 && errno == EINTR)
        CheckSignal();
}

} // namespace

void SetUpSignals()
{
    struct sigaction ignore = {};
    ignore.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &ignore, &g_pipe_original);

    struct sigaction note = {};
    note.sa_handler = OnSignal;
    sigemptyset(&note.sa_mask);
    sigemptyset(&g_ending);
    for (int sig : kEnding) {
        struct sigaction old;
        // One ignored from the start (nohup, a background job) stays ignored.
        if (sigaction(sig, nullptr, &old) == 0 && old.sa_handler == SIG_IGN)
            continue;
        sigaction(sig, &note, nullptr);
        sigaddset(&g_ending, sig);
    }
    sigprocmask(SIG_BLOCK, &g_ending, &g_original);
    g_waiting = g_original;
    for (int sig : kEnding)
        sigdelset(&g_waiting, sig);
    pthread_atfork(nullptr, nullptr, InChild);
}

void CheckSignal()
{
    if (g_caught == 0) {
        sigset_t pending;
        sigpending(&pending);
        for (int sig : kEnding) {
            if (sigismember(&g_ending, sig) && sigismember(&pending, sig)) {
                g_caught = sig;
                break;
            }
        }
    }
    if (g_caught != 0)
        throw Ended{kExitSignal + g_caught};
}

std::ostream &Out() { return Buffer(); }

void FlushOut()
{
    std::string text = Buffer().str();
    Buffer().str("");
    WriteAll(STDOUT_FILENO, text.data(), text.size(), "standard output");
}

void WriteAll(int fd, const char *data, size_t n, const std::string &what)
{
    // A write of at most PIPE_BUF bytes to a pipe that poll calls writable
    // does not block, so the wait stays in ppoll, where a signal ends it.
    const bool waits = MayWait(fd);
    while (n > 0) {
        CheckSignal();
        if (waits)
            WaitFor(fd, POLLOUT);
        ssize_t w = write(fd, data, waits ? std::min(n, size_t{PIPE_BUF}) : n);
        if (w < 0) {
            if (errno == EINTR || errno == EAGAIN)
                continue;
            if (errno == EPIPE)
                throw Ended{kExitSignal + SIGPIPE};
            Fail("write " + what, errno);
        }
        data += w;
        n -= static_cast<size_t>(w);
    }
}

long ReadSome(int fd, char *data, size_t n)
{
    const bool waits = MayWait(fd);
    for (;;) {
        CheckSignal();
        if (waits)
            WaitFor(fd, POLLIN);
        ssize_t r = read(fd, data, n);
        if (r >= 0 || (errno != EINTR && errno != EAGAIN))
            return r;
    }
}

void Confirm(const std::string &command, const std::string &question, bool yes)
{
    if (yes)
        return;
    if (!isatty(STDIN_FILENO))
        Usage(command + ": " + question + " Standard input is not a terminal: confirm with --yes");
    fprintf(stderr, "%s Type y to go on: ", question.c_str());
    char answer[64] = {};
    long n = ReadSome(STDIN_FILENO, answer, sizeof answer - 1);
    if (n <= 0 || (answer[0] != 'y' && answer[0] != 'Y'))
        Refuse(command + ": not confirmed; nothing was done");
}

} // namespace kovcli
