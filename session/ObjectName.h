// The rules by which paths and names become the API's object names. Each operation combines them its own way.
#ifndef SESSION_OBJECTNAME_H
#define SESSION_OBJECTNAME_H

#include <string>

#include "util/DsmApi.h"

// When the delimiter is exactly one kind of slash, the other kind is turned into it.
std::string RewriteSeparators(std::string text, const char* delimiter);

// Separators rewritten, one delimiter dropped at the end, one put in front where it is missing.
std::string Rooted(const char* text, const char* delimiter);

// The top of the filespace has an empty high-level name: the delimiter alone becomes the empty text.
std::string EmptyRoot(std::string name, const char* delimiter);

// The high-level name of a path.
inline std::string HighLevelName(const char* path, const char* delimiter) {
    return EmptyRoot(Rooted(path, delimiter), delimiter);
}

// The same where "*" stands for every high-level name.
std::string HighLevelPattern(const char* path, const char* delimiter);

// The low-level name of a name, which may be a pattern; null stands for every name.
std::string LowLevelPattern(const char* name, const char* delimiter);

// True when the texts fit the fields of an object name.
bool Fits(const std::string& hl, const std::string& ll);

// Fills name. Returns 0, -2061 without a filespace or -2120 when a text does not fit; name is then undefined.
int FillObjectName(dsmObjName& name, const char* fs, const std::string& hl, const std::string& ll, dsUint8_t objType);

#endif
