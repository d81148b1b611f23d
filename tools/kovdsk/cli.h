/*
 * cli.h - what the subcommands of kovdsk share.
 *
 * How a command ends (report.cpp): every error names the operation, the
 * errno and the library's meaning of it, and the exit status says one thing
 * each: 0 success, 1 failure, 2 usage error, 128 + N ended by signal N
 * (141 for a closed pipe). A command ends by throwing Ended; the scope
 * guards of its open streams close them on the way out.
 *
 * Signals and output (io.cpp): the ending signals are blocked except while
 * kovdsk itself waits for input or output, so no library call is cut in
 * the middle; the copy loops look for them between calls. Everything for
 * standard output goes through Out() or WriteAll().
 *
 * Arguments (args.cpp) are checked against what the library would cut or
 * drop before it is called. Text for people and for JSON (text.cpp) keeps
 * every byte a name may hold.
 *
 * The commands: main.cpp holds the table of command files; admin.cpp init,
 * mkdirs, status and name; copy.cpp put and get; store.cpp the store's
 * other commands; recover.cpp the recovery of locks, slots and the table;
 * drive.cpp the drive's.
 */
#ifndef KOVDSK_CLI_H
#define KOVDSK_CLI_H

#include <kovdsk.h>

#include <CLI/CLI.hpp>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <ostream>
#include <string>
#include <vector>

namespace kovcli {

// ---- Ending (report.cpp) ---------------------------------------------------

constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;
constexpr int kExitSignal = 128;  // + the signal's number

// Thrown to end the command with this exit status; any message is printed.
struct Ended {
    int code;
};

// "kovdsk: OPERATION: ENAME (meaning)" on standard error, and the hint on
// a line of its own (for EINIT, how to create the table), then exit 1.
[[noreturn]] void Fail(const std::string &operation, int err, const std::string &hint = "");
// "kovdsk: MESSAGE", then exit 1: a refusal of kovdsk's own.
[[noreturn]] void Refuse(const std::string &message);
// "kovdsk: MESSAGE", then exit 2: a command line kovdsk does not take.
[[noreturn]] void Usage(const std::string &message);
// A line on standard error that does not end the command.
void Warn(const std::string &message);
// "ENAME (meaning)" of an errno as a result of the library's operation.
std::string Explain(const std::string &operation, int err);

// KovDskInit, with a hint when no table exists yet, and the warning for a
// user other than root. A lock left taken by a process that is gone would
// make every call wait for ever, so it is refused with the way out, unless
// the command takes no lock (status, recover).
void Attach(bool takes_locks = true);
// Once a run: the store's directories are searchable by root alone.
void WarnIfNotRoot();

// ---- Signals and output (io.cpp) ---------------------------------------------

void SetUpSignals();
// Ends the command with 128 + N if ending signal N came.
void CheckSignal();
// What the command prints on standard output, written at its end.
std::ostream &Out();
void FlushOut();
// All n bytes to fd, waiting so that a signal ends the wait. A closed pipe
// ends the command with 141 and no message; another error fails with the
// operation "write " + what.
void WriteAll(int fd, const char *data, size_t n, const std::string &what);
// Up to n bytes from fd, waiting so that a signal ends the wait. 0 at the
// end, -1 with errno on an error.
long ReadSome(int fd, char *data, size_t n);
// Goes on only if the operator agreed: --yes, or "y" typed on a terminal.
// Without a terminal and without --yes it is a usage error; an answer
// other than "y" ends the command with 1.
void Confirm(const std::string &command, const std::string &question, bool yes);

// ---- Arguments (args.cpp) --------------------------------------------------

// Area selectors as a command accepts them, a bit each.
constexpr unsigned kAreasRead = 0xF;                    // general, uid, usr, usr:pass
constexpr unsigned kAreasWrite = 1u << 0 | 1u << 1 | 1u << 3;

// An area as the user writes it: "general", "uid:ID", "usr:USER" or
// "usr:USER:PASS"; ids and passes in decimal or 0x-hex.
struct Area {
    unsigned selector = 0;
    uint64_t id = 0;
    std::string user;
    uint64_t pass = 0;
    const char *user_or_null() const { return selector >= 2 ? user.c_str() : nullptr; }
};
Area ParseArea(const std::string &text, unsigned accepted = kAreasRead);

// Usage errors for a value the library would cut, drop or misread.
void CheckName(const std::string &name, bool prefix = false);
void CheckUser(const std::string &user);
void CheckTags(const std::string &short_tag, const std::string &long_tag);
void CheckDeadline(const std::string &deadline);  // empty: none

// Options every command that names one stored file takes.
struct FileArgs {
    std::string name;
    unsigned kind = 0;
    std::string area = "general";
};
CLI::Option *AddFileArgs(CLI::App *cmd, FileArgs &args);

// ---- Text (text.cpp) ---------------------------------------------------------

// key: the bytes as text; a text that is not UTF-8 gets U+FFFD for each bad
// byte, and key + "_hex" beside it holds the exact bytes.
void PutText(nlohmann::json &object, const std::string &key, const std::string &bytes);
// The bytes on one line: control characters, backslashes and bytes that
// are not UTF-8 as C escapes (\n, \\, \xFF).
std::string Escape(const std::string &bytes);
// JSON that is always valid, whatever a value holds.
std::string Dump(const nlohmann::json &j);

// A table: header and rows, printed aligned with every cell escaped, or as
// the JSON array beside it.
struct Table {
    std::vector<std::string> header;
    std::vector<std::vector<std::string>> rows;
    nlohmann::json json = nlohmann::json::array();
};
void Print(const Table &table, bool json);

std::string HumanSize(int64_t bytes);
std::string HumanTime(int64_t seconds);  // UTC, ISO 8601

// A fixed-size text field of the table, up to its first NUL.
std::string Field(const char *text, size_t size);

// ---- What status and recover judge (recover.cpp) ------------------------------

// processes attached to the table, this one included
int Attached();
// A lock's state, flagging one held by a process that no longer exists.
nlohmann::json LockState(const char *which, int semid);
// Why a used slot cannot belong to a living stream, or "" if kovdsk cannot
// tell; a file that no longer exists is named apart.
std::string OrphanReason(int attached);
bool FileGone(const KovDskAccWrEnt &slot);
bool FileGone(const KovDskAccRdEnt &slot);

// ---- The command files: each adds its subcommands -------------------------------

void AddAdminCommands(CLI::App &app);
void AddCopyCommands(CLI::App &app);
void AddStoreCommands(CLI::App &app);
void AddRecoverCommands(CLI::App &app);
void AddDriveCommands(CLI::App &app);

} // namespace kovcli

#endif
