// Files and folders of the store, reached from folder to folder so that no link leads out of it. Failures are
// std::system_error.
#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace standin {

[[noreturn]] void ThrowErrno(const std::string& what);

class FileDescriptor {
public:
    explicit FileDescriptor(int fd = -1) : fd_(fd) {}
    FileDescriptor(FileDescriptor&& other) noexcept : fd_(other.fd_) { other.fd_ = -1; }
    FileDescriptor& operator=(FileDescriptor&& other) noexcept;
    ~FileDescriptor();

    int Get() const { return fd_; }
    // Reads until size bytes are there or the file ends.
    std::size_t Read(char* buffer, std::size_t size) const;
    void Write(const char* bytes, std::size_t size) const;
    void Sync() const;  // the content, and for a folder its entries
    struct stat Status() const;
    // False when another opener holds the lock and wait is false.
    bool Lock(bool wait) const;

private:
    int fd_;
};

class Folder {
public:
    // A path that may itself be a link.
    explicit Folder(const std::string& path);

    // A folder or file in this one; links, and what belongs to another user, are refused.
    Folder Sub(const std::string& name) const;
    FileDescriptor Open(const std::string& name, int flags) const;

    void Make(const std::string& name) const;  // for its owner alone; one that is there will do
    std::optional<struct stat> Status(const std::string& name) const;
    std::vector<std::string> Names() const;
    // Fails rather than replace something when replace is false.
    void Move(const std::string& name, const Folder& to, const std::string& newName, bool replace = false) const;
    void Remove(const std::string& name) const;  // does nothing if it is missing

    void Sync() const { file_.Sync(); }
    const FileDescriptor& File() const { return file_; }
    const std::string& Path() const { return path_; }

private:
    Folder(std::string path, FileDescriptor file) : path_(std::move(path)), file_(std::move(file)) {}
    FileDescriptor OpenAny(const std::string& name, int flags) const;

    std::string path_;
    FileDescriptor file_;
};

std::string RandomHex(std::size_t digits);

}  // namespace standin
