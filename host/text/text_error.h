// A failure of the text front end. what() is the whole line to print, starting with "Error: ", e.g.
// "Error: input is not valid UTF-8 at byte 7" or "Error: FILE: model type 'Unigram' is not supported".
#pragma once

#include <filesystem>
#include <stdexcept>
#include <string>

namespace quorvel::text {

class TextError : public std::runtime_error {
 public:
  explicit TextError(const std::string& problem) : std::runtime_error("Error: " + problem) {}
  TextError(const std::filesystem::path& file, const std::string& problem)
      : std::runtime_error("Error: " + file.string() + ": " + problem) {}
};

}  // namespace quorvel::text
