// main() of the benchmarks whose goals are ratios between benchmarks of one
// binary: every benchmark runs nine times, in random order across all of
// them, and the median is reported, so that a change in the machine's load
// during the run falls on both sides of each ratio.  Flags given on the
// command line come later and win.
#include <vector>

#include "benchmark/benchmark.h"

int main(int argc, char** argv) {
  static char kRepetitions[] = "--benchmark_repetitions=9";
  static char kInterleave[] = "--benchmark_enable_random_interleaving=true";
  static char kAggregates[] = "--benchmark_report_aggregates_only=true";
  static char kMinTime[] = "--benchmark_min_time=0.1";  // seconds per repetition
  std::vector<char*> args = {argv[0], kRepetitions, kInterleave, kAggregates, kMinTime};
  args.insert(args.end(), argv + 1, argv + argc);
  int count = static_cast<int>(args.size());
  args.push_back(nullptr);
  benchmark::Initialize(&count, args.data());
  if (benchmark::ReportUnrecognizedArguments(count, args.data())) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
