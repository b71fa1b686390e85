// Runs the benchmarks with the usual console output, then prints one line
// per "<Group>/<case>" that has both a ":library" and a ":reference" run:
// their times, the ratio and their allocations per operation, and the ratio
// of every counter the two share. Times are real (wall-clock) times.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace
{

struct Figure
{
    double nsPerOp = 0;
    double allocsPerOp = -1; // -1: not counted
    std::map<std::string, double> counters;
};

class SummaryReporter : public benchmark::ConsoleReporter
{
public:
    void ReportRuns(const std::vector<Run>& runs) override
    {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs)
        {
            // With repetitions the median stands for the case; without, the
            // one iteration run does.
            const bool median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
            if (run.error_occurred || (run.run_type != Run::RT_Iteration && !median))
                continue;
            const std::string name = run.run_name.str();
            if (!median && _medians.count(name) != 0)
                continue;
            Figure figure;
            figure.nsPerOp = run.GetAdjustedRealTime() *
                             benchmark::GetTimeUnitMultiplier(benchmark::kNanosecond) /
                             benchmark::GetTimeUnitMultiplier(run.time_unit);
            for (const auto& [name, counter] : run.counters)
            {
                if (name == "allocs/op")
                    figure.allocsPerOp = counter.value;
                else
                    figure.counters[name] = counter.value;
            }
            _figures[name] = figure;
            if (median)
                _medians.insert(name);
        }
    }

    void PrintSummary() const
    {
        std::printf("\n%-34s %12s %12s %7s %12s %12s\n", "case", "library ns", "reference ns",
                    "ratio", "lib allocs", "ref allocs");
        for (const auto& [name, library] : _figures)
        {
            const std::string suffix = ":library";
            if (name.size() <= suffix.size() ||
                name.compare(name.size() - suffix.size(), suffix.size(), suffix) != 0)
                continue;
            const std::string base = name.substr(0, name.size() - suffix.size());
            const auto reference = _figures.find(base + ":reference");
            if (reference == _figures.end())
                continue;
            std::printf("%-34s %12.1f %12.1f %7.3f %12s %12s\n", base.c_str(), library.nsPerOp,
                        reference->second.nsPerOp, library.nsPerOp / reference->second.nsPerOp,
                        Allocs(library).c_str(), Allocs(reference->second).c_str());
            for (const auto& [counter, value] : library.counters)
            {
                const auto other = reference->second.counters.find(counter);
                if (other != reference->second.counters.end() && other->second != 0)
                    std::printf("%-34s %12.4g %12.4g %7.3f\n", ("  " + counter).c_str(), value,
                                other->second, value / other->second);
            }
        }
    }

private:
    static std::string Allocs(const Figure& figure)
    {
        if (figure.allocsPerOp < 0)
            return "-";
        char text[32];
        std::snprintf(text, sizeof(text), "%.3f", figure.allocsPerOp);
        return text;
    }

    // Keyed by name, so the summary comes out sorted and pairs sit together.
    std::map<std::string, Figure> _figures;
    std::set<std::string> _medians;
};

} // namespace

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    SummaryReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.PrintSummary();
    benchmark::Shutdown();
    return 0;
}
