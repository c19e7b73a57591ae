// Nothing is written outside of the folder: every step goes through an open directory, and no symbolic link on the way
// is followed.
#include <fcntl.h>
#include <fmt/format.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <map>
#include <mutex>
#include <optional>
#include <system_error>
#include <utility>

#include "Attributes.h"
#include "Errors.h"
#include "RestoreTarget.h"

namespace tsmctl {
namespace {

bool IsHere(const UniqueFd& directory, const std::string& name, struct stat& status) {
    return fstatat(directory.Get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0;
}

// A file, link or special file that is being restored. It has a temporary name until Publish, and is removed without
// it.
class NewEntry {
public:
    // directory outlives the entry.
    explicit NewEntry(const UniqueFd& directory) : directory_(directory) {
        static std::atomic<unsigned> counter{0};
        temporary_ = fmt::format(".tsmctl-{}-{}.tmp", getpid(), counter++);
    }
    ~NewEntry() {
        if (exists_) unlinkat(directory_.Get(), temporary_.c_str(), 0);
    }

    int CreateFile(mode_t mode) {
        file_ = UniqueFd(openat(directory_.Get(), temporary_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode));
        if (file_.Get() < 0) FailLocal("cannot create", errno);
        exists_ = true;
        return file_.Get();
    }

    // A link or a special file. False where this user may not.
    bool Create(const Info& info, const std::string& target) {
        const int directory = directory_.Get();
        const mode_t type = info.kind == Kind::Pipe ? S_IFIFO : info.kind == Kind::BlockDevice ? S_IFBLK : S_IFCHR;
        exists_ = info.kind == Kind::Link ? symlinkat(target.c_str(), directory, temporary_.c_str()) == 0
                                          : mknodat(directory, temporary_.c_str(), type | 0600, DeviceOf(info)) == 0;
        if (!exists_ && (info.kind == Kind::Link || errno != EPERM)) FailLocal("cannot create", errno);
        return exists_;
    }

    // Becomes a link to a file that was restored before, instead of a file of its own. False where that is impossible.
    bool BecomeLinkTo(const UniqueFd& directory, const std::string& name, const struct stat& file) {
        NewEntry link(directory_);
        link.exists_ = linkat(directory.Get(), name.c_str(), directory_.Get(), link.temporary_.c_str(), 0) == 0;
        if (!link.exists_) return false;
        const struct stat now = link.Status();
        if (now.st_dev != file.st_dev || now.st_ino != file.st_ino) return false;
        std::swap(temporary_, link.temporary_);
        std::swap(file_, link.file_);
        return true;
    }

    // A file is open for writing, anything else only to look at it.
    int Fd() {
        const int flags = O_PATH | O_NOFOLLOW | O_CLOEXEC;
        if (file_.Get() < 0) file_ = UniqueFd(openat(directory_.Get(), temporary_.c_str(), flags));
        return file_.Get();
    }

    struct stat Status() {
        struct stat status = {};
        if (fstat(Fd(), &status) != 0) FailLocal("cannot look at it", errno);
        return status;
    }

    // Flushes what was written, and gives the entry its name.
    void Publish(const std::string& name, bool replace) {
        if (fsync(file_.Get()) != 0 && errno != EBADF) FailLocal("cannot write", errno);
        const unsigned flags = replace ? 0 : RENAME_NOREPLACE;
        int result = renameat2(directory_.Get(), temporary_.c_str(), directory_.Get(), name.c_str(), flags);
        if (result != 0 && !replace && (errno == EINVAL || errno == ENOSYS)) {
            result = linkat(directory_.Get(), temporary_.c_str(), directory_.Get(), name.c_str(), 0);
            if (result == 0) unlinkat(directory_.Get(), temporary_.c_str(), 0);
        }
        if (result != 0) FailLocal("cannot put it in place", errno);
        exists_ = false;
    }

private:
    const UniqueFd& directory_;
    std::string temporary_;
    UniqueFd file_;
    bool exists_ = false;
};

// Whether what is here looks like the object.
bool LooksTheSame(const struct stat& status, const std::optional<Info>& stored) {
    if (!stored) return false;
    const Info here = InfoOf(status);
    return here.kind == (stored->kind == Kind::Stream ? Kind::File : stored->kind) && here.size == stored->size &&
           here.mode == (stored->mode & ~setIds) && TimeText(here.mtime) == TimeText(stored->mtime) &&
           FieldOf(here.fields, "device") == FieldOf(stored->fields, "device");
}

// A hole is left out.
void ReceiveInto(int fd, Download& download, Buffer& buffer, Report& report) {
    long long place = 0;
    bool sparse = false;
    Receive(download, buffer, [&](const Piece& piece) {
        place += static_cast<long long>(piece.size);
        if (!piece.hole) {
            WriteAll(fd, piece.data, piece.size);
        } else if ((!std::exchange(sparse, true) && ftruncate(fd, download.Size()) != 0) ||
                   lseek(fd, place, SEEK_SET) < 0) {
            FailLocal("cannot write", errno);
        }
        report.Advance(piece.size);
    });
}

class TargetFolder : public RestoreTarget {
public:
    TargetFolder(const std::string& path, const std::string& overwrite, const std::string& at, Report& report)
        : overwrite_(overwrite), at_(at), report_(report) {
        std::error_code error;
        std::filesystem::create_directories(path, error);
        if (error) throw Failure(fmt::format("{}: cannot create: {}", path, error.message()));
        root_ = UniqueFd(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (root_.Get() < 0) FailLocal(path + ": cannot open", errno);
    }

    // One that exists is made writable for its owner until its end.
    void Begin(const ChosenObject& item) override {
        const UniqueFd above = OpenAbove(item.local);
        const std::string& name = item.local.back();
        struct stat there = {};
        if (mkdirat(above.Get(), name.c_str(), item.object.info ? 0700 : 0777) != 0 && IsHere(above, name, there)) {
            const mode_t mode = there.st_mode & 07777;
            if (S_ISDIR(there.st_mode) && (mode & S_IRWXU) != S_IRWXU) {
                // Where that is not allowed, what is in it cannot be created, which is reported.
                [[maybe_unused]] const int done =
                    fchmodat(above.Get(), name.c_str(), mode | S_IRWXU, AT_SYMLINK_NOFOLLOW);
            }
            if (!item.object.info || overwrite_ == "never") kept_[item.local] = mode;
        }
        Open(item.local);  // throws if something is in the way
    }

    void End(const ChosenObject& item) override {
        report_.Count(Kind::Directory);
        report_.Did("restored", item.object.ObjectPath());
        if (const auto kept = kept_.extract(item.local)) {
            const bool opened = (kept.mapped() & S_IRWXU) != S_IRWXU;
            if (opened && fchmod(Open(item.local).Get(), kept.mapped()) != 0) FailLocal("cannot set the mode", errno);
            return;
        }
        RequireKnown(item.object);
        if (!item.object.info) return;
        const Info& info = *item.object.info;
        ApplyMetadata(Open(item.local).Get(), info, info.fields, Join(item.local), report_);
    }

    void Write(Session& session, Buffer& buffer, const ChosenObject& item) override {
        const UniqueFd directory = OpenAbove(item.local);
        const std::string& name = item.local.back();
        const Kind kind = item.object.GetKind();
        const std::optional<Info>& info = item.object.info;
        struct stat there = {};
        const bool taken = IsHere(directory, name, there);
        if (taken && S_ISDIR(there.st_mode)) throw Failure("a directory of this name exists");
        const bool same = taken && overwrite_ != "always" && LooksTheSame(there, info);
        // Another name of the same file may come, and be linked with this one.
        const bool stays = same && LinkKey(info).empty();
        if (stays || (taken && overwrite_ == "never")) {
            report_.Count(kind);
            return report_.CountChange(Change::Unchanged);
        }
        constexpr const char* differs = "exists already, and differs (--overwrite changed replaces it)";
        if (taken && !same && overwrite_.empty()) throw Failure(differs);
        NewEntry entry(directory);
        Download download(session, item.object, at_);
        std::unique_lock<std::mutex> linking(mutex_, std::defer_lock);
        std::string key;
        bool linked = false;
        if (kind == Kind::Link || IsSpecial(kind)) {
            const std::string target = ReceiveLinkTarget(download, buffer);
            report_.Advance(target.size());
            if (!entry.Create(*info, target)) return report_.CountLoss("special file not restored");
        } else {
            ReceiveInto(entry.CreateFile(info ? 0600 : 0666), download, buffer, report_);
            if (same && overwrite_.empty()) {
                const UniqueFd here(openat(directory.Get(), name.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
                if (here.Get() < 0) FailLocal("cannot open", errno);
                if (DigestOf(here.Get(), buffer) != download.Digest()) throw Failure(differs);
            }
            key = TwinKey(item, download);
            if (!key.empty()) {
                linking.lock();
                linked = LinkToTwin(entry, key);
            }
        }
        if (info && !linked) ApplyMetadata(entry.Fd(), *info, download.Header(), Join(item.local), report_);
        entry.Publish(name, taken);
        report_.Count(kind);
        report_.Did("restored", item.object.ObjectPath());
        if (!key.empty()) twins_.try_emplace(key, Twin{item.local, entry.Status()});
    }

private:
    // Another name of a file that was restored before.
    struct Twin {
        Parts local;
        struct stat status;
    };

    // Both create what is missing.
    UniqueFd Open(const Parts& parts) const { return OpenBelow(root_.Get(), parts, true); }
    UniqueFd OpenAbove(const Parts& parts) const { return Open({parts.begin(), parts.end() - 1}); }

    bool LinkToTwin(NewEntry& entry, const std::string& key) {
        const auto found = twins_.find(key);
        if (found == twins_.end()) return false;
        const auto& [local, status] = found->second;
        const bool linked = entry.BecomeLinkTo(OpenAbove(local), local.back(), status);
        if (!linked) report_.CountLoss("hard link restored as a file of its own");
        return linked;
    }

    const std::string overwrite_;
    const std::string at_;
    Report& report_;
    UniqueFd root_;
    std::map<Parts, mode_t> kept_;       // the modes of directories that existed and stay as they are
    std::mutex mutex_;                   // of the twins, until the first one has its name
    std::map<std::string, Twin> twins_;  // by what names of one file have in common
};

}  // namespace

std::unique_ptr<RestoreTarget> FolderTarget(const std::string& path, const std::string& overwrite,
                                            const std::string& at, Report& report) {
    return std::make_unique<TargetFolder>(path, overwrite, at, report);
}

}  // namespace tsmctl
