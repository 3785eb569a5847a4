#include "sampling/nucleus.h"

#include <algorithm>
#include <cmath>
#include <cstdint>

#include "sampling/logit_order.h"

namespace quorvel {
namespace {

// Exponentials relative to the maximum (the first value, after sorting)
// cannot overflow; they are summed in list order and scaled by one
// reciprocal.
void softmax_in_place(Candidate* list, std::uint64_t n) {
  const float max_value = list[0].value;
  float sum = 0.0f;
  for (std::uint64_t i = 0; i < n; ++i) {
    list[i].value = std::exp(list[i].value - max_value);
    sum += list[i].value;
  }
  const float inv_sum = 1.0f / sum;
  for (std::uint64_t i = 0; i < n; ++i) list[i].value *= inv_sum;
}

std::uint64_t nucleus_size(const Candidate* list, std::uint64_t n, float top_p) {
  if (top_p >= 1.0f) return n;
  float cumulative = 0.0f;
  for (std::uint64_t i = 0; i < n; ++i) {
    cumulative += list[i].value;
    if (cumulative > top_p) return i + 1;
  }
  return n;
}

// Summed two at a time, (s + p[2i]) + p[2i+1], the odd last one alone.
float probability_mass(const Candidate* list, std::uint64_t size) {
  float mass = 0.0f;
  for (std::uint64_t i = 0; i + 1 < size; i += 2) mass = (mass + list[i].value) + list[i + 1].value;
  if (size % 2 != 0) mass += list[size - 1].value;
  return mass;
}

}  // namespace

Nucleus build_nucleus(Candidate* list, std::uint64_t total, std::uint64_t k, float top_p) {
  // std::sort is an introsort whose depth limit is 2 * floor(log2(total)).
  std::sort(list, list + total, [](const Candidate& a, const Candidate& b) { return ranks_before(a.value, b.value); });
  const std::uint64_t n = std::min(k, total);
  if (n == 0) return Nucleus{0, 0.0f};
  softmax_in_place(list, n);
  const std::uint64_t size = nucleus_size(list, n, top_p);
  return Nucleus{size, probability_mass(list, size)};
}

std::uint64_t pick_from_nucleus(const Candidate* list, const Nucleus& nucleus, float u) {
  const float target = nucleus.mass * u;
  float cumulative = 0.0f;
  for (std::uint64_t i = 0; i < nucleus.size; ++i) {
    cumulative += list[i].value;
    if (cumulative >= target) return list[i].id;
  }
  return list[nucleus.size - 1].id;
}

}  // namespace quorvel
