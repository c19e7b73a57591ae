#include "Connection.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <string.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <utility>

#include "Errors.h"
#include "Files.h"
#include "ObjectNames.h"
#include "tsmconnector.h"

namespace tsmctl {
namespace {

// Asks on the controlling terminal, without echo. A signal gives the echo back, but those of Ctrl-\ and Ctrl-Z would
// not, so these keys are characters meanwhile.
std::string AskPassword(const std::string& question) {
    const UniqueFd terminal(open("/dev/tty", O_RDWR | O_CLOEXEC | O_NOCTTY));
    termios before = {};
    if (tcgetattr(terminal.Get(), &before) != 0) {
        throw UsageError("no password: give --password-file or TSMCTL_PASSWORD (there is no terminal to ask on)");
    }
    termios silent = before;
    silent.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    silent.c_cc[VQUIT] = silent.c_cc[VSUSP] = _POSIX_VDISABLE;
    if (tcsetattr(terminal.Get(), TCSAFLUSH, &silent) != 0) FailLocal("cannot silence the terminal", errno);
    struct Restore {
        int fd;
        const termios& state;
        ~Restore() { tcsetattr(fd, TCSAFLUSH, &state); }
    } const restore = {terminal.Get(), before};
    WriteAll(terminal.Get(), question.data(), question.size());
    const std::string password = ReadLine(terminal.Get());
    WriteAll(terminal.Get(), "\n", 1);
    return password;
}

std::string PasswordIn(const std::string& path) try {
    const UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat status = {};
    if (file.Get() < 0 || fstat(file.Get(), &status) != 0) FailLocal("cannot open", errno);
    if (S_ISREG(status.st_mode) && (status.st_mode & (S_IRGRP | S_IROTH)) != 0) {
        PrintMessage(path + ": warning: other users can read this password file (chmod 600 ends that)");
    }
    std::string line = ReadLine(file.Get());
    if (!line.empty() && line.back() == '\r') line.pop_back();
    return line;
} catch (const Failure& failure) {
    throw Failure(fmt::format("password file {}: {}", path, failure.what()));
}

std::string PasswordFor(const ConnectionOptions& options) {
    const char* const variable = std::getenv("TSMCTL_PASSWORD");
    std::string password = !options.passwordFile.empty() ? PasswordIn(options.passwordFile)
                           : variable                    ? variable
                                      : AskPassword(fmt::format("Password of node {}: ", Printable(options.node)));
    if (password.empty()) throw UsageError("the password is empty");
    if (password.find('\0') != std::string::npos) throw UsageError("the password holds a byte 0");
    return password;
}

namespace fs = std::filesystem;

off_t SizeOf(const std::string& path) {
    struct stat status = {};
    return stat(path.c_str(), &status) == 0 ? status.st_size : 0;
}

bool IsMine(const fs::path& folder) {
    struct stat status = {};
    return stat(folder.c_str(), &status) == 0 && status.st_uid == geteuid();
}

bool MayLogIn(const std::string& folder) {
    if (faccessat(AT_FDCWD, (folder + "/").c_str(), W_OK | X_OK, AT_EACCESS) != 0) return false;
    return faccessat(AT_FDCWD, (folder + "/dsierror.log").c_str(), W_OK, AT_EACCESS) == 0 || errno == ENOENT;
}

// tsmctl's own folder for the log, in the user's state folder. Another user's, as HOME may be after sudo, is not used:
// its owner could make the log a link to another file.
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

// The wanted folder, else tsmctl's own, which is created; empty where that fails. Throws Failure where the log could
// not be written to the wanted folder.
std::string LogFolder(const std::string& wanted) {
    if (!wanted.empty()) {
        if (!MayLogIn(wanted)) FailLocal("cannot keep the log in " + wanted, errno);
        return wanted;
    }
    const fs::path own = StateFolder();
    fs::path folder;
    for (const fs::path& part : own) {
        folder /= part;
        mkdir(folder.c_str(), 0700);  // what counts is what is there in the end
    }
    return IsMine(own) && MayLogIn(own.native()) ? own.native() : "";
}

// 0.1 seconds the first time, and four times as long each time, up to a minute. False when a signal ends it.
bool PauseBefore(long long retry) {
    const long long length = std::min(60'000LL, 25LL << std::min(2 * retry, 20LL));
    for (long long passed = 0; passed < length && PendingSignal() == 0; passed += 100) poll(nullptr, 0, 100);
    return PendingSignal() == 0;
}

}  // namespace

Connection::Connection(const ConnectionOptions& options) : options_(options) {}

Connection::~Connection() {
    if (!password_.empty()) TsmReleaseApi();
    explicit_bzero(password_.data(), password_.size());
}

void Connection::SetUp() {
    options_.logDir = LogFolder(options_.logDir);
    log_ = options_.logDir + "/dsierror.log";
    logSize_ = SizeOf(log_);
    password_ = PasswordFor(options_);
    char application[] = "tsmctl";
    const int result =
        TsmInitApi(TextOrNull(options_.config), TextOrNull(options_.logDir), TextOrNull(options_.apiDir), application);
    if (result == 0) return;
    const std::string file = options_.config.empty() ? "the default options file" : "options file " + options_.config;
    const char* const hint = options_.logDir.empty() ? "; --log-dir FOLDER keeps a log of the reasons" : "";
    throw Failure(CodeText(fmt::format("cannot set up the client API with {}", file), result) + hint);
}

std::string Connection::GrownLog() const {
    return SizeOf(log_) != logSize_ ? log_ : "";
}

Session::Session(Connection& connection, bool withFilespace) : connection_(connection), withFilespace_(withFilespace) {
    std::call_once(connection_.once_, [this] { connection_.SetUp(); });
}

Session::~Session() {
    Drop();
}

int Session::Handle() {
    if (handle_ == 0) Retry([this] { SignOn(); }, true);
    return handle_;
}

void Session::SignOn() {
    const ConnectionOptions& options = connection_.options_;
    char delimiter[] = "/";
    handle_ = TsmOpenSession(TextOrNull(options.node), TextOrNull(options.owner), Text(connection_.password_), nullptr,
                             nullptr, nullptr, delimiter);
    if (handle_ <= 0) {
        const int result = std::exchange(handle_, 0);
        FailWith("cannot sign on as node " + options.node, result);
    }
    const std::string what = "cannot connect to the filespace " + options.filespace;
    if (withFilespace_) Check(what.c_str(), TsmConnectToFileSpace(handle_, Text(options.filespace)));
}

void Session::Retry(const std::function<void()>& work, bool listing) {
    if (std::exchange(trying_, true)) return work();
    struct Reset {
        bool& trying;
        ~Reset() { trying = false; }
    } const reset = {trying_};
    std::atomic<bool>& failing = listing ? connection_.listingFails_ : connection_.failing_;
    const long long most = failing ? 0 : connection_.options_.retries;
    for (long long retry = 1;; ++retry) {
        try {
            work();
            failing = false;
            return;
        } catch (const PassingFailure&) {
            Drop();
            if (retry <= most && PauseBefore(retry)) continue;
            failing = true;
            throw;
        }
    }
}

void Session::Drop() {
    if (handle_ > 0) TsmCloseSession(handle_);
    handle_ = 0;
}

long long Session::Check(const char* what, long long result) {
    if (result >= 0) return result;
    Drop();
    FailWith(what, result);
}

}  // namespace tsmctl
