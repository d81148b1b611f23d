/*
 * cli.h - what the subcommands of kovdsk share: attaching, reporting an
 * error with the operation and its errno, reading an area argument, and
 * printing tables as text or JSON.
 *
 * main.cpp sets up the command line; admin.cpp holds init, mkdirs, status
 * and name; store.cpp the store's commands (put, get, ls, ...); drive.cpp
 * the drive's.
 */
#ifndef KOVDSK_CLI_H
#define KOVDSK_CLI_H

#include <kovdsk.h>

#include <CLI/CLI.hpp>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace kovcli {

// The exit code of a failed command: the message is printed already.
struct Failed {
    int code;
};

// "kovdsk: OPERATION: ENAME (meaning)" on standard error, then Failed.
[[noreturn]] void Fail(const std::string &operation, int err);
// A one-line error of the command itself, then Failed.
[[noreturn]] void Usage(const std::string &message);

// KovDskInit, with a hint when no table exists yet.
void Attach();

// An area as the user writes it: "general", "uid:ID", "usr:USER" or
// "usr:USER:PASS"; ids and passes in decimal or 0x-hex.
struct Area {
    unsigned selector = 0;
    uint64_t id = 0;
    std::string user;
    uint64_t pass = 0;
    const char *user_or_null() const { return selector >= 2 ? user.c_str() : nullptr; }
};
Area ParseArea(const std::string &text);

// Options every command that names one stored file takes.
struct FileArgs {
    std::string name;
    unsigned kind = 0;
    std::string area = "general";
};
void AddFileArgs(CLI::App *cmd, FileArgs &args);

// A table: header and rows, printed aligned, or as a JSON array of objects.
struct Table {
    std::vector<std::string> header;
    std::vector<std::vector<std::string>> rows;
    nlohmann::json json = nlohmann::json::array();
};
void Print(const Table &table, bool json);

std::string HumanSize(int64_t bytes);
std::string HumanTime(int64_t seconds);  // UTC, ISO 8601

void AddAdminCommands(CLI::App &app);
void AddStoreCommands(CLI::App &app);
void AddDriveCommands(CLI::App &app);

} // namespace kovcli

#endif
