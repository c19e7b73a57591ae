// backup: stores local files and trees, each file, link and directory as an object of its own, or standard input.
#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <ctime>
#include <functional>
#include <memory>
#include <optional>

#include "Arguments.h"
#include "Attributes.h"
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
    std::optional<long long> size;      // of standard input
    std::optional<long long> estimate;  // of the same
    std::string mgmtClass;
    int jobs = 1;
};

// Announced for a stream of which nothing is known.
constexpr long long largeStream = 10LL << 30;
constexpr int tries = 4;

class Sender {
public:
    Sender(const BackupOptions& options, Report& report, Session& session, Buffer& buffer)
        : options_(options), report_(report), session_(session), buffer_(buffer) {}

    void Store(const LocalItem& item) {
        switch (item.info.kind) {
            case Kind::Directory:
                StoreDirectory(item);
                break;
            case Kind::File:
                StoreFile(item);
                break;
            default:
                StoreWithoutFile(item);
        }
        report_.Count(item.info.kind);
    }

    // Without a size, what fits into the buffer is announced exactly, and anything longer by the estimate.
    void StoreStream(const Parts& object, const std::function<long long()>& estimate) {
        Info info;
        info.kind = Kind::Stream;
        info.mode = 0600;
        info.uid = geteuid();
        info.gid = getegid();
        clock_gettime(CLOCK_REALTIME, &info.mtime);
        info.ctime = info.mtime;
        info.size = options_.size;
        const size_t first = ReadFull(STDIN_FILENO, buffer_.data(), pieceSize);
        const auto length = static_cast<long long>(first);
        const bool whole = first < pieceSize;
        if (whole && !info.size) info.size = length;
        if (info.size && (whole ? length != *info.size : length > *info.size)) FailSize();
        const long long announced = info.size ? *info.size : std::max(estimate(), length);
        Upload upload(session_, ToStored(object), announced, info, "", options_.mgmtClass);
        long long sent = length;
        if (first > 0) upload.Send(buffer_.data(), first);
        report_.Advance(first);
        if (!whole) sent += Send(upload, STDIN_FILENO, info.size.value_or(INT64_MAX) - length);
        if (info.size && (sent < *info.size || (!whole && MoreIn(STDIN_FILENO)))) FailSize();
        Commit(upload, object);
        report_.Count(Kind::Stream);
        if (sent > announced) {
            report_.Warn(Join(object), fmt::format("has {} bytes, but {} were announced; --estimate announces more",
                                                   sent, announced));
        }
    }

private:
    // Where the API fails to end an object and commits all the same, the library answers 0, and nothing is stored.
    void Commit(Upload& upload, const Parts& object) {
        upload.Commit();
        for (const StoredObject& stored : List(session_, NamePattern(object, false), Scope::Self, {})) {
            if (stored.text == upload.InfoText()) return;
        }
        throw Failure("is not stored, although its commit did not fail");
    }

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

    [[noreturn]] void FailSize() const {
        throw Failure(fmt::format("does not have the {} bytes of --size; not stored", *options_.size));
    }

    // Its attributes have to fit into its information text; what does not is left out, ACLs last.
    void StoreDirectory(const LocalItem& item) {
        Info info = item.info;
        bool complete = true;
        for (const std::string& field : AttributesIn(ReadAttributes(OpenItem(item, O_PATH).Get(), report_))) {
            const std::string before = info.fields;
            info.fields += (before.empty() ? "" : " ") + field;
            if (FormatInfo(info).size() <= longestInfo) continue;
            info.fields = before;
            complete = false;
        }
        if (!complete) report_.CountLoss("extended attributes or ACL of a directory too long to keep");
        Upload upload(session_, NameOf(item), 0, info, "", options_.mgmtClass);
        Commit(upload, SplitAtSlash(item.object));
    }

    // A link or a special file.
    void StoreWithoutFile(const LocalItem& item) {
        std::string target = item.info.kind == Kind::Link ? ReadLink(item) : "";
        Info info = item.info;
        info.size = static_cast<long long>(target.size());
        Upload upload = Begin(item, info, ReadAttributes(OpenItem(item, O_PATH).Get(), report_), *info.size);
        upload.Send(reinterpret_cast<unsigned char*>(target.data()), target.size());
        Commit(upload, SplitAtSlash(item.object));
        report_.Advance(target.size());
    }

    Upload Begin(const LocalItem& item, Info info, const std::string& header, long long bytes) {
        if (!header.empty()) AddField(info.fields, "header", std::to_string(header.size()));
        return Upload(session_, NameOf(item), bytes, info, header, options_.mgmtClass);
    }

    // The file counts as it is when it is opened. A link or a pipe that has taken its place is refused.
    void StoreFile(const LocalItem& item) {
        for (int attempt = 1; !StoredUnchanged(item); ++attempt) {
            if (attempt == tries) {
                throw Failure(fmt::format("changed while it was read, {} times; not stored", tries));
            }
            poll(nullptr, 0, 100 << attempt);
            CheckInterrupt();
        }
    }

