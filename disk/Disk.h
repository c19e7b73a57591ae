// A disk that fails, kills or forgets. Disk.cpp defines open, write, fsync and so on; all libraries of the program that
// it is linked into use them. Calls on files below one folder are counted and recorded, in memory that forked children
// share.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace disk {

constexpr int kill = -1;    // as an error: the process dies
constexpr int killed = 99;  // its exit status then

// What a call can fail with: all but reading needs room, or makes an entry that needs some.
enum Kind : unsigned { Reading = 1, Changing = 2, Growing = 4 };

struct Event {
    char what;  // c create, m mkdir, w write, t truncate, s flush, r rename, l link, u unlink, ! a fault, others: notes
    std::uint64_t inode = 0;
    std::int64_t at = 0;  // offset, new size, or what a note tells
    std::string path, bytes;
    std::string& To() { return bytes; }
};

// To be called before any fork. The folder's path has no links in it.
void Watch(const std::string& folder);
// Forgets events and counts.
void Reset();
// Lets the nth call (from 1) of these kinds fail; a write leaves half of its bytes. 0: none.
void FailNth(long nth, unsigned kinds, int error);
long Calls(unsigned kinds);
void Note(char what, std::int64_t number);
std::vector<Event> Events();
// A text from a child to its parent.
void Tell(const std::string& text);
std::string Told();

// While one lives, this thread's calls are not counted, not recorded, and do not fail.
struct Unwatched {
    Unwatched();
    ~Unwatched();
};

}  // namespace disk
