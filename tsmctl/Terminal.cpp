#include "Terminal.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <signal.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>

#include "Errors.h"
#include "Files.h"
#include "ObjectNames.h"

namespace tsmctl {
namespace {

// Turns the echo off. Ctrl-\ and Ctrl-Z would leave the terminal without it, so they do nothing meanwhile, and keep
// what was typed.
class NoEcho {
public:
    explicit NoEcho(int fd) : fd_(fd) {
        if (tcgetattr(fd_, &before_) != 0) FailLocal("cannot silence the terminal", errno);
        termios silent = before_;
        silent.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        silent.c_lflag |= NOFLSH;
        if (tcsetattr(fd_, TCSAFLUSH, &silent) != 0) FailLocal("cannot silence the terminal", errno);
    }
    ~NoEcho() {
        tcsetattr(fd_, TCSAFLUSH, &before_);
        signal(SIGQUIT, quit_);
        signal(SIGTSTP, stop_);
    }
    NoEcho(const NoEcho&) = delete;
    NoEcho& operator=(const NoEcho&) = delete;

private:
    int fd_;
    termios before_ = {};
    const sighandler_t quit_ = signal(SIGQUIT, SIG_IGN);
    const sighandler_t stop_ = signal(SIGTSTP, SIG_IGN);
};

}  // namespace

std::string AskPassword(const std::string& question) {
    const UniqueFd terminal(open("/dev/tty", O_RDWR | O_CLOEXEC | O_NOCTTY));
    if (terminal.Get() < 0) {
        throw UsageError("no password: give --password-file or TSMCTL_PASSWORD (there is no terminal to ask on)");
    }
    std::string password;
    {
        const NoEcho silence(terminal.Get());
        WriteAll(terminal.Get(), question.data(), question.size());
        password = ReadLine(terminal.Get());
    }
    WriteAll(terminal.Get(), "\n", 1);
    return password;
}

bool Confirmed(bool yes, const std::string& question, const std::string& answer) {
    if (yes) return true;
    if (isatty(STDIN_FILENO) != 1) {
        throw UsageError(question + ": refused without --yes (there is no terminal to ask on)");
    }
    fmt::print(stderr, "{}? Type \"{}\" to go on: ", Printable(question), Printable(answer));
    return ReadLine(STDIN_FILENO) == answer;
}

}  // namespace tsmctl
