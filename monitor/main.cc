#include <signal.h>

#include "monitor/vesta-monitor.h"

namespace {
void IgnorePipe(int) {}
}  // namespace

// vesta-monitor [configuration file]: further arguments are ignored and the
// exit status is always 0, whatever Run returned.
int main(int argc, char** argv) {
  MonitorDaemon daemon;
  if (argc > 1) daemon.LoadConfig(argv[1]);
  signal(SIGPIPE, IgnorePipe);
  daemon.Run();
  return 0;
}