    // False when the file changed while it was read; nothing of it is stored then.
    bool StoredUnchanged(const LocalItem& item) {
        const UniqueFd file = OpenItem(item);
        const struct stat status = StatusOf(file);
        const Info info = InfoOf(status);
        if (info.kind != Kind::File) throw Failure("is no longer a regular file");
        const std::vector<Extent> extents = FindData(file.Get(), status);
        lseek(file.Get(), 0, SEEK_SET);
        const std::string header = ReadAttributes(file.Get(), report_) + FormatExtents(extents);
        Upload upload = Begin(item, info, header, extents.empty() ? *info.size : SumOf(extents));
        const long long sent = extents.empty() ? Send(upload, file.Get(), *info.size)
                                               : SendExtents(upload, file.Get(), extents, *info.size);
        const bool more = MoreIn(file.Get());
        const Info after = InfoOf(StatusOf(file));
        const auto state = [](const Info& i) {
            return TimeText(i.mtime) + TimeText(i.ctime) + std::to_string(*i.size);
        };
        if (state(after) != state(info)) return false;
        if (sent != *info.size || more) {
            throw Failure(fmt::format("holds {} than its size of {} bytes; not stored (pipe it into backup - --as)",
                                      more ? "more" : "less", *info.size));
        }
        Commit(upload, SplitAtSlash(item.object));
        return true;
    }

    // A write in the tick of the clock in which the file changed last would not show in its times.
    static struct stat StatusOf(const UniqueFd& file) {
        struct stat status = {};
        timespec now = {};
        do {
            if (fstat(file.Get(), &status) != 0) FailLocal("cannot open", errno);
            clock_gettime(CLOCK_REALTIME_COARSE, &now);
        } while (TimeText(now) == TimeText(status.st_ctim) && poll(nullptr, 0, 1) == 0);
        return status;
    }

    static long long SumOf(const std::vector<Extent>& extents) {
        long long sum = 0;
        for (const Extent& extent : extents) sum += extent.length;
        return sum;
    }

    long long SendExtents(Upload& upload, int fd, const std::vector<Extent>& extents, long long size) {
        long long place = 0;
        for (const Extent& extent : extents) {
            upload.Skip(extent.offset - place);
            if (lseek(fd, extent.offset, SEEK_SET) < 0) FailLocal("cannot read", errno);
            place = extent.offset + Send(upload, fd, extent.length);
            if (place < extent.offset + extent.length) return place;
        }
        upload.Skip(size - place);
        lseek(fd, size, SEEK_SET);
        return size;
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

// What is found below the sources, without sockets, directories first.
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
        if (item.info.kind == Kind::Other) report.Warn(item.local, "socket, skipped");
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

// The size of the last version and a tenth more, or a large value where that size is not known, or is one that would
// have fit into the buffer, as this stream does not.
long long EstimateFor(Session& session, const Parts& object) {
    Selection files;
    files.objectType = TSM_OBJECTS_FILES;
    long long estimate = largeStream;
    for (const StoredObject& last : List(session, NamePattern(object, false), Scope::Self, files)) {
        const bool known = last.info && last.info->size.value_or(0) >= static_cast<long long>(pieceSize);
        estimate = known ? *last.info->size + std::min(*last.info->size / 10, LLONG_MAX - *last.info->size)
                         : std::max(largeStream, last.announced - static_cast<long long>(sealLength));
    }
    return estimate;
}

void StoreInput(const BackupOptions& options, Context& context) {
    const Parts object = options.source.InputObject();
    Session session(context.connection);
    Buffer buffer(pieceSize);
    session.Handle();
    context.report.ExpectBytes(options.size.value_or(0));
    Attempt(context.report, "standard input", [&] {
        WarnOfOtherKind(context.report, session, Join(object), object, false);
        Sender(options, context.report, session, buffer).StoreStream(object, [&] {
            return options.estimate ? *options.estimate : EstimateFor(session, object);
        });
    });
}

void Backup(const BackupOptions& options, Context& context) {
    CheckSource(options.source);
    if (options.size && !options.source.IsInput()) throw UsageError("--size belongs to -");
    if (options.estimate && !options.source.IsInput()) throw UsageError("--estimate belongs to -");
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
    CLI::Option* const size = AddNumber(command, "--size", "BYTES", "of standard input, if it is known", 0, LLONG_MAX,
                                        [options](long long number) { options->size = number; });
    AddNumber(command, "--estimate", "BYTES", "of standard input; too much rather than too little", 0, LLONG_MAX,
              [options](long long number) { options->estimate = number; })
        ->excludes(size);
    AddPlace(command, options->source);
    AddJobs(command, options->jobs);
}

}  // namespace tsmctl
