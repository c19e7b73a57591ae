// Names of objects. Typed object paths and local file names are plain: bytes divided by "/". In stored names, % and the
// bytes that the connector gives a meaning to (\ * ?) are written as %XX. Other programs may have stored those bytes as
// they are; such names are shown unchanged.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace tsmctl {

using Parts = std::vector<std::string>;

std::string Escape(std::string_view plain);
std::string Unescape(std::string_view stored);
// Plain ASCII that keeps every byte apart, and back.
std::string PercentEncoded(std::string_view bytes);
std::string PercentDecoded(std::string_view text);
bool HasWildcard(std::string_view text);

Parts SplitAtSlash(std::string_view text);
std::string Join(const Parts& parts);

// Cuts a typed object path; empty for the top. Throws UsageError for "." and "..".
Parts ParsePath(std::string_view typed);
bool StartsWith(const Parts& parts, const Parts& head);
Parts Append(Parts head, const Parts& tail);
// The paths of the directories above, from the top down.
std::vector<Parts> DirectoriesAbove(const Parts& parts);

// For a terminal: characters that it obeys, or that break a line or turn its direction, become "?".
std::string Printable(std::string_view text);
// For scripts, which read names as they are: only line breaks become "?".
std::string OneLine(std::string text);

constexpr size_t maxPath = 1024;  // bytes of a stored path

// A name as the connector takes it.
struct StoredName {
    std::string path;  // "/a/b", empty at the top
    std::string name;
};
// The stored path of plain parts, which need not fit: "/a/b", or nothing for the top.
std::string StoredPathOf(const Parts& parts);
// The stored name of plain parts, of which there is at least one. Throws Failure where it is too long.
StoredName ToStored(const Parts& parts);
// The same for parts in their stored form.
StoredName ToStoredRaw(Parts parts);

// What a typed path selects. The server is asked for too much, with any run of characters in the place of a special
// byte; Matches then decides on the plain names.
class NamePattern {
public:
    // Takes plain names. Without wildcards, * and ? stand for themselves.
    NamePattern(Parts parts, bool wildcards);

    bool IsRoot() const { return parts_.empty(); }
    bool IsWild() const;
    size_t Depth() const { return parts_.size(); }
    const Parts& Plain() const { return parts_; }
    // Its parts before the last one and the first wildcard.
    size_t Above() const;
    // Whether its parts match, as far as both go.
    bool Matches(const Parts& plain) const;
    // The pattern for the server: the first count parts as a path, and a part as a name.
    std::string ServerPath(size_t count) const;
    std::string ServerName(size_t part) const;

private:
    Parts parts_;
    bool wildcards_;
};

// Patterns of paths that are left out.
struct Exclusions {
    std::vector<std::string> patterns;

    // Whether a pattern matches the path, whose parts begin with that of the tree. The last parts of the path have to
    // match; all of them, if the pattern begins with a slash; and a directory, if it ends in one.
    bool LeaveOut(const Parts& path, bool directory) const;
};

}  // namespace tsmctl
