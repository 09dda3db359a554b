// A 256 MiB file over loopback TCP: Channel::SendFile into Channel::RecvFile,
// beside the plainest transfer the kernel offers -- a sendfile(2) loop into
// a read/write receiver -- measured in the same run.  Prints both rates and
// their ratio at the end.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "benchmark/benchmark.h"
#include "net/channel.h"

namespace {

constexpr uint64_t kFileSize = 256ull << 20;

std::string g_dir;
double g_channel_mbps = 0;
double g_baseline_mbps = 0;

std::string Path(const char* name) { return g_dir + "/" + name; }

void MakeSource() {
  FILE* f = fopen(Path("src").c_str(), "wb");
  std::vector<uint32_t> block(1 << 16);
  uint32_t x = 12345;
  for (uint64_t done = 0; done < kFileSize; done += block.size() * 4) {
    for (uint32_t& w : block) w = (x = x * 1664525u + 1013904223u);
    fwrite(block.data(), 4, block.size(), f);
  }
  fclose(f);
}

// A loopback listener; returns its descriptor and fills `port`.
int Listen(int* port) {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  struct sockaddr_in addr = {};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bind(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof(addr));
  listen(fd, 4);
  socklen_t len = sizeof(addr);
  getsockname(fd, reinterpret_cast<struct sockaddr*>(&addr), &len);
  *port = ntohs(addr.sin_port);
  return fd;
}

int ConnectPlain(int port) {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  struct sockaddr_in addr = {};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  addr.sin_port = htons(static_cast<uint16_t>(port));
  connect(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof(addr));
  return fd;
}

void BM_ChannelSendRecvFile(benchmark::State& state) {
  int port = 0;
  int listen_fd = Listen(&port);
  for (auto _ : state) {
    Channel sender;
    if (sender.Open("127.0.0.1", port) != 0) state.SkipWithError("connect failed");
    Channel receiver;
    receiver.Open(accept(listen_fd, nullptr, nullptr), true);
    int in = open(Path("src").c_str(), O_RDONLY);
    int out = open(Path("dst").c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
    std::thread send_side([&] {
      sender.SendFile(in, 0, kFileSize, nullptr);
      sender.Flush(0);
    });
    uint64_t received = 0;
    int rc = receiver.RecvFile(out, 0, kFileSize, nullptr, &received);
    send_side.join();
    close(in);
    close(out);
    if (rc != 0 || received != kFileSize) state.SkipWithError("transfer failed");
  }
  close(listen_fd);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kFileSize));
}

void BM_BaselineSendfileReadWrite(benchmark::State& state) {
  int port = 0;
  int listen_fd = Listen(&port);
  std::vector<char> buffer(1 << 16);
  for (auto _ : state) {
    int send_fd = ConnectPlain(port);
    int recv_fd = accept(listen_fd, nullptr, nullptr);
    int in = open(Path("src").c_str(), O_RDONLY);
    int out = open(Path("dst").c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
    std::thread send_side([&] {
      off_t offset = 0;
      while (static_cast<uint64_t>(offset) < kFileSize) {
        if (sendfile(send_fd, in, &offset, kFileSize - static_cast<uint64_t>(offset)) <= 0) break;
      }
      shutdown(send_fd, SHUT_WR);
    });
    uint64_t received = 0;
    for (;;) {
      ssize_t n = read(recv_fd, buffer.data(), buffer.size());
      if (n <= 0) break;
      if (write(out, buffer.data(), static_cast<size_t>(n)) != n) break;
      received += static_cast<uint64_t>(n);
    }
    send_side.join();
    close(send_fd);
    close(recv_fd);
    close(in);
    close(out);
    if (received != kFileSize) state.SkipWithError("transfer failed");
  }
  close(listen_fd);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kFileSize));
}

// Keeps the rate of each run so main can print the ratio.
class RateKeeper : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      auto it = run.counters.find("bytes_per_second");
      if (it == run.counters.end()) continue;
      double mbps = it->second.value / 1e6;
      if (run.benchmark_name().find("Channel") != std::string::npos) g_channel_mbps = mbps;
      if (run.benchmark_name().find("Baseline") != std::string::npos) g_baseline_mbps = mbps;
    }
    ConsoleReporter::ReportRuns(runs);
  }
};

}  // namespace

BENCHMARK(BM_ChannelSendRecvFile)->Iterations(3)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_BaselineSendfileReadWrite)->Iterations(3)->Unit(benchmark::kMillisecond)->UseRealTime();

int main(int argc, char** argv) {
  signal(SIGPIPE, SIG_IGN);
  char pattern[] = "/tmp/vesta-bench-XXXXXX";
  g_dir = mkdtemp(pattern);
  MakeSource();
  benchmark::Initialize(&argc, argv);
  RateKeeper reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  if (g_baseline_mbps > 0) {
    printf("256 MiB over loopback TCP: Channel %.0f MB/s, sendfile+read/write %.0f MB/s, "
           "ratio %.2f\n", g_channel_mbps, g_baseline_mbps, g_channel_mbps / g_baseline_mbps);
  }
  std::string rm = "rm -rf '" + g_dir + "'";
  return system(rm.c_str()) == 0 ? 0 : 1;
}
