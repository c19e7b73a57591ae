#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <ctime>

#include "Commands.h"
#include "Errors.h"
#include "Inventory.h"
#include "Parallel.h"
#include "Transfer.h"

namespace tsmctl {
namespace {

// To the connector a size of 0 means a directory object, so what has no bytes, or an unknown number, announces one.
long long Announced(std::optional<long long> size) {
    return std::max(1LL, size.value_or(1));
}

class Sender {
public:
    Sender(Context& owner, Session& signedOn, Buffer& memory) : context_(owner), session_(signedOn), buffer_(memory) {}

    void Store(const LocalItem& item) {
        switch (item.info.kind) {
            case Kind::Directory:
                Upload(session_, NameOf(item), 0, item.info, context_.options.mgmtClass).Commit();
                break;
            case Kind::Link:
                StoreLink(item);
                break;
            default:
                StoreFile(item);
        }
        context_.report.Count(item.info.kind);
    }

    void StoreStream(const Parts& object) {
        Info info;
        info.kind = Kind::Stream;
        info.mode = 0600;
        clock_gettime(CLOCK_REALTIME, &info.mtime);
        info.size = context_.options.size;
        Upload upload(session_, ToStored(object), Announced(info.size), info, context_.options.mgmtClass);
        const long long sent = Send(upload, STDIN_FILENO, info.size.value_or(INT64_MAX));
        if (info.size && (sent < *info.size || MoreIn(STDIN_FILENO))) {
            throw Failure(fmt::format("does not have the {} bytes of --size; not stored", *info.size));
        }
        upload.Commit();
        context_.report.Count(Kind::Stream);
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
            context_.report.Advance(got);
            if (got < wanted) break;
        }
        return sent;
    }

    void StoreLink(const LocalItem& item) {
        std::string target = ReadLink(item);
        Info info = item.info;
        info.size = static_cast<long long>(target.size());
        Upload upload(session_, NameOf(item), Announced(info.size), info, context_.options.mgmtClass);
        upload.Send(reinterpret_cast<unsigned char*>(target.data()), target.size());
        upload.Commit();
        context_.report.Advance(target.size());
    }

    // What counts is the file at the moment of opening; a link or a pipe in its place meanwhile is refused.
    void StoreFile(const LocalItem& item) {
        const UniqueFd file = OpenItem(item);
        struct stat status = {};
        if (fstat(file.Get(), &status) != 0) FailLocal("cannot open", errno);
        const Info info = InfoOf(status);
        if (info.kind != Kind::File) throw Failure("is no longer a regular file");
        Upload upload(session_, NameOf(item), Announced(info.size), info, context_.options.mgmtClass);
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
            context_.report.Warn(item.local,
                                 fmt::format("grew while it was read; its first {} bytes are stored", sent));
        } else if (looked && TimeText(after.st_mtim) != TimeText(info.mtime)) {
            context_.report.Warn(item.local, "changed while it was read");
        }
    }

    Context& context_;
    Session& session_;
    Buffer& buffer_;
};

// The server keeps a file and a directory of one name apart: the new kind does not replace the old one.
void WarnOfOtherKind(Context& context, Session& session, const std::string& subject, const Parts& name,
                     bool directory) {
    for (const StoredObject& object : List(session, NamePattern(name, false), Scope::Self, {})) {
        if (object.directory == directory) continue;
        const char* const kind = directory ? "file" : "directory";
        context.report.Warn(subject,
                            fmt::format("a {} of this name is stored and stays; restore takes the newer", kind));
    }
}

void StoreTrees(Context& context, Session& session, Buffer& buffer) {
    std::vector<LocalItem> items;
    std::vector<std::string> unreadable;
    for (const Landing& landing : MapPaths(context.options.paths, context.options.to)) {
        const size_t own = items.size();
        Scan(landing, context.report, items, unreadable);
        if (landing.top || items.size() == own) continue;
        WarnOfOtherKind(context, session, landing.local, landing.object, items[own].info.kind == Kind::Directory);
    }
    long long bytes = 0;
    for (const LocalItem& item : items) {
        if (item.info.kind == Kind::Other) context.report.Warn(item.local, "special file, skipped");
        bytes += item.info.size.value_or(0);
    }
    context.report.ExpectBytes(bytes);
    items.erase(std::remove_if(items.begin(), items.end(), [](const auto& i) { return i.info.kind == Kind::Other; }),
                items.end());
    const auto files = std::stable_partition(items.begin(), items.end(),
                                             [](const auto& item) { return item.info.kind == Kind::Directory; });
    const auto directories = static_cast<size_t>(files - items.begin());

    // Two sessions that meet a missing directory both create it, so one makes all of them: by the directory objects of
    // the trees, or else by the first file.
    Sender sender(context, session, buffer);
    const size_t alone = std::min(items.size(), std::max<size_t>(directories, 1));
    for (size_t i = 0; i < alone; ++i) {
        Attempt(context.report, items[i].local, [&] { sender.Store(items[i]); });
    }
    const Job job = {[&](size_t i) { return items[i].local; },
                     [&](Session& own, Buffer& memory, size_t i) { Sender(context, own, memory).Store(items[i]); }};
    RunParallel(context, session, alone, items.size(), job);
}

}  // namespace

void RunBackup(Context& context) {
    Session session(context.connection);
    Buffer buffer(pieceSize);
    session.Handle();
    if (context.options.as.empty()) {
        StoreTrees(context, session, buffer);
    } else {
        const Parts object = Append(ParsePath(context.options.to), ParsePath(context.options.as));
        context.report.ExpectBytes(context.options.size.value_or(0));
        Attempt(context.report, "standard input", [&] {
            WarnOfOtherKind(context, session, Join(object), object, false);
            Sender(context, session, buffer).StoreStream(object);
        });
    }
    context.report.Summary("backup");
}

}  // namespace tsmctl
