#include "LocalTree.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <set>
#include <string_view>
#include <system_error>

#include "Errors.h"

namespace tsmctl {

namespace fs = std::filesystem;

namespace {

// Its parts below the top; "/" has itself as its top.
Parts PartsBelow(const LocalItem& item) {
    return item.local.size() == item.below ? Parts{"."} : SplitAtSlash(item.local.substr(item.below));
}

// Fills in what the item is. folder holds it.
void LookAt(LocalItem& item, int folder) {
    const std::string name = PartsBelow(item).back();
    struct stat status = {};
    if (fstatat(folder, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) FailLocal("cannot read", errno);
    item.info = InfoOf(status);
    item.device = status.st_dev;
    if (!item.object.empty()) ToStored(SplitAtSlash(item.object));  // fails for a name that is too long
}

// Whether a regular file in the folder begins with the text.
bool BeginsWith(int folder, const char* name, std::string_view text) {
    const UniqueFd file(openat(folder, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    std::string begin(text.size(), '\0');
    struct stat status = {};
    return file.Get() >= 0 && fstat(file.Get(), &status) == 0 && S_ISREG(status.st_mode) &&
           pread(file.Get(), begin.data(), begin.size(), 0) == static_cast<ssize_t>(begin.size()) && begin == text;
}

}  // namespace

UniqueFd OpenItem(const LocalItem& item, int flags) {
    Parts parts = PartsBelow(item);
    const std::string name = parts.back();
    parts.pop_back();
    const UniqueFd folder = OpenBelow(item.top->Get(), parts, false);
    UniqueFd file(openat(folder.Get(), name.c_str(), flags | O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (file.Get() < 0) FailLocal("cannot open", errno);
    return file;
}

std::string ReadLink(const UniqueFd& link) {
    std::string target(4097, '\0');
    const ssize_t length = readlinkat(link.Get(), "", target.data(), target.size());
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

LocalItem Look(const Source& source) {
    LocalItem item = {source.local, Join(source.object), {}, nullptr, source.local.rfind('/') + 1};
    const std::string folder = item.below == 0 ? "." : source.local.substr(0, item.below);
    item.top = std::make_shared<UniqueFd>(open(folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (item.top->Get() < 0) FailLocal("cannot read", errno);
    LookAt(item, item.top->Get());
    if (item.info.kind == Kind::Other || IsSpecial(item.info.kind)) {
        throw Failure("is neither a file nor a link nor a directory");
    }
    return item;
}

LocalFolder Read(const LocalItem& directory, Report& report) {
    UniqueFd folder = OpenItem(directory, O_DIRECTORY);
    const std::unique_ptr<DIR, int (*)(DIR*)> stream(fdopendir(folder.Get()), closedir);
    if (!stream) FailLocal("cannot read the directory", errno);
    const int number = folder.Release();  // the stream's now
    LocalFolder found;
    std::vector<std::string> names;
    errno = 0;
    while (const dirent* const entry = readdir(stream.get())) {
        const std::string name = entry->d_name;
        if (name != "." && name != "..") names.push_back(name);
        errno = 0;
    }
    if (errno != 0) {
        found.whole = false;
        report.Failed(directory.local, std::string("cannot read the directory: ") + std::strerror(errno));
    }
    found.isCache = BeginsWith(number, "CACHEDIR.TAG", "Signature: 8a477f597d28d172789f06886806bc55");
    found.isStore = BeginsWith(number, "mark", "tsm-standin store\n");
    std::sort(names.begin(), names.end());
    const std::string stem = directory.local == "/" ? "/" : directory.local + "/";
    const std::string above = directory.object.empty() ? "" : directory.object + "/";
    for (const std::string& name : names) {
        LocalItem& item =
            found.entries.emplace_back(LocalItem{stem + name, above + name, {}, directory.top, directory.below});
        item.unreadable = !Attempt(report, item.local, [&] { LookAt(item, number); });
    }
    return found;
}

}  // namespace tsmctl
