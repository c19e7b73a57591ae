// The lists of names that a session hands out: arrays of texts with a count.
#ifndef SESSION_NAMELIST_H
#define SESSION_NAMELIST_H

#include <cstddef>
#include <string>
#include <vector>

// A copy of length characters, NUL-terminated, in an array of exactly the room that it needs.
char* CopyText(const char* text, std::size_t length);

// A new array with a copy of every name; null for no names. Owned by the caller, freed with ReleaseNames.
char** CopyNames(const std::vector<std::string>& names);

// Frees a list, if there is one, and leaves an empty one.
void ReleaseNames(char**& list, int& count);

#endif
