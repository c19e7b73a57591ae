// backup: stores local files and trees, each file, link and directory as an object of its own, or standard input.
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <ctime>
#include <memory>
#include <optional>

#include "Arguments.h"
#include "Errors.h"
#include "HelpFormatter.h"
#include "Inventory.h"
#include "LocalTree.h"
#include "Parallel.h"
#include "Transfer.h"
#include "commands/Commands.h"

namespace tsmctl {
namespace {

struct BackupOptions {
    SourceOptions source;
    std::optional<long long> size;  // of standard input
    std::string mgmtClass;
    int jobs = 1;
};

// To the connector a size of 0 means a directory object. What has no bytes, or an unknown number, announces one.
long long Announced(std::optional<long long> size) {
    return std::max(1LL, size.value_or(1));
}

class Sender {
public:
    Sender(const BackupOptions& options, Report& report, Session& session, Buffer& buffer)
        : options_(options), report_(report), session_(session), buffer_(buffer) {}

    void Store(const LocalItem& item) {
        switch (item.info.kind) {
            case Kind::Directory:
                Upload(session_, NameOf(item), 0, item.info, options_.mgmtClass).Commit();
                break;
            case Kind::Link:
                StoreLink(item);
                break;
            default:
                StoreFile(item);
        }
        report_.Count(item.info.kind);
    }

    void StoreStream(const Parts& object) {
        Info info;
        info.kind = Kind::Stream;
        info.mode = 0600;
        clock_gettime(CLOCK_REALTIME, &info.mtime);
        info.size = options_.size;
        Upload upload(session_, ToStored(object), Announced(info.size), info, options_.mgmtClass);
        const long long sent = Send(upload, STDIN_FILENO, info.size.value_or(INT64_MAX));
        if (info.size && (sent < *info.size || MoreIn(STDIN_FILENO))) {
            throw Failure(fmt::format("does not have the {} bytes of --size; not stored", *info.size));
        }
        upload.Commit();
        report_.Count(Kind::Stream);
    }

private:
    static StoredName NameOf(const LocalItem& item) { return ToStored(SplitAtSlash(item.object)); }

    static bool MoreIn(int fd) {
        char byte = 0;
        return ReadFull(fd, &byte, 1) == 1;
    }

    // Sends up to limit bytes; fewer when the input ends.
    long long Send(Upload& upload, int fd, long long limit) {
        long long sent = 0;
        while (sent < limit) {
            const auto wanted = static_cast<size_t>(std::min<long long>(limit - sent, pieceSize));
            const size_t got = ReadFull(fd, buffer_.data(), wanted);
            if (got > 0) upload.Send(buffer_.data(), got);
            sent += static_cast<long long>(got);
            report_.Advance(got);
            if (got < wanted) break;
        }
        return sent;
    }

    void StoreLink(const LocalItem& item) {
        std::string target = ReadLink(item);
        Info info = item.info;
        info.size = static_cast<long long>(target.size());
        Upload upload(session_, NameOf(item), Announced(info.size), info, options_.mgmtClass);
        upload.Send(reinterpret_cast<unsigned char*>(target.data()), target.size());
        upload.Commit();
        report_.Advance(target.size());
    }

    // The file counts as it is when it is opened. A link or a pipe that has taken its place is refused.
    void StoreFile(const LocalItem& item) {
        const UniqueFd file = OpenItem(item);
        struct stat status = {};
        if (fstat(file.Get(), &status) != 0) FailLocal("cannot open", errno);
        const Info info = InfoOf(status);
        if (info.kind != Kind::File) throw Failure("is no longer a regular file");
        Upload upload(session_, NameOf(item), Announced(info.size), info, options_.mgmtClass);
        const long long sent = Send(upload, file.Get(), *info.size);
        if (sent < *info.size) {
            throw Failure(fmt::format("shrank from {} to {} bytes while it was read; not stored", *info.size, sent));
        }
        const bool grew = MoreIn(file.Get());
        struct stat after = status;
        const bool looked = fstat(file.Get(), &after) == 0;
        if (grew && after.st_size == sent) {
            throw Failure(
                fmt::format("holds more than its size of {} bytes; not stored (pipe it into backup - --as)", sent));
        }
        upload.Commit();
        if (grew) {
            report_.Warn(item.local, fmt::format("grew while it was read; its first {} bytes are stored", sent));
        } else if (looked && TimeText(after.st_mtim) != TimeText(info.mtime)) {
            report_.Warn(item.local, "changed while it was read");
        }
    }

