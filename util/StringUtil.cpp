#include "util/StringUtil.h"

#include <cstring>
#include <sstream>

StringUtil::StringUtil() {}
StringUtil::~StringUtil() {}

bool StringUtil::StringStartsWith(std::string text, std::string prefix) {
    return text.compare(0, prefix.size(), prefix) == 0;
}

bool StringUtil::StringEndsWith(std::string text, std::string suffix) {
    if (text.empty() || suffix.empty() || suffix.size() > text.size()) return false;
    return std::strncmp(text.c_str() + (text.size() - suffix.size()), suffix.c_str(), suffix.size()) == 0;
}

std::vector<std::string>& StringUtil::Split(const std::string& text, char delimiter, std::vector<std::string>& fields) {
    std::stringstream stream(text);
    std::string field;
    while (std::getline(stream, field, delimiter)) fields.push_back(field);
    return fields;
}

std::vector<std::string> StringUtil::Split(const std::string& text, char delimiter) {
    std::vector<std::string> fields;
    Split(text, delimiter, fields);
    return fields;
}
