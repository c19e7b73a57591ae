// Runs the registered benchmarks in random order and prints their medians against each other.
#pragma once

#include <benchmark/benchmark.h>

#include <string>
#include <vector>

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

// Prints a line for every row, of the medians over all repetitions. Returns 0, or 1 when a target is missed.
int RunAndPrint(int argc, char** argv, const std::vector<Row>& rows);
