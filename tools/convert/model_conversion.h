// Writes a checkpoint as the engine's "qmodel.tensors": every tensor the
// architecture reads, in the order it reads them, each converted to the
// format it is read in. All tensors are found and their shapes checked
// before the first byte is written.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "tools/convert/checkpoint.h"
#include "tools/convert/progress_bar.h"
#include "tools/convert/weight_encoder.h"

namespace quorvel::convert {

struct ConversionReport {
  std::uint64_t tensors = 0;
  std::uint64_t parameters = 0;
  std::uint64_t input_bytes = 0;
  std::uint64_t output_bytes = 0;
  std::optional<double> first_query_gamma;  // ternary targets
  std::string first_query_scale_text;       // how that gamma came from the checkpoint
  ScaleNarrowing narrowing;
  std::vector<std::string> unused_tensors;  // in the checkpoint, not in the model
};

// The plan's size, for a progress bar made before writing.
struct ConversionPlanSize {
  std::uint64_t tensors = 0;
  std::uint64_t input_bytes = 0;
};

class ModelConversion {
 public:
  // Finds and checks every tensor; throws ConvertError.
  explicit ModelConversion(const Checkpoint& checkpoint);
  ~ModelConversion();

  ConversionPlanSize size() const;

  // Writes the file; throws ConvertError, or std::runtime_error when the file
  // cannot be written.
  ConversionReport write(const std::filesystem::path& file, ProgressBar& progress) const;

  struct Job;  // one tensor to convert

 private:
  const Checkpoint& checkpoint_;
  std::vector<Job> jobs_;
  std::vector<std::string> unused_;
};

}  // namespace quorvel::convert
