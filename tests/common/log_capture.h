// The log of a test, captured in a file and read back line by line.
#ifndef VESTA_TESTS_COMMON_LOG_CAPTURE_H_
#define VESTA_TESTS_COMMON_LOG_CAPTURE_H_

#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "log/logger.h"
#include "tests/common/temp_dir.h"

// Sends every message of the components in `levels` (a level file: lines
// "component=level") to a file in `dir`, for the life of the object.
class LogCapture {
 public:
  LogCapture(const TempDir& dir, const std::string& levels) : path_(dir.File("test.log")) {
    EXPECT_EQ(0, Logger::Init(Logger::kFile, path_, dir.Write("levels", levels), 50, 1));
  }
  ~LogCapture() { Logger::Shutdown(); }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  // The lines written since the last call, each as "LEVEL text\n" (the
  // stamp, ids and source position cut).
  std::string Take() {
    const std::string text = ReadFile(path_);
    const std::string out = Lines(text.substr(taken_));
    taken_ = text.size();
    return out;
  }
  // Whether `line` ("LEVEL text") was written since the last Take().
  bool Logged(const std::string& line) const {
    return ("\n" + Lines(ReadFile(path_).substr(taken_))).find("\n" + line + "\n") !=
           std::string::npos;
  }

  // One call with its result and every line it must write, in order, at
  // the levels captured ("" for none; lines separated by "\n").
  struct Outcome {
    std::function<int()> call;
    int result;
    std::string lines;
  };
  void ExpectEach(const std::vector<Outcome>& outcomes) {
    for (const Outcome& o : outcomes) {
      Take();
      EXPECT_EQ(o.result, o.call()) << o.lines;
      EXPECT_EQ(o.lines.empty() ? "" : o.lines + "\n", Take());
    }
  }

 private:
  static std::string Lines(const std::string& text) {
    std::istringstream lines(text);
    std::string out;
    for (std::string line; std::getline(lines, line);) {
      const size_t level = line.find(") [") + 3;
      out += line.substr(level, line.find(']', level) - level) + " " +
             line.substr(line.find("): ", level) + 3) + "\n";
    }
    return out;
  }

  std::string path_;
  size_t taken_ = 0;  // bytes of the log already returned by Take()
};

#endif  // VESTA_TESTS_COMMON_LOG_CAPTURE_H_
