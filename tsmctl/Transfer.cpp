#include "Transfer.h"

#include <fcntl.h>
#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "Errors.h"
#include "tsmconnector.h"

namespace tsmctl {
namespace {

const Buffer& Zeros() {
    static const Buffer zeros(pieceSize);
    return zeros;
}

constexpr size_t shaPlace = 39;  // of the content, in a seal
constexpr const char* besideDamaged = "what is stored beside its content is damaged";

}  // namespace

Upload::Upload(Session& session, const StoredName& name, long long estimate, const Info& info,
               const std::string& header, const std::string& mgmtClass)
    : session_(session),
      sealed_(info.Sealed()),
      info_(FormatInfo(info)),
      header_(header),
      waiting_(header.begin(), header.end()) {
    if (header.size() > longestHeader) throw Failure("has more attributes than can be stored");
    // To the connector a size of 0 means a directory object. What has no seal comes from a directory.
    const auto others = static_cast<long long>(header.size() + sealLength);
    const long long announced = sealed_ ? std::min(estimate, LLONG_MAX - others) + others : 0;
    const int handle = session_.Handle();
    session_.Check("cannot begin the backup", TsmBeginBackupEx(handle, Text(name.path), Text(name.name), announced,
                                                               Text(info_), TextOrNull(mgmtClass)));
}

Upload::~Upload() {
    if (open_) session_.Drop();
}

void Upload::Put(unsigned char* data, size_t length) {
    session_.Check("cannot send", TsmSendData(session_.Handle(), data, static_cast<int>(length)));
}

void Upload::Send(unsigned char* data, size_t length) {
    constexpr size_t small = 64 << 10;
    sha256_.Add(data, length);
    size_ += static_cast<long long>(length);
    if (waiting_.size() + length <= small) {
        waiting_.insert(waiting_.end(), data, data + length);
        return;
    }
    if (!waiting_.empty()) Put(waiting_.data(), waiting_.size());
    waiting_.clear();
    Put(data, length);
}

void Upload::Skip(long long length) {
    size_ += length;
    for (; length > 0; length -= pieceSize) {
        CheckInterrupt();
        sha256_.Add(Zeros().data(), static_cast<size_t>(std::min<long long>(length, pieceSize)));
    }
}

void Upload::Commit() {
    if (sealed_) {
        const std::string seal = Seal(info_, header_, size_, sha256_.Hex());
        waiting_.insert(waiting_.end(), seal.begin(), seal.end());
        Put(waiting_.data(), waiting_.size());
    }
    session_.Check("cannot commit", TsmEndBackup(session_.Handle()));
    open_ = false;
}

Download::Download(Session& session, const StoredObject& object, const std::string& at)
    : session_(session),
      info_(object.text),
      expected_(object.info ? object.info->size : std::nullopt),
      sealed_(object.info && object.info->Sealed()),
      headerLength_(object.info ? object.info->HeaderLength() : 0) {
    RequireKnown(object);
    RequireReadable(session_, object, at);
    const int handle = session_.Handle();
    session_.Check("cannot begin the restore",
                   TsmBeginRestore(handle, Text(object.path), Text(object.name), TextOrNull(at)));
}

Download::~Download() {
    if (open_) session_.Drop();
}

bool Download::Fill(Buffer& buffer) {
    CheckInterrupt();
    std::copy(held_.begin(), held_.end(), buffer.begin());
    unsigned char* place = buffer.data() + held_.size();
    long long count = 0;
    // One piece without bytes is not the end: after the end every piece is empty.
    for (int asked = 0; count == 0 && asked < 2; ++asked) {
        count = session_.Check("cannot receive",
                               TsmGetData(session_.Handle(), &place, static_cast<int>(pieceSize - held_.size())));
    }
    if (count == 0) return false;
    const size_t total = held_.size() + static_cast<size_t>(count);
    begin_ = 0;
    end_ = total - std::min(total, sealLength);
    held_.assign(buffer.begin() + static_cast<std::ptrdiff_t>(end_),
                 buffer.begin() + static_cast<std::ptrdiff_t>(total));
    if (header_.size() < headerLength_) {
        begin_ = std::min(end_, headerLength_ - header_.size());
        header_.append(buffer.begin(), buffer.begin() + static_cast<std::ptrdiff_t>(begin_));
        if (header_.size() == headerLength_) extents_ = ParseExtents(header_, expected_.value_or(0));
    }
    return true;
}

Piece Download::Take(const unsigned char* data, long long length, bool hole) {
    const Piece piece = {data, static_cast<size_t>(std::min<long long>(length, pieceSize)), hole};
    sha256_.Add(data, piece.size);
    received_ += static_cast<long long>(piece.size);
    return piece;
}

Piece Download::Next(Buffer& buffer) {
    while (true) {
        CheckInterrupt();
        auto available = static_cast<long long>(end_ - begin_);
        if (!extents_.empty()) {
            const auto endOf = [](const Extent& extent) { return extent.offset + extent.length; };
            while (extent_ < extents_.size() && received_ == endOf(extents_[extent_])) ++extent_;
            const bool behind = extent_ == extents_.size();
            const long long next = behind ? Size() : extents_[extent_].offset;
            // A damaged size shows in the seal before its zeros are hashed for hours.
            if (behind && !ended_) {
                if (available == 0 && Fill(buffer)) continue;
                const std::string content = held_.substr(std::min(held_.size(), shaPlace), 64);
                ended_ = available == 0 && held_ == Seal(info_, header_, Size(), content);
                if (!ended_) throw Failure(besideDamaged);
            }
            if (received_ < next) return Take(Zeros().data(), next - received_, true);
            if (!behind) available = std::min(available, endOf(extents_[extent_]) - received_);
        }
        if (available > 0) {
            const Piece piece = Take(buffer.data() + begin_, available, false);
            begin_ += piece.size;
            return piece;
        }
        if (!ended_ && Fill(buffer)) continue;
        if (std::exchange(ended_, true) || Sealed() || held_.empty()) return {nullptr, 0, false};
        if (LooksLikeSeal(held_)) throw Failure("has a seal, but its information text is damaged");
        std::copy(held_.begin(), held_.end(), buffer.begin());
        begin_ = 0;
        end_ = std::exchange(held_, "").size();
    }
}

void Download::Finish() {
    session_.Check("cannot end the restore", TsmEndRestore(session_.Handle()));
    open_ = false;
    if (expected_ && received_ != *expected_) {
        throw Failure(fmt::format("{} bytes received, the object has {}", received_, *expected_));
    }
    if (!Sealed()) return;
    const std::string seal = Seal(info_, header_, received_, sha256_.Hex());
    if (held_ == seal) return;
    const bool same = held_.size() == seal.size() && held_.compare(shaPlace, 64, seal, shaPlace, 64) == 0;
    throw Failure(same ? besideDamaged : "its content does not have the SHA-256 that was stored with it");
}

void Receive(Download& download, Buffer& buffer, const std::function<void(const Piece&)>& take) {
    for (Piece piece = download.Next(buffer); piece.size > 0; piece = download.Next(buffer)) take(piece);
    download.Finish();
}

std::string DigestOf(int fd, Buffer& buffer, long long limit) {
    Sha256 content;
    ReadPieces(fd, buffer, limit, [&](size_t length) { content.Add(buffer.data(), length); });
    return content.Hex();
}

std::string ReceiveLinkTarget(Download& download, Buffer& buffer) {
    constexpr size_t longest = 4096;
    std::string target;
    Receive(download, buffer, [&](const Piece& piece) {
        target.append(piece.data, piece.data + piece.size);
        if (target.size() > longest) throw Failure("the stored target of the link is too long");
    });
    if (target.find('\0') != std::string::npos) throw Failure("the stored target of the link is no path");
    return target;
}

Content ContentOf(Session& session, Buffer& buffer, const StoredObject& object, const std::string& at, Report& report) {
    if (object.directory) {
        RequireKnown(object);
        const std::string fields = object.info ? object.info->fields : "";
        return {Sha256().Hex(), AttributesIn(fields), 0, !object.info || !FieldOf(fields, "sum").empty()};
    }
    Content content = {};
    Download download(session, object, at);
    Receive(download, buffer, [&](const Piece& piece) {
        content.size += static_cast<long long>(piece.size);
        report.Advance(piece.size);
    });
    content.digest = download.Digest();
    content.attributes = AttributesIn(download.Header());
    content.sealed = download.Sealed();
    return content;
}

Content ContentOf(const LocalItem& item, Buffer& buffer, long long limit, Report& report) {
    const Kind kind = item.info.kind;
    const UniqueFd file = OpenItem(item, kind == Kind::File ? 0 : O_PATH);
    const std::string target = kind == Kind::Link ? ReadLink(file) : "";
    Sha256 content;
    content.Add(target.data(), target.size());
    const std::string digest = kind == Kind::File ? DigestOf(file.Get(), buffer, limit) : content.Hex();
    return {digest, AttributesIn(ReadAttributes(file.Get(), report)), 0, false};
}

}  // namespace tsmctl
