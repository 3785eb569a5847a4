// A failure that ends a quorvel command: what() is the whole line to print ("Error: ..."), and the
// exit status says which kind of failure it was.
#pragma once

#include <stdexcept>
#include <string>

namespace quorvel::cli {

// The exit statuses of quorvel, as its --help lists them.
inline constexpr int kExitError = 1;          // bad input, a model directory that cannot be used
inline constexpr int kExitUsage = 2;          // a command line that does not parse
inline constexpr int kExitEngineStopped = 3;  // the engine ended while it was needed

class CommandError : public std::runtime_error {
 public:
  explicit CommandError(const std::string& problem, int exit_status = kExitError)
      : std::runtime_error("Error: " + problem), exit_status_(exit_status) {}
  int exit_status() const { return exit_status_; }

 private:
  int exit_status_;
};

}  // namespace quorvel::cli
