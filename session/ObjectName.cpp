#include "session/ObjectName.h"

#include <cstring>

#include "util/Text.h"

namespace {

// The slash that is read as the delimiter; NUL when the delimiter is no slash.
char OtherSlash(std::string_view delimiter) {
    if (delimiter.size() != 1) return '\0';
    return delimiter[0] == '/' ? '\\' : delimiter[0] == '\\' ? '/' : '\0';
}

// Writes another text over the one in a field, and zeros over what was longer.
void Refill(char* field, const NamePart& part) {
    part.Write(field);
    for (char* rest = field + part.Size(); *rest != '\0'; ++rest) *rest = '\0';
}

}  // namespace

void NamePart::Write(char* out) const {
    out += front.copy(out, front.size());
    text.copy(out, text.size());
    if (other == '\0') return;
    for (char* const end = out + text.size(); out < end; *out++ = delimiter) {
        out = static_cast<char*>(std::memchr(out, other, static_cast<std::size_t>(end - out)));
        if (out == nullptr) return;
    }
}

std::string NamePart::Text() const {
    std::string name(Size(), '\0');
    Write(name.data());
    return name;
}

NamePart Rewritten(NamePart part, std::string_view delimiter) {
    part.other = OtherSlash(delimiter);
    part.delimiter = delimiter[0];
    return part;
}

NamePart Rooted(std::string_view text, std::string_view delimiter) {
    const char other = OtherSlash(delimiter);
    const auto isOther = [&](std::size_t at) { return other != '\0' && text[at] == other; };
    if (EndsWith(text, delimiter) || (!text.empty() && isOther(text.size() - 1))) text.remove_suffix(1);
    const bool starts = StartsWith(text, delimiter) || (!text.empty() && isOther(0));
    return Rewritten({starts ? std::string_view() : delimiter, text}, delimiter);
}

NamePart Under(std::string_view text, std::string_view delimiter) {
    return {delimiter, text};
}

NamePart HighLevelName(std::string_view path, std::string_view delimiter) {
    const NamePart name = Rooted(path, delimiter);
    return name.Size() == delimiter.size() ? NamePart("") : name;
}

NamePart HighLevelPattern(std::string_view path, std::string_view delimiter) {
    return path == "*" ? NamePart(path) : HighLevelName(path, delimiter);
}

NamePart LowLevelPattern(const char* name, std::string_view delimiter) {
    if (name != nullptr) return Rooted(name, delimiter);
    return delimiter == "\\" ? "\\*" : "/*";
}

bool Fits(const NamePart& hl, const NamePart& ll) {
    return hl.Size() <= DSM_MAX_HL_LENGTH && ll.Size() <= DSM_MAX_LL_LENGTH;
}

int CheckObjectName(const char* fs, const NamePart& hl, const NamePart& ll) {
    if (fs == nullptr) return -DSM_RC_FS_NOT_REGISTERED;
    return std::strlen(fs) <= DSM_MAX_FSNAME_LENGTH && Fits(hl, ll) ? 0 : -DSM_RC_STRING_TOO_LONG;
}

int FillObjectName(dsmObjName& name, const char* fs, const NamePart& hl, const NamePart& ll, dsUint8_t objType) {
    if (const int refused = CheckObjectName(fs, hl, ll)) return refused;
    std::memset(&name, 0, sizeof name);
    std::strcpy(name.fs, fs);
    hl.Write(name.hl);
    ll.Write(name.ll);
    name.objType = objType;
    return 0;
}

int RefillObjectName(dsmObjName& name, const NamePart& hl, const NamePart& ll) {
    if (!Fits(hl, ll)) return -DSM_RC_STRING_TOO_LONG;
    Refill(name.hl, hl);
    Refill(name.ll, ll);
    return 0;
}
