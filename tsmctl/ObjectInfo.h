// The text that is stored with an object, and the seal at its end; docs/tsmctl-format.md describes it. Version 1, which
// earlier programs wrote, ends behind the size, and its objects have neither header nor seal.
#pragma once

#include <openssl/types.h>
#include <sys/stat.h>

#include <ctime>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tsmctl {

enum class Kind : char {
    File = 'f',
    Link = 'l',
    Directory = 'd',
    Stream = 's',
    Pipe = 'p',
    CharacterDevice = 'c',
    BlockDevice = 'b',
    Other = '?'
};
const char* KindName(Kind kind);
// Pipes and devices, which have no content.
bool IsSpecial(Kind kind);

struct Info {
    int version = 2;
    Kind kind = Kind::File;
    mode_t mode = 0;
    timespec mtime = {};
    std::optional<long long> size;  // unknown of a stream, until its end
    // Since version 2:
    uid_t uid = 0;
    gid_t gid = 0;
    timespec ctime = {};
    std::string fields;  // "KEY=VALUE ...", see AddField

    bool Sealed() const { return version > 1 && kind != Kind::Directory; }
    size_t HeaderLength() const;
};

// A listing shows no more of the text.
constexpr size_t longestInfo = 254;

// More than any file's attributes and extents take.
constexpr long long longestHeader = 64 << 20;

std::string FormatInfo(const Info& info);
// Nothing for a text that another program stored.
std::optional<Info> ParseInfo(const std::string& text);
// Whether a text that is not ours, or does not fit its object, is one that a newer tsmctl wrote, or a damaged one: it
// begins like ours, or goes on like ours. The object must not be read as if it were another program's.
bool LooksLikeOurs(const std::string& text);
// Adds the field by which damage to the text of an object without a seal is noticed. No field comes after it.
constexpr size_t sumLength = std::string_view(" sum=01234567").size();
void AddSum(Info& info);
Info InfoOf(const struct stat& status);

// Fields are divided by blanks or line breaks. Keys and values have no control characters, and keys no "=".
void AddField(std::string& fields, std::string_view key, std::string_view value);
// The values of a key, in their order.
std::vector<std::string> FieldsOf(std::string_view fields, std::string_view key);
// The value of a key; empty if it is missing.
std::string FieldOf(std::string_view fields, std::string_view key);
// A decimal number from 0 on, or nothing.
std::optional<long long> ParseNumber(std::string_view text);

// What the names of one file have in common; empty for a file with one name.
std::string LinkKey(const std::optional<Info>& info);
// The numbers of a device; 0 for anything else.
dev_t DeviceOf(const Info& info);

std::string ModeText(mode_t mode);
std::string TimeText(const timespec& time);

// An object ends with the SHA-256 of its content, by which it can be checked without its source.
class Sha256 {
public:
    // Throws std::bad_alloc.
    Sha256();
    void Add(const void* data, size_t length);
    // Of what was added so far, in lower-case hexadecimal digits.
    std::string Hex() const;

private:
    std::shared_ptr<EVP_MD_CTX> context_;
};

constexpr size_t sealLength = 169;

bool LooksLikeSeal(const std::string& bytes);
// The last bytes of an object with this information text and header, and with content of this size and SHA-256.
std::string Seal(const std::string& info, const std::string& header, long long size, const std::string& sha256);

}  // namespace tsmctl
