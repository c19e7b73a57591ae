// What makes a folder a store, and how it becomes one. The machine may stop after any step; the next opening goes on
// from there.
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
// None if there is no mark. Throws when the mark cannot be understood or is of a newer format.
std::optional<Mark> ReadMark(const Folder& root);
void WriteMark(const Folder& root, const Mark& mark);

// Opens the folder of a store. Makes it, and all above it, if it is missing.
Folder StoreFolder(const std::string& path);
bool IsReadOnly(const Folder& root);

// Makes the store, goes on making it, or takes one of schema 1 over, as needed; returns its identity. Refuses what
// is no store, or not a whole one, before anything is changed. The caller holds the folder's lock.
std::string OpenOrMake(const Folder& root, bool readOnly);

// Makes the catalogue as a new file with empty tables.
void MakeCatalogue(const std::string& path, const std::string& identity);
// Moves a catalogue, with the files that SQLite keeps beside it, to lost+found/.
void PutAsideCatalogue(const Folder& root, const std::string& name);
// Throws when a closed catalogue still has a log. SQLite does not report a failure to write at closing; renamed without
// that log, the catalogue would lose what was committed.
void NeedNoLog(const Folder& root, const std::string& name);
// Throws when the catalogue is not the one that belongs to the mark.
void NeedIdentity(Database& database, const std::string& identity);

// Copies the catalogue of schema 1 into a new one, and keeps it as catalogue-schema1.db.
void TakeOver(const Folder& root, const Mark& mark);

std::optional<Folder> LostAndFound(const Folder& root);  // none when it is another user's

bool IsFull(const std::system_error& problem);
void MakeReserve(const Folder& root) noexcept;  // if there is plenty of room
bool GiveUpReserve(const Folder& root);         // false: there was none

// Does the work; gives up the reserve and tries again when the disk is full.
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
