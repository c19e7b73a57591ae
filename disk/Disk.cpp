#include "Disk.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdlib>
#include <cstring>

namespace disk {
namespace {

constexpr int makes = O_CREAT | (O_TMPFILE & ~O_DIRECTORY);
constexpr std::size_t room = std::size_t{1} << 30, told = 1 << 24;

struct Shared {
    pthread_mutex_t mutex;
    char folder[PATH_MAX];
    long calls[8];  // by the kind of the call
    long matching, failAt;
    unsigned kinds;
    int error;
    std::size_t used, toldSize;
    char telling[told];
    char log[room];
};
Shared* shared;
thread_local int unwatched;

struct Locked {
    Locked() { pthread_mutex_lock(&shared->mutex); }
    ~Locked() { pthread_mutex_unlock(&shared->mutex); }
};

std::string LinkOf(const std::string& link) {
    char path[PATH_MAX];
    const ssize_t size = readlink(link.c_str(), path, sizeof path);
    return size > 0 ? std::string(path, static_cast<std::size_t>(size)) : "";
}

std::string PathOf(int fd) {
    return LinkOf("/proc/self/fd/" + std::to_string(fd));
}

std::string PathAt(int fd, const char* name) {
    if (name[0] == '/') return std::strncmp(name, "/proc/self/fd/", 14) == 0 ? LinkOf(name) : name;
    return (fd == AT_FDCWD ? LinkOf("/proc/self/cwd") : PathOf(fd)) + "/" + name;
}

bool Watched(const std::string& path) {
    return shared && unwatched == 0 && path.rfind(shared->folder, 0) == 0;
}

struct Header {
    std::uint64_t inode;
    std::int64_t at;
    std::uint32_t path, bytes;
    char what;
};

void Append(char what, std::uint64_t inode, std::int64_t at, const std::string& path = "", const void* bytes = "",
            std::size_t size = 0) {
    const Header header{inode, at, static_cast<std::uint32_t>(path.size()), static_cast<std::uint32_t>(size), what};
    if (shared->used + sizeof header + path.size() + size > room) abort();
    const auto put = [](const void* from, std::size_t n) {
        std::memcpy(shared->log + shared->used, from, n);
        shared->used += n;
    };
    put(&header, sizeof header);
    put(path.data(), path.size());
    put(bytes, size);
}

// True when the call is to fail. The caller holds the lock.
bool Count(Kind kind) {
    ++shared->calls[kind];
    if (!(shared->kinds & kind) || ++shared->matching != shared->failAt) return false;
    Append('!', 0, 0);
    return true;
}

long Failure() {
    if (shared->error == kill) syscall(SYS_exit_group, killed);
    errno = shared->error;
    return -1;
}

// Makes the call, and records it if it succeeded. A call that is to fail is made by half, if it has halves.
template <class Call, class Record, class Half>
long Perform(Kind kind, const std::string& path, Call call, Record record, Half half) {
    if (!Watched(path)) return call();
    const Locked locked;
    if (Count(kind)) {
        half();
        return Failure();
    }
    const long result = call();
    const int error = errno;
    if (result >= 0) record(result);
    errno = error;
    return result;
}
template <class Call, class Record>
int Perform(Kind kind, const std::string& path, Call call, Record record) {
    return static_cast<int>(Perform(kind, path, call, record, [] {}));
}

std::uint64_t InodeOf(int fd) {
    struct stat status {};
    fstat(fd, &status);
    return status.st_ino;
}

int Open(int folder, const char* name, int flags, mode_t mode) {
    const auto call = [&] { return syscall(SYS_openat, folder, name, flags, mode); };
    const std::string path = PathAt(folder, name);
    const bool creates = flags & makes;
    struct stat status {};
    const bool isNew = creates && ((flags & O_TMPFILE) == O_TMPFILE || lstat(path.c_str(), &status) != 0);
    return Perform(creates ? Growing : Reading, path, call, [&](long fd) {
        const std::uint64_t inode = InodeOf(static_cast<int>(fd));
        if (isNew) Append('c', inode, 0, (flags & O_TMPFILE) == O_TMPFILE ? "" : path);
        if (!isNew && flags & O_TRUNC) Append('t', inode, 0);
    });
}

ssize_t Write(int fd, const void* bytes, std::size_t size, off_t offset, bool here) {
    const auto call = [&](std::size_t n) {
        return here ? syscall(SYS_write, fd, bytes, n) : syscall(SYS_pwrite64, fd, bytes, n, offset);
    };
    const auto record = [&](long n) {
        if (here) offset = lseek(fd, 0, SEEK_CUR) - n;
        Append('w', InodeOf(fd), offset, "", bytes, static_cast<std::size_t>(n));
    };
    return Perform(
        Growing, PathOf(fd), [&] { return call(size); }, record, [&] { record(call(size / 2)); });
}

int Truncate(int fd, off_t size) {
    return Perform(
        Growing, PathOf(fd), [&] { return syscall(SYS_ftruncate, fd, size); },
        [&](long) { Append('t', InodeOf(fd), size); });
}

int Allocate(int fd, int mode, off_t offset, off_t size) {
    return Perform(
        Growing, PathOf(fd), [&] { return syscall(SYS_fallocate, fd, mode, offset, size); },
        [&](long) {
            struct stat status {};
            fstat(fd, &status);
            Append('t', status.st_ino, status.st_size);
        });
}

int Flush(int fd, long number) {
    const std::string path = PathOf(fd);
    return Perform(
        Changing, path, [&] { return syscall(number, fd); }, [&](long) { Append('s', InodeOf(fd), 0, path); });
}

int Rename(int from, const char* name, int to, const char* newName, unsigned flags) {
    const std::string path = PathAt(from, name), newPath = PathAt(to, newName);
    return Perform(
        Growing, path, [&] { return syscall(SYS_renameat2, from, name, to, newName, flags); },
        [&](long) { Append('r', 0, 0, path, newPath.data(), newPath.size()); });
}

int Link(int from, const char* name, int to, const char* newName, int flags) {
    const std::string newPath = PathAt(to, newName);
    return Perform(
        Growing, newPath, [&] { return syscall(SYS_linkat, from, name, to, newName, flags); },
        [&](long) {
            struct stat status {};
            lstat(newPath.c_str(), &status);
            Append('l', status.st_ino, 0, newPath);
        });
}

int Unlink(int folder, const char* name, int flags) {
    const std::string path = PathAt(folder, name);
    return Perform(
        Changing, path, [&] { return syscall(SYS_unlinkat, folder, name, flags); },
        [&](long) { Append('u', 0, 0, path); });
}

int MakeFolder(int folder, const char* name, mode_t mode) {
    const std::string path = PathAt(folder, name);
    return Perform(
        Growing, path, [&] { return syscall(SYS_mkdirat, folder, name, mode); },
        [&](long) { Append('m', 0, 0, path); });
}

int MakeTemporary(char* pattern, int flags) {
    static const char letters[] = "abcdefghijklmnopqrstuvwxyz0123456789";
    static thread_local unsigned seed = static_cast<unsigned>(syscall(SYS_gettid));
    for (;;) {
        char* const end = pattern + std::strlen(pattern);
        for (char* p = end - 6; p < end; ++p) *p = letters[static_cast<unsigned>(rand_r(&seed)) % 36];
        const int fd = Open(AT_FDCWD, pattern, O_RDWR | O_CREAT | O_EXCL | flags, 0600);
        if (fd >= 0 || errno != EEXIST) return fd;
    }
}

template <class Call>
long Plain(Kind kind, int fd, Call call) {
    return Perform(
        kind, PathOf(fd), call, [](long) {}, [] {});
}

}  // namespace

void Watch(const std::string& folder) {
    void* const memory =
        mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (memory == MAP_FAILED || folder.size() >= PATH_MAX) abort();
    auto* const made = static_cast<Shared*>(memory);
    std::memcpy(made->folder, folder.c_str(), folder.size() + 1);
    shared = made;
    Reset();
}

void Reset() {
    shared->used = shared->toldSize = 0;
    std::memset(shared->calls, 0, sizeof shared->calls);
    FailNth(0, 0, 0);
}

void FailNth(long nth, unsigned kinds, int error) {
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
    pthread_mutex_init(&shared->mutex, &attributes);  // anew, since a child may have died holding it
    shared->matching = 0;
    shared->failAt = nth;
    shared->kinds = kinds;
    shared->error = error;
}

long Calls(unsigned kinds) {
    long calls = 0;
    for (unsigned kind : {Reading, Changing, Growing}) calls += kinds & kind ? shared->calls[kind] : 0;
    return calls;
}

void Note(char what, std::int64_t number) {
    const Locked locked;
    Append(what, 0, number);
}

std::vector<Event> Events() {
    std::vector<Event> events;
    for (const char *p = shared->log, *end = p + shared->used; p < end;) {
        Header h;
        std::memcpy(&h, p, sizeof h);
        p += sizeof h;
        events.push_back({h.what, h.inode, h.at, std::string(p, h.path), std::string(p + h.path, h.bytes)});
        p += h.path + h.bytes;
    }
    return events;
}

void Tell(const std::string& text) {
    if (text.size() > told) abort();
    std::memcpy(shared->telling, text.data(), shared->toldSize = text.size());
}

std::string Told() {
    return {shared->telling, shared->toldSize};
}

Unwatched::Unwatched() {
    ++unwatched;
}
Unwatched::~Unwatched() {
    --unwatched;
}

}  // namespace disk

