#include "ObjectData.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <filesystem>
#include <system_error>

namespace standin {
namespace {

namespace fs = std::filesystem;

constexpr std::int64_t shardSize = 1000;

[[noreturn]] void ThrowErrno(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

template <class SystemCall>
auto Retried(SystemCall call) {
    auto result = call();
    while (result < 0 && errno == EINTR) result = call();
    return result;
}

FileDescriptor OpenFile(const std::string& path, int flags) {
    const int fd = Retried([&] { return open(path.c_str(), flags | O_CLOEXEC); });
    if (fd < 0) ThrowErrno("open " + path);
    return FileDescriptor(fd);
}

void SyncFolder(const std::string& path) {
    const FileDescriptor folder = OpenFile(path, O_RDONLY | O_DIRECTORY);
    if (Retried([&] { return fsync(folder.Get()); }) != 0) ThrowErrno("fsync " + path);
}

// True when the folder is new.
bool MakeFolder(const std::string& path) {
    if (mkdir(path.c_str(), 0700) == 0) return true;
    if (errno != EEXIST) ThrowErrno("mkdir " + path);
    return false;
}

void RemoveFile(const std::string& path) {
    if (unlink(path.c_str()) != 0 && errno != ENOENT) ThrowErrno("unlink " + path);
}

// The number that a file name stands for, -1 for any other name.
std::int64_t NumberOf(const fs::path& path) {
    const std::string name = path.filename().string();
    std::int64_t number = -1;
    const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), number);
    return error == std::errc() && end == name.data() + name.size() ? number : -1;
}

}  // namespace

FileDescriptor& FileDescriptor::operator=(FileDescriptor&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
}

FileDescriptor::~FileDescriptor() {
    if (fd_ >= 0) close(fd_);
}

std::size_t FileDescriptor::Read(char* buffer, std::size_t size) const {
    std::size_t got = 0;
    while (got < size) {
        const ssize_t n = Retried([&] { return read(fd_, buffer + got, size - got); });
        if (n < 0) ThrowErrno("read object data");
        if (n == 0) break;
        got += static_cast<std::size_t>(n);
    }
    return got;
}

FileDescriptor LockedFolder(const std::string& path) {
    FileDescriptor folder = OpenFile(path, O_RDONLY | O_DIRECTORY);
    if (Retried([&] { return flock(folder.Get(), LOCK_EX); }) != 0) ThrowErrno("lock " + path);
    return folder;
}

IncomingFile::IncomingFile(const std::string& folder) {
    for (;;) {
        std::string path = folder + "/XXXXXX";
        FileDescriptor file(mkostemp(path.data(), O_CLOEXEC));
        if (file.Get() < 0) ThrowErrno("create " + path);
        if (Retried([&] { return flock(file.Get(), LOCK_EX); }) != 0) ThrowErrno("lock " + path);
        struct stat status {};
        if (fstat(file.Get(), &status) != 0) ThrowErrno("stat " + path);
        if (status.st_nlink == 0) continue;  // taken for a dead writer's before the lock was there
        path_ = std::move(path);
        file_ = std::move(file);
        return;
    }
}

IncomingFile::~IncomingFile() {
    if (!path_.empty()) unlink(path_.c_str());
}

void IncomingFile::Write(const char* bytes, std::size_t size) {
    for (std::size_t done = 0; done < size;) {
        const ssize_t n = Retried([&] { return write(file_.Get(), bytes + done, size - done); });
        if (n < 0) ThrowErrno("write " + path_);
        done += static_cast<std::size_t>(n);
    }
}

void IncomingFile::Sync() {
    if (Retried([&] { return fdatasync(file_.Get()); }) != 0) ThrowErrno("fdatasync " + path_);
}

ObjectData::ObjectData(const std::string& storeDir) : incoming_(storeDir + "/incoming"), data_(storeDir + "/data") {}

void ObjectData::Prepare() const {
    MakeFolder(incoming_);
    MakeFolder(data_);
    for (const auto& entry : fs::directory_iterator(incoming_)) {
        const FileDescriptor file(open(entry.path().c_str(), O_RDONLY | O_CLOEXEC));
        const bool dead = file.Get() >= 0 && flock(file.Get(), LOCK_EX | LOCK_NB) == 0;
        if (dead) RemoveFile(entry.path().string());
    }
}

void ObjectData::RemoveFrom(std::int64_t firstFreeId) const {
    for (const auto& shard : fs::directory_iterator(data_)) {
        if (NumberOf(shard.path()) < firstFreeId / shardSize) continue;
        for (const auto& file : fs::directory_iterator(shard.path())) {
            if (NumberOf(file.path()) >= firstFreeId) RemoveFile(file.path().string());
        }
    }
}

void ObjectData::Place(IncomingFile& file, std::int64_t id) const {
    const std::string shard = ShardOf(id);
    if (MakeFolder(shard)) SyncFolder(data_);
    const std::string path = PathOf(id);
    if (rename(file.path_.c_str(), path.c_str()) != 0) ThrowErrno("rename to " + path);
    file.path_.clear();
    SyncFolder(shard);
}

FileDescriptor ObjectData::Open(std::int64_t id) const {
    FileDescriptor file = OpenFile(PathOf(id), O_RDONLY);
    posix_fadvise(file.Get(), 0, 0, POSIX_FADV_SEQUENTIAL);
    return file;
}

void ObjectData::Remove(std::int64_t id) const {
    RemoveFile(PathOf(id));
}

std::string ObjectData::ShardOf(std::int64_t id) const {
    return data_ + "/" + std::to_string(id / shardSize);
}

std::string ObjectData::PathOf(std::int64_t id) const {
    return ShardOf(id) + "/" + std::to_string(id);
}

}  // namespace standin
