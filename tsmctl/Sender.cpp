#include "Sender.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <ctime>
#include <utility>

#include "Attributes.h"
#include "Errors.h"
#include "Transfer.h"

namespace tsmctl {
namespace {

// Announced for a stream of which nothing is known.
constexpr long long largeStream = 10LL << 30;
constexpr int tries = 4;

// The size of the last version and a tenth more, or a large value where that size is not known, or is one that would
// have fit into the buffer, as this stream does not.
long long EstimateAfter(const std::optional<StoredObject>& last) {
    if (!last) return largeStream;
    const long long size = last->info ? last->info->size.value_or(0) : 0;
    if (size >= static_cast<long long>(pieceSize)) return size + std::min(size / 10, LLONG_MAX - size);
    return std::max(largeStream, last->announced - static_cast<long long>(sealLength));
}

bool MoreIn(int fd) {
    char byte = 0;
    return ReadFull(fd, &byte, 1) == 1;
}

// Sends up to limit bytes; fewer when the input ends.
long long Send(Upload& upload, int fd, Buffer& buffer, long long limit, Report& report) {
    return ReadPieces(fd, buffer, limit, [&](size_t length) {
        upload.Send(buffer.data(), length);
        report.Advance(length);
    });
}

// A write in the tick of the clock in which the file changed last would not show in its times.
struct stat StatusOf(const UniqueFd& file) {
    struct stat status = {};
    timespec now = {};
    do {
        if (fstat(file.Get(), &status) != 0) FailLocal("cannot open", errno);
        clock_gettime(CLOCK_REALTIME_COARSE, &now);
    } while (TimeText(now) == TimeText(status.st_ctim) && poll(nullptr, 0, 1) == 0);
    return status;
}

// A directory's attributes have to fit into its information text; what does not is left out, ACLs last.
void PutInto(Info& info, const std::string& attributes, Report& report) {
    bool complete = true;
    for (const std::string& field : AttributesIn(attributes)) {
        const std::string before = info.fields;
        info.fields += (before.empty() ? "" : " ") + field;
        if (FormatInfo(info).size() + sumLength <= longestInfo) continue;
        info.fields = before;
        complete = false;
    }
    if (!complete) report.CountLoss("extended attributes or ACL of a directory too long to keep");
    AddSum(info);
}

// False when it changed meanwhile.
bool SendFile(Upload& upload, const UniqueFd& file, Buffer& buffer, const std::vector<Extent>& extents,
              const struct stat& status, Report& report) {
    long long place = 0;
    bool less = false;
    for (auto extent = extents.begin(); extent != extents.end() && !less; ++extent) {
        upload.Skip(extent->offset - place);
        if (lseek(file.Get(), extent->offset, SEEK_SET) < 0) FailLocal("cannot read", errno);
        less = Send(upload, file.Get(), buffer, extent->length, report) < extent->length;
        place = extent->offset + extent->length;
    }
    if (!less) upload.Skip(status.st_size - place);
    lseek(file.Get(), status.st_size, SEEK_SET);
    const bool more = MoreIn(file.Get());
    if (FormatInfo(InfoOf(StatusOf(file))) != FormatInfo(InfoOf(status))) return false;
    if (!less && !more) return true;
    throw Failure(fmt::format("holds {} than its size of {} bytes; not stored (pipe it into backup - --as)",
                              more ? "more" : "less", status.st_size));
}

// The item counts as it is when it is opened. False when a file changed while it was read; nothing of it is stored
// then.
bool StoreUnchanged(Session& session, Buffer& buffer, const LocalItem& item, const std::string& mgmtClass,
                    std::string& text, Report& report) {
    const bool isFile = item.info.kind == Kind::File;
    const UniqueFd here = OpenItem(item, isFile ? 0 : O_PATH);
    const struct stat status = StatusOf(here);
    Info info = InfoOf(status);
    if (info.kind != item.info.kind) throw Failure(fmt::format("is no longer a {}", KindName(item.info.kind)));
    std::string target = info.kind == Kind::Link ? ReadLink(here) : "";
    if (!isFile) info.size = static_cast<long long>(target.size());
    std::vector<Extent> extents;
    if (isFile) extents = FindData(here.Get(), status);
    const std::string ranges = FormatExtents(extents);
    ParseExtents(ranges, *info.size);  // what cannot be read back is refused
    if (extents.empty()) extents.push_back({0, *info.size});
    long long bytes = 0;
    for (const Extent& extent : extents) bytes += extent.length;
    std::string header = ReadAttributes(here.Get(), report) + ranges;
    if (info.kind == Kind::Directory) PutInto(info, std::exchange(header, ""), report);
    if (!header.empty()) AddField(info.fields, "header", std::to_string(header.size()));
    Upload upload(session, ToStored(SplitAtSlash(item.object)), bytes, info, header, mgmtClass);
    upload.Send(reinterpret_cast<unsigned char*>(target.data()), target.size());
    report.Advance(target.size());
    if (isFile && !SendFile(upload, here, buffer, extents, status, report)) return false;
    text = upload.InfoText();
    upload.Commit();
    return true;
}

}  // namespace

void StoreItem(Session& session, Buffer& buffer, const LocalItem& item, const std::string& mgmtClass, std::string& text,
               Report& report) {
    for (int attempt = 1; !StoreUnchanged(session, buffer, item, mgmtClass, text, report); ++attempt) {
        if (attempt == tries) {
            throw Failure(fmt::format("changed while it was read, {} times; not stored", tries));
        }
        poll(nullptr, 0, 100 << attempt);
        CheckInterrupt();
    }
}

void StoreStream(Session& session, const Parts& object, const StreamSize& size, const std::string& mgmtClass,
                 const std::optional<StoredObject>& last, Report& report) {
    const auto require = [&](bool right) {
        if (!right) throw Failure(fmt::format("does not have the {} bytes of --size; not stored", *size.exact));
    };
    Buffer buffer(pieceSize);
    Info info;
    info.kind = Kind::Stream;
    info.mode = 0600;
    info.uid = geteuid();
    info.gid = getegid();
    clock_gettime(CLOCK_REALTIME, &info.mtime);
    info.ctime = info.mtime;
    info.size = size.exact;
    const size_t first = ReadFull(STDIN_FILENO, buffer.data(), pieceSize);
    const auto length = static_cast<long long>(first);
    const bool whole = first < pieceSize;
    if (whole && !info.size) info.size = length;
    require(!info.size || (whole ? length == *info.size : length <= *info.size));
    const long long announced = info.size.value_or(std::max(length, size.estimate.value_or(EstimateAfter(last))));
    const std::string text = FormatInfo(info);
    long long sent = 0;
    bool readOn = false;
    std::string failed;
    session.Retry([&] {
        if (!failed.empty() && IsStoredAs(ListOne(session, object), false, text)) return;
        if (readOn) throw Failure(failed + "; standard input cannot be read a second time");
        try {
            Upload upload(session, ToStored(object), announced, info, "", mgmtClass);
            if (first > 0) upload.Send(buffer.data(), first);
            report.Advance(first);
            readOn = !whole;
            sent = length;
            if (!whole) sent += Send(upload, STDIN_FILENO, buffer, info.size.value_or(LLONG_MAX) - length, report);
            require(!info.size || (sent >= *info.size && (whole || !MoreIn(STDIN_FILENO))));
            upload.Commit();
            RequireStored(session, object, false, text);
        } catch (const PassingFailure& failure) {
            failed = failure.what();
            throw;
        }
    });
    if (sent > announced) {
        report.Warn(Join(object),
                    fmt::format("has {} bytes, but {} were announced; --estimate announces more", sent, announced));
    }
}

}  // namespace tsmctl
