#include "Files.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/random.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <system_error>

namespace standin {
namespace {

template <class SystemCall>
auto Retried(SystemCall call) {
    auto result = call();
    while (result < 0 && errno == EINTR) result = call();
    return result;
}

std::string RealPath(const std::string& path) {
    const std::unique_ptr<char, decltype(&std::free)> real(realpath(path.c_str(), nullptr), &std::free);
    if (!real) ThrowErrno("open " + path);
    return real.get();
}

}  // namespace

void ThrowErrno(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

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

void FileDescriptor::Write(const char* bytes, std::size_t size) const {
    for (std::size_t done = 0; done < size;) {
        const ssize_t n = Retried([&] { return write(fd_, bytes + done, size - done); });
        if (n < 0) ThrowErrno("write to the store");
        done += static_cast<std::size_t>(n);
    }
}

void FileDescriptor::Sync() const {
    const bool folder = S_ISDIR(Status().st_mode);
    if (Retried([&] { return folder ? fsync(fd_) : fdatasync(fd_); }) != 0) ThrowErrno("flush to the disk");
}

struct stat FileDescriptor::Status() const {
    struct stat status {};
    if (fstat(fd_, &status) != 0) ThrowErrno("stat");
    return status;
}

bool FileDescriptor::Lock(bool wait) const {
    if (Retried([&] { return flock(fd_, wait ? LOCK_EX : LOCK_EX | LOCK_NB); }) == 0) return true;
    if (errno != EWOULDBLOCK) ThrowErrno("lock");
    return false;
}

Folder::Folder(const std::string& path) : path_(RealPath(path)) {
    file_ = FileDescriptor(Retried([&] { return open(path_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); }));
    if (file_.Get() < 0) ThrowErrno("open " + path_);
    if (file_.Status().st_uid != geteuid()) throw std::runtime_error(path_ + " belongs to another user");
}

FileDescriptor Folder::OpenAny(const std::string& name, int flags) const {
    const int fd =
        Retried([&] { return openat(file_.Get(), name.c_str(), flags | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600); });
    if (fd < 0) ThrowErrno("open " + path_ + "/" + name);
    FileDescriptor file(fd);
    if (file.Status().st_uid != geteuid()) throw std::runtime_error(path_ + "/" + name + " belongs to another user");
    return file;
}

Folder Folder::Sub(const std::string& name) const {
    return {path_ + "/" + name, OpenAny(name, O_RDONLY | O_DIRECTORY)};
}

FileDescriptor Folder::Open(const std::string& name, int flags) const {
    FileDescriptor file = OpenAny(name, flags);
    if (!S_ISREG(file.Status().st_mode)) throw std::runtime_error(path_ + "/" + name + " is not a plain file");
    return file;
}

void Folder::Make(const std::string& name) const {
    if (mkdirat(file_.Get(), name.c_str(), 0700) != 0 && errno != EEXIST) ThrowErrno("mkdir " + path_ + "/" + name);
}

std::optional<struct stat> Folder::Status(const std::string& name) const {
    struct stat status {};
    if (fstatat(file_.Get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0) return status;
    if (errno != ENOENT) ThrowErrno("stat " + path_ + "/" + name);
    return std::nullopt;
}

std::vector<std::string> Folder::Names() const {
    const FileDescriptor again = OpenAny(".", O_RDONLY | O_DIRECTORY);
    const int own = fcntl(again.Get(), F_DUPFD_CLOEXEC, 0);
    const auto close = [](DIR* folder) { closedir(folder); };
    const std::unique_ptr<DIR, decltype(close)> entries(own < 0 ? nullptr : fdopendir(own), close);
    if (!entries) ThrowErrno("list " + path_);
    std::vector<std::string> names;
    errno = 0;
    while (const dirent* const entry = readdir(entries.get())) {
        const std::string name = entry->d_name;
        if (name != "." && name != "..") names.push_back(name);
        errno = 0;
    }
    if (errno != 0) ThrowErrno("list " + path_);
    return names;
}

void Folder::Move(const std::string& name, const Folder& to, const std::string& newName, bool replace) const {
    if (!replace && to.Status(newName)) throw std::runtime_error(to.path_ + "/" + newName + " is there already");
    if (renameat(file_.Get(), name.c_str(), to.file_.Get(), newName.c_str()) != 0) {
        ThrowErrno("rename " + path_ + "/" + name + " to " + to.path_ + "/" + newName);
    }
}

void Folder::Remove(const std::string& name) const {
    if (unlinkat(file_.Get(), name.c_str(), 0) != 0 && errno != ENOENT) ThrowErrno("unlink " + path_ + "/" + name);
}

std::string RandomHex(std::size_t digits) {
    std::string bytes((digits + 1) / 2, '\0'), text;
    if (getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) ThrowErrno("random number");
    for (const char byte : bytes) {
        char two[3];
        std::snprintf(two, sizeof two, "%02x", static_cast<unsigned char>(byte));
        text += two;
    }
    return text.substr(0, digits);
}

}  // namespace standin