using namespace disk;

extern "C" {

#define OPENS(name, at, ...)                                          \
    int name(__VA_ARGS__ const char* path, int flags, ...) {          \
        va_list rest;                                                 \
        va_start(rest, flags);                                        \
        const mode_t mode = flags & makes ? va_arg(rest, mode_t) : 0; \
        va_end(rest);                                                 \
        return Open(at, path, flags, mode);                           \
    }
#define FOLDER int folder,
OPENS(open, AT_FDCWD, )
OPENS(open64, AT_FDCWD, )
OPENS(openat, folder, FOLDER)
OPENS(openat64, folder, FOLDER)
int mkstemp(char* pattern) {
    return MakeTemporary(pattern, 0);
}
int mkostemp(char* pattern, int flags) {
    return MakeTemporary(pattern, flags);
}

ssize_t read(int fd, void* bytes, size_t n) {
    return Plain(Reading, fd, [&] { return syscall(SYS_read, fd, bytes, n); });
}
ssize_t pread(int fd, void* bytes, size_t n, off_t at) {
    return Plain(Reading, fd, [&] { return syscall(SYS_pread64, fd, bytes, n, at); });
}
ssize_t pread64(int fd, void* bytes, size_t n, off64_t at) {
    return pread(fd, bytes, n, at);
}
ssize_t write(int fd, const void* bytes, size_t n) {
    return Write(fd, bytes, n, 0, true);
}
ssize_t pwrite(int fd, const void* bytes, size_t n, off_t at) {
    return Write(fd, bytes, n, at, false);
}
ssize_t pwrite64(int fd, const void* bytes, size_t n, off64_t at) {
    return Write(fd, bytes, n, at, false);
}
int ftruncate(int fd, off_t size) noexcept {
    return Truncate(fd, size);
}
int ftruncate64(int fd, off64_t size) noexcept {
    return Truncate(fd, size);
}
int fallocate(int fd, int mode, off_t at, off_t size) {
    return Allocate(fd, mode, at, size);
}
int fallocate64(int fd, int mode, off64_t at, off64_t size) {
    return Allocate(fd, mode, at, size);
}
int posix_fallocate(int fd, off_t at, off_t size) {
    return Allocate(fd, 0, at, size) == 0 ? 0 : errno;
}
int posix_fallocate64(int fd, off64_t at, off64_t size) {
    return Allocate(fd, 0, at, size) == 0 ? 0 : errno;
}
int fsync(int fd) {
    return Flush(fd, SYS_fsync);
}
int fdatasync(int fd) {
    return Flush(fd, SYS_fdatasync);
}
int fchmod(int fd, mode_t mode) noexcept {
    return static_cast<int>(Plain(Changing, fd, [&] { return syscall(SYS_fchmod, fd, mode); }));
}
int flock(int fd, int operation) noexcept {
    // Outside this program's lock: the call may wait.
    if (Plain(Changing, fd, [] { return 0L; }) != 0) return -1;
    return static_cast<int>(syscall(SYS_flock, fd, operation));
}
int mkdir(const char* path, mode_t mode) noexcept {
    return MakeFolder(AT_FDCWD, path, mode);
}
int mkdirat(int folder, const char* path, mode_t mode) noexcept {
    return MakeFolder(folder, path, mode);
}
int rename(const char* from, const char* to) noexcept {
    return Rename(AT_FDCWD, from, AT_FDCWD, to, 0);
}
int renameat(int f, const char* from, int t, const char* to) noexcept {
    return Rename(f, from, t, to, 0);
}
int renameat2(int f, const char* from, int t, const char* to, unsigned flags) noexcept {
    return Rename(f, from, t, to, flags);
}
int link(const char* from, const char* to) noexcept {
    return Link(AT_FDCWD, from, AT_FDCWD, to, 0);
}
int linkat(int f, const char* from, int t, const char* to, int flags) noexcept {
    return Link(f, from, t, to, flags);
}
int unlink(const char* path) noexcept {
    return Unlink(AT_FDCWD, path, 0);
}
int unlinkat(int folder, const char* path, int flags) noexcept {
    return Unlink(folder, path, flags);
}
int rmdir(const char* path) noexcept {
    return Unlink(AT_FDCWD, path, AT_REMOVEDIR);
}

}  // extern "C"
