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

std::optional<mode_t> TargetFolder::Make(Parts parts, mode_t mode) const {
    const Parts whole = parts;
    parts.pop_back();
    const UniqueFd above = Open(parts);
    const char* const name = whole.back().c_str();
    std::optional<mode_t> before;
    struct stat status = {};
    if (mkdirat(above.Get(), name, mode) != 0 && fstatat(above.Get(), name, &status, AT_SYMLINK_NOFOLLOW) == 0) {
        before = status.st_mode & 07777;
        if (S_ISDIR(status.st_mode) && (*before & S_IRWXU) != S_IRWXU) {
            // Where that is not allowed, what is in it cannot be created, which is reported.
            [[maybe_unused]] const int done = fchmodat(above.Get(), name, *before | S_IRWXU, AT_SYMLINK_NOFOLLOW);
        }
    }
    Open(whole);  // throws if something is in the way
    return before;
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
    if (!replace_) throw Failure(differs);
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

bool NewEntry::CreateSpecial(const Info& info) {
    const mode_t type = info.kind == Kind::Pipe ? S_IFIFO : info.kind == Kind::BlockDevice ? S_IFBLK : S_IFCHR;
    exists_ = mknodat(directory_.Get(), temporary_.c_str(), type | 0600, DeviceOf(info)) == 0;
    if (!exists_ && errno != EPERM) FailLocal("cannot create", errno);
    return exists_;
}

bool NewEntry::BecomeLinkTo(const UniqueFd& directory, const std::string& name, const struct stat& file) {
    const std::string other = temporary_ + ".link";
    if (linkat(directory.Get(), name.c_str(), directory_.Get(), other.c_str(), 0) != 0) return false;
    struct stat now = {};
    const bool same = fstatat(directory_.Get(), other.c_str(), &now, AT_SYMLINK_NOFOLLOW) == 0 &&
                      now.st_dev == file.st_dev && now.st_ino == file.st_ino &&
                      renameat(directory_.Get(), other.c_str(), directory_.Get(), temporary_.c_str()) == 0;
    if (!same) unlinkat(directory_.Get(), other.c_str(), 0);
    if (same) file_ = UniqueFd();
    return same;
}

struct stat NewEntry::Status() const {
    struct stat status = {};
    if (fstatat(directory_.Get(), temporary_.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
        FailLocal("cannot look at it", errno);
    }
    return status;
}

void NewEntry::Publish(const std::optional<Info>& info, mode_t otherMode, std::string_view attributes, Report& report) {
    const bool isFile = file_.Get() >= 0;
    if (!isFile) {
        file_ = UniqueFd(openat(directory_.Get(), temporary_.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    }
    if (info) {
        ApplyMetadata(file_.Get(), *info, attributes, report);
    } else if (isFile && fchmod(file_.Get(), otherMode) != 0) {
        FailLocal("cannot set the mode", errno);
    }
    if (isFile && fsync(file_.Get()) != 0) FailLocal("cannot write", errno);
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
