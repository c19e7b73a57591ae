// The fuzzer's bytes, read as choices. After their end every choice is 0, which is always the ordinary case.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace fuzz {

// A broken property ends the program, which the fuzzer reports with its input.
#define REQUIRE(condition)                                                                      \
    do {                                                                                        \
        if (!(condition)) {                                                                     \
            std::fprintf(stderr, "%s:%d: does not hold: %s\n", __FILE__, __LINE__, #condition); \
            std::abort();                                                                       \
        }                                                                                       \
    } while (false)

class Input {
public:
    Input(const std::uint8_t* bytes, std::size_t size) : next_(bytes), end_(bytes + size) {}

    bool Empty() const { return next_ == end_; }
    std::uint8_t Byte() { return next_ < end_ ? *next_++ : std::uint8_t{0}; }
    std::uint16_t Word() {
        const unsigned high = Byte();
        return static_cast<std::uint16_t>(high << 8 | Byte());
    }
    std::size_t Below(std::size_t limit) { return Byte() % limit; }
    template <class Value, std::size_t Size>
    const Value& OneOf(const Value (&values)[Size]) {
        return values[Below(Size)];
    }
    // Up to limit of the next bytes.
    std::string Bytes(std::size_t limit) {
        const std::size_t size = std::min({std::size_t{Byte()}, limit, static_cast<std::size_t>(end_ - next_)});
        const std::string bytes(reinterpret_cast<const char*>(next_), size);
        next_ += size;
        return bytes;
    }
    // A text of that length, which repeats some bytes.
    std::string Repeated(std::size_t length) {
        std::string text = Bytes(std::min<std::size_t>(64, length));
        if (text.empty()) text = "x";
        while (text.size() < length) text.append(text, 0, length - text.size());
        text.resize(length);
        return text;
    }

private:
    const std::uint8_t* next_;
    const std::uint8_t* const end_;
};

// Texts as a host passes them: each in a block of its own of exactly its size, until the input is done.
class Texts {
public:
    char* Keep(const std::string& text) {
        const std::size_t size = strnlen(text.data(), text.size()) + 1;
        kept_.emplace_back(new char[size]);
        std::memcpy(kept_.back().get(), text.c_str(), size);
        return kept_.back().get();
    }
    // Any text, or null.
    char* Any(Input& input) {
        static constexpr const char* usual[] = {"a", "a/b", "*", "/", "", "x?", "a\\b/c", "//", "2021-3-7 9:5:0", "\\"};
        static constexpr std::uint16_t lengths[] = {254,  255,  256,  257,  1023, 1024,  1025,
                                                    1026, 1278, 1279, 1280, 999,  65534, 65535};
        switch (const std::uint8_t kind = input.Byte(); kind % 8) {
            case 0:
            case 1:
                return Keep(usual[kind / 8 % std::size(usual)]);
            case 2:
                return nullptr;
            case 3:
                return Keep(input.Repeated(input.OneOf(lengths)));
            case 4:
                return Keep(usual[kind / 8 % std::size(usual)] + input.Bytes(8));
            default:
                return Keep(input.Bytes(64));
        }
    }

private:
    std::vector<std::unique_ptr<char[]>> kept_;
};

}  // namespace fuzz
