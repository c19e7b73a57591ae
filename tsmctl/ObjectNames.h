// Names of objects. What the user types and the local file names are plain bytes divided by "/"; in the names that are
// stored, the bytes that the connector gives a meaning to (\ * ?) and % stand as %XX. Other hosts' names may hold
// those bytes as they are: they are shown unchanged.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace tsmctl {

using Parts = std::vector<std::string>;

std::string Escape(std::string_view plain);
std::string Unescape(std::string_view stored);
bool HasWildcard(std::string_view text);

Parts SplitAtSlash(std::string_view text);
std::string Join(const Parts& parts);

// Cuts a typed object path; empty for the top. Throws UsageError for "." and "..".
Parts ParsePath(std::string_view typed);
bool StartsWith(const Parts& parts, const Parts& head);
Parts Append(Parts head, const Parts& tail);

// For a terminal: what it might obey, or what breaks a line or turns its direction, becomes "?".
std::string Printable(std::string_view text);
// For scripts that read names as they are: only what breaks a line becomes "?".
std::string OneLine(std::string text);

// A name as the connector takes it.
struct StoredName {
    std::string path;  // "/a/b", empty at the top
    std::string name;
};
// Throws Failure where the stored form is too long. The components are plain, there is at least one.
StoredName ToStored(const Parts& parts);
// The same of parts that are stored bytes already.
StoredName ToStoredRaw(Parts parts);

// What a typed path selects. The server is asked for a superset (each special byte stands for any run); Matches, on
// the plain names, decides.
class NamePattern {
public:
    NamePattern(Parts plainParts, bool wildcards);

    bool IsRoot() const { return parts_.empty(); }
    bool IsWild() const;
    size_t Depth() const { return parts_.size(); }
    const Parts& Plain() const { return parts_; }
    // Do the first Depth() parts match?
    bool Matches(const Parts& plain) const;
    // The server's pattern for the first count parts, as a path.
    std::string ServerPath(size_t count) const;
    std::string ServerName() const;

private:
    Parts parts_;
    bool wildcards_;
};

}  // namespace tsmctl
