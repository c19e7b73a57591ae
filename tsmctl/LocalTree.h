// The local side: descriptors, complete reads and writes, and walking the trees that are backed up or verified.
#pragma once

#include <sys/types.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "ObjectInfo.h"
#include "ObjectNames.h"

namespace tsmctl {

constexpr size_t pieceSize = 1 << 20;
using Buffer = std::vector<unsigned char>;

class UniqueFd {
public:
    explicit UniqueFd(int number = -1) : fd_(number) {}
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

// Reads until length bytes are there or the input ends; gives up at a signal.
size_t ReadFull(int fd, void* memory, size_t length);
void WriteAll(int fd, const void* memory, size_t length);
// Up to a line break, which is left out, or the end.
std::string ReadLine(int fd);

// Takes the numbers of standard streams that are closed, so that no file gets them: using such a stream fails.
void ReserveStandardStreams();

// Opens a directory below another, part by part. No link on the way is followed, so that nothing leads out of there.
// What is missing is created, if asked for.
UniqueFd OpenBelow(int top, const Parts& parts, bool create);

struct LocalItem {
    std::string local;
    std::string object;  // plain object path, parts joined by "/"
    Info info;
    std::shared_ptr<const UniqueFd> top;  // the folder of the path that was typed, which links may have led to
    size_t below;                         // where in local the part below top begins
};
// For reading. Below the item's top no link is followed, whatever has changed since the scan.
UniqueFd OpenItem(const LocalItem& item);
std::string ReadLink(const LocalItem& item);

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
// path goes to unreadable; so is a landing that is a special file.
void Scan(const Landing& landing, Report& report, std::vector<LocalItem>& items, std::vector<std::string>& unreadable);

}  // namespace tsmctl
