// PObject and PStream beside plain baselines in the same run:
//   - a 1,000-member map built, deep-copied and looked up, beside
//     std::map<std::string, int64_t> doing the same;
//   - a status-like reply with 1,000 connections encoded and decoded, in
//     bytes per second, beside memcpy of the same byte count.
#include <cstring>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "benchmark/benchmark.h"
#include "stream/PObject.h"
#include "stream/stream.h"

namespace {

constexpr int kMembers = 1000;

const std::vector<std::string>& Keys() {
  static const std::vector<std::string> keys = [] {
    std::vector<std::string> k;
    for (int i = 0; i < kMembers; ++i) k.push_back("connection_" + std::to_string(i * 7919 % 100000));
    return k;
  }();
  return keys;
}

PObject BuildMap() {
  PObject map;
  int64_t i = 0;
  for (const std::string& key : Keys()) map[key] = ++i;
  return map;
}

std::map<std::string, int64_t> BuildStdMap() {
  std::map<std::string, int64_t> map;
  int64_t i = 0;
  for (const std::string& key : Keys()) map[key] = ++i;
  return map;
}

void BM_PObjectMapBuild(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(BuildMap());
}
BENCHMARK(BM_PObjectMapBuild);

void BM_StdMapBuild(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(BuildStdMap());
}
BENCHMARK(BM_StdMapBuild);

void BM_PObjectMapCopy(benchmark::State& state) {
  const PObject map = BuildMap();
  for (auto _ : state) {
    PObject copy(map);
    benchmark::DoNotOptimize(copy);
  }
}
BENCHMARK(BM_PObjectMapCopy);

void BM_StdMapCopy(benchmark::State& state) {
  const std::map<std::string, int64_t> map = BuildStdMap();
  for (auto _ : state) {
    std::map<std::string, int64_t> copy(map);
    benchmark::DoNotOptimize(copy);
  }
}
BENCHMARK(BM_StdMapCopy);

// Every key once per iteration.
void BM_PObjectMapLookup(benchmark::State& state) {
  const PObject map = BuildMap();
  for (auto _ : state) {
    int64_t sum = 0;
    for (const std::string& key : Keys()) sum += map.Lookup(key).AsInteger();
    benchmark::DoNotOptimize(sum);
  }
}
BENCHMARK(BM_PObjectMapLookup);

void BM_StdMapLookup(benchmark::State& state) {
  const std::map<std::string, int64_t> map = BuildStdMap();
  for (auto _ : state) {
    int64_t sum = 0;
    for (const std::string& key : Keys()) {
      auto it = map.find(key);
      sum += it == map.end() ? 0 : it->second;
    }
    benchmark::DoNotOptimize(sum);
  }
}
BENCHMARK(BM_StdMapLookup);

// Output that only counts, and input read in place: the figures are the
// codec's, not a string stream's growth and copies.
class CountingSink : public std::streambuf {
 public:
  size_t count = 0;

 protected:
  std::streamsize xsputn(const char*, std::streamsize n) override {
    count += static_cast<size_t>(n);
    return n;
  }
  int_type overflow(int_type c) override {
    ++count;
    return c;
  }
};

class MemorySource : public std::streambuf {
 public:
  explicit MemorySource(const std::string& bytes) {
    char* p = const_cast<char*>(bytes.data());
    setg(p, p, p + bytes.size());
  }
};

// The shape of the sync daemon's status reply.
PObject StatusReply() {
  PObject reply;
  reply["ack"] = "ok";
  PObject::array_type& list = reply["connection_list"].MutableArray();
  for (int i = 0; i < kMembers; ++i) {
    PObject c;
    c["conn_id"] = i + 1;
    c["status"] = i % 3 == 0 ? "connected" : "not_connected";
    c["error"] = 0;
    c["server_name"] = "nas-" + std::to_string(i) + ".example.internal";
    c["last_connected_time"] = 1700000000 + i;
    c["bytes_uploaded"] = int64_t{5000000000} + i;
    PObject::array_type& sessions = c["session_list"].MutableArray();
    for (int s = 0; s < 2; ++s) {
      PObject session;
      session["sess_id"] = i * 10 + s;
      session["status"] = "syncing";
      session["remain_files"] = 42 + s;
      sessions.push_back(std::move(session));
    }
    list.push_back(std::move(c));
  }
  return reply;
}

std::string Encoded(const PObject& value) {
  std::ostringstream out;
  PStream stream;
  stream.Send(&out, value);
  return out.str();
}

void BM_PStreamEncodeStatus(benchmark::State& state) {
  const PObject reply = StatusReply();
  const size_t bytes = Encoded(reply).size();
  PStream stream;
  for (auto _ : state) {
    CountingSink sink;
    std::ostream out(&sink);
    if (stream.Send(&out, reply) != 0 || sink.count != bytes) state.SkipWithError("encode failed");
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes));
  state.counters["wire_bytes"] = static_cast<double>(bytes);
}
BENCHMARK(BM_PStreamEncodeStatus);

void BM_PStreamDecodeStatus(benchmark::State& state) {
  const std::string wire = Encoded(StatusReply());
  PStream stream;
  for (auto _ : state) {
    MemorySource source(wire);
    std::istream in(&source);
    PObject value;
    if (stream.Recv(&in, &value) != 0) state.SkipWithError("decode failed");
    benchmark::DoNotOptimize(value);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * wire.size()));
}
BENCHMARK(BM_PStreamDecodeStatus);

void BM_MemcpyStatusBytes(benchmark::State& state) {
  const std::string wire = Encoded(StatusReply());
  std::string target(wire.size(), '\0');
  for (auto _ : state) {
    memcpy(&target[0], wire.data(), wire.size());
    benchmark::DoNotOptimize(target);
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * wire.size()));
}
BENCHMARK(BM_MemcpyStatusBytes);

}  // namespace
