#include "Table.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <optional>
#include <regex>
#include <set>

namespace bench {
namespace {

struct Result {
    double nanoseconds = 0;
    double counter = 0;
};

// Keeps the results of a benchmark's last run.
class Last : public benchmark::BenchmarkReporter {
public:
    bool ReportContext(const Context&) override { return true; }
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            if (run.error_occurred) {
                std::fprintf(stderr, "%s: %s\n", run.benchmark_name().c_str(), run.error_message.c_str());
            } else if (run.run_type == Run::RT_Iteration) {
                const auto counter = run.counters.find("value");
                result = Result{run.real_accumulated_time * 1e9 / static_cast<double>(run.iterations),
                                counter == run.counters.end() ? 0 : counter->second.value};
            }
        }
    }
    std::optional<Result> result;
};

std::optional<Result> Measure(const std::string& name) {
    Last last;
    const std::regex special("[.*+?()|\\[\\]{}^$\\\\]");
    benchmark::RunSpecifiedBenchmarks(&last, "^" + std::regex_replace(name, special, "\\$&") + "(/.*)?$");
    return last.result;
}

// The number that a part of the sorted numbers does not exceed.
double Quantile(const std::vector<double>& numbers, double part) {
    const double at = part * static_cast<double>(numbers.size() - 1);
    const auto below = static_cast<std::size_t>(at);
    const double above = numbers[std::min(below + 1, numbers.size() - 1)];
    return numbers[below] + (above - numbers[below]) * (at - static_cast<double>(below));
}

double Median(std::vector<double> numbers) {
    std::sort(numbers.begin(), numbers.end());
    return Quantile(numbers, 0.5);
}

std::string Time(double nanoseconds) {
    const std::pair<double, const char*> units[] = {{1e9, "s"}, {1e6, "ms"}, {1e3, "us"}, {1, "ns"}};
    for (const auto& [size, unit] : units) {
        if (nanoseconds >= size || size == 1) {
            char text[32];
            std::snprintf(text, sizeof text, "%.3g %s", nanoseconds / size, unit);
            return text;
        }
    }
    return {};
}

bool IsCounted(const Row& row) {
    return row.kind == Row::Number || row.kind == Row::Ratio;
}

double Value(const Row& row, const Result& of, const Result& against) {
    switch (row.kind) {
        case Row::Speed:
            return against.nanoseconds / of.nanoseconds;
        case Row::Extra:
            return of.nanoseconds - against.nanoseconds;
        case Row::Factor:
            return of.nanoseconds / against.nanoseconds;
        default:
            return of.counter;
    }
}

// The results of a row's pairs.
struct Pairs {
    std::vector<double> of, against, values;
};

// Returns false when the target is missed.
bool Print(const Row& row, Pairs pairs) {
    std::sort(pairs.values.begin(), pairs.values.end());
    const double low = Quantile(pairs.values, 0.25), high = Quantile(pairs.values, 0.75);
    const bool least = row.kind == Row::Speed || row.kind == Row::Ratio;
    const bool met = least ? low >= row.target : high <= row.target;
    const bool missed = least ? high < row.target : low > row.target;
    const char* const unit = row.kind == Row::Extra ? " ns" : "";
    char spread[64];
    std::snprintf(spread, sizeof spread, "%.4g to %.4g", low, high);
    std::printf("| %-52s | %9s | %9s | %7.4g%s | %16s | %s %.4g%s | %s |\n", row.work.c_str(),
                IsCounted(row) ? "" : Time(Median(pairs.of)).c_str(),
                IsCounted(row) ? "" : Time(Median(pairs.against)).c_str(), Quantile(pairs.values, 0.5), unit, spread,
                least ? "at least" : "at most", row.target, unit,
                met      ? "met"
                : missed ? "MISSED"
                         : "undecided");
    std::fflush(stdout);
    return !missed;
}

}  // namespace

int RunAndPrint(int argc, char** argv, const std::vector<Row>& rows) {
    const char* const pairs = std::getenv("PAIRS");
    const int count = pairs ? std::atoi(pairs) : 9;
    benchmark::Initialize(&argc, argv);
    const std::regex filter(argc > 1 ? argv[1] : "");
    if (argc > 2 || count < 1) {
        std::fprintf(stderr, "usage: %s [REGULAR EXPRESSION]   the rows whose text it matches\n", argv[0]);
        return 2;
    }
    bool failed = false;
    for (const Row& row : rows) {
        if (!std::regex_search(row.work, filter)) continue;
        Pairs results;
        for (int i = 0; i < count; ++i) {
            // In turns, so that neither always runs behind the other.
            std::optional<Result> of, against = Result{};
            if (i % 2 == 0 && !IsCounted(row)) against = Measure(row.against);
            of = Measure(row.of);
            if (i % 2 != 0 && !IsCounted(row)) against = Measure(row.against);
            if (!of || !against) break;
            results.of.push_back(of->nanoseconds);
            results.against.push_back(against->nanoseconds);
            results.values.push_back(Value(row, *of, *against));
        }
        failed = results.values.empty() || !Print(row, std::move(results)) || failed;
    }
    return failed ? 1 : 0;
}

}  // namespace bench
