// What a file has besides its content, and the ranges in which it has any.
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "ObjectInfo.h"
#include "Report.h"

namespace tsmctl {

// The extended attributes, ACLs among them, as fields on lines of their own. The descriptor may be of O_PATH. What
// cannot be read is counted in the report.
std::string ReadAttributes(int fd, Report& report);
// Those among the fields, for a comparison.
std::vector<std::string> AttributesIn(std::string_view fields);
// Names and values as the system has them.
std::vector<std::pair<std::string, std::string>> DecodeAttributes(std::string_view attributes);

// Gives a file, link or directory what is stored of it, as far as this user may; the rest is counted in the report.
// Fails where mode or time cannot be set. Set-id bits and capabilities are not restored, which is warned of under the
// local name: an administrator decides again who gets the rights of another.
constexpr mode_t setIds = S_ISUID | S_ISGID;
constexpr const char* capability = "security.capability";
void ApplyMetadata(int fd, const Info& info, std::string_view attributes, const std::string& local, Report& report);

struct Extent {
    long long offset;
    long long length;
};
// Where a file with holes has data; nothing for a file without. Moves the descriptor.
std::vector<Extent> FindData(int fd, const struct stat& status);
std::string FormatExtents(const std::vector<Extent>& extents);
// The holes count in the content's SHA-256: what was meant to waste time would take years.
constexpr long long mostHoles = 16LL << 40;
// Throws Failure for ranges that overlap, do not fit into the size, or leave larger holes.
std::vector<Extent> ParseExtents(std::string_view header, long long size);

}  // namespace tsmctl
