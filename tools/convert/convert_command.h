// quorvel-convert as a function of its arguments (program name excluded):
// progress and the summary go to `out` (standard error in the tool), and
// `err` gets one "Error: FILE: what is wrong" line on failure.
// Returns the exit status: 0 on success, 1 on bad input, 2 on a bad
// command line.
#pragma once

#include <ostream>
#include <span>
#include <string_view>

namespace quorvel::convert {

int run_convert(std::span<const std::string_view> args, std::ostream& out, std::ostream& err);

}  // namespace quorvel::convert
