// filespaces: lists the node's filespaces.
#include "commands/Commands.h"
#include "tsmconnector.h"

namespace tsmctl {
namespace {

void ListFilespaces(Context& context) {
    Session session = Session::WithoutFilespace(context.connection);
    char** names = nullptr;
    const int handle = session.Handle();
    const int result = TsmGetFileSpaces(handle, &names);
    const long long count = result == -2 ? 0 : session.Check("cannot list the filespaces", result);
    for (long long i = 0; i < count; ++i) context.report.Name("filespace", names[i]);
    TsmEndGetFileSpaces(handle);
}

}  // namespace

void AddFilespaces(CommandLine& line) {
    line.Add("filespaces", "List the node's filespaces", {"tsmctl filespaces", "tsmctl filespaces --json"},
             ListFilespaces);
}

}  // namespace tsmctl
