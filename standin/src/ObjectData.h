// The bytes of objects. Those of a small object are kept in memory while they are sent and become a row of the
// catalogue; those of a larger one are a file: in incoming/ while they are being sent, in data/<id / 1000>/ once they
// belong to a version. A file's name there is made of the version's id and a random part, so that none is used twice.
// Failures are std::system_error, and std::runtime_error for data that are not what was stored.
#pragma once

#define XXH_STATIC_LINKING_ONLY  // the state as a member
#include <xxhash.h>
#ifdef __x86_64__
#include <xxh_x86dispatch.h>  // as fast as the processor can
#endif

#include <cstddef>
#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <string_view>

#include "Files.h"

namespace standin {

// Above this many bytes an object has a file of its own. Chosen by measuring: see docs/stand-in.md.
constexpr std::size_t largestRow = 32 * 1024;

constexpr std::size_t longestFileName = 40;

class Checksum {
public:
    Checksum() { XXH3_64bits_reset(&state_); }
    void Add(const char* bytes, std::size_t size) { XXH3_64bits_update(&state_, bytes, size); }
    std::int64_t Value() const { return static_cast<std::int64_t>(XXH3_64bits_digest(&state_)); }

private:
    XXH3_state_t state_;
};

// A version's data as the catalogue knows them.
struct StoredData {
    std::int64_t id = 0, bytes = 0, checksum = 0;
    std::string file;  // its name below data/; empty: a row of the catalogue, or nothing at all
};

class ObjectData;

// The data of an object that is being sent. If it has a file, that is locked as long as this lives: an unlocked one
// belongs to a writer that died. The destructor removes the file unless it was placed.
class IncomingData {
public:
    explicit IncomingData(const ObjectData& home) : home_(home) {}
    IncomingData(const IncomingData&) = delete;
    IncomingData& operator=(const IncomingData&) = delete;
    ~IncomingData();

    void Append(const char* bytes, std::size_t size);
    void Finish() const;  // flushes what is in a file
    bool InFile() const { return file_.Get() >= 0; }
    const std::string& Row() const { return row_; }
    std::int64_t Value() const { return checksum_.Value(); }

private:
    friend class ObjectData;
    void OpenFile();

    const ObjectData& home_;
    std::string row_, name_;
    FileDescriptor file_;
    Checksum checksum_;
};

// Reads a version's data from the begin to the end and compares them.
class DataReader {
public:
    DataReader() = default;
    DataReader(StoredData data, FileDescriptor file, std::string row)
        : data_(std::move(data)), file_(std::move(file)), row_(std::move(row)), left_(data_.bytes) {}

    std::int64_t Left() const { return left_; }
    // As many bytes as there are, up to size. Throws rather than hand the last ones out when any was wrong.
    std::size_t Read(char* buffer, std::size_t size);

private:
    StoredData data_;
    FileDescriptor file_;
    std::string row_;
    std::int64_t left_ = 0;
    Checksum checksum_;
};

class ObjectData {
public:
    explicit ObjectData(const Folder& store);

    // Moves the file of a new version to its place and returns its name, which lasts once Flush returned.
    // Both by one thread at a time.
    std::string Place(IncomingData& data, std::int64_t id);
    void Flush();
    // Removes a file, which may be gone already.
    void Remove(const std::string& file) const;
    void FlushRemovals(const std::set<std::string>& files) const;

    FileDescriptor Open(const StoredData& data) const;

    // Moves what dead writers left in incoming/ to lost+found/.
    void TidyIncoming(const Folder& lostAndFound) const;
    // The names of files with ids from firstFreeId on.
    std::vector<std::string> FilesFrom(std::int64_t firstFreeId) const;
    void MoveAway(const std::string& file, const Folder& lostAndFound) const;

    // The id in the name of a data file that this store can have made; -1 for any other.
    static std::int64_t IdOf(const std::string& file);

    static bool IsIncoming(const std::string& name);  // one that an object on its way can have
    static std::string ShardName(std::int64_t id);

    const Folder& Incoming() const { return incoming_; }
    const Folder& Data() const { return data_; }

private:
    Folder ShardOf(const std::string& file) const;

    Folder incoming_, data_;
    std::set<std::string> flushedShards_;  // their entries in data/ last
    std::set<std::string> touchedShards_;
};

}  // namespace standin
