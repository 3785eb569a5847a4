# The front door: `make demo`, `make test`, `make bench`, `make generate MODEL_DIR=...`.
BUILD ?= build
JOBS ?= $(shell nproc)
CMAKE_FLAGS ?=

.PHONY: all build test test-sanitize test-tsan bench clean

all: build

$(BUILD)/build.ninja:
	cmake -S . -B $(BUILD) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo $(CMAKE_FLAGS)

build: $(BUILD)/build.ninja
	cmake --build $(BUILD) -j $(JOBS)

test: build
	ctest --test-dir $(BUILD) --output-on-failure -j $(JOBS)

# The same tests under AddressSanitizer + UndefinedBehaviorSanitizer.
test-sanitize:
	$(MAKE) test BUILD=build-asan CMAKE_FLAGS="-DQUORVEL_SANITIZE=address,undefined"

# The thread pool and everything that dispatches through it under ThreadSanitizer.
test-tsan:
	$(MAKE) test BUILD=build-tsan CMAKE_FLAGS="-DQUORVEL_SANITIZE=thread"

clean:
	rm -rf build build-asan build-tsan build-release
