// Runs registered benchmarks in pairs, one after the other, and prints the results of the pairs.
#pragma once

#include <benchmark/benchmark.h>

#include <string>
#include <vector>

namespace bench {

struct Row {
    enum Kind {
        Speed,   // the speed of `of` as a part of that of `against`: at least the target
        Extra,   // nanoseconds that `of` takes longer than `against`: at most the target
        Factor,  // how many times as long `of` takes as `against`: at most the target
        Number,  // the counter "value" of `of` itself: at most the target
        Ratio    // the same: at least the target
    };
    std::string work;
    Kind kind;
    std::string of;
    std::string against;
    double target;
};

// Prints a line for every row, or for those whose text the program's argument matches: the median of the pairs' values
// and the middle half of them. A row whose middle half crosses its target is undecided. The variable PAIRS says how
// many pairs are run (9). Returns 0, or 1 when a target is missed or a benchmark fails.
int RunAndPrint(int argc, char** argv, const std::vector<Row>& rows);

}  // namespace bench
