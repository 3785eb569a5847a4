// End-to-end support: synthetic model directories written by the model tool
// and the real engine binary run on them as a child process.
#pragma once

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "host/engine_process.h"
#include "tools/lib/tool_commands.h"

namespace quorvel::e2e {

namespace fs = std::filesystem;
using host::ProcessResult;

// A fresh directory under the system's temporary folder, removed with the object.
class TempDir {
 public:
  TempDir() {
    std::random_device random;
    do {
      path_ = fs::temp_directory_path() / ("quorvel-e2e-" + std::to_string(random()));
    } while (!fs::create_directory(path_));
  }
  ~TempDir() { fs::remove_all(path_); }
  const fs::path& path() const { return path_; }

 private:
  fs::path path_;
};

// Writes a model directory with quorvel-make-model's options.
inline void make_model(const fs::path& dir, std::vector<std::string> options) {
  const std::string dir_text = dir.string();
  std::vector<std::string_view> args{dir_text};
  for (const auto& o : options) args.push_back(o);
  std::ostringstream err;
  ASSERT_EQ(tools::run_make_model(args, err), 0) << err.str();
}

// The init block of a model directory with some keys replaced or added.
inline std::string init_block(const fs::path& dir, const std::map<std::string, std::string>& overrides = {}) {
  std::ifstream in(dir / "init.txt");
  std::string line;
  std::getline(in, line);  // the count line
  std::map<std::string, std::string> entries;
  std::vector<std::string> order;
  while (std::getline(in, line)) {
    const auto eq = line.find('=');
    const std::string key = line.substr(0, eq);
    if (!entries.count(key)) order.push_back(key);
    entries[key] = line.substr(eq + 1);
  }
  for (const auto& [key, value] : overrides) {
    if (!entries.count(key)) order.push_back(key);
    entries[key] = value;
  }
  std::string block = std::to_string(order.size()) + "\n";
  for (const auto& key : order) block += key + "=" + entries[key] + "\n";
  return block;
}

// A request block from key=value pairs.
inline std::string request(const std::vector<std::string>& lines) {
  std::string block = std::to_string(lines.size()) + "\n";
  for (const auto& l : lines) block += l + "\n";
  return block;
}

inline ProcessResult run_engine(const std::vector<std::string>& args, const std::string& input) {
  std::vector<std::string> argv{QUORVEL_ENGINE_BINARY};
  argv.insert(argv.end(), args.begin(), args.end());
  return host::run_process(argv, input);
}

inline ProcessResult run_engine(const fs::path& dir, const std::string& input) {
  return run_engine(std::vector<std::string>{dir.string()}, input);
}

// Whether the process ended through abort(), as an uncaught exception ends
// the engine: by SIGABRT on POSIX; Windows has no signals, and there the C
// runtime's abort() exits with status 3.
inline bool ended_by_abort(const ProcessResult& result) {
#if defined(_WIN32)
  return result.signal == 0 && result.exit_status == 3;
#else
  return result.signal == SIGABRT;
#endif
}

// A path as the engine's messages write it: in double quotes, with a
// backslash before every backslash and double quote of its (UTF-8) text.
inline std::string quoted(const fs::path& path) {
  std::string text = "\"";
  for (const char c : path.string()) {
    if (c == '\\' || c == '"') text += '\\';
    text += c;
  }
  return text + "\"";
}

inline std::vector<std::string> lines_of(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

}  // namespace quorvel::e2e
