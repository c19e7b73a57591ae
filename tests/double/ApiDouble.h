// A double of the TSM client API: writes down every call with its arguments and answers as a test has scripted it. It
// is linked into the test program, ahead of the library that the connector was linked with.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "dsmapifp.h"
#include "dsmrc.h"

using Lines = std::vector<std::string>;

// One answer to a query, for any type of query.
struct Found {
    std::string fs, hl, ll;
    dsUint8_t type = DSM_OBJ_FILE;
    std::uint64_t size = 0;
    std::string info = {};
    dsmDate date = {2021, 3, 7, 9, 5, 0};
    dsUint32_t id = 1;
    std::string mc = "STANDARD";
};

struct Answer {
    dsInt16_t rc;
    dsUint16_t reason = 0;
};

class ApiDouble {
public:
    static ApiDouble& Get();
    void Reset();

    // The next calls of a function answer so, one after the other; then it succeeds again.
    void Answers(const std::string& function, std::deque<Answer> answers) { scripted_[function] = std::move(answers); }
    // What the next query gives, and the code that ends it.
    void Finds(std::vector<Found> found, dsInt16_t end = DSM_RC_FINISHED) { sets.push_back({std::move(found), end}); }
    // All calls since the last time, one a line.
    Lines TakeCalls();
    // The names alone.
    Lines TakeCallNames();

    std::deque<dsUint32_t> acceptedBytes;  // that the next dsmSendData calls take; all of them when empty
    std::deque<std::string> chunks;        // bytes that the next dsmGetData calls give
    dsUint32_t nextHandle = 7;
    const char* lastSent = nullptr;  // where the bytes of the last dsmSendData were

    std::function<void()> meanwhile;  // run by the next call, while it is under way

    // For the functions of the double.
    struct Set {
        std::vector<Found> found;
        dsInt16_t end;
    };
    Answer Call(const std::string& function, const std::string& arguments = {});
    std::deque<Set> sets;
    Set current;
    std::size_t next = 0;
    dsmQueryType queryType = qtBackup;
    const char* firstPass = nullptr;  // where and how long the copy of a dsmSendData in several passes is
    dsUint32_t firstPassLength = 0;

    // Marks the time inside the double, whose own allocations are not the library's.
    struct Inside {
        Inside() { ++inside; }
        ~Inside() { --inside; }
    };
    static thread_local int inside;

private:
    Lines calls_;
    std::map<std::string, std::deque<Answer>> scripted_;
};
