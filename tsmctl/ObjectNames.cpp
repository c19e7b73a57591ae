#include "ObjectNames.h"

#include <fmt/format.h>
#include <fnmatch.h>

#include <algorithm>
#include <cstdio>

#include "Errors.h"

namespace tsmctl {
namespace {

constexpr std::string_view specialBytes = "%\\*?";
constexpr size_t maxName = 255;

// * matches any run of characters and ? matches one byte.
bool WildcardMatch(std::string_view pattern, const std::string& text) {
    std::string whole;
    for (const char c : pattern) whole += c == '[' ? "[[]" : std::string(1, c);
    return fnmatch(whole.c_str(), text.c_str(), FNM_NOESCAPE) == 0;
}

std::string ServerPattern(std::string part) {
    const auto special = [](char c) { return specialBytes.find(c) != std::string_view::npos; };
    std::replace_if(part.begin(), part.end(), special, '*');
    const auto run = [](char a, char b) { return a == '*' && b == '*'; };
    part.erase(std::unique(part.begin(), part.end(), run), part.end());
    return part;
}

template <typename Test>
std::string Encoded(std::string_view bytes, const Test& isSpecial) {
    std::string text;
    for (const char c : bytes) {
        if (isSpecial(c)) {
            text += fmt::format("%{:02X}", static_cast<unsigned char>(c));
        } else {
            text += c;
        }
    }
    return text;
}

// means says whether the three characters that look like a code are one, of this byte.
template <typename Test>
std::string Decoded(std::string_view text, const Test& means) {
    std::string bytes;
    for (size_t i = 0; i < text.size(); ++i) {
        unsigned code = 0;
        const bool encoded = text[i] == '%' &&
                             std::sscanf(std::string(text.substr(i, 3)).c_str(), "%%%2x", &code) == 1 &&
                             means(text.substr(i, 3), static_cast<char>(code));
        bytes += encoded ? static_cast<char>(code) : text[i];
        i += encoded ? 2 : 0;
    }
    return bytes;
}

// Controls (C0, DEL, C1), separators of lines and paragraphs, marks of direction.
bool IsControl(char32_t code) {
    return code < 0x20 || (code >= 0x7f && code < 0xa0) || code == 0x61c || code == 0x200e || code == 0x200f ||
           (code >= 0x2028 && code <= 0x202e) || (code >= 0x2066 && code <= 0x2069);
}

}  // namespace

std::string Escape(std::string_view plain) {
    return Encoded(plain, [](char c) { return specialBytes.find(c) != std::string_view::npos; });
}

std::string Unescape(std::string_view stored) {
    return Decoded(stored, [](std::string_view code, char c) { return Escape({&c, 1}) == code; });
}

std::string PercentEncoded(std::string_view bytes) {
    return Encoded(bytes, [](char c) { return c <= 0x20 || c >= 0x7f || c == '%'; });
}

std::string PercentDecoded(std::string_view text) {
    return Decoded(text, [](std::string_view, char) { return true; });
}

bool HasWildcard(std::string_view text) {
    return text.find_first_of("*?") != std::string_view::npos;
}

Parts SplitAtSlash(std::string_view text) {
    Parts parts;
    size_t start = 0;
    for (size_t end = 0; end != std::string_view::npos; start = end + 1) {
        end = text.find('/', start);
        parts.emplace_back(text.substr(start, end == std::string_view::npos ? end : end - start));
    }
    return parts;
}

std::string Join(const Parts& parts) {
    return fmt::format("{}", fmt::join(parts, "/"));
}

Parts ParsePath(std::string_view typed) {
    Parts parts = SplitAtSlash(typed);
    parts.erase(std::remove(parts.begin(), parts.end(), ""), parts.end());
    for (const std::string& part : parts) {
        if (part == "." || part == "..") {
            throw UsageError(fmt::format("{}: an object path cannot hold \".\" or \"..\"", typed));
        }
    }
    return parts;
}

bool StartsWith(const Parts& parts, const Parts& head) {
    return parts.size() >= head.size() && std::equal(head.begin(), head.end(), parts.begin());
}

Parts Append(Parts head, const Parts& tail) {
    head.insert(head.end(), tail.begin(), tail.end());
    return head;
}

std::vector<Parts> DirectoriesAbove(const Parts& parts) {
    std::vector<Parts> above;
    for (auto end = parts.begin(); end + 1 < parts.end();) above.emplace_back(parts.begin(), ++end);
    return above;
}

std::string Printable(std::string_view text) {
    std::string shown;
    for (size_t at = 0, length = 1; at < text.size(); at += length) {
        const auto byte = [&](size_t i) {
            return at + i < text.size() ? static_cast<unsigned char>(text[at + i]) : 0U;
        };
        const unsigned first = byte(0);
        length = first < 0xc2 ? 1 : first < 0xe0 ? 2 : first < 0xf0 ? 3 : first < 0xf5 ? 4 : 1;
        char32_t code = first & (0x7fU >> length);
        for (size_t i = 1; i < length; ++i) {
            if ((byte(i) & 0xc0U) != 0x80) length = 1;
            code = code << 6U | (byte(i) & 0x3fU);
        }
        constexpr char32_t least[] = {0, 0, 0x80, 0x800, 0x10000};
        if (code < least[length]) length = 1;
        // A byte that begins no character of UTF-8 counts as the character of its number.
        if (IsControl(length == 1 ? first : code)) {
            shown += '?';
        } else {
            shown += text.substr(at, length);
        }
    }
    return shown;
}

std::string OneLine(std::string text) {
    std::replace_if(
        text.begin(), text.end(), [](char c) { return c == '\n' || c == '\r'; }, '?');
    return text;
}

std::string StoredPathOf(const Parts& parts) {
    std::string path;
    for (const std::string& part : parts) path += "/" + Escape(part);
    return path;
}

StoredName ToStored(const Parts& parts) {
    Parts stored;
    for (const std::string& part : parts) stored.push_back(Escape(part));
    return ToStoredRaw(std::move(stored));
}

StoredName ToStoredRaw(Parts parts) {
    for (const std::string& part : parts) {
        if (part.size() > maxName) {
            throw Failure(fmt::format("name too long: {} bytes when stored, {} fit", part.size(), maxName));
        }
    }
    StoredName stored;
    stored.name = std::move(parts.back());
    parts.pop_back();
    for (const std::string& part : parts) stored.path += "/" + part;
    if (stored.path.size() > maxPath) {
        throw Failure(fmt::format("path too long: {} bytes when stored, {} fit", stored.path.size(), maxPath));
    }
    return stored;
}

NamePattern::NamePattern(Parts parts, bool wildcards) : parts_(std::move(parts)), wildcards_(wildcards) {}

bool NamePattern::IsWild() const {
    return wildcards_ && std::any_of(parts_.begin(), parts_.end(), [](const auto& part) { return HasWildcard(part); });
}

size_t NamePattern::Above() const {
    size_t count = 0;
    while (count + 1 < parts_.size() && !(wildcards_ && HasWildcard(parts_[count]))) ++count;
    return count;
}

bool NamePattern::Matches(const Parts& plain) const {
    const auto both = static_cast<std::ptrdiff_t>(std::min(parts_.size(), plain.size()));
    return std::equal(parts_.begin(), parts_.begin() + both, plain.begin(),
                      [this](const auto& pattern, const auto& part) {
                          return wildcards_ ? WildcardMatch(pattern, part) : pattern == part;
                      });
}

std::string NamePattern::ServerPath(size_t count) const {
    std::string path;
    for (size_t i = 0; i < count; ++i) path += "/" + ServerPattern(parts_[i]);
    return path;
}

std::string NamePattern::ServerName(size_t part) const {
    return ServerPattern(parts_[part]);
}

bool Exclusions::LeaveOut(const Parts& path, bool directory) const {
    return std::any_of(patterns.begin(), patterns.end(), [&](const std::string& pattern) {
        Parts parts = SplitAtSlash(pattern);
        const bool whole = parts.size() > 1 && parts.front().empty();
        const bool onlyDirectories = parts.size() > 1 && parts.back().empty();
        parts.erase(std::remove(parts.begin(), parts.end(), ""), parts.end());
        if (parts.empty() || parts.size() > path.size() || (onlyDirectories && !directory)) return false;
        if (whole && parts.size() != path.size()) return false;
        const Parts end(path.end() - static_cast<std::ptrdiff_t>(parts.size()), path.end());
        return NamePattern(parts, true).Matches(end);
    });
}

}  // namespace tsmctl