    const BackupOptions& options_;
    Report& report_;
    Session& session_;
    Buffer& buffer_;
};

// The server keeps a file and a directory of one name apart: the new kind does not replace the old one.
void WarnOfOtherKind(Report& report, Session& session, const std::string& subject, const Parts& name, bool directory) {
    for (const StoredObject& object : List(session, NamePattern(name, false), Scope::Self, {})) {
        if (object.directory == directory) continue;
        const char* const kind = directory ? "file" : "directory";
        report.Warn(subject, fmt::format("a {} of this name is stored and stays; restore takes the newer", kind));
    }
}

// What is found below the sources, without special files, directories first.
std::vector<LocalItem> FindItems(const std::vector<Source>& sources, Report& report, Session& session) {
    std::vector<LocalItem> items;
    std::vector<std::string> unreadable;
    for (const Source& source : sources) {
        const size_t first = items.size();
        Scan(source, report, items, unreadable);
        if (source.isRoot || items.size() == first) continue;
        WarnOfOtherKind(report, session, source.local, source.object, items[first].info.kind == Kind::Directory);
    }
    for (const LocalItem& item : items) {
        if (item.info.kind == Kind::Other) report.Warn(item.local, "special file, skipped");
    }
    items.erase(std::remove_if(items.begin(), items.end(), [](const auto& i) { return i.info.kind == Kind::Other; }),
                items.end());
    std::stable_partition(items.begin(), items.end(), [](const auto& i) { return i.info.kind == Kind::Directory; });
    return items;
}

void StoreTrees(const BackupOptions& options, Context& context) {
    const std::vector<Source> sources = ResolveSources(options.source.paths, options.source.to);
    Session session(context.connection);
    Buffer buffer(pieceSize);
    session.Handle();
    const std::vector<LocalItem> items = FindItems(sources, context.report, session);
    long long bytes = 0;
    size_t directories = 0;
    for (const LocalItem& item : items) {
        bytes += item.info.size.value_or(0);
        directories += item.info.kind == Kind::Directory ? 1 : 0;
    }
    context.report.ExpectBytes(bytes);

    // Two sessions that miss the same directory would both create it. So one session stores the directories, or the
    // first file, which creates those that --to names.
    Sender sender(options, context.report, session, buffer);
    const size_t alone = std::min(items.size(), std::max<size_t>(directories, 1));
    for (size_t i = 0; i < alone; ++i) {
        Attempt(context.report, items[i].local, [&] { sender.Store(items[i]); });
    }
    const Job job = {[&](size_t i) { return items[alone + i].local; },
                     [&](Session& own, Buffer& memory, size_t i) {
                         Sender(options, context.report, own, memory).Store(items[alone + i]);
                     }};
    RunParallel(context, session, options.jobs, items.size() - alone, job);
}

void StoreInput(const BackupOptions& options, Context& context) {
    const Parts object = options.source.InputObject();
    Session session(context.connection);
    Buffer buffer(pieceSize);
    session.Handle();
    context.report.ExpectBytes(options.size.value_or(0));
    Attempt(context.report, "standard input", [&] {
        WarnOfOtherKind(context.report, session, Join(object), object, false);
        Sender(options, context.report, session, buffer).StoreStream(object);
    });
}

void Backup(const BackupOptions& options, Context& context) {
    CheckSource(options.source);
    if (options.size && !options.source.IsInput()) throw UsageError("--size belongs to -");
    if (options.source.IsInput()) {
        StoreInput(options, context);
    } else {
        StoreTrees(options, context);
    }
    context.report.Summary("backup");
}

}  // namespace

void AddBackup(CommandLine& line) {
    const auto options = std::make_shared<BackupOptions>();
    CLI::App& command = line.Add("backup", "Store files, links and whole trees, or standard input",
                                 {"tsmctl backup docs --to nightly -j 4", "tsmctl backup docs/a.txt docs/b.txt",
                                  "tar -c docs | tsmctl backup - --as dumps/docs.tar"},
                                 [options](Context& context) { Backup(*options, context); });
    AddPaths(command, options->source.paths, fileType, "what to store, by its last part; - is standard input");
    command.add_option("--class", options->mgmtClass, "management class (default: the server's choice)")
        ->type_name("NAME");
    AddNumber(command, "--size", "BYTES", "of standard input, if it is known", 0, LLONG_MAX,
              [options](long long number) { options->size = number; });
    AddPlace(command, options->source);
    AddJobs(command, options->jobs);
}

}  // namespace tsmctl
