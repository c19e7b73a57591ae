// A recording as tsmtrace reads it: its lines, and what they say in words.
#pragma once

#include <functional>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <vector>

namespace trace {

using Json = nlohmann::json;

// What cannot be done, as told to the user: exit status 1.
struct Failure : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// What is missing from a recording.
struct Health {
    long long unreadable = 0;        // lines, as of a process killed in the middle of one
    long long lost = 0;              // the recorder had no room for them, and says so
    long long missing = 0;           // by their numbers: rotated away, or never written
    long long begun = 0, ended = 0;  // processes
};

// Calls take for every line: those of the older parts FILE.N to FILE.1, of FILE, and of the files in which processes
// that ended suddenly held theirs. The lines of one process come in their order. A line in which take misses a member
// counts as unreadable. Throws Failure when there is no such file.
Health ForEachLine(const std::string& file, const std::function<void(Json&)>& take);

// Calls take for every call of the host, not for those that the API made itself. Each has the members "call" and "rc".
Health ForEachCall(const std::string& file, const std::function<void(Json&)>& take);

// The files of a recording that exist, in the order of reading.
std::vector<std::string> FilesOf(const std::string& file);

// The handle; 0 for calls outside of sessions.
long long HandleOf(const Json& line);
bool Failed(const Json& line);
// "sign-on of node N"; with the answer "sign-on of node N was refused: wrong password (DSM_RC_AUTH_FAILURE, 137)".
std::string Words(const Json& line);
std::string Sentence(const Json& line);
// "DSM_RC_AUTH_FAILURE (137)"
std::string CodeText(long long code);
// The bytes of a recorded text, and how a terminal may show them.
std::string Bytes(const Json& text);
std::string Shown(const Json& value);
// "10:11:12.123456", the local time; "1.5 ms".
std::string Moment(const Json& line);
std::string Duration(double nanoseconds);

}  // namespace trace
