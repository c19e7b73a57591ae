#include "Table.h"

#include <algorithm>
#include <cstdio>
#include <map>

namespace {

class Gathered : public benchmark::BenchmarkReporter {
public:
    bool ReportContext(const Context&) override { return true; }
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            if (run.error_occurred) {
                std::fprintf(stderr, "%s: %s\n", run.benchmark_name().c_str(), run.error_message.c_str());
                failed = true;
            } else if (run.run_type == Run::RT_Iteration) {
                const double nanoseconds = run.real_accumulated_time * 1e9 / static_cast<double>(run.iterations);
                times[run.run_name.function_name].push_back(nanoseconds);
                const auto value = run.counters.find("value");
                if (value != run.counters.end()) values[run.run_name.function_name].push_back(value->second);
            }
        }
    }
    static double Median(std::vector<double> numbers) {
        std::sort(numbers.begin(), numbers.end());
        const std::size_t middle = numbers.size() / 2;
        return numbers.size() % 2 == 1 ? numbers[middle] : (numbers[middle - 1] + numbers[middle]) / 2;
    }
    std::map<std::string, std::vector<double>> times;
    std::map<std::string, std::vector<double>> values;
    bool failed = false;
};

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

}  // namespace

int RunAndPrint(int argc, char** argv, const std::vector<Row>& rows) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
    Gathered gathered;
    benchmark::RunSpecifiedBenchmarks(&gathered);
    bool missed = gathered.failed;
    for (const Row& row : rows) {
        const bool counted = row.kind == Row::Number || row.kind == Row::Ratio;
        const auto& of = counted ? gathered.values[row.of] : gathered.times[row.of];
        if (of.empty() || (!counted && gathered.times[row.against].empty())) continue;
        const double mine = Gathered::Median(of);
        const double other = counted ? 0 : Gathered::Median(gathered.times[row.against]);
        const double value = row.kind == Row::Speed    ? other / mine
                             : row.kind == Row::Extra  ? mine - other
                             : row.kind == Row::Factor ? mine / other
                                                       : mine;
        const bool least = row.kind == Row::Speed || row.kind == Row::Ratio;
        const bool met = least ? value >= row.target : value <= row.target;
        missed = missed || !met;
        std::printf("| %-52s | %9s | %9s | %7.4g%s | %s %g%s | %s |\n", row.work.c_str(),
                    counted ? "" : Time(mine).c_str(), counted ? "" : Time(other).c_str(), value,
                    row.kind == Row::Extra ? " ns" : "", least ? "at least" : "at most", row.target,
                    row.kind == Row::Extra ? " ns" : "", met ? "met" : "MISSED");
        std::fflush(stdout);
    }
    return missed ? 1 : 0;
}
