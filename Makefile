# The two entry points of a fresh machine are `make run` and `make test`;
# both install what is missing, configure and build first.
BUILD ?= build
JOBS ?= $(shell nproc)
CMAKE_FLAGS ?=
# Where `make install` puts the programs; DESTDIR stages the whole tree
# (make install DESTDIR=/tmp/stage PREFIX=/usr).
PREFIX ?= /usr/local
comma := ,
DESTDIR ?=

.PHONY: setup build test run install bench fuzz check-sanitize soak clean \
        setup-armhf build-armhf test-armhf deb

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

# The prefix is set at configure time because the systemd unit and the man
# page name the installed paths; only the two programs are built.
install: setup
	cmake -S . -B $(BUILD) $(CMAKE_FLAGS) -DCMAKE_INSTALL_PREFIX=$(PREFIX)
	cmake --build $(BUILD) -j $(JOBS) --target vesta-monitor vesta-monitorctl
	DESTDIR="$(DESTDIR)" cmake --install $(BUILD) --prefix $(PREFIX)

# ARM hard-float: cross-built with cmake/arm-linux-gnueabihf.cmake against
# Debian's armhf libraries unpacked into a sysroot under build-armhf/, and
# run under qemu-user (tools/setup-armhf.sh installs what is missing).
ARMHF_BUILD = build-armhf
ARMHF_SYSROOT = $(CURDIR)/$(ARMHF_BUILD)/sysroot
ARMHF_CMAKE = -DCMAKE_TOOLCHAIN_FILE=cmake/arm-linux-gnueabihf.cmake \
              -DVESTA_ARMHF_SYSROOT=$(ARMHF_SYSROOT)

setup-armhf:
	@tools/setup-armhf.sh $(ARMHF_SYSROOT)

$(ARMHF_BUILD)/CMakeCache.txt:
	cmake -S . -B $(ARMHF_BUILD) $(ARMHF_CMAKE) $(CMAKE_FLAGS)

build-armhf: setup-armhf $(ARMHF_BUILD)/CMakeCache.txt
	cmake --build $(ARMHF_BUILD) -j $(JOBS)

# The whole suite but the fuzz targets, every program under the emulator.
test-armhf: build-armhf
	cd $(ARMHF_BUILD) && ctest --output-on-failure -j $(JOBS) -LE fuzz

# vesta-monitor_<version>_<arch>.deb in the build folder: the host's
# architecture, or ARM hard-float with ARCH=armhf (tools/make-deb.sh).  The
# folder is configured with the prefix /usr, as `make install PREFIX=/usr`.
ARCH ?= $(shell dpkg --print-architecture)
ifeq ($(ARCH),armhf)
deb: setup-armhf
	cmake -S . -B $(ARMHF_BUILD) $(ARMHF_CMAKE) $(CMAKE_FLAGS) -DCMAKE_INSTALL_PREFIX=/usr
	cmake --build $(ARMHF_BUILD) -j $(JOBS) --target vesta-monitor vesta-monitorctl
	tools/make-deb.sh $(ARMHF_BUILD) armhf
else
deb: setup
	cmake -S . -B $(BUILD) $(CMAKE_FLAGS) -DCMAKE_INSTALL_PREFIX=/usr
	cmake --build $(BUILD) -j $(JOBS) --target vesta-monitor vesta-monitorctl
	tools/make-deb.sh $(BUILD) $(ARCH)
endif

bench: setup
	cmake -S . -B build-bench -DCMAKE_BUILD_TYPE=Release
	cmake --build build-bench -j $(JOBS)
	tools/run-bench.sh build-bench

# Every libFuzzer target of fuzz/, five minutes each, one after the
# other (ctest runs each for a short while: the wire decoder 30 seconds,
# the others 10 seconds).
fuzz: setup
	tools/fuzz.sh all 300

# The whole suite under AddressSanitizer with UndefinedBehaviorSanitizer,
# then under ThreadSanitizer, each in its own build folder.
check-sanitize: setup
	cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=Debug -DVESTA_SANITIZE=address,undefined
	cmake --build build-asan -j $(JOBS)
	cd build-asan && UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 ctest --output-on-failure -j $(JOBS) -LE fuzz
	cmake -S . -B build-tsan -DCMAKE_BUILD_TYPE=Debug -DVESTA_SANITIZE=thread
	cmake --build build-tsan -j $(JOBS)
	cd build-tsan && TSAN_OPTIONS=halt_on_error=1 ctest --output-on-failure -j $(JOBS) -LE fuzz

# A seeded fault-injection soak of the real daemon (tools/soak/soak.py):
# SOAK_SECONDS long (default 300), SOAK_SEED (default random; printed first,
# replays the run).  SANITIZE=1 soaks the AddressSanitizer +
# UndefinedBehaviorSanitizer build of build-asan/ instead.
SOAK_SECONDS ?= 300
SOAK_SEED ?=
SANITIZE ?=
SOAK_BUILD = $(if $(filter 1,$(SANITIZE)),build-asan,$(BUILD))
soak: setup
	$(if $(filter 1,$(SANITIZE)),cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=Debug -DVESTA_SANITIZE=address$(comma)undefined,cmake -S . -B $(BUILD) $(CMAKE_FLAGS))
	cmake --build $(SOAK_BUILD) -j $(JOBS) --target vesta-monitor
	python3 tools/soak/soak.py $(SOAK_BUILD)/monitor/vesta-monitor --seconds $(SOAK_SECONDS) \
	  $(if $(SOAK_SEED),--seed $(SOAK_SEED)) $(if $(filter 1,$(SANITIZE)),--sanitize)

clean:
	rm -rf build build-*
