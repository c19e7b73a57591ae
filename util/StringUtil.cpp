#include "util/StringUtil.h"

#include "util/Text.h"

StringUtil::StringUtil() {}
StringUtil::~StringUtil() {}

bool StringUtil::StringStartsWith(std::string text, std::string prefix) {
    return connector::StartsWith(text, prefix);
}

bool StringUtil::StringEndsWith(std::string text, std::string suffix) {
    return connector::EndsWith(text, suffix);
}

std::vector<std::string>& StringUtil::Split(const std::string& text, char delimiter, std::vector<std::string>& fields) {
    // Every delimiter ends a field; what follows the last one is a field unless it is empty.
    std::size_t begin = 0;
    for (std::size_t end; (end = text.find(delimiter, begin)) != text.npos; begin = end + 1) {
        fields.push_back(text.substr(begin, end - begin));
    }
    if (begin < text.size()) fields.push_back(text.substr(begin));
    return fields;
}

std::vector<std::string> StringUtil::Split(const std::string& text, char delimiter) {
    std::vector<std::string> fields;
    Split(text, delimiter, fields);
    return fields;
}
