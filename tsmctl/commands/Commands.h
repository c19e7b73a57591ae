// The commands, each in the source of its name: its options, its help, its examples and its run. A new one is declared
// here, added in main.cpp, listed in CMakeLists.txt and described in tsmctl.1.in.
#pragma once

#include "CommandLine.h"

namespace tsmctl {

void AddBackup(CommandLine& line);
void AddCheck(CommandLine& line);
void AddClasses(CommandLine& line);  // in Filespaces.cpp
void AddCompletion(CommandLine& line);
void AddDelete(CommandLine& line);
void AddDeleteFilespace(CommandLine& line);  // in Filespaces.cpp
void AddDiff(CommandLine& line);             // in Verify.cpp
void AddFilespaces(CommandLine& line);
void AddFind(CommandLine& line);  // in List.cpp
void AddGrant(CommandLine& line);
void AddHelp(CommandLine& line);  // knows the commands that were added before
void AddList(CommandLine& line);
void AddRename(CommandLine& line);
void AddRestore(CommandLine& line);
void AddStatus(CommandLine& line);
void AddVerify(CommandLine& line);

}  // namespace tsmctl
