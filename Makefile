# SPDX-License-Identifier: Apache-2.0
# Host build of libpostprocinfo and its simulation. `make demo` and
# `make check` install the Debian packages they need first (as root).
#
# Quiet by default: builds write to a log that is shown only when they fail,
# and every target ends with one verdict line. V=1 shows everything.

BUILD_DIR ?= build
JOBS ?= $(shell nproc 2>/dev/null || echo 2)
CMAKE ?= cmake
CMAKE_FLAGS ?=
DEMO_ARGS ?=

PACKAGES := cmake make g++ binutils googletest libgtest-dev libgmock-dev \
	android-liblog-dev android-libcutils-dev android-libbase-dev android-libziparchive-dev zlib1g-dev nlohmann-json3-dev
FORMAT_PACKAGES := clang-format
SOURCES = $(shell git ls-files -co --exclude-standard '*.cpp' '*.h' 2>/dev/null)

MAKEFLAGS += --no-print-directory
ifeq ($(V),1)
QUIETLY =
else
QUIETLY = $(CURDIR)/tools/quietly $(1)
.SILENT:
endif

.PHONY: all deps configure build demo check format format-check clean

all: build

deps:
	./tools/ensure-packages $(PACKAGES)

configure: deps
	$(call QUIETLY,$(BUILD_DIR)/configure.log) $(CMAKE) -S . -B $(BUILD_DIR) $(CMAKE_FLAGS)

build: configure
	$(call QUIETLY,$(BUILD_DIR)/build.log) $(CMAKE) --build $(BUILD_DIR) -j$(JOBS)

# The Android log only; DEMO_ARGS=--both adds the framework's log system.
demo: configure
	$(call QUIETLY,$(BUILD_DIR)/build.log) $(CMAKE) --build $(BUILD_DIR) -j$(JOBS) \
		--target postproc_demo
	$(BUILD_DIR)/bin/postproc_demo $(DEMO_ARGS)

check: build
	cd $(BUILD_DIR) && ctest --output-on-failure -j$(JOBS)

format:
	./tools/ensure-packages $(FORMAT_PACKAGES)
	clang-format -i $(SOURCES)
	echo "format: $(words $(SOURCES)) sources formatted"

format-check:
	./tools/ensure-packages $(FORMAT_PACKAGES)
	clang-format --dry-run --Werror $(SOURCES)
	./tools/check-spdx
	echo "format-check: $(words $(SOURCES)) sources formatted, every file has its SPDX line"

clean:
	rm -rf $(BUILD_DIR) build-*

# Further targets (cross builds, sanitizers, fuzzing, benchmarks, adoption)
# live in mk/.
-include $(wildcard mk/*.mk)
