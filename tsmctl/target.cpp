#include "target.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <system_error>

#include "errors.h"

namespace {
std::string TemporaryName() {
    static std::atomic<unsigned> counter{0};
    return fmt::format(".tsmctl-{}-{}.tmp", getpid(), counter++);
}
}  // namespace

TargetFolder::TargetFolder(const std::string& path) {
    std::error_code error;
    std::filesystem::create_directories(path, error);
    if (error) throw Failure(fmt::format("{}: cannot create: {}", path, error.message()));
    root = UniqueFd(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (root.Get() < 0) FailLocal(path + ": cannot open", errno);
}

UniqueFd TargetFolder::Open(const Parts& parts) const {
    return OpenBelow(root.Get(), parts, true);
}

bool TargetFolder::Make(Parts parts, mode_t mode) const {
    const Parts whole = parts;
    parts.pop_back();
    const bool made = mkdirat(Open(parts).Get(), whole.back().c_str(), mode) == 0;
    Open(whole);  // also tells what is in the way
    return made;
}

void RequireSafe(const Parts& parts) {
    for (const std::string& part : parts) {
        if (part.empty() || part == "." || part == ".." || part.find('/') != std::string::npos) {
            throw Failure("its name cannot be that of a file here");
        }
    }
}

NewEntry::NewEntry(const UniqueFd& folder, std::string entryName, bool mayReplace)
    : directory(folder), name(std::move(entryName)), temporary(TemporaryName()), replace(mayReplace) {
    struct stat status = {};
    if (fstatat(directory.Get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) return;
    if (S_ISDIR(status.st_mode)) throw Failure("a directory of this name exists");
    if (!replace) throw Failure("exists already (--force replaces it)");
}

NewEntry::~NewEntry() {
    if (exists) unlinkat(directory.Get(), temporary.c_str(), 0);
}

int NewEntry::CreateFile() {
    file = UniqueFd(openat(directory.Get(), temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (file.Get() < 0) FailLocal("cannot create", errno);
    exists = true;
    return file.Get();
}

void NewEntry::CreateLink(const std::string& target) {
    if (symlinkat(target.c_str(), directory.Get(), temporary.c_str()) != 0) FailLocal("cannot create the link", errno);
    exists = true;
}

void NewEntry::Publish(const std::optional<Info>& info, mode_t otherMode) {
    const mode_t mode = info ? info->mode & ~setIds : otherMode;
    if (file.Get() >= 0 && fchmod(file.Get(), mode) != 0) {
        FailLocal("cannot set the mode", errno);
    }
    if (info) {
        const timespec times[2] = {{0, UTIME_OMIT}, info->mtime};
        if (utimensat(directory.Get(), temporary.c_str(), times, AT_SYMLINK_NOFOLLOW) != 0) {
            FailLocal("cannot set the time", errno);
        }
    }
    if (file.Get() >= 0 && fsync(file.Get()) != 0) FailLocal("cannot write", errno);
    const unsigned flags = replace ? 0 : RENAME_NOREPLACE;
    int result = renameat2(directory.Get(), temporary.c_str(), directory.Get(), name.c_str(), flags);
    if (result != 0 && !replace && (errno == EINVAL || errno == ENOSYS)) {
        result = linkat(directory.Get(), temporary.c_str(), directory.Get(), name.c_str(), 0);
        if (result == 0) unlinkat(directory.Get(), temporary.c_str(), 0);
    }
    if (result != 0) FailLocal("cannot put it in place", errno);
    exists = false;
}
