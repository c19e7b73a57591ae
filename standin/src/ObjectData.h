// The bytes of objects, as plain files of the store: incoming/ while they are being sent, data/<id / 1000>/<id> once
// they belong to a version of the catalogue. Failures are std::system_error.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace standin {

class FileDescriptor {
public:
    explicit FileDescriptor(int fd = -1) : fd_(fd) {}
    FileDescriptor(FileDescriptor&& other) noexcept : fd_(other.fd_) { other.fd_ = -1; }
    FileDescriptor& operator=(FileDescriptor&& other) noexcept;
    ~FileDescriptor();

    int Get() const { return fd_; }
    // Reads until size bytes are there or the file ends.
    std::size_t Read(char* buffer, std::size_t size) const;

private:
    int fd_;
};

// Held by one opener of the folder at a time; waits for the others.
FileDescriptor LockedFolder(const std::string& path);

// The data of an object that is being sent. Its file is locked as long as this lives, which tells it from one
// whose writer died; it is gone afterwards unless it was placed.
class IncomingFile {
public:
    explicit IncomingFile(const std::string& folder);
    IncomingFile(const IncomingFile&) = delete;
    IncomingFile& operator=(const IncomingFile&) = delete;
    ~IncomingFile();

    void Write(const char* bytes, std::size_t size);
    void Sync();

private:
    friend class ObjectData;

    std::string path_;
    FileDescriptor file_;
};

class ObjectData {
public:
    explicit ObjectData(const std::string& storeDir);

    // Makes the folders and removes what dead writers left in incoming/.
    void Prepare() const;
    // Removes files with ids that no committed version can have. The caller holds the store's write lock.
    void RemoveFrom(std::int64_t firstFreeId) const;

    std::unique_ptr<IncomingFile> Receive() const { return std::make_unique<IncomingFile>(incoming_); }
    // Lasts once it returned. A file left there under an id that was never committed is replaced.
    void Place(IncomingFile& file, std::int64_t id) const;
    FileDescriptor Open(std::int64_t id) const;
    void Remove(std::int64_t id) const;

private:
    std::string ShardOf(std::int64_t id) const;
    std::string PathOf(std::int64_t id) const;

    std::string incoming_;
    std::string data_;
};

}  // namespace standin
