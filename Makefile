# The two entry points of a fresh machine are `make run` and `make test`;
# both install what is missing, configure and build first.
BUILD ?= build
JOBS ?= $(shell nproc)
CMAKE_FLAGS ?=

.PHONY: setup build test run bench fuzz check-sanitize clean

setup:
	@tools/setup.sh

$(BUILD)/CMakeCache.txt:
	cmake -S . -B $(BUILD) $(CMAKE_FLAGS)

build: setup $(BUILD)/CMakeCache.txt
	cmake --build $(BUILD) -j $(JOBS)

test: build
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

run: build
	tools/run-sandbox.sh $(BUILD)

bench: setup
	cmake -S . -B build-bench -DCMAKE_BUILD_TYPE=Release
	cmake --build build-bench -j $(JOBS)
	tools/run-bench.sh build-bench

clean:
	rm -rf build build-*
