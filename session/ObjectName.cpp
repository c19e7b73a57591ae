#include "session/ObjectName.h"

#include <algorithm>
#include <cstring>

#include "util/StringUtil.h"

std::string RewriteSeparators(std::string text, const char* delimiter) {
    if (std::strcmp(delimiter, "/") == 0) {
        std::replace(text.begin(), text.end(), '\\', '/');
    } else if (std::strcmp(delimiter, "\\") == 0) {
        std::replace(text.begin(), text.end(), '/', '\\');
    }
    return text;
}

std::string Rooted(const char* text, const char* delimiter) {
    std::string name = RewriteSeparators(text, delimiter);
    if (StringUtil::StringEndsWith(name, delimiter)) name.pop_back();
    if (!StringUtil::StringStartsWith(name, delimiter)) name.insert(0, delimiter);
    return name;
}

std::string EmptyRoot(std::string name, const char* delimiter) {
    if (name == delimiter) name.clear();
    return name;
}

std::string HighLevelPattern(const char* path, const char* delimiter) {
    return std::strcmp(path, "*") == 0 ? path : HighLevelName(path, delimiter);
}

std::string LowLevelPattern(const char* name, const char* delimiter) {
    if (name != nullptr) return Rooted(name, delimiter);
    return std::strcmp(delimiter, "\\") == 0 ? "\\*" : "/*";
}

bool Fits(const std::string& hl, const std::string& ll) {
    return hl.size() <= DSM_MAX_HL_LENGTH && ll.size() <= DSM_MAX_LL_LENGTH;
}

int FillObjectName(dsmObjName& name, const char* fs, const std::string& hl, const std::string& ll, dsUint8_t objType) {
    if (fs == nullptr) return -DSM_RC_FS_NOT_REGISTERED;
    const std::size_t fsLength = std::strlen(fs);
    if (fsLength > DSM_MAX_FSNAME_LENGTH || !Fits(hl, ll)) return -DSM_RC_STRING_TOO_LONG;
    name = dsmObjName{};
    std::memcpy(name.fs, fs, fsLength);
    std::memcpy(name.hl, hl.data(), hl.size());
    std::memcpy(name.ll, ll.data(), ll.size());
    name.objType = objType;
    return 0;
}
