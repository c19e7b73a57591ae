#include "LocalTree.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <functional>
#include <set>
#include <system_error>

#include "Errors.h"
#include "Report.h"

namespace tsmctl {

namespace fs = std::filesystem;

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

std::string ReadLine(int fd) {
    std::string line;
    char c = 0;
    while (ReadFull(fd, &c, 1) == 1 && c != '\n') line += c;
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

namespace {

// The item's folder, and its name in there.
std::pair<UniqueFd, std::string> PlaceOf(const LocalItem& item) {
    Parts parts = SplitAtSlash(item.local.substr(item.below));
    const std::string name = parts.back();
    parts.pop_back();
    return {OpenBelow(item.top->Get(), parts, false), name};
}

}  // namespace

UniqueFd OpenItem(const LocalItem& item) {
    const auto [folder, name] = PlaceOf(item);
    UniqueFd file(openat(folder.Get(), name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (file.Get() < 0) FailLocal("cannot open", errno);
    return file;
}

std::string ReadLink(const LocalItem& item) {
    const auto [folder, name] = PlaceOf(item);
    std::string target(4097, '\0');
    const ssize_t length = readlinkat(folder.Get(), name.c_str(), target.data(), target.size());
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
        : report_(sink), items_(list), unreadable_(bad) {}

    void Start(const Landing& landing) {
        below_ = landing.local.rfind('/') + 1;
        Attempt(landing.local, landing.object, [&] {
            const std::string folder = below_ == 0 ? "." : landing.local.substr(0, below_);
            top_ = std::make_shared<UniqueFd>(open(folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
            if (top_->Get() < 0) FailLocal("cannot read", errno);
            if (landing.top) return Enter(OpenBelow(top_->Get(), {"."}, false), landing.local, landing.object);
            if (Visit(top_->Get(), landing.local, landing.object).kind != Kind::Other) return;
            items_.pop_back();
            throw Failure("is neither a file nor a link nor a directory");
        });
    }

private:
    void Attempt(const std::string& local, const Parts& object, const std::function<void()>& work) try {
        work();
    } catch (const Failure& failure) {
        report_.Failed(local, failure.what());
        unreadable_.push_back(Join(object));
    }

    Info Visit(int folder, const std::string& local, const Parts& object) {
        CheckInterrupt();
        ToStored(object);
        const std::string name = local.substr(local.rfind('/') + 1);
        struct stat status = {};
        if (fstatat(folder, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) FailLocal("cannot read", errno);
        const Info info = InfoOf(status);
        items_.push_back({local, Join(object), info, top_, below_});
        if (info.kind == Kind::Directory) Enter(OpenBelow(folder, {name}, false), local, object);
        return info;
    }

    void Enter(UniqueFd folder, const std::string& local, const Parts& object) {
        const std::unique_ptr<DIR, int (*)(DIR*)> entries(fdopendir(folder.Get()), closedir);
        if (!entries) FailLocal("cannot read the directory", errno);
        const int number = folder.Release();  // the entries' now
        std::vector<std::string> names;
        errno = 0;
        while (const dirent* const entry = readdir(entries.get())) {
            const std::string name = entry->d_name;
            if (name != "." && name != "..") names.push_back(name);
            errno = 0;
        }
        const int error = errno;
        std::sort(names.begin(), names.end());
        const std::string stem = local == "/" ? local : local + "/";
        for (const std::string& name : names) {
            const Parts inside = Append(object, {name});
            Attempt(stem + name, inside, [&] { Visit(number, stem + name, inside); });
        }
        if (error != 0) FailLocal("cannot read the directory", error);
    }

    Report& report_;
    std::vector<LocalItem>& items_;
    std::vector<std::string>& unreadable_;
    std::shared_ptr<const UniqueFd> top_;
    size_t below_ = 0;
};

}  // namespace

void Scan(const Landing& landing, Report& report, std::vector<LocalItem>& items, std::vector<std::string>& unreadable) {
    Scanner(report, items, unreadable).Start(landing);
}

}  // namespace tsmctl
