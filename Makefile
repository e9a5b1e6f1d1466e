# Host build of libpostprocinfo and its simulation. `make demo` and
# `make check` install the Debian packages they need first (as root).

BUILD_DIR ?= build
JOBS ?= $(shell nproc 2>/dev/null || echo 2)
CMAKE ?= cmake
CMAKE_FLAGS ?=

PACKAGES := cmake make g++ binutils googletest libgtest-dev libgmock-dev \
	android-liblog-dev android-libcutils-dev android-libbase-dev
FORMAT_PACKAGES := clang-format
SOURCES = $(shell git ls-files -co --exclude-standard '*.cpp' '*.h' 2>/dev/null)

.PHONY: all deps configure build demo check format format-check clean

all: build

deps:
	@./tools/ensure-packages $(PACKAGES)

configure: deps
	$(CMAKE) -S . -B $(BUILD_DIR) $(CMAKE_FLAGS)

build: configure
	$(CMAKE) --build $(BUILD_DIR) -j$(JOBS)

demo: configure
	$(CMAKE) --build $(BUILD_DIR) -j$(JOBS) --target postproc_demo
	$(BUILD_DIR)/bin/postproc_demo

check: build
	cd $(BUILD_DIR) && ctest --output-on-failure -j$(JOBS)

format:
	@./tools/ensure-packages $(FORMAT_PACKAGES)
	clang-format -i $(SOURCES)

format-check:
	@./tools/ensure-packages $(FORMAT_PACKAGES)
	clang-format --dry-run --Werror $(SOURCES)

clean:
	rm -rf $(BUILD_DIR) build-*

# Further targets (cross builds, sanitizers, fuzzing, benchmarks) live in mk/.
-include $(wildcard mk/*.mk)
