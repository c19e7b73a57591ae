#include "session/NameList.h"

#include <cstring>
#include <memory>

char* CopyText(const char* text, std::size_t length) {
    char* copy = new char[length + 1]();
    std::memcpy(copy, text, length);
    return copy;
}

char** CopyNames(const std::vector<std::string>& names) {
    if (names.empty()) return nullptr;
    std::vector<std::unique_ptr<char[]>> copies;
    copies.reserve(names.size());
    for (const std::string& name : names) copies.emplace_back(CopyText(name.data(), name.size()));
    char** list = new char*[names.size()];
    for (std::size_t i = 0; i < copies.size(); ++i) list[i] = copies[i].release();
    return list;
}

void ReleaseNames(char**& list, int& count) {
    if (list == nullptr) return;
    for (int i = 0; i < count; ++i) delete[] list[i];
    delete[] list;
    list = nullptr;
    count = 0;
}
