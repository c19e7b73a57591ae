// How the paths and names of a host become names on the server. Each operation has rules of its own:
//
//   operation                   path becomes        name becomes
//   backup, restore             HighLevelName       NameAsGiven
//   listing, deletion           HighLevelPattern    LowLevelPattern
//   rename                      HighLevelName       NormalName
//     its look-ups              HighLevelPattern    LowLevelPattern
//   filespace: connect                              WithSlashesRewritten of NameAsGiven
//   filespace: delete                               NameAsGiven
//   filespace: access           backslash           "*"
//
// With the delimiter "/":     'a\b/'    'a//'    '/'    ''     '*'
//   NameAsGiven               '/a\b/'   '/a//'   '//'   '/'    '/*'
//   NormalName                '/a/b'    '/a/'    '/'    '/'    '/*'
//   HighLevelName             '/a/b'    '/a/'    ''     ''     '/*'
//   HighLevelPattern          '/a/b'    '/a/'    ''     ''     '*'
//   LowLevelPattern           '/a/b'    '/a/'    '/'    '/'    '/*'    and '/*' for null
#pragma once

#include <string>
#include <string_view>

#include "util/DsmApi.h"

namespace connector {

// When the delimiter is exactly one kind of slash, the other kind becomes the delimiter.
std::string WithSlashesRewritten(std::string text, std::string_view delimiter);

// The delimiter in front, whatever the name begins with.
std::string NameAsGiven(std::string_view name, std::string_view delimiter);

// Slashes rewritten, one delimiter dropped at the end, one put in front where it is missing.
std::string NormalName(std::string_view text, std::string_view delimiter);

// The normal name, but empty at the top of the filespace.
std::string HighLevelName(std::string_view path, std::string_view delimiter);

// The same, but "*" stays: it means every high-level name.
std::string HighLevelPattern(std::string_view path, std::string_view delimiter);

// The normal name, or for null the pattern for every name.
std::string LowLevelPattern(const char* name, std::string_view delimiter);

// True when both fit the fields of an object name.
bool Fits(std::string_view hl, std::string_view ll);

// Returns 0, -2061 without a filespace or -2120 when a text does not fit.
int CheckObjectName(const char* fs, std::string_view hl, std::string_view ll);

// The same, and fills name when it fits.
int FillObjectName(dsmObjName& name, const char* fs, std::string_view hl, std::string_view ll, dsUint8_t objType);

// Gives a filled name another high-level and low-level name, and costs less than filling it anew. Returns 0, or -2120
// when they do not fit.
int RefillObjectName(dsmObjName& name, std::string_view hl, std::string_view ll);

}  // namespace connector
