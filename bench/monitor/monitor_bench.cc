// Round trips per second of a notification over vesta-monitor's socket, one
// connection per request as its clients make them, beside a minimal
// UNIX-socket echo server and client (accept, read, write, close) in the
// same run.  The daemon runs from a sandbox under a temporary VESTA_ROOT.
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>

#include "benchmark/benchmark.h"
#include "ipc/ipc.h"
#include "stream/PObject.h"

namespace {

std::string g_root;
std::string g_monitor_socket;
std::string g_echo_socket;

bool WaitForFile(const std::string& path) {
  for (int i = 0; i < 500; ++i) {
    if (access(path.c_str(), F_OK) == 0) return true;
    usleep(10000);
  }
  return false;
}

void WriteFile(const std::string& path, const std::string& text) {
  std::ofstream(path) << text;
}

// Starts the real daemon in a sandbox; it detaches itself.
bool StartMonitor() {
  char pattern[] = "/tmp/vesta-bench-XXXXXX";
  g_root = mkdtemp(pattern);
  setenv("VESTA_ROOT", g_root.c_str(), 1);
  const std::string volume = g_root + "/volume1";
  std::string cmd = "mkdir -p '" + volume + "/@FernboxTandem/log' '" + g_root +
                    "/var/packages/Fernbox/etc/tandem' '" + g_root + "/tmp'";
  if (system(cmd.c_str()) != 0) return false;
  WriteFile(g_root + "/var/packages/Fernbox/etc/tandem/service.conf", "volume=" + volume + "\n");
  WriteFile(g_root + "/levels", "monitor_daemon=3\n");
  g_monitor_socket = g_root + "/monitor.sock";
  WriteFile(g_root + "/monitor.conf", "pid_file=" + g_root + "/monitor.pid\nsystem_db_path=" +
                                          g_root + "/system.sqlite\nsocket_path=" +
                                          g_monitor_socket + "\nlog_level_file=" + g_root +
                                          "/levels\n");
  cmd = std::string("'") + VESTA_MONITOR_BINARY + "' '" + g_root + "/monitor.conf'";
  if (system(cmd.c_str()) != 0) return false;
  return WaitForFile(g_monitor_socket);
}

void StopMonitor() {
  IPCSender sender;
  PObject stop, reply;
  stop["action"] = "stop";
  if (sender.Connect(g_monitor_socket) == 0) sender.SendRequest(stop, true, &reply);
  sender.Disconnect();
  const std::string pid_file = g_root + "/monitor.pid";
  for (int i = 0; i < 100 && access(pid_file.c_str(), F_OK) == 0; ++i) usleep(50000);
  system(("rm -rf '" + g_root + "'").c_str());
}

int ConnectUnix(const std::string& path) {
  int fd = socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  strncpy(addr.sun_path, path.c_str(), sizeof(addr.sun_path) - 1);
  if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
    close(fd);
    return -1;
  }
  return fd;
}

// The baseline: one accept, one read, one write of the same size, close.
std::atomic<bool> g_echo_running{false};
int g_echo_listener = -1;

void EchoServer() {
  char buf[256];
  while (g_echo_running.load()) {
    int fd = accept(g_echo_listener, nullptr, nullptr);
    if (fd < 0) continue;
    ssize_t n = read(fd, buf, sizeof(buf));
    if (n > 0) (void)!write(fd, buf, n);
    close(fd);
  }
}

void BM_MonitorNotification(benchmark::State& state) {
  PObject request;
  request["notify"] = "bench";
  for (auto _ : state) {
    IPCSender sender;
    PObject reply;
    if (sender.Connect(g_monitor_socket) != 0 || sender.SendRequest(request, true, &reply) != 0) {
      state.SkipWithError("request failed");
      break;
    }
    benchmark::DoNotOptimize(reply);
  }
  state.counters["round_trips/s"] =
      benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}

void BM_BaselineUnixEcho(benchmark::State& state) {
  // The same bytes a notification request takes on the wire.
  const char request[] = "\x42\x10\x00\x06notify\x10\x00\x05" "bench\x40";
  char reply[64];
  for (auto _ : state) {
    int fd = ConnectUnix(g_echo_socket);
    if (fd < 0 || write(fd, request, sizeof(request) - 1) < 0 || read(fd, reply, sizeof(reply)) <= 0) {
      state.SkipWithError("echo failed");
      if (fd >= 0) close(fd);
      break;
    }
    close(fd);
  }
  state.counters["round_trips/s"] =
      benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}

BENCHMARK(BM_MonitorNotification)->UseRealTime()->MinTime(2.0);
BENCHMARK(BM_BaselineUnixEcho)->UseRealTime()->MinTime(2.0);

}  // namespace

int main(int argc, char** argv) {
  signal(SIGPIPE, SIG_IGN);
  if (!StartMonitor()) {
    fprintf(stderr, "monitor_bench: vesta-monitor did not start\n");
    return 1;
  }
  g_echo_socket = g_root + "/echo.sock";
  g_echo_listener = socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  strncpy(addr.sun_path, g_echo_socket.c_str(), sizeof(addr.sun_path) - 1);
  bind(g_echo_listener, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
  listen(g_echo_listener, 8);
  g_echo_running = true;
  std::thread echo(EchoServer);

  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();

  g_echo_running = false;
  int wake = ConnectUnix(g_echo_socket);
  if (wake >= 0) close(wake);
  echo.join();
  close(g_echo_listener);
  StopMonitor();
  return 0;
}
