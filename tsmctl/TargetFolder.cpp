#include "TargetFolder.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <system_error>

#include "Errors.h"

namespace tsmctl {
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
    root_ = UniqueFd(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (root_.Get() < 0) FailLocal(path + ": cannot open", errno);
}

UniqueFd TargetFolder::Open(const Parts& parts) const {
    return OpenBelow(root_.Get(), parts, true);
}

bool TargetFolder::Make(Parts parts, mode_t mode) const {
    const Parts whole = parts;
    parts.pop_back();
    const bool made = mkdirat(Open(parts).Get(), whole.back().c_str(), mode) == 0;
    Open(whole);  // throws if something is in the way
    return made;
}

void RequireSafe(const Parts& parts) {
    for (const std::string& part : parts) {
        if (part.empty() || part == "." || part == ".." || part.find('/') != std::string::npos) {
            throw Failure("its name cannot be that of a file here");
        }
    }
}

NewEntry::NewEntry(const UniqueFd& directory, std::string name, bool replace)
    : directory_(directory), name_(std::move(name)), temporary_(TemporaryName()), replace_(replace) {
    struct stat status = {};
    if (fstatat(directory_.Get(), name_.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) return;
    if (S_ISDIR(status.st_mode)) throw Failure("a directory of this name exists");
    if (!replace_) throw Failure("exists already (--force replaces it)");
}

NewEntry::~NewEntry() {
    if (exists_) unlinkat(directory_.Get(), temporary_.c_str(), 0);
}

int NewEntry::CreateFile() {
    file_ = UniqueFd(openat(directory_.Get(), temporary_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (file_.Get() < 0) FailLocal("cannot create", errno);
    exists_ = true;
    return file_.Get();
}

void NewEntry::CreateLink(const std::string& target) {
    if (symlinkat(target.c_str(), directory_.Get(), temporary_.c_str()) != 0) {
        FailLocal("cannot create the link", errno);
    }
    exists_ = true;
}

void NewEntry::Publish(const std::optional<Info>& info, mode_t otherMode) {
    const mode_t mode = info ? info->mode & ~setIds : otherMode;
    if (file_.Get() >= 0 && fchmod(file_.Get(), mode) != 0) {
        FailLocal("cannot set the mode", errno);
    }
    if (info) {
        const timespec times[2] = {{0, UTIME_OMIT}, info->mtime};
        if (utimensat(directory_.Get(), temporary_.c_str(), times, AT_SYMLINK_NOFOLLOW) != 0) {
            FailLocal("cannot set the time", errno);
        }
    }
    if (file_.Get() >= 0 && fsync(file_.Get()) != 0) FailLocal("cannot write", errno);
    const unsigned flags = replace_ ? 0 : RENAME_NOREPLACE;
    int result = renameat2(directory_.Get(), temporary_.c_str(), directory_.Get(), name_.c_str(), flags);
    if (result != 0 && !replace_ && (errno == EINVAL || errno == ENOSYS)) {
        result = linkat(directory_.Get(), temporary_.c_str(), directory_.Get(), name_.c_str(), 0);
        if (result == 0) unlinkat(directory_.Get(), temporary_.c_str(), 0);
    }
    if (result != 0) FailLocal("cannot put it in place", errno);
    exists_ = false;
}

}  // namespace tsmctl
