// delete-filespace: deletes a filespace with every version in it, after a question that its name answers.
#include <fmt/format.h>

#include <algorithm>
#include <memory>

#include "Errors.h"
#include "Terminal.h"
#include "commands/Commands.h"
#include "tsmconnector.h"

namespace tsmctl {
namespace {

struct DeleteFilespaceOptions {
    std::string name;
    bool yes = false;
};

void DeleteFilespace(const DeleteFilespaceOptions& options, Context& context) {
    const std::string& name = options.name;
    if (name.empty()) throw UsageError("an empty filespace name");
    Session session = Session::WithoutFilespace(context.connection);
    const std::string question = fmt::format("delete the filespace {} with every version in it", name);
    if (context.report.IsDryRun()) {
        char** names = nullptr;
        const int handle = session.Handle();
        const long long count = TsmGetFileSpaces(handle, &names);
        const bool found = count > 0 && std::count(names, names + count, name) > 0;
        TsmEndGetFileSpaces(handle);
        if (!found) throw Failure(fmt::format("there is no filespace {}", name));
        return context.report.Line("would " + question);
    }
    if (!Confirmed(options.yes, question, name)) throw Failure("not confirmed, nothing deleted");
    session.Check("cannot delete the filespace", TsmDeleteFileSpace(session.Handle(), Text(name)));
    context.report.Line(fmt::format("deleted filespace {}", name));
}

}  // namespace

void AddDeleteFilespace(CommandLine& line) {
    const auto options = std::make_shared<DeleteFilespaceOptions>();
    CLI::App& command = line.Add("delete-filespace", "Delete a filespace with everything in it, for good",
                                 {"tsmctl delete-filespace old-host --yes"},
                                 [options](Context& context) { DeleteFilespace(*options, context); });
    command.add_option("NAME", options->name, "the filespace")->type_name("NAME")->required();
    command.add_flag("--yes", options->yes, "do not ask");
    line.AddDryRun(command);
}

}  // namespace tsmctl
