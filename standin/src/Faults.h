// Failures on request. One table has the rules for the calls of this process: those of the options file and the
// environment, which each set-up reads anew, and those of a test (standin/testcontrol.h). Any thread may call any
// function.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "dsmapitd.h"

namespace standin {

enum class Call : unsigned {
#define CALL(name, ...) name,
#include "../../tables/calls.def"
#undef CALL
};

struct Fault {
    dsInt16_t rc;
    dsUint16_t reason;
};

// Which calls a rule is for, and what it does to them.
struct Rule {
    std::optional<Call> call;  // none: any
    unsigned long nth = 0;     // since the process began; 0: every one
    double percent = 100;      // of them, chosen by the seed
    std::uint64_t seed = 0;

    std::optional<Fault> fault = {};     // the answer in place of the call's work
    bool anyFault = false;               // one of those that servers give to such a call
    std::chrono::milliseconds delay{0};  // before the work
    dsUint32_t bytes = 0;                // that one call takes or gives at most; 0: as many as there is room for
    bool ofTest = false;
};

// What an operator asks for.
struct Faults {
    std::vector<Rule> rules;
    std::size_t sessions = 0;           // at a time; 0: any number
    std::chrono::milliseconds idle{0};  // for which a session may be; 0: for as long as it likes
    bool strictSize = false;

    // Reads a line of an options file. Returns false if the keyword is for something else. Throws std::runtime_error,
    // without the line's text, if the rest of the line is wrong.
    bool Take(const std::string& keyword, const std::string& rest);
};

namespace faults {

std::optional<Call> Named(const std::string& function);

// Counts the call, lets it wait, and gives the answer that is wanted instead of its work.
std::optional<Fault> Enter(Call call);

// How many of the bytes one such call takes or gives.
dsUint32_t AtMost(Call call, dsUint32_t bytes);

// Replaces the rules of an earlier set-up.
void SetUp(const std::vector<Rule>& rules);

// For tests. nth counts from now on.
void Add(Rule rule);
void TakeAtMost(dsUint32_t bytes);
unsigned long Count(std::optional<Call> call);
void Reset();

}  // namespace faults
}  // namespace standin
