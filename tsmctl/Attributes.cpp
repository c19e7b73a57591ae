#include "Attributes.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <linux/limits.h>
#include <openssl/evp.h>
#include <strings.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "Errors.h"
#include "ObjectNames.h"

namespace tsmctl {
namespace {

// ACLs are written shortly, so that those of most directories fit into the information text.
constexpr std::pair<const char*, const char*> aclKeys[] = {{"acl", "system.posix_acl_access"},
                                                           {"dacl", "system.posix_acl_default"}};

// A path for calls that do not take a descriptor of O_PATH.
std::string PathOf(int fd) {
    return fmt::format("/proc/self/fd/{}", fd);
}

std::string Base64(const std::string& bytes) {
    std::string text((bytes.size() + 2) / 3 * 4 + 1, '\0');
    const auto* const data = reinterpret_cast<const unsigned char*>(bytes.data());
    text.resize(static_cast<size_t>(
        EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()), data, static_cast<int>(bytes.size()))));
    return text;
}

std::string FromBase64(const std::string& text) {
    std::string bytes(text.size() / 4 * 3 + 1, '\0');
    const auto* const data = reinterpret_cast<const unsigned char*>(text.data());
    const int length =
        EVP_DecodeBlock(reinterpret_cast<unsigned char*>(bytes.data()), data, static_cast<int>(text.size()));
    const auto padding =
        std::count(text.end() - std::min<std::ptrdiff_t>(2, text.end() - text.begin()), text.end(), '=');
    if (length < padding) throw Failure("a stored attribute is damaged");
    bytes.resize(static_cast<size_t>(length - padding));
    return bytes;
}

// An ACL is a version and entries, of a kind, rights and, where it has a name, a number.
struct AclEntry {
    uint16_t tag;
    uint16_t rights;
    uint32_t id;
};
constexpr uint32_t aclVersion = 2;
constexpr uint32_t noId = 0xffffffff;
// The tag of an entry is the bit of its letter's place here; of two, the second has a number.
constexpr std::string_view aclLetters = "uuggmo";

// "u7,u1000:5,g5,m7,o0" and back: user, group, mask or others, with a number where it is not the owner's, and rights.
std::string FromAclText(const std::string& text) {
    std::string value(reinterpret_cast<const char*>(&aclVersion), sizeof aclVersion);
    for (size_t at = 0; at < text.size(); at = std::min(text.find(',', at), text.size() - 1) + 1) {
        unsigned id = noId;
        unsigned rights = 0;
        const bool named = std::sscanf(&text[at + 1], "%u:%u", &id, &rights) == 2;
        if (!named) rights = std::exchange(id, noId);
        const size_t place = named ? aclLetters.rfind(text[at]) : aclLetters.find(text[at]);
        const auto tag = place == std::string_view::npos ? 0U : 1U << place;
        const AclEntry entry = {static_cast<uint16_t>(tag), static_cast<uint16_t>(rights), id};
        value.append(reinterpret_cast<const char*>(&entry), sizeof entry);
    }
    return value;
}

// Is not the whole value where a tag is none of these.
std::string AclText(const std::string& value) {
    std::string text;
    AclEntry entry = {};
    for (size_t at = sizeof aclVersion; at + sizeof entry <= value.size(); at += sizeof entry) {
        std::memcpy(&entry, &value[at], sizeof entry);
        const auto place = static_cast<size_t>(ffs(entry.tag)) - 1;
        if (place >= aclLetters.size()) return "";
        text += fmt::format("{}{}{}{}", text.empty() ? "" : ",", aclLetters[place],
                            entry.id == noId ? "" : std::to_string(entry.id) + ":", entry.rights);
    }
    return text;
}

// Calls read with as much room as Linux lets a list of names or a value have. False with errno where it fails.
template <typename Call>
bool ReadWhole(std::string& bytes, const Call& call) {
    bytes.resize(XATTR_SIZE_MAX);
    const ssize_t length = call(bytes.data(), bytes.size());
    bytes.resize(static_cast<size_t>(std::max<ssize_t>(0, length)));
    return length >= 0;
}

bool SetOwner(int fd, const Info& info) {
    const auto change = [&](uid_t uid, gid_t gid) { return fchownat(fd, "", uid, gid, AT_EMPTY_PATH) == 0; };
    struct stat now = {};
    if (fstat(fd, &now) == 0 && now.st_uid == info.uid && now.st_gid == info.gid) return true;
    if (change(info.uid, info.gid)) return true;
    change(static_cast<uid_t>(-1), info.gid);  // an owner may choose among the groups of his own
    return now.st_uid == info.uid && fstat(fd, &now) == 0 && now.st_gid == info.gid;
}

}  // namespace

