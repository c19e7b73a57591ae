#include "TarWriter.h"

#include <fmt/format.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <numeric>
#include <regex>
#include <utility>

#include "Errors.h"

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

// Some readers take a link's target from the block even where a record has it, so it begins there, too.
std::string Block(const std::string& name, char type, mode_t mode, long long size, const std::string& link,
                  dev_t device) {
    std::string block(blockSize, '\0');
    const auto put = [&](size_t at, const std::string& text) { block.replace(at, text.size(), text); };
    // What does not fit stands in records.
    const auto number = [&](size_t at, size_t digits, unsigned long long value) {
        put(at, fmt::format("{:0{}o}", value & ((1ULL << (3 * digits)) - 1), digits));
    };
    put(0, name.substr(0, 100));
    number(100, 7, mode);
    number(108, 7, 0);
    number(116, 7, 0);
    number(124, 11, static_cast<unsigned long long>(size));
    number(136, 11, 0);
    put(148, "        ");
    block[156] = type;
    put(157, link.substr(0, 100));
    put(257, std::string("ustar\0"
                         "00",
                         8));
    number(329, 7, major(device));
    number(337, 7, minor(device));
    number(148, 6, std::accumulate(block.begin(), block.end(), 0U, [](unsigned sum, char c) {
               return sum + static_cast<unsigned char>(c);
           }));
    block[154] = '\0';
    return block;
}

}  // namespace

// After a failure no reader could make sense of what followed.
void TarWriter::Put(const void* memory, size_t length) {
    if (std::exchange(broken_, true)) return;
    WriteAll(STDOUT_FILENO, memory, length);
    broken_ = false;
}

void TarWriter::Pad(long long size) {
    const std::string zeros(blockSize, '\0');
    const auto over = static_cast<size_t>(size) % blockSize;
    if (over > 0) Put(zeros.data(), blockSize - over);
}

void TarWriter::WriteHeader(const ChosenObject& item, char type, long long size, const std::string& link,
                            std::string_view attributes) {
    const Info info = item.object.info.value_or(Info{});
    const bool directory = item.object.directory;
    std::string records = Record("path", Join(item.local) + (directory ? "/" : ""));
    records += Record("size", std::to_string(size));
    if (!link.empty()) records += Record("linkpath", link);
    if (item.object.info) records += Record("mtime", PlainTime(info.mtime));
    if (info.version > 1) records += Record("uid", std::to_string(info.uid)) + Record("gid", std::to_string(info.gid));
    bool complete = true;
    for (const auto& [name, value] : DecodeAttributes(attributes)) {
        // Readers take what comes before the first "=" for the name, and GNU tar these codes for a character.
        static const std::regex changed("=|%25|%3D");
        const bool fits = !std::regex_search(name, changed);
        if (fits) records += Record("SCHILY.xattr." + name, value);
        complete = complete && fits;
    }
    if (!complete) report_.CountLoss("archived without an extended attribute whose name tar would change");
    const bool setsIds = (info.mode & setIds) != 0;
    if (setsIds || HasCapability(attributes)) report_.CountLoss("archived without its set-id bits and capabilities");
    const mode_t mode = item.object.info ? info.mode & ~setIds : directory ? 0755 : 0644;
    std::string text = Block("pax", 'x', 0644, static_cast<long long>(records.size()), "", 0) + records;
    text.resize((text.size() + blockSize - 1) / blockSize * blockSize);
    text += Block(item.local.back(), type, mode, size, link, DeviceOf(info));
    Put(text.data(), text.size());
}

void TarWriter::WriteDirectory(const ChosenObject& item) {
    if (broken_) return;
    RequireKnown(item.object);
    WriteHeader(item, '5', 0, "", item.object.info ? item.object.info->fields : "");
    report_.Count(Kind::Directory);
}

void TarWriter::Write(Session& session, Buffer& buffer, const ChosenObject& item) {
    if (broken_) return;
    const Kind kind = item.object.GetKind();
    if (kind == Kind::Link || IsSpecial(kind)) {
        Download download(session, item.object, at_);
        const std::string target = ReceiveLinkTarget(download, buffer);
        const char type = kind == Kind::Link ? '2' : kind == Kind::Pipe ? '6' : kind == Kind::BlockDevice ? '4' : '3';
        WriteHeader(item, type, 0, target, download.Header());
        report_.Advance(target.size());
    } else {
        WriteFile(session, buffer, item);
    }
    report_.Count(kind);
}

void TarWriter::WriteFile(Session& session, Buffer& buffer, const ChosenObject& item) {
    const std::string key = LinkKey(item.object.info);
    const auto contentOf = [](const Download& download) { return download.Digest() + " " + download.Header(); };
    const auto twin = twins_.find(key);
    std::optional<long long> size = item.object.info.value_or(Info{}).size;
    // The header comes before the content, which is read twice where the header depends on it. A size beyond what was
    // announced is that of a file with holes, or damaged, and would be filled up with zeros.
    if (!size || *size > item.object.announced || twin != twins_.end()) {
        Download download(session, item.object, at_);
        size = 0;
        Receive(download, buffer, [&](const Piece& piece) { *size += static_cast<long long>(piece.size); });
        if (twin != twins_.end() && twin->second.content == contentOf(download)) {
            return WriteHeader(item, '1', 0, twin->second.path, "");
        }
    }
    Download download(session, item.object, at_);
    Piece piece = download.Next(buffer);
    WriteHeader(item, '0', *size, "", download.Header());
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
        const Buffer zeros(pieceSize);
        for (; left > 0; left -= std::min<long long>(left, pieceSize)) {
            Put(zeros.data(), static_cast<size_t>(std::min<long long>(left, pieceSize)));
        }
        Pad(*size);
        throw;
    }
    Pad(*size);
    if (!key.empty()) twins_.try_emplace(key, Twin{Join(item.local), contentOf(download)});
}

void TarWriter::Finish() {
    const std::string end(2 * blockSize, '\0');
    Put(end.data(), end.size());
}

}  // namespace tsmctl
