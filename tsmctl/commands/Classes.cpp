// classes: lists the management classes that the server offers to the node.
#include <memory>

#include "Arguments.h"
#include "commands/Commands.h"
#include "tsmconnector.h"

namespace tsmctl {
namespace {

struct ClassesOptions {
    bool json = false;
};

void ListClasses(const ClassesOptions& options, Context& context) {
    Session session = Session::WithoutFilespace(context.connection);
    char** names = nullptr;
    const int handle = session.Handle();
    const long long count = session.Check("cannot list the management classes", TsmGetMgmtClasses(handle, &names));
    for (long long i = 0; i < count; ++i) context.report.Name("class", names[i], options.json);
    TsmEndGetMgmtClasses(handle);
}

}  // namespace

void AddClasses(CommandLine& line) {
    const auto options = std::make_shared<ClassesOptions>();
    CLI::App& command = line.Add("classes", "List the management classes", {"tsmctl classes", "tsmctl classes --json"},
                                 [options](Context& context) { ListClasses(*options, context); });
    AddJson(command, options->json);
}

}  // namespace tsmctl
