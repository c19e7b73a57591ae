#include <exception>

#include "Errors.h"
#include "Files.h"
#include "commands/Commands.h"

namespace tsmctl {
namespace {

int Run(int argc, char** argv) try {
    ReserveStandardStreams();
    CatchSignals();
    CommandLine commandLine;
    for (AddCommand* const add : addCommands) add(commandLine);
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
