#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <map>
#include <set>
#include <tuple>

#include "Commands.h"
#include "Errors.h"
#include "Parallel.h"
#include "TargetFolder.h"
#include "Transfer.h"

namespace tsmctl {
namespace {

struct Wanted {
    StoredObject object;
    Parts local;  // below the target folder
};

constexpr size_t maxLink = 4096;

class Restorer {
public:
    explicit Restorer(Context& owner) : context_(owner), folder_(owner.options.to.empty() ? "." : owner.options.to) {
        const mode_t mask = umask(0);
        umask(mask);
        defaultMode_ = 0666 & ~mask;
    }

    void MakeDirectory(const Wanted& wanted) {
        const bool made = folder_.Make(wanted.local, wanted.object.info ? 0700 : 0777);
        if (!made && !context_.options.force) untouched_.insert(wanted.local);
    }

    // After all that the directory holds is in place, since that changes its time and its mode may forbid it.
    void FinishDirectory(const Wanted& wanted) {
        context_.report.Count(Kind::Directory);
        if (!wanted.object.info || untouched_.count(wanted.local) > 0) return;
        const UniqueFd directory = folder_.Open(wanted.local);
        const timespec times[2] = {{0, UTIME_OMIT}, wanted.object.info->mtime};
        if (fchmod(directory.Get(), wanted.object.info->mode & ~setIds) != 0) FailLocal("cannot set the mode", errno);
        if (futimens(directory.Get(), times) != 0) FailLocal("cannot set the time", errno);
        WarnOfSetIds(wanted);
    }

    void Fetch(Session& session, Buffer& buffer, const Wanted& wanted) {
        Parts parent = wanted.local;
        parent.pop_back();
        const UniqueFd directory = folder_.Open(parent);
        NewEntry entry(directory, wanted.local.back(), context_.options.force);
        Download download(session, wanted.object, context_.options.at);
        if (wanted.object.GetKind() == Kind::Link) {
            std::string target;
            Drain(download, buffer, [&](size_t count) {
                target.append(buffer.begin(), buffer.begin() + static_cast<std::ptrdiff_t>(count));
                if (target.size() > maxLink) throw Failure("the target of the link is too long");
            });
            if (target.find('\0') != std::string::npos) throw Failure("the target of the link is no path");
            entry.CreateLink(target);
        } else {
            const int file = entry.CreateFile();
            Drain(download, buffer, [&](size_t count) { WriteAll(file, buffer.data(), count); });
        }
        entry.Publish(wanted.object.info, defaultMode_);
        context_.report.Count(wanted.object.GetKind());
        WarnOfSetIds(wanted);
    }

    void Drain(Download& download, Buffer& buffer, const std::function<void(size_t)>& take) {
        while (const size_t count = download.Next(buffer)) {
            take(count);
            context_.report.Advance(count);
        }
        download.Finish();
    }

private:
    void WarnOfSetIds(const Wanted& wanted) {
        if (!wanted.object.info || (wanted.object.info->mode & setIds) == 0) return;
        context_.report.Warn(Join(wanted.local), "restored without its set-user-id and set-group-id bits");
    }

