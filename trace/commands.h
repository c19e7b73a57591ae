// The commands of tsmtrace that work on recordings. Each returns the exit status.
#ifndef TRACE_COMMANDS_H
#define TRACE_COMMANDS_H

#include <string>

struct Filter {
    long long handle = -1;
    std::string call;    // a part of its name
    std::string object;  // a part of the name of an object
    bool failed = false;
};

int Summary(const std::string& file);
int Show(const std::string& file, const Filter& filter);
int Export(const std::string& file);

// Compares sequence and answers; times, handles and identifiers may differ. Where one is a replay of the other, what a
// replay chooses by itself may differ too. 1: they differ.
int Diff(const std::string& a, const std::string& b, bool replayed);

// Makes the calls of a recording again, on the server of an options file, recording into another file; then compares.
int Replay(const std::string& file, const std::string& options, const std::string& output, const std::string& recorder,
           const std::string& password);

// A new folder with all that a support desk asks for.
int Doctor(const std::string& file, const std::string& folder, std::string options, std::string log);

#endif
