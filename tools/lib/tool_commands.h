// The two tools as functions of their arguments (program name excluded) and
// an error stream, returning the exit status: 0 on success, 1 after printing
// what went wrong. The executables only forward to these.
#pragma once

#include <ostream>
#include <span>
#include <string_view>

namespace quorvel::tools {

// Writes "qmodel.tensors", "rope.cache" and "init.txt" into the directory.
int run_make_model(std::span<const std::string_view> args, std::ostream& err);

// Reads <dir>/init.txt and writes <dir>/rope.cache for its head_dim,
// max_position_embeddings and rope_theta.
int run_make_rope(std::span<const std::string_view> args, std::ostream& err);

}  // namespace quorvel::tools
