#include "LocalTree.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <functional>
#include <set>
#include <system_error>

#include "Errors.h"

namespace tsmctl {

namespace fs = std::filesystem;

namespace {

// The folder of the item, and its name in there.
std::pair<UniqueFd, std::string> PlaceOf(const LocalItem& item) {
    Parts parts = SplitAtSlash(item.local.substr(item.below));
    const std::string name = parts.back();
    parts.pop_back();
    return {OpenBelow(item.top->Get(), parts, false), name};
}

}  // namespace

UniqueFd OpenItem(const LocalItem& item, int flags) {
    const auto [folder, name] = PlaceOf(item);
    UniqueFd file(openat(folder.Get(), name.c_str(), flags | O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
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

std::vector<Source> ResolveSources(const std::vector<std::string>& paths, const std::string& to) {
    const Parts head = ParsePath(to);
    std::vector<Source> sources;
    std::set<Parts> known;
    for (const std::string& path : paths) {
        if (path.empty()) throw UsageError("an empty path");
        const std::string last = SplitAtSlash(path).back();
        std::error_code error;
        std::string real = path;
        // "dir/", "." and ".." name the folder itself, whatever links lead to it.
        if (last.empty() || last == "." || last == "..") real = fs::canonical(path, error).native();
        if (error) real = path.substr(0, path.find_last_not_of('/') + 1);
        Source source = {real, head, real == "/"};
        if (!source.isRoot) source.object.push_back(SplitAtSlash(real).back());
        if (!known.insert(source.object).second) {
            throw UsageError(path + ": would be stored under the same name as another path");
        }
        sources.push_back(std::move(source));
    }
    if (sources.size() > 1 && std::any_of(sources.begin(), sources.end(), [](const auto& s) { return s.isRoot; })) {
        throw UsageError("/: holds the other paths, which would be stored under the same names");
    }
    return sources;
}

namespace {

class Scanner {
public:
    Scanner(Report& report, std::vector<LocalItem>& items, std::vector<std::string>& unreadable)
        : report_(report), items_(items), unreadable_(unreadable) {}

    void Start(const Source& source) {
        below_ = source.local.rfind('/') + 1;
        Attempt(source.local, source.object, [&] {
            const std::string folder = below_ == 0 ? "." : source.local.substr(0, below_);
            top_ = std::make_shared<UniqueFd>(open(folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
            if (top_->Get() < 0) FailLocal("cannot read", errno);
            if (source.isRoot) return Enter(OpenBelow(top_->Get(), {"."}, false), source.local, source.object);
            const Kind kind = Visit(top_->Get(), source.local, source.object).kind;
            if (kind != Kind::Other && !IsSpecial(kind)) return;
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

void Scan(const Source& source, Report& report, std::vector<LocalItem>& items, std::vector<std::string>& unreadable) {
    Scanner(report, items, unreadable).Start(source);
}

}  // namespace tsmctl
