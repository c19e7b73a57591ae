// Makes a folder for a support desk.
#include <fmt/format.h>
#include <gnu/libc-version.h>
#include <sys/stat.h>
#include <sys/utsname.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>

#include "Commands.h"
#include "Recording.h"

namespace trace {
namespace {

namespace fs = std::filesystem;

// A line of an options file, without what may be secret. A value is shown only if its option is known to be harmless:
// a list of secret options would miss a new one. Comments are left out.
std::string WithoutSecrets(std::string line) {
    static const char* const harmless[] = {
        "storedir",      "mgmtclass",   "backdelete",     "tcpserveraddress", "tcpport",      "commmethod",
        "servername",    "nodename",    "passwordaccess", "errorlogname",     "schedlogname", "compression",
        "tcpwindowsize", "tcpbuffsize", "txnbytelimit",   "largecommbuffers", "sessioninit",  "ssl",
        "enablelanfree", "dateformat",  "timeformat"};
    const auto begin = line.find_first_not_of(" \t\r");
    if (begin == std::string::npos || line[begin] == '*') return "";
    const auto end = std::min(line.find_first_of(" \t\r", begin), line.size());
    std::string keyword = line.substr(begin, end - begin);
    std::transform(keyword.begin(), keyword.end(), keyword.begin(), [](unsigned char c) { return std::tolower(c); });
    const bool shown = std::find(std::begin(harmless), std::end(harmless), keyword) != std::end(harmless);
    return (shown ? line : line.substr(0, end) + "  (not shown)") + "\n";
}

}  // namespace

int Doctor(const std::string& file, const std::string& folder, std::string options, std::string log) {
    std::string versions = fmt::format("tsmtrace {}\n", TSMTRACE_VERSION);
    const auto say = [&](const std::string& line) {
        if (versions.find(line + "\n") == std::string::npos) versions += line + "\n";
    };
    const Health health = ForEachLine(file, [&](Json& line) {
        if (line.value("event", "") == "start") {
            say(fmt::format("recorder {}, program {}, API {}", Shown(line.at("recorder")), Shown(line.at("program")),
                            Shown(line.at("api"))));
        }
        const std::string call = line.value("call", "");
        if (call == "dsmQueryApiVersionEx") say(fmt::format("API {}", line.at("version").dump()));
        if (call == "dsmInitEx" && line.at("rc") == 0) say(fmt::format("server {}", line.at("out").dump()));
        if (call == "dsmSetUp" && line.at("setUp").is_object()) {
            const Json& setUp = line.at("setUp");
            if (options.empty()) options = Bytes(setUp.at("config"));
            if (log.empty() && !Bytes(setUp.at("log")).empty()) {
                const std::string name = Bytes(setUp.at("logName"));
                log = (fs::path(Bytes(setUp.at("log"))) / (name.empty() ? "dsierror.log" : name)).string();
            }
        }
    });
    umask(077);
    if (!fs::create_directory(folder)) throw Failure(folder + ": exists already");
    utsname system = {};
    uname(&system);
    say(fmt::format("{} {} {}, C library {}", system.sysname, system.release, system.machine, gnu_get_libc_version()));
    std::ifstream release("/etc/os-release");
    for (std::string line; std::getline(release, line);) {
        if (line.rfind("PRETTY_NAME=", 0) == 0) say(line);
    }
    say(fmt::format("lines lost {}, missing {}, unreadable {}; processes begun {}, ended {}", health.lost,
                    health.missing, health.unreadable, health.begun, health.ended));
    for (const std::string& part : FilesOf(file)) {  // under names that no other file here has
        const std::string suffix = fs::path(part).filename().string().substr(fs::path(file).filename().string().size());
        fs::copy_file(part, fs::path(folder) / ("recording" + suffix));
    }
    if (std::ifstream in(options); !options.empty() && in) {
        std::ofstream out(fs::path(folder) / "options");
        for (std::string line; std::getline(in, line);) out << WithoutSecrets(line);
    } else {
        say(fmt::format("no options file{}", options.empty() ? "" : ": " + options + " cannot be read"));
    }
    std::error_code failed;
    if (log.empty() || !fs::copy_file(log, fs::path(folder) / "error-log", failed)) {
        say(fmt::format("no error log{}", log.empty() ? "" : ": " + log + " cannot be read"));
    }
    std::ofstream(fs::path(folder) / "versions") << versions;
    fmt::print("{}: look it through before you send it; names of files and nodes are in it\n", folder);
    return 0;
}

}  // namespace trace
