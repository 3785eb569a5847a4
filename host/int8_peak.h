// The machine's int8 multiply-add peak with the instruction a kernel set's
// products are built on, for putting prefill speed against it.
#pragma once

#include <string_view>

namespace quorvel::host {

struct Int8Peak {
  const char* instruction;            // see int8_dot_loops.h
  double g_multiply_adds_per_second;  // 1e9 int8 multiply-adds per second, all threads together
};

// `threads` threads each run the kernel set's multiply-add loop on operands
// of their own (in the first-level cache) for about a tenth of a second; the
// best of five runs.
Int8Peak measure_int8_peak(std::string_view kernel_set, unsigned threads);

}  // namespace quorvel::host
