#include "session/ObjectName.h"

#include <algorithm>
#include <cstring>

#include "util/Text.h"

namespace connector {
namespace {

// Writes another text over the one in a field, and zeros over what was longer.
void Refill(char* field, std::string_view text) {
    text.copy(field, text.size());
    for (char* rest = field + text.size(); *rest != '\0'; ++rest) *rest = '\0';
}

}  // namespace

std::string WithSlashesRewritten(std::string text, std::string_view delimiter) {
    if (delimiter == "/") std::replace(text.begin(), text.end(), '\\', '/');
    if (delimiter == "\\") std::replace(text.begin(), text.end(), '/', '\\');
    return text;
}

std::string NameAsGiven(std::string_view name, std::string_view delimiter) {
    return std::string(delimiter).append(name);
}

std::string NormalName(std::string_view text, std::string_view delimiter) {
    std::string name = WithSlashesRewritten(std::string(text), delimiter);
    if (EndsWith(name, delimiter)) name.pop_back();
    if (!StartsWith(name, delimiter)) name.insert(0, delimiter);
    return name;
}

std::string HighLevelName(std::string_view path, std::string_view delimiter) {
    std::string name = NormalName(path, delimiter);
    if (name == delimiter) name.clear();
    return name;
}

std::string HighLevelPattern(std::string_view path, std::string_view delimiter) {
    return path == "*" ? std::string(path) : HighLevelName(path, delimiter);
}

std::string LowLevelPattern(const char* name, std::string_view delimiter) {
    if (name) return NormalName(name, delimiter);
    return delimiter == "\\" ? "\\*" : "/*";
}

bool Fits(std::string_view hl, std::string_view ll) {
    return hl.size() <= DSM_MAX_HL_LENGTH && ll.size() <= DSM_MAX_LL_LENGTH;
}

int CheckObjectName(const char* fs, std::string_view hl, std::string_view ll) {
    if (!fs) return -DSM_RC_FS_NOT_REGISTERED;
    return std::strlen(fs) <= DSM_MAX_FSNAME_LENGTH && Fits(hl, ll) ? 0 : -DSM_RC_STRING_TOO_LONG;
}

int FillObjectName(dsmObjName& name, const char* fs, std::string_view hl, std::string_view ll, dsUint8_t objType) {
    if (const int refused = CheckObjectName(fs, hl, ll)) return refused;
    std::memset(&name, 0, sizeof name);
    std::strcpy(name.fs, fs);
    hl.copy(name.hl, hl.size());
    ll.copy(name.ll, ll.size());
    name.objType = objType;
    return 0;
}

int RefillObjectName(dsmObjName& name, std::string_view hl, std::string_view ll) {
    if (!Fits(hl, ll)) return -DSM_RC_STRING_TOO_LONG;
    Refill(name.hl, hl);
    Refill(name.ll, ll);
    return 0;
}

}  // namespace connector
