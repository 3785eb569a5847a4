// Throughput of the single-token and four-token products of every weight
// format (ternary, q1_0_128 in plain rows and in tiles, q1.58, q8_0) and of
// the int8, q8_0 and q4_0 unembedding tables at K = 2048 and 4096, for every
// kernel set of the registry that this machine can run, side by side,
// reported as weights/s and bytes of weights/s.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <memory>
#include <random>
#include <string>
#include <type_traits>
#include <vector>

#include "runtime/aligned_buffer.h"
#include "runtime/formats/q1_0.h"
#include "runtime/formats/q1_0_tiles.h"
#include "runtime/formats/q1_58.h"
#include "runtime/formats/q4_0.h"
#include "runtime/formats/q8_0.h"
#include "runtime/kernel_base.h"
#include "runtime/kernel_sets.h"
#include "runnable_kernel_sets.h"

namespace {

using quorvel::bf16;
using quorvel::kernels::KernelBase;
namespace formats = quorvel::formats;

constexpr std::size_t kRows = 2048;
constexpr std::size_t kInputLengths[] = {2048, 4096};

// One matrix and activation row; the weights are random bytes with sane
// scales, so that no denormal or NaN arithmetic distorts the timing.
struct ProductInputs {
  std::size_t k;
  quorvel::AlignedPtr<std::uint8_t> w;
  quorvel::AlignedPtr<std::int8_t> x;        // product.tokens rows of k
  quorvel::AlignedPtr<float> x_scales;       // one per token
  quorvel::AlignedPtr<float> row_scales;
  quorvel::AlignedPtr<bf16> out;
  quorvel::AlignedPtr<float> logits;
};

template <typename Block>
void set_block_scales(std::uint8_t* w, std::size_t bytes, float scale) {
  auto* blocks = reinterpret_cast<Block*>(w);
  for (std::size_t b = 0; b < bytes / sizeof(Block); ++b) {
    if constexpr (std::is_same_v<decltype(blocks[b].d), bf16>) {
      blocks[b].d = quorvel::narrow_nearest_even(scale);
    } else {
      blocks[b].d = scale;
    }
  }
}

void set_tile_scales(std::uint8_t* w, std::size_t bytes) {
  auto* blocks = reinterpret_cast<formats::Q1_0TileBlock*>(w);
  for (std::size_t b = 0; b < bytes / sizeof(formats::Q1_0TileBlock); ++b) {
    for (bf16& d : blocks[b].d) d = quorvel::narrow_nearest_even(0.01f);
  }
}

// A product over `tokens` activation rows: 1 for the single-token products,
// 4 for the several-token ones (the layers hand them 4 tokens at a time), so
// weights/s counts weight-times-token products.
struct Product {
  const char* name;
  std::size_t tokens;
  std::size_t (*row_bytes)(std::size_t k);
  void (*set_scales)(std::uint8_t* w, std::size_t bytes);  // null when the format has none in the table
  void (*run)(const KernelBase& kernels, ProductInputs& in);
};

const Product kProducts[] = {
    {"gemv_ternary", 1, [](std::size_t k) { return k / 4; }, nullptr,
     [](const KernelBase& kernels, ProductInputs& in) {
       kernels.gemv_ternary(in.w.get(), in.x.get(), 0, in.out.get(), kRows, in.k, 0.01f, 0.5);
     }},
    {"gemv_q1_0", 1, [](std::size_t k) { return k / 128 * sizeof(formats::BlockQ1_0); },
     [](std::uint8_t* w, std::size_t bytes) { set_block_scales<formats::BlockQ1_0>(w, bytes, 0.01f); },
     [](const KernelBase& kernels, ProductInputs& in) {
       kernels.gemv_q1_0(in.w.get(), in.x.get(), 0.01f, in.out.get(), kRows, in.k);
     }},
    {"gemv_q1_0_tiles", 1, [](std::size_t k) { return k / 128 * sizeof(formats::BlockQ1_0); }, set_tile_scales,
     [](const KernelBase& kernels, ProductInputs& in) {
       kernels.gemm_q1_0_tiles(in.w.get(), in.x.get(), in.x_scales.get(), in.out.get(), kRows, 1, kRows, in.k);
     }},
    {"gemv_q1_58", 1, [](std::size_t k) { return k / 128 * sizeof(formats::BlockQ1_58); },
     [](std::uint8_t* w, std::size_t bytes) { set_block_scales<formats::BlockQ1_58>(w, bytes, 0.01f); },
     [](const KernelBase& kernels, ProductInputs& in) {
       kernels.gemv_q1_58(in.w.get(), in.x.get(), 0.01f, in.out.get(), kRows, in.k);
     }},
    {"gemv_q8_0", 1, [](std::size_t k) { return k / 32 * sizeof(formats::BlockQ8_0); },
     [](std::uint8_t* w, std::size_t bytes) { set_block_scales<formats::BlockQ8_0>(w, bytes, 0.01f); },
     [](const KernelBase& kernels, ProductInputs& in) {
       kernels.gemv_q8_0(in.w.get(), in.x.get(), 0.01f, in.out.get(), kRows, in.k);
     }},
    {"gemv_i8_f32", 1, [](std::size_t k) { return k; }, nullptr,
     [](const KernelBase& kernels, ProductInputs& in) {
       kernels.gemv_i8_f32(reinterpret_cast<const std::int8_t*>(in.w.get()), in.row_scales.get(), in.x.get(), 0.01f,
                           in.logits.get(), kRows, in.k);
     }},
    {"gemv_q8_0_f32", 1, [](std::size_t k) { return k / 32 * sizeof(formats::BlockQ8_0); },
     [](std::uint8_t* w, std::size_t bytes) { set_block_scales<formats::BlockQ8_0>(w, bytes, 0.01f); },
     [](const KernelBase& kernels, ProductInputs& in) {
       kernels.gemv_q8_0_f32(in.w.get(), in.x.get(), 0.01f, in.logits.get(), kRows, in.k);
     }},
    {"gemv_q4_0_f32", 1, [](std::size_t k) { return k / 32 * sizeof(formats::BlockQ4_0); },
     [](std::uint8_t* w, std::size_t bytes) { set_block_scales<formats::BlockQ4_0>(w, bytes, 0.01f); },
     [](const KernelBase& kernels, ProductInputs& in) {
       kernels.gemv_q4_0_f32(in.w.get(), in.x.get(), 0.01f, in.logits.get(), kRows, in.k);
     }},
    {"gemm_ternary", 4, [](std::size_t k) { return k / 4; }, nullptr,
     [](const KernelBase& kernels, ProductInputs& in) {
       kernels.gemm_ternary(0.5, in.w.get(), in.x.get(), in.x_scales.get(), in.out.get(), kRows, 4, kRows, in.k);
     }},
    {"gemm_q1_0", 4, [](std::size_t k) { return k / 128 * sizeof(formats::BlockQ1_0); },
     [](std::uint8_t* w, std::size_t bytes) { set_block_scales<formats::BlockQ1_0>(w, bytes, 0.01f); },
     [](const KernelBase& kernels, ProductInputs& in) {
       kernels.gemm_q1_0(in.w.get(), in.x.get(), in.x_scales.get(), in.out.get(), kRows, 4, kRows, in.k);
     }},
    {"gemm_q1_58", 4, [](std::size_t k) { return k / 128 * sizeof(formats::BlockQ1_58); },
     [](std::uint8_t* w, std::size_t bytes) { set_block_scales<formats::BlockQ1_58>(w, bytes, 0.01f); },
     [](const KernelBase& kernels, ProductInputs& in) {
       kernels.gemm_q1_58(in.w.get(), in.x.get(), in.x_scales.get(), in.out.get(), kRows, 4, kRows, in.k);
     }},
    {"gemm_q1_0_tiles", 4, [](std::size_t k) { return k / 128 * sizeof(formats::BlockQ1_0); }, set_tile_scales,
     [](const KernelBase& kernels, ProductInputs& in) {
       kernels.gemm_q1_0_tiles(in.w.get(), in.x.get(), in.x_scales.get(), in.out.get(), kRows, 4, kRows, in.k);
     }},
    {"gemm_q8_0", 4, [](std::size_t k) { return k / 32 * sizeof(formats::BlockQ8_0); },
     [](std::uint8_t* w, std::size_t bytes) { set_block_scales<formats::BlockQ8_0>(w, bytes, 0.01f); },
     [](const KernelBase& kernels, ProductInputs& in) {
       kernels.gemm_q8_0(in.w.get(), in.x.get(), in.x_scales.get(), in.out.get(), kRows, 4, kRows, in.k);
     }},
};

ProductInputs make_inputs(const Product& product, std::size_t k) {
  const std::size_t bytes = kRows * product.row_bytes(k);
  ProductInputs in{k,
                   quorvel::allocate_aligned<std::uint8_t>(bytes),
                   quorvel::allocate_aligned_elements<std::int8_t>(product.tokens * k),
                   quorvel::allocate_aligned_elements<float>(product.tokens),
                   quorvel::allocate_aligned_elements<float>(kRows),
                   quorvel::allocate_aligned_elements<bf16>(product.tokens * kRows),
                   quorvel::allocate_aligned_elements<float>(kRows)};
  std::mt19937 engine(7);
  for (std::size_t i = 0; i < bytes; ++i) in.w[i] = static_cast<std::uint8_t>(engine());
  for (std::size_t i = 0; i < product.tokens * k; ++i) {
    in.x[i] = static_cast<std::int8_t>(static_cast<int>(engine() % 255) - 127);
  }
  for (std::size_t t = 0; t < product.tokens; ++t) in.x_scales[t] = 0.01f;
  for (std::size_t r = 0; r < kRows; ++r) in.row_scales[r] = 0.001f;
  if (product.set_scales) product.set_scales(in.w.get(), bytes);
  return in;
}

void bench_product(benchmark::State& state, const KernelBase* kernels, const Product* product, std::size_t k) {
  ProductInputs in = make_inputs(*product, k);
  for (auto _ : state) {
    product->run(*kernels, in);
    benchmark::ClobberMemory();
  }
  const auto iterations = static_cast<double>(state.iterations());
  state.counters["weights/s"] =
      benchmark::Counter(static_cast<double>(kRows * k * product->tokens) * iterations, benchmark::Counter::kIsRate);
  state.counters["bytes/s"] =
      benchmark::Counter(static_cast<double>(kRows * product->row_bytes(k)) * iterations, benchmark::Counter::kIsRate);
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::unique_ptr<KernelBase>> sets = runnable_kernel_sets();
  for (const Product& product : kProducts) {
    for (std::size_t k : kInputLengths) {
      for (const std::unique_ptr<KernelBase>& set : sets) {
        const KernelBase* kernels = set.get();
        const std::string name = std::string(product.name) + "/" + kernels->name() + "/K:" + std::to_string(k);
        benchmark::RegisterBenchmark(name.c_str(), bench_product, kernels, &product, k)->Unit(benchmark::kMicrosecond);
      }
    }
  }
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
