// The plain text form of a path: absolute (a relative path is taken from
// the working directory), without ".", "..", empty components or a trailing
// "/".  Works on the text alone: symbolic links are not resolved.  Used
// where paths are compared or split by their text: a share's path (so that
// "/volume1/photo/" and "/volume1/photo" are one folder) and the mount-point
// search of the file-system queries.  Thread-safe.
#ifndef VESTA_PLATFORM_NORMALIZE_PATH_H_
#define VESTA_PLATFORM_NORMALIZE_PATH_H_

#include <string>

std::string NormalizePath(const std::string& path);

#endif  // VESTA_PLATFORM_NORMALIZE_PATH_H_
