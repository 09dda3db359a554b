// Logger::Log to a file beside the plain C library doing the same: one
// stamped line, written and flushed per call.
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <string>

#include "benchmark/benchmark.h"
#include "log/log.h"
#include "log/logger.h"

namespace {

// A folder of the run's own, removed (with what the benchmarks left in it)
// when the run ends.
const std::string& BenchDir() {
  static const std::string* dir = [] {
    char pattern[] = "/tmp/vesta-bench-XXXXXX";
    std::string* d = new std::string(mkdtemp(pattern));  // kept until exit
    std::atexit([] { std::system(("rm -rf '" + BenchDir() + "'").c_str()); });
    return d;
  }();
  return *dir;
}

void BM_LoggerLog(benchmark::State& state) {
  std::string path = BenchDir() + "/logger.log";
  Logger::Init(Logger::kFile, path, "", 50, static_cast<int>(state.range(0)));
  int i = 0;
  for (auto _ : state) {
    LOG_ERROR("bench", "connection %d: status %s", ++i, "connected");
  }
  Logger::Shutdown();
  // Each run starts without older rotations to shift.
  std::system(("rm -f '" + path + "'*").c_str());
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_LoggerLog)->Arg(1)->Arg(2)->ArgName("share_mode");

// The baseline writes the same bytes: stamp, prefix and text, then flushes.
void BM_FprintfFflush(benchmark::State& state) {
  std::string path = BenchDir() + "/fprintf.log";
  FILE* f = fopen(path.c_str(), "a");
  int i = 0;
  for (auto _ : state) {
    char stamp[32];
    time_t now = time(nullptr);
    struct tm local;
    localtime_r(&now, &local);
    strftime(stamp, sizeof(stamp), "%Y-%m-%dT%H:%M:%S ", &local);
    fputs(stamp, f);
    fprintf(f, "(%5d:%5d) [ERROR] %s(%d): connection %d: status %s\n", getpid(), 1, "bench", 1,
            ++i, "connected");
    fflush(f);
  }
  fclose(f);
  unlink(path.c_str());
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_FprintfFflush);

}  // namespace
