#include "terminal.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <termios.h>
#include <unistd.h>

#include "errors.h"
#include "local.h"
#include "names.h"

namespace {
class NoEcho {
public:
    explicit NoEcho(int terminal) : fd(terminal) {
        tcgetattr(fd, &before);
        termios silent = before;
        silent.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        tcsetattr(fd, TCSAFLUSH, &silent);
    }
    ~NoEcho() { tcsetattr(fd, TCSAFLUSH, &before); }
    NoEcho(const NoEcho&) = delete;
    NoEcho& operator=(const NoEcho&) = delete;

private:
    int fd;
    termios before = {};
};

std::string ReadLine(int fd) {
    std::string line;
    char c = 0;
    while (ReadFull(fd, &c, 1) == 1 && c != '\n') line += c;
    return line;
}
}  // namespace

std::string AskPassword(const std::string& question) {
    const UniqueFd terminal(open("/dev/tty", O_RDWR | O_CLOEXEC | O_NOCTTY));
    if (terminal.Get() < 0) {
        throw UsageError("no password: give --password-file or TSMCTL_PASSWORD (there is no terminal to ask on)");
    }
    WriteAll(terminal.Get(), question.data(), question.size());
    std::string password;
    {
        const NoEcho silence(terminal.Get());
        password = ReadLine(terminal.Get());
    }
    WriteAll(terminal.Get(), "\n", 1);
    return password;
}

bool Confirmed(bool yes, const std::string& question, const std::string& answer) {
    if (yes) return true;
    if (isatty(STDIN_FILENO) != 1)
        throw UsageError(question + ": refused without --yes (there is no terminal to ask on)");
    fmt::print(stderr, "{}? Type \"{}\" to go on: ", Printable(question), Printable(answer));
    return ReadLine(STDIN_FILENO) == answer;
}
