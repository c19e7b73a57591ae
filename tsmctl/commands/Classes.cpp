// classes: lists the management classes that the server offers to the node.
#include "commands/Commands.h"
#include "tsmconnector.h"

namespace tsmctl {
namespace {

void ListClasses(Context& context) {
    Session session = Session::WithoutFilespace(context.connection);
    char** names = nullptr;
    const int handle = session.Handle();
    const long long count = session.Check("cannot list the management classes", TsmGetMgmtClasses(handle, &names));
    for (long long i = 0; i < count; ++i) context.report.Name("class", names[i]);
    TsmEndGetMgmtClasses(handle);
}

}  // namespace

void AddClasses(CommandLine& line) {
    line.Add("classes", "List the management classes", {"tsmctl classes", "tsmctl classes --json"}, ListClasses);
}

}  // namespace tsmctl
