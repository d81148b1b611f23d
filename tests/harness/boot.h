/*
 * boot.h - every test starts from a fresh boot of the appliance.
 *
 * The Boot fixture gives each test its own System V IPC namespace and its
 * own /var/lock (where the key file lives), so tests run in parallel without
 * seeing each other's table; where the machine does not allow namespaces it
 * removes the table's segment and semaphores before and after instead, and
 * CTest serialises the tests. Each test gets a temporary root on a file
 * system that takes O_DIRECT, removed at the end with all it holds.
 *
 * Also here: the date component's controls and helpers that run code in a
 * real child process.
 */
#ifndef KOVTEST_BOOT_H
#define KOVTEST_BOOT_H

#include <kovdsk.h>

#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <sys/types.h>

namespace kovtest {

class Boot : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    // KovDskInitSet on the test's root, asserted to succeed.
    void Create();
    // root + "/" + rel
    std::string Path(const std::string &rel) const;
    // Writes a regular file below the root.
    void PutFile(const std::string &rel, const std::string &content = "x") const;

    bool isolated_ = false;  // own IPC namespace and /var/lock
    std::string root_;
};

// Forgets this process's attachment, as a process that never attached.
void Detach();

// Value and waiting count of a lock's semaphore.
int SemValue(int semid);
int SemWaiting(int semid);

// The date component's time ("YYYY-MM-DD HH:MM:SS"), and its failures
// ("utc", "differ", "all"); nullptr puts the default back. Children inherit.
void SetNow(const char *when);
void FailDate(const char *which);
void SetDiffer(long seconds);

// Seconds since the epoch of a UTC date, for comparing file times.
long Utc(int year, int mon, int day, int hour, int min, int sec);

// What a shell command prints on standard output.
std::string Output(const std::string &cmd);
// Whether a tool is on PATH.
bool Have(const char *tool);
// "00 01 FE ..." as bytes, and n zero bytes: images of disk sectors.
std::string Hex(const char *spaced);
std::string Zeros(size_t n);

// Runs fn in a forked child process; the child exits with fn's result.
pid_t StartChild(const std::function<int()> &fn);
// Waits for the child: its exit code, or -1 if a signal ended it.
int WaitChild(pid_t pid);
// Both at once.
int RunChild(const std::function<int()> &fn);

} // namespace kovtest

#endif
