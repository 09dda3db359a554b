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
  // A write past the file-size limit (RLIMIT_FSIZE) fails with EFBIG, which
  // the file transfers report, instead of ending the daemon.
  signal(SIGXFSZ, SIG_IGN);
  daemon.Run();
  return 0;
}
