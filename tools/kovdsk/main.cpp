/*
 * main.cpp - kovdsk, the operator's command over libKovDsk: everything it
 * does goes through the library's public API, as any appliance process's
 * would. Each command file adds its subcommands (the table below); one more
 * file and one more row add a command. How a command ends is cli.h's.
 */
#include "cli.h"

#include <cstdio>
#include <sstream>

namespace {

using AddCommands = void (*)(CLI::App &);
constexpr AddCommands kCommandFiles[] = {
    kovcli::AddAdminCommands, kovcli::AddCopyCommands, kovcli::AddStoreCommands,
    kovcli::AddRecoverCommands, kovcli::AddDriveCommands,
};

// CLI11's own endings: help and --version are successes, on standard
// output; every other parse error is a usage error.
int ParseError(const CLI::App &app, const CLI::ParseError &e)
{
    if (e.get_exit_code() != 0) {
        fprintf(stderr, "kovdsk: %s\nkovdsk: --help gives the usage\n", e.what());
        return kovcli::kExitUsage;
    }
    std::ostringstream out, err;
    app.exit(e, out, err);
    kovcli::Out() << out.str();
    kovcli::FlushOut();
    return 0;
}

} // namespace

int main(int argc, char **argv)
{
    kovcli::SetUpSignals();
    CLI::App app{"kovdsk - look into and drive the appliance's disk library"};
    app.set_version_flag("--version", "kovdsk " KOVDSK_VERSION " (libKovDsk.so.1)");
    app.require_subcommand(1);
    for (AddCommands add : kCommandFiles)
        add(app);
    try {
        try {
            app.parse(argc, argv);
        } catch (const CLI::ParseError &e) {
            return ParseError(app, e);
        }
        kovcli::CheckSignal();
        kovcli::FlushOut();
    } catch (const kovcli::Ended &end) {
        // What a failed command printed before it failed still goes out;
        // after a signal or a closed pipe nothing does.
        if (end.code < kovcli::kExitSignal) {
            try {
                kovcli::FlushOut();
            } catch (const kovcli::Ended &) {
            }
        }
        return end.code;
    } catch (const std::exception &e) {
        fprintf(stderr, "kovdsk: %s\n", e.what());
        return kovcli::kExitFailure;
    }
    return 0;
}
