// Texts: tests of paths, and copies onto the heap and into fields.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <new>
#include <string_view>

namespace connector {

// True for an empty prefix, whatever the text.
inline bool StartsWith(std::string_view text, std::string_view prefix) {
    return text.substr(0, prefix.size()) == prefix;
}

// False for an empty suffix. Compares no further than the first NUL.
inline bool EndsWith(std::string_view text, std::string_view suffix) {
    if (suffix.empty() || suffix.size() > text.size()) return false;
    return std::strncmp(text.data() + (text.size() - suffix.size()), suffix.data(), suffix.size()) == 0;
}

// A copy that the caller frees with delete[], in exactly the room that it needs. Null for a null text, and where there
// is no memory.
inline char* NewCopy(const char* text) noexcept {
    if (!text) return nullptr;
    const std::size_t size = std::strlen(text) + 1;
    char* const copy = new (std::nothrow) char[size];
    if (copy) std::memcpy(copy, text, size);
    return copy;
}

// Copies a whole text into a zeroed field; a null text leaves it empty. False, and nothing copied, when the text and
// its terminator do not fit.
template <std::size_t FieldSize>
bool CopyIfItFits(char (&field)[FieldSize], const char* text) {
    if (!text) return true;
    const std::size_t length = strnlen(text, FieldSize);
    if (length == FieldSize) return false;
    std::memcpy(field, text, length);
    return true;
}

// Copies as much of a server's text into a zeroed field as leaves room for the terminator, which the source itself may
// lack. The first skip characters are left out.
template <std::size_t FieldSize, std::size_t SourceSize>
void CopyCut(char (&field)[FieldSize], const char (&source)[SourceSize], std::size_t skip = 0) {
    const std::size_t length = strnlen(source, SourceSize);
    if (length > skip) std::memcpy(field, source + skip, std::min(length - skip, FieldSize - 1));
}

}  // namespace connector
