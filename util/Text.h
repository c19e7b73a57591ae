// The tests of path texts, without copies.
#ifndef UTIL_TEXT_H
#define UTIL_TEXT_H

#include <cstring>
#include <string_view>

// True for an empty prefix, whatever the text.
inline bool StartsWith(std::string_view text, std::string_view prefix) {
    return text.substr(0, prefix.size()) == prefix;
}

// False for an empty suffix. Compares no further than the first NUL.
inline bool EndsWith(std::string_view text, std::string_view suffix) {
    if (suffix.empty() || suffix.size() > text.size()) return false;
    return std::strncmp(text.data() + (text.size() - suffix.size()), suffix.data(), suffix.size()) == 0;
}

#endif
