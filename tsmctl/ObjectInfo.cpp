#include "ObjectInfo.h"

#include <fmt/format.h>
#include <openssl/evp.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <charconv>
#include <climits>
#include <cstdio>
#include <cstring>
#include <new>
#include <system_error>

namespace tsmctl {

const char* KindName(Kind kind) {
    return kind == Kind::File        ? "file"
           : kind == Kind::Link      ? "link"
           : kind == Kind::Directory ? "directory"
           : kind == Kind::Stream    ? "stream"
           : kind == Kind::Pipe      ? "pipe"
           : IsSpecial(kind)         ? "device"
                                     : "special file";
}

bool IsSpecial(Kind kind) {
    return kind == Kind::Pipe || kind == Kind::CharacterDevice || kind == Kind::BlockDevice;
}

std::string LinkKey(const std::optional<Info>& info) {
    if (!info || FieldOf(info->fields, "link").empty()) return "";
    Info common = *info;
    common.ctime = {};
    return FormatInfo(common);
}

dev_t DeviceOf(const Info& info) {
    unsigned majorNumber = 0;
    unsigned minorNumber = 0;
    std::sscanf(FieldOf(info.fields, "device").c_str(), "%u:%u", &majorNumber, &minorNumber);
    return makedev(majorNumber, minorNumber);
}

std::string ModeText(mode_t mode) {
    return fmt::format("{:04o}", mode);
}

std::string TimeText(const timespec& time) {
    return fmt::format("{}.{:09}", time.tv_sec, time.tv_nsec);
}

namespace {

std::string SumOf(const std::string& text) {
    Sha256 sha256;
    sha256.Add(text.data(), text.size());
    return sha256.Hex().substr(0, 8);
}

// libcrypto fails in these calls for want of memory only.
void Require(bool done) {
    if (!done) throw std::bad_alloc();
}

}  // namespace

void AddField(std::string& fields, std::string_view key, std::string_view value) {
    fields += fmt::format("{}{}={}", fields.empty() ? "" : " ", key, value);
}

std::vector<std::string> FieldsOf(std::string_view fields, std::string_view key) {
    std::vector<std::string> values;
    for (size_t at = 0, end = 0; at < fields.size(); at = end + 1) {
        end = std::min(fields.find_first_of(" \n", at), fields.size());
        const std::string_view field = fields.substr(at, end - at);
        const size_t equals = field.find('=');
        if (field.substr(0, equals) == key && equals < field.size()) values.emplace_back(field.substr(equals + 1));
    }
    return values;
}

std::string FieldOf(std::string_view fields, std::string_view key) {
    const std::vector<std::string> values = FieldsOf(fields, key);
    return values.empty() ? "" : values[0];
}

std::optional<long long> ParseNumber(std::string_view text) {
    long long number = -1;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    const bool whole = error == std::errc() && end == text.data() + text.size() && number >= 0;
    return whole ? std::optional(number) : std::nullopt;
}

size_t Info::HeaderLength() const {
    return static_cast<size_t>(ParseNumber(FieldOf(fields, "header")).value_or(0));
}

std::string FormatInfo(const Info& info) {
    std::string text = fmt::format("tsmctl{} {} {} {}", info.version, static_cast<char>(info.kind), ModeText(info.mode),
                                   TimeText(info.mtime));
    if (info.size || info.version > 1) text += info.size ? fmt::format(" {}", *info.size) : " -";
    if (info.version > 1) text += fmt::format(" {}:{} {}", info.uid, info.gid, TimeText(info.ctime));
    return text + (info.fields.empty() ? "" : " ") + info.fields;
}

std::optional<Info> ParseInfo(const std::string& text) {
    Info info;
    char kind = 0;
    char size[24] = "";
    const int count = std::sscanf(text.c_str(), "tsmctl%1d %c %o %ld.%ld %23s %u:%u %ld.%ld", &info.version, &kind,
                                  &info.mode, &info.mtime.tv_sec, &info.mtime.tv_nsec, size, &info.uid, &info.gid,
                                  &info.ctime.tv_sec, &info.ctime.tv_nsec);
    const bool first = info.version == 1;
    if (count < (first ? 5 : 10) || info.version < 1 || info.version > 2) return std::nullopt;
    if (info.mtime.tv_nsec < 0 || info.mtime.tv_nsec > 999999999) return std::nullopt;
    if (!std::strchr(first ? "flds" : "fldspcb", kind) || info.mode > 07777) return std::nullopt;
    info.kind = static_cast<Kind>(kind);
    info.size = ParseNumber(size);
    // A text that FormatInfo would write differently is not ours.
    const std::string fixed = FormatInfo(info);
    const bool more = text.size() > fixed.size();
    if (text.compare(0, fixed.size(), fixed) != 0 || (more && (first || text[fixed.size()] != ' ')))
        return std::nullopt;
    if (!first && !info.size && info.kind != Kind::Stream) return std::nullopt;
    if (more) info.fields = text.substr(fixed.size() + 1);
    const std::string header = FieldOf(info.fields, "header");
    if (!header.empty() && ParseNumber(header).value_or(LLONG_MAX) > longestHeader) return std::nullopt;
    const std::string sum = FieldOf(info.fields, "sum");
    const bool sound = sum.empty() || sum == SumOf(text.substr(0, text.size() - std::min(text.size(), sumLength)));
    return sound ? std::optional(info) : std::nullopt;
}

bool LooksLikeOurs(const std::string& text) {
    constexpr std::string_view word = "tsmctl";
    if (text.rfind(word, 0) == 0 && std::strspn(&text[word.size()], "0123456789") > 0) return true;
    const std::string rest = text.substr(std::min(text.find(' '), text.size()));
    return ParseInfo("tsmctl1" + rest) || ParseInfo("tsmctl2" + rest);
}

void AddSum(Info& info) {
    AddField(info.fields, "sum", SumOf(FormatInfo(info)));
}

Info InfoOf(const struct stat& status) {
    Info info;
    info.kind = S_ISREG(status.st_mode)    ? Kind::File
                : S_ISLNK(status.st_mode)  ? Kind::Link
                : S_ISDIR(status.st_mode)  ? Kind::Directory
                : S_ISFIFO(status.st_mode) ? Kind::Pipe
                : S_ISCHR(status.st_mode)  ? Kind::CharacterDevice
                : S_ISBLK(status.st_mode)  ? Kind::BlockDevice
                                           : Kind::Other;
    info.mode = status.st_mode & 07777;
    info.mtime = status.st_mtim;
    info.size = info.kind == Kind::File || info.kind == Kind::Link ? status.st_size : 0;
    info.uid = status.st_uid;
    info.gid = status.st_gid;
    info.ctime = status.st_ctim;
    if (info.kind == Kind::File && status.st_nlink > 1) {
        AddField(info.fields, "link", fmt::format("{}:{}", status.st_dev, status.st_ino));
    }
    if (info.kind == Kind::CharacterDevice || info.kind == Kind::BlockDevice) {
        AddField(info.fields, "device", fmt::format("{}:{}", major(status.st_rdev), minor(status.st_rdev)));
    }
    return info;
}

Sha256::Sha256() : context_(EVP_MD_CTX_new(), EVP_MD_CTX_free) {
    Require(context_ && EVP_DigestInit_ex(context_.get(), EVP_sha256(), nullptr) == 1);
}

void Sha256::Add(const void* data, size_t length) {
    Require(EVP_DigestUpdate(context_.get(), data, length) == 1);
}

std::string Sha256::Hex() const {
    unsigned char digest[32];
    const Sha256 copy;
    Require(EVP_MD_CTX_copy_ex(copy.context_.get(), context_.get()) == 1 &&
            EVP_DigestFinal_ex(copy.context_.get(), digest, nullptr) == 1);
    std::string hex;
    for (const unsigned char byte : digest) hex += fmt::format("{:02x}", byte);
    return hex;
}

bool LooksLikeSeal(const std::string& bytes) {
    char end = 0;
    const int fields = std::sscanf(bytes.c_str(), "tsmctl2 %*19[0-9] %*10[0-9] %*64[0-9a-f] %*64[0-9a-f]%c", &end);
    return bytes.size() == sealLength && fields == 1 && end == '\n';
}

std::string Seal(const std::string& info, const std::string& header, long long size, const std::string& sha256) {
    const std::string line = fmt::format("tsmctl2 {:019} {:010} {} ", size, header.size(), sha256);
    Sha256 whole;
    for (const std::string& part : {info + "\n", header, line}) whole.Add(part.data(), part.size());
    return line + whole.Hex() + "\n";
}

}  // namespace tsmctl
