#pragma once

#include <string>
#include <vector>

// Tests and splitting of path texts. Stateless; any thread may call any member at any time. The only class whose
// members can throw: std::bad_alloc, where there is no memory for a result.
class __attribute__((visibility("default"))) StringUtil {
public:
    StringUtil();
    ~StringUtil();

    // True for an empty prefix, whatever the text.
    static bool StringStartsWith(std::string text, std::string prefix);

    // False for an empty text and for an empty suffix. Compares up to the first NUL.
    static bool StringEndsWith(std::string text, std::string suffix);

    // Appends the fields of text to fields: a leading delimiter gives an empty first field, a trailing one no
    // last field, an empty text none at all.
    static std::vector<std::string>& Split(const std::string& text, char delimiter, std::vector<std::string>& fields);
    static std::vector<std::string> Split(const std::string& text, char delimiter);
};
