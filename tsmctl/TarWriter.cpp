// An archive in the pax format on standard output.
#include <fmt/format.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <numeric>
#include <utility>

#include "Attributes.h"
#include "Errors.h"
#include "RestoreTarget.h"

namespace tsmctl {
namespace {

constexpr size_t blockSize = 512;

// The length in front counts itself.
std::string Record(const std::string& key, const std::string& value) {
    const size_t rest = key.size() + value.size() + 3;
    size_t length = rest + 1;
    while (length != rest + std::to_string(length).size()) ++length;
    return fmt::format("{} {}={}\n", length, key, value);
}

// A decimal number; the stored nanoseconds are always added.
std::string PlainTime(const timespec& time) {
    if (time.tv_sec >= 0 || time.tv_nsec == 0) return TimeText(time);
    return fmt::format("{}{}.{:09}", time.tv_sec == -1 ? "-" : "", time.tv_sec + 1, 1000000000 - time.tv_nsec);
}

// Fields of a block. What does not fit stands in records.
std::string Field(std::string text, size_t width) {
    text.resize(width);
    return text;
}
std::string Octal(unsigned long long value, size_t width) {
    const size_t digits = width - 1;
    return Field(fmt::format("{:0{}o}", value & ((1ULL << (3 * digits)) - 1), digits), width);
}

// Some readers take a link's target from the block even where a record has it, so it begins there, too.
std::string Block(const std::string& name, char type, mode_t mode, size_t size, const std::string& link, dev_t device) {
    std::string block = Field(name, 100) + Octal(mode, 8) + Octal(0, 8) + Octal(0, 8) + Octal(size, 12) + Octal(0, 12) +
                        "        " + type + Field(link, 100) + Field("ustar", 6) + "00" + Field("", 64) +
                        Octal(major(device), 8) + Octal(minor(device), 8);
    block.resize(blockSize);
    const auto add = [](unsigned sum, char c) { return sum + static_cast<unsigned char>(c); };
    return block.replace(148, 7, Octal(std::accumulate(block.begin(), block.end(), 0U, add), 7));
}

class TarWriter : public RestoreTarget {
public:
    TarWriter(const std::string& at, Report& report) : at_(at), report_(report) {}

    void End(const ChosenObject& item) override {
        if (broken_) return;
        RequireKnown(item.object);
        WriteHeader(item, '5', 0, "", item.object.info ? item.object.info->fields : "");
        report_.Count(Kind::Directory);
    }

    void Write(Session& session, Buffer& buffer, const ChosenObject& item) override {
        if (broken_) return;
        const Kind kind = item.object.GetKind();
        if (kind == Kind::Link || IsSpecial(kind)) {
            Download download(session, item.object, at_);
            const std::string target = ReceiveLinkTarget(download, buffer);
            const char type = kind == Kind::Link          ? '2'
                              : kind == Kind::Pipe        ? '6'
                              : kind == Kind::BlockDevice ? '4'
                                                          : '3';
            WriteHeader(item, type, 0, target, download.Header());
            report_.Advance(target.size());
        } else {
            WriteFile(session, buffer, item);
        }
        report_.Count(kind);
    }

    void Finish() override { PutZeros(2 * blockSize); }

private:
    // After a failure no reader could make sense of what followed.
    void Put(const void* memory, size_t length) {
        if (std::exchange(broken_, true)) return;
        WriteAll(STDOUT_FILENO, memory, length);
        broken_ = false;
    }

    void PutZeros(long long count) {
        const Buffer zeros(static_cast<size_t>(std::min<long long>(count, pieceSize)));
        for (; count > 0; count -= pieceSize) Put(zeros.data(), std::min(static_cast<size_t>(count), pieceSize));
    }

    void WriteHeader(const ChosenObject& item, char type, long long size, const std::string& link,
                     std::string_view attributes) {
        const Info info = item.object.info.value_or(Info{});
        const bool directory = item.object.directory;
        std::string records = Record("path", Join(item.local) + (directory ? "/" : ""));
        records += Record("size", std::to_string(size));
        if (!link.empty()) records += Record("linkpath", link);
        if (item.object.info) records += Record("mtime", PlainTime(info.mtime));
        if (info.version > 1)
            records += Record("uid", std::to_string(info.uid)) + Record("gid", std::to_string(info.gid));
        bool complete = true;
        bool withoutRights = (info.mode & setIds) != 0;
        for (const auto& [name, value] : DecodeAttributes(attributes)) {
            // Readers take what comes before the first "=" for the name, and GNU tar these codes for a character.
            const auto holds = [&name = name](const char* part) { return name.find(part) != std::string::npos; };
            if (name == capability) {
                withoutRights = true;
            } else if (holds("=") || holds("%25") || holds("%3D")) {
                complete = false;
            } else {
                records += Record("SCHILY.xattr." + name, value);
            }
        }
        if (!complete) report_.CountLoss("archived without an extended attribute whose name tar would change");
        if (withoutRights) report_.CountLoss("archived without its set-id bits and capabilities");
        const mode_t mode = item.object.info ? info.mode & ~setIds : directory ? 0755 : 0644;
        std::string text = Block("pax", 'x', 0644, records.size(), "", 0) + records;
        text.resize((text.size() + blockSize - 1) / blockSize * blockSize);
        text += Block(item.local.back(), type, mode, static_cast<size_t>(size), link, DeviceOf(info));
        Put(text.data(), text.size());
    }

    void WriteFile(Session& session, Buffer& buffer, const ChosenObject& item) {
        const std::string common = LinkKey(item.object.info);
        const auto other = twins_.lower_bound(common);
        const bool mayBeTwin = !common.empty() && other != twins_.end() && other->first.rfind(common, 0) == 0;
        std::optional<long long> size = item.object.info.value_or(Info{}).size;
        // The header comes before the content, which is read twice where the header depends on it. A size beyond what
        // was announced is that of a file with holes, or damaged, and would be filled up with zeros.
        if (!size || *size > item.object.announced || mayBeTwin) {
            Download download(session, item.object, at_);
            size = 0;
            Receive(download, buffer, [&](const Piece& piece) { *size += static_cast<long long>(piece.size); });
            if (const auto twin = twins_.find(TwinKey(item, download)); twin != twins_.end()) {
                return WriteHeader(item, '1', 0, twin->second, "");
            }
        }
        Download download(session, item.object, at_);
        Piece piece = download.Next(buffer);
        WriteHeader(item, '0', *size, "", download.Header());
        const auto padding = static_cast<long long>((blockSize - static_cast<size_t>(*size) % blockSize) % blockSize);
        long long left = *size;
        try {
            for (; piece.size > 0; piece = download.Next(buffer)) {
                if (static_cast<long long>(piece.size) > left) throw Failure("is longer than it was announced");
                Put(piece.data, piece.size);
                left -= static_cast<long long>(piece.size);
                report_.Advance(piece.size);
            }
            download.Finish();
        } catch (const Failure&) {
            PutZeros(left + padding);
            throw;
        }
        PutZeros(padding);
        const std::string key = TwinKey(item, download);
        if (!key.empty()) twins_.try_emplace(key, Join(item.local));
    }

    const std::string at_;
    Report& report_;
    bool broken_ = false;                       // standard output
    std::map<std::string, std::string> twins_;  // paths of files with several names
};

}  // namespace

std::unique_ptr<RestoreTarget> ArchiveTarget(const std::string& at, Report& report) {
    return std::make_unique<TarWriter>(at, report);
}

}  // namespace tsmctl