std::string ReadAttributes(int fd, Report& report) {
    const std::string path = PathOf(fd);
    bool complete = true;
    std::string names;
    if (!ReadWhole(names, [&](char* room, size_t size) { return listxattr(path.c_str(), room, size); })) {
        complete = errno == ENOTSUP;
    }
    std::vector<std::string> lines;
    for (size_t at = 0; at < names.size(); at += std::strlen(&names[at]) + 1) {
        const char* const name = &names[at];
        std::string value;
        if (!ReadWhole(value, [&](char* room, size_t size) { return getxattr(path.c_str(), name, room, size); })) {
            complete = complete && errno == ENODATA;  // gone meanwhile
            continue;
        }
        std::string line = fmt::format("xattr={}:{}\n", PercentEncoded(name), Base64(value));
        for (const auto& [key, whole] : aclKeys) {
            const std::string text = std::strcmp(name, whole) == 0 ? AclText(value) : "";
            if (!text.empty() && FromAclText(text) == value) line = fmt::format("{}={}\n", key, text);
        }
        lines.push_back(line);
    }
    if (!complete) report.CountLoss("extended attributes could not be read");
    std::sort(lines.begin(), lines.end());  // their order on the disk means nothing
    return fmt::format("{}", fmt::join(lines, ""));
}

std::vector<std::string> AttributesIn(std::string_view fields) {
    std::vector<std::string> found;
    for (const char* const key : {"acl", "dacl", "xattr"}) {
        for (const std::string& value : FieldsOf(fields, key)) found.push_back(fmt::format("{}={}", key, value));
    }
    return found;
}

std::vector<std::pair<std::string, std::string>> DecodeAttributes(std::string_view attributes) {
    std::vector<std::pair<std::string, std::string>> found;
    for (const auto& [key, name] : aclKeys) {
        for (const std::string& value : FieldsOf(attributes, key)) found.emplace_back(name, FromAclText(value));
    }
    for (const std::string& field : FieldsOf(attributes, "xattr")) {
        const size_t colon = std::min(field.rfind(':'), field.size() - 1);
        // As the system reads it: nothing behind a NUL may make another name of a capability.
        found.emplace_back(PercentDecoded(field.substr(0, colon)).c_str(), FromBase64(field.substr(colon + 1)));
    }
    return found;
}

void ApplyMetadata(int fd, const Info& info, std::string_view attributes, const std::string& local, Report& report) {
    const std::string path = PathOf(fd);
    if (info.version > 1 && !SetOwner(fd, info)) report.CountLoss("owner and group not restored");
    // Before the mode, which may forbid it. The default of a folder above may have given both.
    for (const auto& entry : aclKeys) removexattr(path.c_str(), entry.second);
    bool complete = true;
    for (const auto& [name, value] : DecodeAttributes(attributes)) {
        if (name == capability) {
            report.Warn(local, "restored without its capabilities");
        } else if (setxattr(path.c_str(), name.c_str(), value.data(), value.size(), 0) != 0) {
            complete = false;
        }
    }
    if (!complete) report.CountLoss("extended attributes or ACL not restored");
    const mode_t mode = info.mode & ~setIds;
    if (mode != info.mode) report.Warn(local, "restored without its set-user-id and set-group-id bits");
    if (info.kind != Kind::Link && fchmod(fd, mode) != 0 && (errno != EBADF || chmod(path.c_str(), mode) != 0)) {
        FailLocal("cannot set the mode", errno);
    }
    const timespec times[2] = {{0, UTIME_OMIT}, info.mtime};
    if (futimens(fd, times) != 0 && (errno != EBADF || utimensat(AT_FDCWD, path.c_str(), times, 0) != 0)) {
        FailLocal("cannot set the time", errno);
    }
}

std::vector<Extent> FindData(int fd, const struct stat& status) {
    if (status.st_blocks * 512 >= status.st_size) return {};
    // Shorter holes are stored as zeros, so that there are never too many.
    const long long least = std::max<long long>(4096, status.st_size / 100000);
    std::vector<Extent> extents;
    for (long long end = 0; end < status.st_size;) {
        const long long start = lseek(fd, end, SEEK_DATA);
        if (start < 0 && errno != ENXIO) return {};  // a file system that does not know
        if (start < 0 || start >= status.st_size) break;
        end = std::min<long long>(lseek(fd, start, SEEK_HOLE), status.st_size);
        if (end <= start) return {};
        if (!extents.empty() && start - (extents.back().offset + extents.back().length) < least) {
            extents.back().length = end - extents.back().offset;
        } else {
            extents.push_back({start, end - start});
        }
    }
    if (extents.empty()) extents.push_back({0, 0});
    return extents[0].length == status.st_size ? std::vector<Extent>() : extents;
}

std::string FormatExtents(const std::vector<Extent>& extents) {
    std::string lines;
    for (const Extent& extent : extents) lines += fmt::format("data={}:{}\n", extent.offset, extent.length);
    return lines;
}

std::vector<Extent> ParseExtents(std::string_view header, long long size) {
    std::vector<Extent> extents;
    long long end = 0;
    long long holes = size;
    for (const std::string& field : FieldsOf(header, "data")) {
        const size_t colon = std::min(field.find(':'), field.size() - 1);
        const auto offset = ParseNumber(field.substr(0, colon));
        const auto length = ParseNumber(field.substr(colon + 1));
        if (!offset || !length || *offset < end || *offset > size || *length > size - *offset) {
            throw Failure("the stored ranges of its data make no sense");
        }
        end = *offset + *length;
        holes -= *length;
        extents.push_back({*offset, *length});
    }
    if (!extents.empty() && holes > mostHoles) throw Failure("has holes of more than 16 TiB");
    return extents;
}

}  // namespace tsmctl
