#include "Chosen.h"

#include <fmt/format.h>

#include <algorithm>
#include <random>

#include "CommandLine.h"
#include "Errors.h"
#include "tsmconnector.h"

namespace tsmctl {

std::vector<NamePattern> Chosen::Patterns() const {
    std::vector<NamePattern> patterns;
    for (const std::string& path : paths) {
        if (path.empty()) throw UsageError("an empty path");
        patterns.emplace_back(ParsePath(path), !literal);
    }
    if (paths.empty()) patterns.emplace_back(Parts(), false);
    return patterns;
}

CLI::Option* AddChosen(CLI::App& command, Chosen& chosen, const char* description) {
    AddArguments(command, "PATH", chosen.paths, "OBJECT", description)->required(chosen.required);
    AddExclude(command, chosen.exclusions.patterns);
    AddLiteral(command, chosen.literal);
    return AddMoment(command, chosen.selection.at, "what was active at 'YYYY-MM-DD HH:MM:SS', server time");
}

void Walk(Context& context, Session& session, const Chosen& chosen, const VisitChosen& visit) {
    const std::vector<NamePattern> patterns = chosen.Patterns();
    const std::string place =
        fmt::format("in filespace {} of node {}", context.connection.Filespace(), context.connection.Node());
    for (auto pattern = patterns.begin(); pattern != patterns.end(); ++pattern) {
        const size_t above = pattern->Above();
        const auto each = [&](std::vector<StoredObject>& versions, const Parts& plain) {
            const bool again = std::any_of(patterns.begin(), pattern, [&](const NamePattern& earlier) {
                return plain.size() >= earlier.Depth() && earlier.Matches(plain);
            });
            if (again) return false;
            const Parts local(plain.begin() + static_cast<std::ptrdiff_t>(above), plain.end());
            const bool closed = chosen.exclusions.LeaveOut(local, true);
            const bool out = chosen.exclusions.LeaveOut(local, false);
            const auto leftOut = [&](const StoredObject& object) { return object.directory ? closed : out; };
            versions.erase(std::remove_if(versions.begin(), versions.end(), leftOut), versions.end());
            return (versions.empty() || visit(versions, plain, above)) && !closed;
        };
        const std::string typed =
            chosen.paths.empty() ? "/" : chosen.paths[static_cast<size_t>(pattern - patterns.begin())];
        Attempt(context.report, typed, [&] {
            if (Walk(session, *pattern, chosen.selection, each)) return;
            const bool oneObject =
                !pattern->IsRoot() && !pattern->IsWild() && chosen.selection.objectType != TSM_OBJECTS_DIRECTORIES;
            if (chosen.required || oneObject) throw NotFound(place);
            context.report.Note("nothing found " + place);
        });
    }
}

void Batch::Run(bool last) {
    if (percent_ < 100) {
        std::shuffle(objects_.begin(), objects_.end(), std::mt19937_64(std::random_device()()));
        objects_.resize((objects_.size() * static_cast<size_t>(percent_) + 99) / 100);
    }
    std::stable_sort(objects_.begin(), objects_.end(),
                     [](const auto& a, const auto& b) { return a.object.date < b.object.date; });
    if (first_ && last) {
        for (const ChosenObject& chosen : objects_) report_.Expect(chosen.object.Size());
    }
    first_ = false;
    for (const ChosenObject& chosen : objects_) {
        workers_.Do(chosen.object.ObjectPath(), [this, &chosen](Session& session, Buffer& buffer) {
            session.Retry([&] { work_(session, buffer, chosen); });
        });
    }
    workers_.Finish();
    objects_.clear();
}

}  // namespace tsmctl
