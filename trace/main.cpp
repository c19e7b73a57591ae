#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "Commands.h"
#include "Recording.h"

namespace trace {
namespace {

namespace fs = std::filesystem;

// The recorder's path, seen from this program: in a build, or installed.
std::string Recorder() {
    const fs::path folder = fs::read_symlink("/proc/self/exe").parent_path();
    for (const char* place : {"../lib/libtsmtrace.so", TSMTRACE_INSTALLED}) {
        if (fs::exists(folder / place)) return fs::canonical(folder / place).string();
    }
    throw Failure("libtsmtrace.so is not installed");
}

void RequireNew(const std::string& file) {
    if (!FilesOf(file).empty()) throw Failure(file + ": exists already");
}

int Run(const std::vector<std::string>& command, const std::string& output) {
    RequireNew(output);
    const int made = open(output.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (made < 0) throw Failure(output + ": " + std::strerror(errno));
    close(made);
    setenv("TSMTRACE_FILE", fs::absolute(output).c_str(), 1);
    const char* const loaded = std::getenv("LD_PRELOAD");
    setenv("LD_PRELOAD", (Recorder() + (loaded && *loaded != '\0' ? ":" + std::string(loaded) : "")).c_str(), 1);
    std::vector<char*> arguments;
    for (const std::string& argument : command) arguments.push_back(const_cast<char*>(argument.c_str()));
    arguments.push_back(nullptr);
    execvp(arguments[0], arguments.data());
    const int status = errno == ENOENT ? 127 : 126;  // as shells do
    fmt::print(stderr, "tsmtrace: {}: {}\n", command[0], std::strerror(errno));
    return status;
}

std::string FirstLine(const std::string& file) {
    if (file.empty()) return "replay";
    std::ifstream in(file);
    std::string line;
    if (!std::getline(in, line)) throw Failure(file + ": cannot be read");
    return line;
}

int Tsmtrace(int argc, char** argv) try {
    CLI::App app("Records the calls of the TSM client API, and tells what a recording says");
    app.set_version_flag("--version", std::string("tsmtrace ") + TSMTRACE_VERSION);
    app.require_subcommand(1);
    std::string file, other, output, options, log, library, passwordFile;
    const auto add = [&](const char* name, const char* text, bool reads = true) {
        CLI::App* const command = app.add_subcommand(name, text);
        if (reads) command->add_option("FILE", file, "the recording")->required();
        return command;
    };
    std::vector<std::string> command;
    long size = 0, keep = 0;
    bool checksums = false;
    CLI::App* const run = add("run", "Record what a command does", false);
    run->add_option("-o,--output", output, "the recording (default: tsmtrace.jsonl)");
    run->add_flag("--checksums", checksums, "a checksum of the data of each call");
    run->add_option("--size", size, "begin a new file beyond this many MiB")->check(CLI::PositiveNumber);
    run->add_option("--keep", keep, "older files to keep (default: 4)")->check(CLI::PositiveNumber);
    run->add_option("--api", library, "the API's library, where the command does not find it by itself");
    run->add_option("COMMAND", command, "with its arguments, behind --")->required();
    CLI::App* const summary = add("summary", "Numbers, times, and what led to each failure");
    CLI::App* const show = add("show", "Every call in words");
    Filter filter;
    show->add_option("--handle", filter.handle, "of this session only");
    show->add_option("--call", filter.call, "with this in the function's name");
    show->add_option("--object", filter.object, "with this in the name of an object");
    show->add_flag("--failed", filter.failed, "that failed");
    CLI::App* const exporting = add("export", "Print the trace format of Chrome and Perfetto");
    CLI::App* const diff = add("diff", "Compare two recordings, but for times and identifiers");
    diff->add_option("OTHER", other, "the other recording")->required();
    CLI::App* const replay = add("replay", "Make the calls of a recording again, deletions too");
    replay->add_option("--config", options, "the API's options file: the server to work on")
        ->required()
        ->check(CLI::ExistingFile);
    replay->add_option("-o,--output", output, "the new recording (default: FILE.replay)");
    replay->add_option("--api", library, "the API's library");
    replay->add_option("--password-file", passwordFile, "its first line is the password of all nodes");
    CLI::App* const doctor = add("doctor", "Make a folder to send to a support desk");
    doctor->add_option("-o,--output", output, "the new folder (default: FILE.doctor)");
    doctor->add_option("--config", options, "the API's options file, where the recording does not name it");
    doctor->add_option("--error-log", log, "the API's error log, where the recording does not name it");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& problem) {
        return app.exit(problem) == 0 ? 0 : 2;
    }
    if (!library.empty()) setenv("TSMTRACE_API", library.c_str(), 1);
    if (checksums) setenv("TSMTRACE_CHECKSUMS", "1", 1);
    if (size > 0) setenv("TSMTRACE_SIZE", std::to_string(size).c_str(), 1);
    if (keep > 0) setenv("TSMTRACE_KEEP", std::to_string(keep).c_str(), 1);
    int status = 0;
    if (run->parsed()) return Run(command, output.empty() ? "tsmtrace.jsonl" : output);
    if (replay->parsed()) {
        const std::string made = output.empty() ? file + ".replay" : output;
        RequireNew(made);
        status = Replay(file, fs::absolute(options), fs::absolute(made), Recorder(), FirstLine(passwordFile));
    }
    if (summary->parsed()) status = Summary(file);
    if (show->parsed()) status = Show(file, filter);
    if (exporting->parsed()) status = Export(file);
    if (diff->parsed()) status = Diff(file, other, false);
    if (doctor->parsed()) status = Doctor(file, output.empty() ? file + ".doctor" : output, options, log);
    if (std::fflush(stdout) != 0) throw Failure("standard output: " + std::string(std::strerror(errno)));
    return status;
} catch (const std::exception& problem) {
    fmt::print(stderr, "tsmtrace: {}\n", problem.what());
    return 1;
}

}  // namespace
}  // namespace trace

int main(int argc, char** argv) {
    return trace::Tsmtrace(argc, argv);
}
