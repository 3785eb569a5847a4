// A class name as a template argument, for the messages that name the
// class of a layer made from a template.
#pragma once

#include <algorithm>
#include <cstddef>

namespace quorvel::layers {

template <std::size_t N>
struct LayerName {
  constexpr LayerName(const char (&text)[N]) { std::copy_n(text, N, chars); }
  char chars[N]{};
};

}  // namespace quorvel::layers
