// Descriptors: complete reads and writes, and directories that are opened without following links.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "ObjectNames.h"

namespace tsmctl {

// How much is read, sent or received at once.
constexpr size_t pieceSize = 1 << 20;
using Buffer = std::vector<unsigned char>;

class UniqueFd {
public:
    explicit UniqueFd(int fd = -1) : fd_(fd) {}
    UniqueFd(UniqueFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        std::swap(fd_, other.fd_);
        return *this;
    }
    ~UniqueFd();
    int Get() const { return fd_; }
    int Release() { return std::exchange(fd_, -1); }

private:
    int fd_;
};

// Reads until length bytes are there or the input ends. Both throw Failure, and Interrupted at a signal.
size_t ReadFull(int fd, void* memory, size_t length);
void WriteAll(int fd, const void* memory, size_t length);
// Reads to the end, or so many bytes, piece by piece: take gets the length of each, in the buffer. Returns how many
// bytes there were.
long long ReadPieces(int fd, Buffer& buffer, long long limit, const std::function<void(size_t)>& take);
// Reads up to the end or a line break, which is left out. Fails for a line of more than 4096 bytes.
std::string ReadLine(int fd);

// Occupies the numbers of standard streams that are closed, so that no file gets them. Using such a stream still fails.
void ReserveStandardStreams();

// Opens a directory below another, part by part, and creates what is missing if asked to. No link on the way is
// followed, so that nothing leads out of the upper directory. Throws Failure.
UniqueFd OpenBelow(int top, const Parts& parts, bool create);

}  // namespace tsmctl
