// The local side: descriptors, complete reads and writes, and walking the trees that are backed up or verified.
#pragma once

#include <sys/types.h>

#include <string>
#include <utility>
#include <vector>

#include "info.h"
#include "names.h"

constexpr size_t pieceSize = 1 << 20;
using Buffer = std::vector<unsigned char>;

class UniqueFd {
public:
    explicit UniqueFd(int number = -1) : fd(number) {}
    UniqueFd(UniqueFd&& other) noexcept : fd(std::exchange(other.fd, -1)) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        std::swap(fd, other.fd);
        return *this;
    }
    ~UniqueFd();
    int Get() const { return fd; }

private:
    int fd;
};

// Reads until length bytes are there or the input ends; gives up at a signal.
size_t ReadFull(int fd, void* memory, size_t length);
void WriteAll(int fd, const void* memory, size_t length);
std::string ReadLink(const std::string& path);

struct LocalItem {
    std::string local;
    std::string object;  // plain object path, parts joined by "/"
    Info info;
};

// A path of the command line and where it lands among the objects.
struct Landing {
    std::string local;
    Parts object;
    bool top;  // "/" itself: its entries land there, it has no name of its own
};
// Throws UsageError when two paths land on the same name.
std::vector<Landing> MapPaths(const std::vector<std::string>& paths, const std::string& to);

class Report;
// Appends the landing's tree, each directory before what it holds. What cannot be read is reported, and its object
// path goes to unreadable.
void Scan(const Landing& landing, Report& report, std::vector<LocalItem>& items, std::vector<std::string>& unreadable);
