#include "local.h"

#include <fmt/format.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <set>
#include <system_error>

#include "errors.h"
#include "report.h"

namespace fs = std::filesystem;

UniqueFd::~UniqueFd() {
    if (fd >= 0) close(fd);
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

std::string ReadLink(const std::string& path) {
    std::string target(4097, '\0');
    const ssize_t length = readlink(path.c_str(), target.data(), target.size());
    if (length < 0) FailLocal("cannot read the link", errno);
    target.resize(static_cast<size_t>(length));
    return target;
}

std::vector<Landing> MapPaths(const std::vector<std::string>& paths, const std::string& to) {
    const Parts head = ParsePath(to);
    std::vector<Landing> landings;
    std::set<Parts> taken;
    for (const std::string& path : paths) {
        if (path.empty()) throw UsageError("an empty path");
        const std::string last = SplitAtSlash(path).back();
        std::error_code error;
        std::string real = path;
        // "dir/", "." and ".." name the folder itself, whatever links lead to it.
        if (last.empty() || last == "." || last == "..") real = fs::canonical(path, error).native();
        if (error) real = path.substr(0, path.find_last_not_of('/') + 1);
        Landing landing = {real, head, real == "/"};
        if (!landing.top) landing.object.push_back(SplitAtSlash(real).back());
        if (!taken.insert(landing.object).second) {
            throw UsageError(path + ": lands on a name that another path has");
        }
        landings.push_back(std::move(landing));
    }
    const auto top = std::find_if(landings.begin(), landings.end(), [](const Landing& l) { return l.top; });
    if (top != landings.end() && landings.size() > 1) {
        throw UsageError("/: holds the other paths, which would land on the same names");
    }
    return landings;
}

namespace {
class Scanner {
public:
    Scanner(Report& sink, std::vector<LocalItem>& list, std::vector<std::string>& bad)
        : report(sink), items(list), unreadable(bad) {}

    void Visit(const std::string& local, const Parts& object) try {
        CheckInterrupt();
        ToStored(object);
        struct stat status = {};
        if (lstat(local.c_str(), &status) != 0) FailLocal("cannot read", errno);
        const Info info = InfoOf(status);
        items.push_back({local, Join(object), info});
        if (info.kind == Kind::Directory) Enter(local, object);
    } catch (const Failure& failure) {
        report.Failed(local, failure.what());
        unreadable.push_back(Join(object));
    }

    void Enter(const std::string& local, const Parts& object) {
        std::error_code error;
        std::vector<std::string> names;
        for (fs::directory_iterator entry(local, error), end; !error && entry != end; entry.increment(error)) {
            names.push_back(entry->path().filename().native());
        }
        std::sort(names.begin(), names.end());
        const std::string stem = local == "/" ? local : local + "/";
        for (const std::string& name : names) Visit(stem + name, Append(object, {name}));
        if (error) throw Failure(fmt::format("cannot read the directory: {}", error.message()));
    }

private:
    Report& report;
    std::vector<LocalItem>& items;
    std::vector<std::string>& unreadable;
};
}  // namespace

void Scan(const Landing& landing, Report& report, std::vector<LocalItem>& items, std::vector<std::string>& unreadable) {
    Scanner scanner(report, items, unreadable);
    if (!landing.top) return scanner.Visit(landing.local, landing.object);
    try {
        scanner.Enter(landing.local, landing.object);
    } catch (const Failure& failure) {
        report.Failed(landing.local, failure.what());
        unreadable.push_back(Join(landing.object));
    }
}
