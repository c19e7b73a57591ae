// What makes a folder a store, and how it becomes one. Every step can be the last one before the machine stops: the
// next opening goes on from there.
#pragma once

#include <optional>
#include <string>
#include <system_error>

#include "Database.h"
#include "Files.h"

namespace standin {

struct Mark {
    std::string identity;  // 32 hexadecimal digits, in the catalogue too
    bool ready = false;    // otherwise the store is still being made, and nothing was ever stored in it
};
// None where there is no mark. Throws when it is not understood, or that of a newer format.
std::optional<Mark> ReadMark(const Folder& root);
void WriteMark(const Folder& root, const Mark& mark);

// The folder of a store, made with all above it if it is missing.
Folder StoreFolder(const std::string& path);
bool IsReadOnly(const Folder& root);

// Makes the store, goes on making it, or takes one of schema 1 over, as needed; returns its identity. Refuses what
// is no store, or not a whole one, before anything is changed. The caller holds the folder's lock.
std::string Prepare(const Folder& root, bool readOnly);

// Its catalogue as a new file, with its tables and nothing in them.
void MakeCatalogue(const std::string& path, const std::string& identity);
// Moves one, with the files that SQLite keeps beside it, to lost+found/.
void PutAsideCatalogue(const Folder& root, const std::string& name);
// Throws when a catalogue that was closed still has a log, as after a failure to write that closing does not tell of:
// renamed without it, the catalogue would have lost what was committed.
void NeedNoLog(const Folder& root, const std::string& name);
// Throws when the catalogue is not the one that belongs to the mark.
void NeedIdentity(Database& database, const std::string& identity);

// Puts the catalogue of schema 1 that is there as catalogue-schema1.db beside a new one with all that it holds.
void TakeOver(const Folder& root, const Mark& mark);

std::optional<Folder> LostAndFound(const Folder& root);  // none when it is another user's

bool IsFull(const std::system_error& problem);
void MakeReserve(const Folder& root) noexcept;  // if there is plenty of room
bool GiveUpReserve(const Folder& root);         // false: there was none

// The reserve is given up when the work finds the disk full.
template <class Work>
auto UsingReserve(const Folder& root, Work work) {
    try {
        return work();
    } catch (const std::system_error& problem) {
        if (!IsFull(problem) || !GiveUpReserve(root)) throw;
    }
    return work();
}

}  // namespace standin
