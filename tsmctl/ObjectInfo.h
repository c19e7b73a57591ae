// The text that is stored with an object: "tsmctl1 f 0644 1700000000.123456789 12345", that is version, kind, mode,
// modification time (seconds rounded down, nanoseconds) and true size. A stream whose size was not known has no size.
#pragma once

#include <sys/stat.h>

#include <ctime>
#include <optional>
#include <string>

namespace tsmctl {

enum class Kind : char { File = 'f', Link = 'l', Directory = 'd', Stream = 's', Other = '?' };
const char* KindName(Kind kind);

struct Info {
    Kind kind = Kind::File;
    mode_t mode = 0;
    timespec mtime = {};
    std::optional<long long> size;
};

std::string FormatInfo(const Info& info);
// Nothing for a text that another program stored.
std::optional<Info> ParseInfo(const std::string& text);
Info InfoOf(const struct stat& status);

std::string ModeText(mode_t mode);
std::string TimeText(const timespec& time);

}  // namespace tsmctl
