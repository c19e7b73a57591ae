// The commands. Each adds itself to the command line, with its options, its help, its examples and its run.
#pragma once

#include "CommandLine.h"

namespace tsmctl {

void AddBackup(CommandLine& line);
void AddClasses(CommandLine& line);
void AddCompletion(CommandLine& line);
void AddDelete(CommandLine& line);
void AddDeleteFilespace(CommandLine& line);
void AddFilespaces(CommandLine& line);
void AddGrant(CommandLine& line);
void AddHelp(CommandLine& line);  // knows the commands that were added before
void AddList(CommandLine& line);
void AddRename(CommandLine& line);
void AddRestore(CommandLine& line);
void AddVerify(CommandLine& line);

}  // namespace tsmctl
