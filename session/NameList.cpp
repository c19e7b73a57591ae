#include "session/NameList.h"

#include <memory>
#include <new>

#include "util/Text.h"

namespace connector {

void HoldNames(const HeldNames& held, const std::vector<std::string>& names) {
    if (names.empty()) return;
    std::vector<std::unique_ptr<char[]>> copies;
    copies.reserve(names.size());
    for (const std::string& name : names) {
        copies.emplace_back(NewCopy(name.c_str()));
        if (!copies.back()) throw std::bad_alloc();
    }
    held.list = new char*[names.size()];
    for (std::size_t i = 0; i < copies.size(); ++i) held.list[i] = copies[i].release();
    held.count = static_cast<int>(names.size());
}

void ReleaseNames(const HeldNames& held) {
    if (!held.list) return;
    for (int i = 0; i < held.count; ++i) delete[] held.list[i];
    delete[] held.list;
    held.list = nullptr;
    held.count = 0;
}

}  // namespace connector
