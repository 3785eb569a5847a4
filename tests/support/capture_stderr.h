// Captures everything written to std::cerr while the object lives, so that
// tests can compare the engine's messages line by line.
#pragma once

#include <iostream>
#include <sstream>
#include <string>
#include <vector>

namespace quorvel::testing {

class CaptureStderr {
 public:
  CaptureStderr() : previous_(std::cerr.rdbuf(captured_.rdbuf())) {}
  ~CaptureStderr() { std::cerr.rdbuf(previous_); }
  CaptureStderr(const CaptureStderr&) = delete;
  CaptureStderr& operator=(const CaptureStderr&) = delete;

  // Everything written so far, ends of line included.
  std::string text() const { return captured_.str(); }

  // The text split at '\n'. A final line without its end of line is kept
  // as well, so a missing std::endl shows up as a difference.
  std::vector<std::string> lines() const {
    std::vector<std::string> result;
    std::istringstream in(captured_.str());
    for (std::string line; std::getline(in, line);) {
      result.push_back(line);
    }
    return result;
  }

 private:
  std::ostringstream captured_;
  std::streambuf* previous_;
};

}  // namespace quorvel::testing
