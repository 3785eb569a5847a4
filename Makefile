# The front door: `make demo`, `make test`, `make bench`, `make load-test`, `make generate MODEL_DIR=...`.
BUILD ?= build
JOBS ?= $(shell nproc)
CMAKE_FLAGS ?=

.PHONY: all build test test-sanitize test-tsan bench demo clean

all: build

$(BUILD)/build.ninja:
	cmake -S . -B $(BUILD) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo $(CMAKE_FLAGS)

build: $(BUILD)/build.ninja
	cmake --build $(BUILD) -j $(JOBS)

test: build
	ctest --test-dir $(BUILD) --output-on-failure -j $(JOBS)

# Instrumented builds make GCC report out-of-bounds accesses that no path
# reaches (inside the standard library's own copies); the plain build keeps
# warnings as errors, the sanitizers judge the instrumented ones at run time.
SANITIZER_FLAGS := -DQUORVEL_WERROR=OFF

# The same tests under AddressSanitizer + UndefinedBehaviorSanitizer.
test-sanitize:
	$(MAKE) test BUILD=build-asan CMAKE_FLAGS="-DQUORVEL_SANITIZE=address,undefined $(SANITIZER_FLAGS)"

# The thread pool and the suites that dispatch through it, and quorvel serve's slots and requests,
# under ThreadSanitizer.
TSAN_TESTS ?= thread_pool_test sampler_test auto_linear_test kv_cache_linear_test transpose_copy_test \
	norm_test rotary_embedding_test embedding_test serve_test
test-tsan:
	cmake -S . -B build-tsan -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQUORVEL_SANITIZE=thread $(SANITIZER_FLAGS)
	cmake --build build-tsan -j $(JOBS) --target $(TSAN_TESTS)
	set -e; for t in $(TSAN_TESTS); do ./build-tsan/tests/$$t --gtest_brief=1; done

# libFuzzer harnesses (fuzz/) in a clang build of their own: AddressSanitizer
# and UndefinedBehaviorSanitizer, coverage instrumentation on all engine code.
# `make fuzz` builds them and writes the seed corpora (build-fuzz/corpus/);
# `make fuzz-smoke` runs each for FUZZ_SECONDS on a copy of its seeds.
FUZZ_BUILD ?= build-fuzz
FUZZ_SECONDS ?= 30
.PHONY: fuzz fuzz-smoke
fuzz:
	cmake -S . -B $(FUZZ_BUILD) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_COMPILER=clang++-14 \
	  -DQUORVEL_FUZZ=ON -DQUORVEL_TESTS=OFF -DQUORVEL_SANITIZE=address,undefined $(SANITIZER_FLAGS)
	cmake --build $(FUZZ_BUILD) -j $(JOBS) --target fuzz_all

fuzz-smoke: fuzz
	fuzz/smoke.sh $(FUZZ_BUILD) $(FUZZ_SECONDS)

# Kernel micro-benchmarks in a Release build of their own. BENCH_ARGS passes
# Google Benchmark flags; the default keeps one run short on a shared machine.
BENCH_ARGS ?= --benchmark_min_time=0.1
bench:
	cmake -S . -B build-release -G Ninja -DCMAKE_BUILD_TYPE=Release -DQUORVEL_BENCH=ON -DQUORVEL_TESTS=OFF
	cmake --build build-release -j $(JOBS) --target kernels_bench attention_bench quorvel-inference quorvel-bench
	./build-release/bench/kernels_bench $(BENCH_ARGS)
	./build-release/bench/attention_bench $(BENCH_ARGS)
	./build-release/host/quorvel-bench ./build-release/quorvel-inference build-release/bench-models

# Conversion speed on a synthetic checkpoint of the 2B BitNet shape (30
# layers, packed ternary, written once by bench/synthetic_checkpoint.py):
# wall time and peak memory from /usr/bin/time -v. The previous output is
# removed first, outside the timing (freeing 1.2 GB is slow on some disks).
CONVERT_BENCH_DIR ?= build-release/bench-checkpoint
.PHONY: bench-convert
bench-convert:
	cmake -S . -B build-release -G Ninja -DCMAKE_BUILD_TYPE=Release -DQUORVEL_BENCH=ON -DQUORVEL_TESTS=OFF
	cmake --build build-release -j $(JOBS) --target quorvel-convert
	test -f $(CONVERT_BENCH_DIR)/model.safetensors || bench/synthetic_checkpoint.py $(CONVERT_BENCH_DIR)
	rm -rf build-release/bench-converted
	/usr/bin/time -v ./build-release/tools/quorvel-convert $(CONVERT_BENCH_DIR) build-release/bench-converted \
	  2>&1 | grep -v -E '^\s+(Average|Exit|Socket|Signals|Swaps|File system|Page size|Voluntary|Involuntary|Major|Minor)'