    Context& context_;
    TargetFolder folder_;
    std::set<Parts> untouched_;  // directories that were here already keep their mode and time
    mode_t defaultMode_;
};

// Of two objects with one local name. Two stored names can stand for it, when another host stored it in a way of its
// own: ours comes first. A stored name can hold a file and a directory: the newer is what was there last.
std::vector<Wanted> Plan(Context& context, const std::vector<StoredObject>& objects, size_t above) {
    const auto ours = [](const StoredObject& object) {
        const Parts stored = object.StoredParts();
        return std::all_of(stored.begin(), stored.end(),
                           [](const auto& part) { return Escape(Unescape(part)) == part; });
    };
    const auto comesFirst = [&](const StoredObject& object, const StoredObject& rival) {
        if (object.StoredParts() != rival.StoredParts()) return ours(object);
        return std::tie(object.date, object.directory) > std::tie(rival.date, rival.directory);
    };
    std::map<Parts, const StoredObject*> byName;
    std::set<Parts> filesFirst;  // in the place of a directory, which goes with all that it holds
    for (const StoredObject& object : objects) {
        Attempt(context.report, object.Shown(), [&] {
            const Parts plain = object.PlainParts();
            const Parts local(plain.begin() + static_cast<std::ptrdiff_t>(above), plain.end());
            RequireSafe(local);
            const StoredObject*& place = byName[local];
            const StoredObject* skipped = place;
            if (!place || comesFirst(object, *place)) {
                place = &object;
            } else {
                skipped = &object;
            }
            if (!skipped) return;
            if (skipped->directory && !place->directory) filesFirst.insert(local);
            throw Failure(skipped->directory == place->directory
                              ? "another object has the same name here; only one of them is restored"
                              : fmt::format("is stored as a file and as a directory; the {} is skipped",
                                            skipped->directory ? "directory, with all that it holds," : "file"));
        });
    }
    std::vector<Wanted> plan;
    for (const auto& entry : byName) {
        const Parts& name = entry.first;
        const bool skipped = std::any_of(filesFirst.begin(), filesFirst.end(), [&](const Parts& file) {
            return name.size() > file.size() && StartsWith(name, file);
        });
        if (!skipped) plan.push_back({*entry.second, name});
    }
    return plan;
}

void RestoreTree(Context& context, Session& session, const std::vector<Wanted>& plan) {
    Restorer restorer(context);
    std::vector<const Wanted*> directories;
    std::vector<const Wanted*> others;
    long long bytes = 0;
    // The plan is in the order of the names: a directory comes before what it holds.
    for (const Wanted& wanted : plan) {
        bytes += wanted.object.Size().value_or(0);
        if (!wanted.object.directory) {
            others.push_back(&wanted);
        } else if (Attempt(context.report, Join(wanted.local), [&] { restorer.MakeDirectory(wanted); })) {
            directories.push_back(&wanted);
        }
    }
    context.report.ExpectBytes(bytes);
    const Job job = {[&](size_t i) { return others[i]->object.Shown(); },
                     [&](Session& own, Buffer& buffer, size_t i) { restorer.Fetch(own, buffer, *others[i]); }};
    RunParallel(context, session, 0, others.size(), job);
    std::for_each(directories.rbegin(), directories.rend(), [&](const Wanted* wanted) {
        Attempt(context.report, Join(wanted->local), [&] { restorer.FinishDirectory(*wanted); });
    });
}

void RestoreToOutput(Context& context, Session& session, const std::vector<StoredObject>& objects, size_t depth) {
    std::vector<StoredObject> files;
    std::copy_if(objects.begin(), objects.end(), std::back_inserter(files),
                 [&](const auto& object) { return object.PlainParts().size() == depth && !object.directory; });
    if (files.size() != 1) throw Failure("is not one file or stream");
    Buffer buffer(pieceSize);
    Download download(session, files[0], context.options.at);
    context.report.ExpectBytes(files[0].Size().value_or(0));
    while (const size_t count = download.Next(buffer)) {
        WriteAll(STDOUT_FILENO, buffer.data(), count);
        context.report.Advance(count);
    }
    download.Finish();
    context.report.Count(files[0].GetKind());
}

}  // namespace

void RunRestore(Context& context) {
    const std::string& path = context.options.paths[0];
    const NamePattern pattern(ParsePath(path), false);
    const bool toOutput = context.options.to == "-";
    if (path.empty() || (toOutput && pattern.IsRoot())) throw UsageError("an object path is needed");
    Session session(context.connection);
    Selection selection;
    selection.at = context.options.at;
    Attempt(context.report, path, [&] {
        const auto objects = List(session, pattern, Scope::Tree, selection);
        if (objects.empty()) throw Failure(CodeText("not found", -2));
        const size_t above = pattern.IsRoot() ? 0 : pattern.Depth() - 1;
        if (toOutput) {
            RestoreToOutput(context, session, objects, pattern.Depth());
        } else {
            RestoreTree(context, session, Plan(context, objects, above));
        }
    });
    context.report.Summary("restore");
}

}  // namespace tsmctl
