// The commands of tsmtrace that work on recordings. Each returns the exit status.
#pragma once

#include <string>

namespace trace {

struct Filter {
    long long handle = -1;
    std::string call;    // a part of its name
    std::string object;  // a part of the name of an object
    bool failed = false;
};

int Summary(const std::string& file);
int Show(const std::string& file, const Filter& filter);
int Export(const std::string& file);

// Compares the sequence of calls and their answers; times, handles and identifiers may differ. If b is a replay of a,
// what a replay chooses by itself may differ too. Returns 1 when they differ.
int Diff(const std::string& a, const std::string& b, bool replayed);

// Makes the calls of a recording again, on the server that the options file names. Records them into output, and
// compares the two recordings.
int Replay(const std::string& file, const std::string& options, const std::string& output, const std::string& recorder,
           const std::string& password);

// Makes a folder with all that a support desk asks for.
int Doctor(const std::string& file, const std::string& folder, std::string options, std::string log);

}  // namespace trace