# Tokenizer load time and encoding speed on the published Llama 3 and Qwen3
# tokenizer.json files (fetched by the configure step), English and CJK text.
.PHONY: bench-text
bench-text:
	cmake -S . -B build-release -G Ninja -DCMAKE_BUILD_TYPE=Release -DQUORVEL_BENCH=ON -DQUORVEL_TESTS=OFF
	cmake --build build-release -j $(JOBS) --target text_bench
	./build-release/bench/text_bench

# Writes MODEL_DIR/rope.cache from MODEL_DIR/init.txt with the tools' RoPE writer.
.PHONY: generate
generate: $(BUILD)/build.ninja
	@test -n "$(MODEL_DIR)" || { echo "Usage: make generate MODEL_DIR=<path>" >&2; exit 1; }
	cmake --build $(BUILD) -j $(JOBS) --target quorvel-make-rope
	$(BUILD)/tools/quorvel-make-rope "$(MODEL_DIR)"

# Builds in Release, converts the small model shipped in models/ (trained
# here on the King James Bible, tools/train/) into the build tree once, and
# has it complete a prompt: the text, then its speeds.
DEMO_CHECKPOINT ?= models/kjv-5m
DEMO_MODEL ?= build-release/demo-kjv-5m
DEMO_PROMPT ?= And God said,
demo:
	cmake -S . -B build-release -G Ninja -DCMAKE_BUILD_TYPE=Release -DQUORVEL_BENCH=ON -DQUORVEL_TESTS=OFF
	cmake --build build-release -j $(JOBS) --target quorvel-inference quorvel-convert quorvel-command
	test $(DEMO_MODEL)/qmodel.tensors -nt $(DEMO_CHECKPOINT)/model.safetensors || \
	  ./build-release/tools/quorvel-convert --force $(DEMO_CHECKPOINT) $(DEMO_MODEL)
	@echo
	@printf '%s' "$(DEMO_PROMPT)"
	@./build-release/quorvel run $(DEMO_MODEL) -p "$(DEMO_PROMPT)" -n 120
	@echo

# The engine's own protocol, without text: a two-request conversation of
# token ids with a random 1-bit model, the second request continuing from
# the kv_position the first one printed.
DEMO_IDS_MODEL ?= build-release/demo-ids-model
.PHONY: demo-ids
demo-ids:
	cmake -S . -B build-release -G Ninja -DCMAKE_BUILD_TYPE=Release -DQUORVEL_BENCH=ON -DQUORVEL_TESTS=OFF
	cmake --build build-release -j $(JOBS) --target quorvel-inference quorvel-make-model quorvel-demo
	test -f $(DEMO_IDS_MODEL)/qmodel.tensors || ./build-release/tools/quorvel-make-model $(DEMO_IDS_MODEL) --arch 4 \
	  --hidden 512 --intermediate 1536 --layers 6 --heads 4 --kv-heads 2 --head-dim 128 --vocab 4096 --max-pos 1024
	./build-release/host/quorvel-demo ./build-release/quorvel-inference $(DEMO_IDS_MODEL)

# A load test of quorvel serve: a random model (hidden 512, 8 layers, the Llama 3 vocabulary and
# tokenizer) served by two slots, 8 clients × 25 requests of mixed chat and completions, streamed
# or not; then the same while one slot's engine is killed (only 500s may fail). bench/serve_load.sh
# starts and stops the server and prints both summaries and the server's 500 lines.
LOAD_MODEL ?= build-release/load-test-model
.PHONY: load-test
load-test:
	cmake -S . -B build-release -G Ninja -DCMAKE_BUILD_TYPE=Release -DQUORVEL_BENCH=ON -DQUORVEL_TESTS=OFF
	cmake --build build-release -j $(JOBS) --target quorvel-command quorvel-inference quorvel-make-model \
	  quorvel-serve-load
	bench/serve_load.sh build-release $(LOAD_MODEL)

