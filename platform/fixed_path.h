// The one place where a fixed absolute path of the system (the service
// configuration and its lock file, the sync daemon's socket, the files that
// stand in for the storage server's own settings) becomes the path opened.
//
// With the environment variable VESTA_ROOT set and non-empty, the path is
// placed under it ("/tmp/tarn.sock" becomes "$VESTA_ROOT/tmp/tarn.sock"), so
// that tests and `make run` work in a sandbox.  Unset, the path is returned
// unchanged.  Paths that come from a configuration file never pass through
// here.  Thread-safe: reads the environment only.
#ifndef VESTA_PLATFORM_FIXED_PATH_H_
#define VESTA_PLATFORM_FIXED_PATH_H_

#include <string>

std::string FixedPath(const std::string& absolute_path);

#endif  // VESTA_PLATFORM_FIXED_PATH_H_
