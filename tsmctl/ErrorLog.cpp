#include "ErrorLog.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>

#include "Errors.h"

namespace tsmctl {
namespace {

namespace fs = std::filesystem;

std::string FileIn(const std::string& folder) {
    return folder + "/dsierror.log";
}

bool MayWriteTo(const std::string& folder) {
    if (faccessat(AT_FDCWD, (folder + "/").c_str(), W_OK | X_OK, AT_EACCESS) != 0) return false;
    return faccessat(AT_FDCWD, FileIn(folder).c_str(), W_OK, AT_EACCESS) == 0 || errno == ENOENT;
}

bool IsMine(const fs::path& folder) {
    struct stat status = {};
    return stat(folder.c_str(), &status) == 0 && status.st_uid == geteuid();
}

// Another user's folder, as HOME may be after sudo, is not used: its owner could make the log a link to another file.
fs::path StateFolder() {
    const auto variable = [](const char* name) {
        const char* const value = std::getenv(name);
        return fs::path(value ? value : "");
    };
    if (const fs::path state = variable("XDG_STATE_HOME"); state.is_absolute()) {
        return IsMine(state) || !fs::exists(state) ? state / "tsmctl" : fs::path();
    }
    const fs::path home = variable("HOME");
    return home.is_absolute() && IsMine(home) ? home / ".local/state/tsmctl" : fs::path();
}

}  // namespace

std::string LogFolder(const std::string& wanted) {
    if (!wanted.empty()) {
        if (!MayWriteTo(wanted)) FailLocal("cannot keep the log in " + wanted, errno);
        return wanted;
    }
    const fs::path own = StateFolder();
    fs::path folder;
    for (const fs::path& part : own) {
        folder /= part;
        mkdir(folder.c_str(), 0700);  // what counts is what is there in the end
    }
    return IsMine(own) && MayWriteTo(own.native()) ? own.native() : "";
}

LogWatch::LogWatch(const std::string& folder) : path_(FileIn(folder)), before_(Size()) {}

off_t LogWatch::Size() const {
    struct stat status = {};
    return stat(path_.c_str(), &status) == 0 ? status.st_size : 0;
}

}  // namespace tsmctl
