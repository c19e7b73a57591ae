#include "connection.h"

#include <fmt/format.h>
#include <string.h>

#include <cstdlib>
#include <fstream>
#include <utility>

#include "errors.h"
#include "terminal.h"
#include "tsmconnector.h"

namespace {
std::string PasswordFor(const Options& options) {
    if (!options.passwordFile.empty()) {
        std::ifstream file(options.passwordFile);
        std::string line;
        if (!std::getline(file, line) && !file.eof()) {
            throw Failure(fmt::format("{}: cannot read the password file", options.passwordFile));
        }
        if (!line.empty() && line.back() == '\r') line.pop_back();
        return line;
    }
    if (const char* const text = std::getenv("TSMCTL_PASSWORD")) return text;
    return AskPassword(fmt::format("Password of node {}: ", options.node));
}
}  // namespace

Connection::Connection(const Options& chosen) : options(chosen), password(PasswordFor(chosen)) {
    char application[] = "tsmctl";
    const int result =
        TsmInitApi(TextOrNull(options.config), TextOrNull(options.logDir), TextOrNull(options.apiDir), application);
    if (result != 0) {
        TsmReleaseApi();
        explicit_bzero(password.data(), password.size());
        const std::string file = options.config.empty() ? "the default options file" : "options file " + options.config;
        const char* const log = options.logDir.empty() ? "; --log-dir FOLDER keeps a log of the reasons" : "";
        throw Failure(CodeText(fmt::format("cannot set up the client API with {}", file), result) + log);
    }
}

Connection::~Connection() {
    TsmReleaseApi();
    explicit_bzero(password.data(), password.size());
}

Session::Session(const Connection& owner, bool withFilespace) : connection(owner), filespace(withFilespace) {}

Session::~Session() {
    Drop();
}

int Session::Handle() {
    if (handle > 0) return handle;
    const Options& options = connection.options;
    char delimiter[] = "/";
    handle = TsmOpenSession(TextOrNull(options.node), TextOrNull(options.owner), Text(connection.password), nullptr,
                            nullptr, nullptr, delimiter);
    if (handle <= 0) {
        const int result = std::exchange(handle, 0);
        throw Failure(CodeText("cannot sign on as node " + options.node, result));
    }
    const std::string what = "cannot connect to the filespace " + options.filespace;
    if (filespace) Check(what.c_str(), TsmConnectToFileSpace(handle, Text(options.filespace)));
    return handle;
}

void Session::Drop() {
    if (handle > 0) TsmCloseSession(handle);
    handle = 0;
}

long long Session::Check(const char* what, long long result) {
    if (result >= 0) return result;
    Drop();
    throw Failure(CodeText(what, result));
}
