// filespaces: lists the node's filespaces.
#include <memory>

#include "Arguments.h"
#include "commands/Commands.h"
#include "tsmconnector.h"

namespace tsmctl {
namespace {

struct FilespacesOptions {
    bool json = false;
};

void ListFilespaces(const FilespacesOptions& options, Context& context) {
    Session session = Session::WithoutFilespace(context.connection);
    char** names = nullptr;
    const int handle = session.Handle();
    const int result = TsmGetFileSpaces(handle, &names);
    const long long count = result == -2 ? 0 : session.Check("cannot list the filespaces", result);
    for (long long i = 0; i < count; ++i) context.report.Name("filespace", names[i], options.json);
    TsmEndGetFileSpaces(handle);
}

}  // namespace

void AddFilespaces(CommandLine& line) {
    const auto options = std::make_shared<FilespacesOptions>();
    CLI::App& command =
        line.Add("filespaces", "List the node's filespaces", {"tsmctl filespaces", "tsmctl filespaces --json"},
                 [options](Context& context) { ListFilespaces(*options, context); });
    AddJson(command, options->json);
}

}  // namespace tsmctl
