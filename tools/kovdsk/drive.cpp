/*
 * drive.cpp - the drive's commands. Filled in with the drive operations.
 */
#include "cli.h"

namespace kovcli {

void AddDriveCommands(CLI::App &) {}

} // namespace kovcli
