#include "ObjectInfo.h"

#include <fmt/format.h>

#include <cstdio>
#include <cstring>

namespace tsmctl {

const char* KindName(Kind kind) {
    switch (kind) {
        case Kind::File:
            return "file";
        case Kind::Link:
            return "link";
        case Kind::Directory:
            return "directory";
        case Kind::Stream:
            return "stream";
        case Kind::Other:
            break;
    }
    return "special file";
}

std::string ModeText(mode_t mode) {
    return fmt::format("{:04o}", mode);
}

std::string TimeText(const timespec& time) {
    return fmt::format("{}.{:09}", time.tv_sec, time.tv_nsec);
}

std::string FormatInfo(const Info& info) {
    const std::string head =
        fmt::format("tsmctl1 {} {} {}", static_cast<char>(info.kind), ModeText(info.mode), TimeText(info.mtime));
    return info.size ? fmt::format("{} {}", head, *info.size) : head;
}

std::optional<Info> ParseInfo(const std::string& text) {
    Info info;
    char kind = 0;
    long long size = 0;
    const int fields = std::sscanf(text.c_str(), "tsmctl1 %c %o %ld.%ld %lld", &kind, &info.mode, &info.mtime.tv_sec,
                                   &info.mtime.tv_nsec, &size);
    info.kind = static_cast<Kind>(kind);
    if (fields == 5) info.size = size;
    const bool sound = fields >= 4 && std::strchr("flds", kind) && info.mode <= 07777 && size >= 0;
    // A text that FormatInfo would write differently is not ours.
    return sound && FormatInfo(info) == text ? std::optional(info) : std::nullopt;
}

Info InfoOf(const struct stat& status) {
    Info info;
    info.kind = S_ISREG(status.st_mode)   ? Kind::File
                : S_ISLNK(status.st_mode) ? Kind::Link
                : S_ISDIR(status.st_mode) ? Kind::Directory
                                          : Kind::Other;
    info.mode = status.st_mode & 07777;
    info.mtime = status.st_mtim;
    info.size = info.kind == Kind::Directory ? 0 : status.st_size;
    return info;
}

}  // namespace tsmctl
