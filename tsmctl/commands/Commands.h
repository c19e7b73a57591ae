// The commands, each in the source of its name: its options, its help, its examples and its run. A new one is added
// here, listed in CMakeLists.txt and described in tsmctl.1.in.
#pragma once

#include "CommandLine.h"

namespace tsmctl {

using AddCommand = void(CommandLine& line);
// Find is in List.cpp, Diff in Verify.cpp, Completion in Help.cpp; Classes, DeleteFilespace and Grant are in
// Filespaces.cpp.
AddCommand AddBackup, AddVerify, AddCheck, AddRestore, AddList, AddStatus, AddFind, AddDiff, AddDelete, AddRename,
    AddFilespaces, AddClasses, AddDeleteFilespace, AddGrant, AddCompletion, AddHelp;

// In the order of the help, which knows the commands above it.
constexpr AddCommand* addCommands[] = {
    AddBackup, AddVerify,     AddCheck,   AddRestore,         AddList,  AddStatus,     AddFind, AddDiff, AddDelete,
    AddRename, AddFilespaces, AddClasses, AddDeleteFilespace, AddGrant, AddCompletion, AddHelp};

}  // namespace tsmctl
