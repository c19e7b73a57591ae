#include "Files.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "Errors.h"

namespace tsmctl {

UniqueFd::~UniqueFd() {
    if (fd_ >= 0) close(fd_);
}

namespace {

// Pipes and terminals may be silent for long; polling leaves room for a signal.
void WaitFor(int fd, short events) {
    pollfd entry = {fd, events, 0};
    do {
        CheckInterrupt();
        entry.revents = 0;
    } while (poll(&entry, 1, 200) == 0 || (entry.revents == 0 && errno == EINTR));
}

}  // namespace

size_t ReadFull(int fd, void* memory, size_t length) {
    size_t done = 0;
    while (done < length) {
        WaitFor(fd, POLLIN);
        const ssize_t got = read(fd, static_cast<char*>(memory) + done, length - done);
        if (got == 0) break;
        if (got < 0 && errno != EINTR && errno != EAGAIN) FailLocal("cannot read", errno);
        if (got > 0) done += static_cast<size_t>(got);
    }
    return done;
}

void WriteAll(int fd, const void* memory, size_t length) {
    size_t done = 0;
    while (done < length) {
        WaitFor(fd, POLLOUT);
        const ssize_t put = write(fd, static_cast<const char*>(memory) + done, length - done);
        if (put < 0 && errno != EINTR && errno != EAGAIN) FailLocal("cannot write", errno);
        if (put > 0) done += static_cast<size_t>(put);
    }
}

long long ReadPieces(int fd, Buffer& buffer, long long limit, const std::function<void(size_t)>& take) {
    long long done = 0;
    while (done < limit) {
        const auto wanted = static_cast<size_t>(std::min<long long>(limit - done, pieceSize));
        const size_t got = ReadFull(fd, buffer.data(), wanted);
        if (got > 0) take(got);
        done += static_cast<long long>(got);
        if (got < wanted) break;
    }
    return done;
}

std::string ReadLine(int fd) {
    std::string line;
    char c = 0;
    while (ReadFull(fd, &c, 1) == 1 && c != '\n') {
        if (line.size() == 4096) {
            throw Failure("a line is longer than 4096 bytes");  // as in an endless file
        }
        line += c;
    }
    return line;
}

void ReserveStandardStreams() {
    for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (fcntl(stream, F_GETFD) < 0) open("/", O_PATH);  // the lowest number that is free
    }
}

UniqueFd OpenBelow(int top, const Parts& parts, bool create) {
    UniqueFd current(fcntl(top, F_DUPFD_CLOEXEC, 0));
    for (const std::string& part : parts) {
        if (create && mkdirat(current.Get(), part.c_str(), 0777) != 0 && errno != EEXIST) {
            FailLocal("cannot create the directory " + part, errno);
        }
        UniqueFd next(openat(current.Get(), part.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (next.Get() < 0) FailLocal(part + " is in the way or cannot be opened", errno);
        current = std::move(next);
    }
    if (current.Get() < 0) FailLocal("cannot open", errno);
    return current;
}

}  // namespace tsmctl