# The 64-bit ARM build: cross-compiled with the aarch64 GNU toolchain
# (g++-aarch64-linux-gnu) and run under qemu-user (qemu-aarch64), once as a
# core with the 8-bit dot product (-cpu max, which must get the
# "neon-dotprod" kernel set) and once as a Cortex-A53 without it ("neon"),
# the two side by side. It runs the kernel conformance suites, the linear
# layers' tests (the dot-product set splits q8_0 prompts in tiles) and the
# end-to-end engine tests; those start the engine through qemu as well, so
# the whole engine runs with each set. First it checks that no function
# compiled with the dot-product flags can stand in for baseline code.
ARM_BUILD ?= build-arm
ARM_TESTS := $(sort $(basename $(notdir $(wildcard tests/runtime/kernel_conformance_*_test.cpp tests/e2e/*_test.cpp \
  tests/layers/auto_linear_test.cpp))))
ARM_SET_max := neon-dotprod
ARM_SET_cortex-a53 := neon

.PHONY: test-arm
test-arm:
	cmake -S . -B $(ARM_BUILD) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
	  -DCMAKE_TOOLCHAIN_FILE=cmake/aarch64-linux-gnu.cmake
	cmake --build $(ARM_BUILD) -j $(JOBS) --target $(ARM_TESTS)
	NM=aarch64-linux-gnu-nm OBJDUMP=aarch64-linux-gnu-objdump tests/runtime/isa_symbols_check.sh dotprod \
	  $(addprefix $(ARM_BUILD)/libquorvel_,runtime.a io.a sampling.a layers.a models.a engine.a)
	$(MAKE) --no-print-directory --output-sync=target -j 2 test-arm-cpu-max test-arm-cpu-cortex-a53

test-arm-cpu-%:
	@set -e; for test in $(ARM_TESTS); do \
	  echo "== qemu-aarch64 -cpu $* $$test"; \
	  QEMU_CPU=$* QUORVEL_EXPECT_KERNEL_SET=$(ARM_SET_$*) \
	    qemu-aarch64 -L /usr/aarch64-linux-gnu $(ARM_BUILD)/tests/$$test --gtest_brief=1; \
	done

# The 64-bit Windows build: cross-compiled with MinGW-w64 (g++-mingw-w64-x86-64-posix), every program
# linked statically, the tests run under Wine (wine64). Starting a program under Wine takes seconds, so
# there each test directory is one executable (tests/CMakeLists.txt). The run ends with the number of
# GoogleTest tests that ran under Wine; the kernel conformance suites among them compare every x86 set
# with the portable one. CTest also checks the Windows objects for code shared across instruction sets.
WIN_BUILD ?= build-windows

.PHONY: build-windows test-windows
build-windows:
	cmake -S . -B $(WIN_BUILD) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
	  -DCMAKE_TOOLCHAIN_FILE=cmake/mingw-w64-x86_64.cmake
	cmake --build $(WIN_BUILD) -j $(JOBS) --target quorvel-inference quorvel-make-model quorvel-make-rope quorvel-convert \
	  quorvel-demo quorvel-bench quorvel_tests

test-windows: build-windows
	rm -rf $(WIN_BUILD)/tests/test-results
	ctest --test-dir $(WIN_BUILD) --output-on-failure -j $(JOBS)
	tests/gtest_report_count.sh $(WIN_BUILD)/tests/test-results

# Windows on ARM64 cannot be linked here: the archive has no MinGW-w64 C++ runtime for it. This check
# compiles every engine source for aarch64-w64-mingw32 with clang, -fsyntax-only and our warnings as
# errors: the NEON kernels (the dot-product files with their own -march), the Windows branches of the
# processor-feature, memory, CPU-count and command-line code, and everything else as that target sees
# it. Headers: MinGW-w64's C and Windows headers, which know ARM64, and the C++ library headers of
# the x86-64 MinGW-w64 compiler, target-neutral but for bits/c++config.h, which describes the same
# LLP64 Windows. Not covered: code generation, the assembler, linking, and running anything.
WIN_ARM64_SOURCES = $(shell find src -name '*.cpp' -not -path '*/x86/*')
WIN_ARM64_CHECKS = $(addprefix check-windows-arm64/,$(WIN_ARM64_SOURCES))
WIN_ARM64_CXX = clang++-14 --target=aarch64-w64-mingw32 -std=c++20 -fsyntax-only -ffp-contract=off \
  -nostdinc -nostdinc++ -isystem $(MINGW_CXX_INCLUDE) -isystem $(MINGW_CXX_INCLUDE)/x86_64-w64-mingw32 \
  -isystem $(CLANG_RESOURCE_DIR)/include -isystem /usr/share/mingw-w64/include -Isrc \
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wno-sign-conversion -Werror

.PHONY: check-windows-arm64 $(WIN_ARM64_CHECKS)
check-windows-arm64:
	@$(MAKE) --no-print-directory -j $(JOBS) $(WIN_ARM64_CHECKS) \
	  MINGW_CXX_INCLUDE=$(dir $(shell x86_64-w64-mingw32-g++-posix -print-libgcc-file-name))include/c++ \
	  CLANG_RESOURCE_DIR=$(shell clang++-14 -print-resource-dir)
	@echo "$(words $(WIN_ARM64_SOURCES)) engine sources compile for aarch64-w64-mingw32 (syntax only)"

$(WIN_ARM64_CHECKS): check-windows-arm64/%:
	@$(WIN_ARM64_CXX) $(if $(findstring _dotprod.cpp,$*),-march=armv8.2-a+dotprod,-march=armv8-a) $*

clean:
	rm -rf build build-asan build-tsan build-release build-fuzz build-windows
