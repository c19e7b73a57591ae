#include <exception>

#include "CommandLine.h"
#include "Errors.h"
#include "Files.h"
#include "Report.h"
#include "commands/Commands.h"

namespace tsmctl {
namespace {

int Run(int argc, char** argv) try {
    ReserveStandardStreams();
    CatchSignals();
    CommandLine commandLine;
    // In the order of the help.
    AddBackup(commandLine);
    AddVerify(commandLine);
    AddCheck(commandLine);
    AddRestore(commandLine);
    AddList(commandLine);
    AddStatus(commandLine);
    AddFind(commandLine);
    AddDiff(commandLine);
    AddDelete(commandLine);
    AddRename(commandLine);
    AddFilespaces(commandLine);
    AddClasses(commandLine);
    AddDeleteFilespace(commandLine);
    AddGrant(commandLine);
    AddCompletion(commandLine);
    AddHelp(commandLine);  // knows the commands above it
    return commandLine.Run(argc, argv);
} catch (const Interrupted&) {
    PrintMessage("stopped by a signal");
    return 128 + PendingSignal();
} catch (const UsageError& error) {
    PrintMessage(error.what());
    return 2;
} catch (const std::exception& error) {
    PrintMessage(error.what());
    return 1;
}

}  // namespace
}  // namespace tsmctl

int main(int argc, char** argv) {
    return tsmctl::Run(argc, argv);
}
