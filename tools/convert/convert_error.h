// A conversion failure: the file it concerns and what is wrong with it. The
// converter prints it as "Error: FILE: what is wrong" and exits with 1.
#pragma once

#include <filesystem>
#include <stdexcept>
#include <string>

namespace quorvel::convert {

class ConvertError : public std::runtime_error {
 public:
  ConvertError(const std::filesystem::path& file, const std::string& problem)
      : std::runtime_error(file.string() + ": " + problem) {}
};

}  // namespace quorvel::convert
