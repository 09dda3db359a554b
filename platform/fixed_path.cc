#include "platform/fixed_path.h"

#include <cstdlib>

std::string FixedPath(const std::string& absolute_path) {
  const char* root = std::getenv("VESTA_ROOT");
  if (root == nullptr || root[0] == '\0') return absolute_path;
  return std::string(root) + absolute_path;
}
