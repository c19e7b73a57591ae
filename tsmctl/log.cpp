#include "log.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>

#include "errors.h"

namespace {
namespace fs = std::filesystem;

std::string FileIn(const std::string& folder) {
    return folder + "/dsierror.log";
}

bool MayWriteTo(const std::string& folder) {
    if (faccessat(AT_FDCWD, (folder + "/").c_str(), W_OK | X_OK, AT_EACCESS) != 0) return false;
    return faccessat(AT_FDCWD, FileIn(folder).c_str(), W_OK, AT_EACCESS) == 0 || errno == ENOENT;
}

fs::path StateFolder() {
    const auto variable = [](const char* name) {
        const char* const value = std::getenv(name);
        return fs::path(value ? value : "");
    };
    if (const fs::path state = variable("XDG_STATE_HOME"); state.is_absolute()) return state / "tsmctl";
    if (const fs::path home = variable("HOME"); home.is_absolute()) return home / ".local/state/tsmctl";
    return {};
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
    // In a folder of somebody else's, the log could be made to stand for another file.
    struct stat status = {};
    const bool mine = stat(own.c_str(), &status) == 0 && status.st_uid == geteuid();
    return mine && MayWriteTo(own.native()) ? own.native() : "";
}

LogWatch::LogWatch(const std::string& folder) : path(FileIn(folder)), before(Size()) {}

off_t LogWatch::Size() const {
    struct stat status = {};
    return stat(path.c_str(), &status) == 0 ? status.st_size : 0;
}
