// Small hand-written tokenizer.json files for tests: every byte a token (ids 0..255, in byte order), then
// the merges given, each making a token of the next id.
#pragma once

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace quorvel::text::testing {

using nlohmann::json;

// The byte-level symbol of `byte`, as UTF-8.
inline std::string symbol_of(unsigned byte) {
  unsigned code_point = byte;
  if (!((byte >= 0x21 && byte <= 0x7E) || (byte >= 0xA1 && byte <= 0xAC) || byte >= 0xAE)) {
    code_point = 0x100;
    for (unsigned earlier = 0; earlier < byte; ++earlier) {
      if (!((earlier >= 0x21 && earlier <= 0x7E) || (earlier >= 0xA1 && earlier <= 0xAC) || earlier >= 0xAE)) {
        ++code_point;
      }
    }
  }
  if (code_point < 0x80) return std::string(1, static_cast<char>(code_point));
  return {static_cast<char>(0xC0 | (code_point >> 6)), static_cast<char>(0x80 | (code_point & 0x3F))};
}

inline std::string symbols_of(const std::string& bytes) {
  std::string symbols;
  for (const char byte : bytes) symbols += symbol_of(static_cast<unsigned char>(byte));
  return symbols;
}

// A tokenizer.json document over raw-byte merges ({"a", "b"} joins "a" and "b" into token 256, ...).
inline json small_tokenizer(const std::vector<std::pair<std::string, std::string>>& merges) {
  json vocab = json::object();
  for (unsigned byte = 0; byte < 256; ++byte) vocab[symbol_of(byte)] = byte;
  json merge_list = json::array();
  for (const auto& [left, right] : merges) {
    vocab[symbols_of(left + right)] = vocab.size();
    merge_list.push_back(symbols_of(left) + " " + symbols_of(right));
  }
  const char* pattern = R"('s|'t|'re|'ve|'m|'ll|'d| ?\p{L}+| ?\p{N}+| ?[^\s\p{L}\p{N}]+|\s+(?!\S)|\s+)";
  return {{"version", "1.0"},
          {"added_tokens", json::array()},
          {"normalizer", nullptr},
          {"pre_tokenizer",
           {{"type", "Sequence"},
            {"pretokenizers",
             {{{"type", "Split"}, {"pattern", {{"Regex", pattern}}}, {"behavior", "Isolated"}, {"invert", false}},
              {{"type", "ByteLevel"}, {"add_prefix_space", false}, {"use_regex", false}}}}}},
          {"decoder", {{"type", "ByteLevel"}}},
          {"model",
           {{"type", "BPE"}, {"byte_fallback", false}, {"ignore_merges", false}, {"vocab", vocab},
            {"merges", merge_list}}}};
}

// Writes `document` (or raw text) to a file of its own under the temporary directory.
inline std::filesystem::path write_tokenizer(const std::string& text, const std::string& name) {
  const std::filesystem::path path =
      std::filesystem::temp_directory_path() / ("quorvel-text-" + std::to_string(getpid()) + "-" + name + ".json");
  std::ofstream(path, std::ios::binary) << text;
  return path;
}

inline std::filesystem::path write_tokenizer(const json& document, const std::string& name) {
  return write_tokenizer(document.dump(), name);
}

}  // namespace quorvel::text::testing
