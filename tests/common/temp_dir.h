// A fresh temporary directory for one test, removed when the test ends (and
// never reused, so a crashed run cannot poison the next).
#ifndef VESTA_TESTS_COMMON_TEMP_DIR_H_
#define VESTA_TESTS_COMMON_TEMP_DIR_H_

#include <stdlib.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

class TempDir {
 public:
  TempDir() {
    char pattern[] = "/tmp/vesta-test-XXXXXX";
    path_ = mkdtemp(pattern);
  }
  ~TempDir() { std::system(("rm -rf '" + path_ + "'").c_str()); }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return path_; }
  std::string File(const std::string& name) const { return path_ + "/" + name; }

  // Writes `content` to `name` below the directory and returns its path.
  std::string Write(const std::string& name, const std::string& content) const {
    std::string p = File(name);
    std::ofstream(p, std::ios::binary) << content;
    return p;
  }

 private:
  std::string path_;
};

inline std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

#endif  // VESTA_TESTS_COMMON_TEMP_DIR_H_
