#include "platform/normalize_path.h"

#include <unistd.h>

#include <vector>

std::string NormalizePath(const std::string& path) {
  std::string input = path;
  if (input.empty() || input[0] != '/') {
    char cwd[4096];
    if (getcwd(cwd, sizeof(cwd)) != nullptr) input = std::string(cwd) + "/" + input;
  }
  std::vector<std::string> parts;
  size_t begin = 0;
  while (begin <= input.size()) {
    size_t end = input.find('/', begin);
    if (end == std::string::npos) end = input.size();
    const std::string part = input.substr(begin, end - begin);
    begin = end + 1;
    if (part.empty() || part == ".") continue;
    if (part == "..") {
      if (!parts.empty()) parts.pop_back();
      continue;
    }
    parts.push_back(part);
  }
  std::string out;
  for (const std::string& part : parts) out += "/" + part;
  return out.empty() ? "/" : out;
}
