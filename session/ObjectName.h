// The rules by which paths and names become the API's object names. Each operation combines them its own way.
#ifndef SESSION_OBJECTNAME_H
#define SESSION_OBJECTNAME_H

#include <string>
#include <string_view>

#include "util/DsmApi.h"

// One part of an object's name, put together but not yet written anywhere. Refers to the texts that it was made of.
struct NamePart {
    NamePart(std::string_view ready) : text(ready) {}
    NamePart(const std::string& ready) : text(ready) {}
    NamePart(const char* ready) : text(ready) {}
    NamePart(std::string_view before, std::string_view behind) : front(before), text(behind) {}

    std::size_t Size() const { return front.size() + text.size(); }
    // Writes Size() characters and no terminator.
    void Write(char* out) const;
    std::string Text() const;

    std::string_view front;  // the delimiter, where it was missing
    std::string_view text;
    char other = '\0';  // the slash that becomes the delimiter; NUL: none does
    char delimiter = '\0';
};

// When the delimiter is exactly one kind of slash, the other kind is turned into it.
NamePart Rewritten(NamePart part, std::string_view delimiter);

// For texts in which that has been done already, and need not be looked for again.
inline NamePart AsWritten(NamePart part) {
    part.other = '\0';
    return part;
}

// Separators rewritten, one delimiter dropped at the end, one put in front where it is missing.
NamePart Rooted(std::string_view text, std::string_view delimiter);

// The delimiter in front, whatever the text.
NamePart Under(std::string_view text, std::string_view delimiter);

// The high-level name of a path: that of the top of the filespace is empty.
NamePart HighLevelName(std::string_view path, std::string_view delimiter);

// The same where "*" stands for every high-level name.
NamePart HighLevelPattern(std::string_view path, std::string_view delimiter);

// The low-level name of a name, which may be a pattern; null stands for every name.
NamePart LowLevelPattern(const char* name, std::string_view delimiter);

// True when both fit the fields of an object name.
bool Fits(const NamePart& hl, const NamePart& ll);

// Returns 0, -2061 without a filespace or -2120 when a text does not fit.
int CheckObjectName(const char* fs, const NamePart& hl, const NamePart& ll);

// The same, and fills name when it fits.
int FillObjectName(dsmObjName& name, const char* fs, const NamePart& hl, const NamePart& ll, dsUint8_t objType);

// Gives a filled name other parts; what else it holds stays. Returns 0, or -2120 when they do not fit.
int RefillObjectName(dsmObjName& name, const NamePart& hl, const NamePart& ll);

#endif
