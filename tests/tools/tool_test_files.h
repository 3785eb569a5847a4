// Scratch directories and byte access for the model tool tests.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "config/init_config.h"

namespace quorvel::tools::testing {

// A fresh directory under the system temporary directory, removed with its
// contents when the test ends.
class TempDir {
 public:
  TempDir() {
    const auto* test = ::testing::UnitTest::GetInstance()->current_test_info();
    const auto ticks = std::chrono::steady_clock::now().time_since_epoch().count();
    std::string name = "quorvel-tools-" + std::string(test->test_suite_name()) + "-" + test->name() + "-" +
                       std::to_string(ticks);
    std::replace(name.begin(), name.end(), '/', '_');  // parameterized test names hold slashes
    path_ = std::filesystem::temp_directory_path() / name;
    std::filesystem::create_directories(path_);
  }
  ~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

// Redirects std::cerr into a string while it lives.
class CapturedCerr {
 public:
  CapturedCerr() : saved_(std::cerr.rdbuf(captured_.rdbuf())) {}
  ~CapturedCerr() { std::cerr.rdbuf(saved_); }
  CapturedCerr(const CapturedCerr&) = delete;
  CapturedCerr& operator=(const CapturedCerr&) = delete;

  std::string text() const { return captured_.str(); }

 private:
  std::ostringstream captured_;
  std::streambuf* saved_;
};

// A model small enough to write in milliseconds whose widths all differ
// (hidden 256, attention 512, K/V 128, FFN 384), so that a tensor written or
// read with the wrong one changes the layout.
inline InitConfig small_config(std::int32_t arch) {
  InitConfig config;
  config.arch_type = arch;
  config.hidden_dim = 256;
  config.intermediate_dim = 384;
  config.num_layers = 2;
  config.num_heads = 4;
  config.num_kv_heads = 1;
  config.head_dim = 128;
  config.vocab_size = 37;
  config.max_position_embeddings = 16;
  return config;
}

inline std::vector<std::uint8_t> read_file(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::vector<std::uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline std::string read_text(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// A little-endian value of type T at byte `offset` of `bytes`.
template <typename T>
T value_at(const std::vector<std::uint8_t>& bytes, std::size_t offset) {
  EXPECT_LE(offset + sizeof(T), bytes.size());
  T value{};
  if (offset + sizeof(T) <= bytes.size()) std::memcpy(&value, bytes.data() + offset, sizeof(T));
  return value;
}

}  // namespace quorvel::tools::testing
