# SPDX-License-Identifier: Apache-2.0
# Proof on the target: the suite on AArch64 under qemu; Android.bp through
# Android's own Soong and its modules built for the phone from what Soong
# wrote (bionic, libc++); the phone library's binary interface against its
# committed baseline. See docs/target.md.

# The cross compiler and the arm64 builds of what the library links.
CROSS_PACKAGES := cmake make g++-aarch64-linux-gnu binutils-aarch64-linux-gnu libc6:arm64 \
	android-liblog-dev:arm64 android-libcutils-dev:arm64 android-libbase-dev:arm64 \
	android-libziparchive-dev:arm64 zlib1g-dev:arm64
AARCH64_PACKAGES := $(CROSS_PACKAGES) libgtest-dev:arm64 libgmock-dev:arm64 nlohmann-json3-dev \
	qemu-user
# Soong (../shared/soong builds it offline with Go 1.19) and the phone's
# compiler: Debian's clang and lld 14, the release Android 13 builds with,
# libc++'s headers, bionic's (../shared/sysroot), Android's library headers.
SHARED ?= $(abspath $(CURDIR)/../shared)
SOONG_DIR ?= $(SHARED)/soong
BIONIC ?= $(SHARED)/sysroot/bionic/libc
SOONG_PACKAGES := git python3 golang-1.19-go blueprint-tools
DEVICE_PACKAGES := clang-14 lld-14 llvm-14 libc++-14-dev libc++abi-14-dev binutils \
	android-liblog-dev android-libcutils-dev android-libbase-dev
ABI_PACKAGES := $(SOONG_PACKAGES) $(DEVICE_PACKAGES) $(CROSS_PACKAGES) abigail-tools

SOONG_OUT := build-soong
SOONG_BUILD := $(CURDIR)/$(SOONG_OUT)/bin/soong_build
DEVICE_ENV := SOONG_DIR=$(SOONG_DIR) BIONIC=$(BIONIC) SOONG_SRC=$(CURDIR)/$(SOONG_OUT)/src/build/soong
ABI_BASELINE := abi/libpostprocinfo.android-arm64.abi
ABI_PHONE := $(SOONG_OUT)/abi-out/libpostprocinfo.so
ABI_BUILD := build-abi
ABI_GLIBC := $(ABI_BUILD)/lib/libpostprocinfo.so
# No paths of the machine in the baseline: locations, the corpus path and the
# compilation directory would differ in every clone; only what the library
# exports counts.
ABIDW := abidw --exported-interfaces-only --no-corpus-path --no-comp-dir-path --no-show-locs

.PHONY: check-aarch64 check-bp abi-check abi-update abi-build soong

check-aarch64:
	./tools/ensure-packages $(AARCH64_PACKAGES)
	$(call QUIETLY,build-aarch64/configure.log) $(CMAKE) --preset aarch64
	$(call QUIETLY,build-aarch64/build.log) $(CMAKE) --build --preset aarch64 -j$(JOBS)
	$(call QUIETLY,build-aarch64/ctest.log) ctest --preset aarch64 -j$(JOBS)
	echo "check-aarch64: $$(grep -o '[0-9]* tests failed out of [0-9]*' build-aarch64/ctest.log) under qemu-aarch64"

soong:
	./tools/ensure-packages $(SOONG_PACKAGES)
	[ -x $(SOONG_DIR)/build.sh ] || { echo "no Soong in $(SOONG_DIR): set SHARED or SOONG_DIR"; exit 2; }
	$(call QUIETLY,$(SOONG_OUT)/build.log) $(SOONG_DIR)/build.sh $(SOONG_OUT)

# Formatted, accepted by Soong with either header set and refusing a dozen
# mistakes, then built for the phone (tools/soong-check).
check-bp: soong
	./tools/ensure-packages $(DEVICE_PACKAGES)
	diff=$$(bpfmt -d Android.bp) || exit 1; \
	if [ -n "$$diff" ]; then \
		printf '%s\n' "$$diff"; echo "Android.bp is not formatted: run bpfmt -w Android.bp"; exit 1; \
	fi
	$(DEVICE_ENV) ./tools/soong-check $(SOONG_BUILD) $(SOONG_OUT)/check $(SOONG_OUT)/device

# The phone's library as Soong builds it, and the AArch64 glibc one beside it
# for the layout table.
abi-build: soong
	./tools/ensure-packages $(ABI_PACKAGES)
	$(call QUIETLY,$(SOONG_OUT)/abi.log) $(SOONG_DIR)/analyze.sh $(SOONG_BUILD) . $(SOONG_OUT)/abi
	$(call QUIETLY,$(SOONG_OUT)/abi-build.log) env $(DEVICE_ENV) ./tools/device-build \
		$(SOONG_OUT)/abi $(SOONG_OUT)/abi-out libpostprocinfo
	$(ABIDW) $(ABI_PHONE) >$(SOONG_OUT)/abi-out/libpostprocinfo.abi
	$(call QUIETLY,$(ABI_BUILD)/configure.log) $(CMAKE) --preset aarch64-abi
	$(call QUIETLY,$(ABI_BUILD)/build.log) $(CMAKE) --build --preset aarch64-abi -j$(JOBS)
	$(ABIDW) $(ABI_GLIBC) >$(ABI_BUILD)/libpostprocinfo.glibc.abi

abi-check: abi-build
	abidiff $(ABI_BASELINE) $(SOONG_OUT)/abi-out/libpostprocinfo.abi || { \
		echo "the binary interface differs from $(ABI_BASELINE);"; \
		echo "if the change is meant, run make abi-update and commit the baseline"; exit 1; }
	tests/check_exports.sh $(ABI_PHONE) >/dev/null || tests/check_exports.sh $(ABI_PHONE)
	./tools/abi-layout $(SOONG_OUT)/abi-out/libpostprocinfo.abi $(ABI_BUILD)/libpostprocinfo.glibc.abi \
		--doc docs/target.md || { echo "run make abi-update and commit docs/target.md"; exit 1; }
	echo "abi-check: the phone library's binary interface matches $(ABI_BASELINE)," \
		"its exports and docs/target.md's layout too"

abi-update: abi-build
	mkdir -p $(dir $(ABI_BASELINE))
	cp $(SOONG_OUT)/abi-out/libpostprocinfo.abi $(ABI_BASELINE)
	./tools/abi-layout $(SOONG_OUT)/abi-out/libpostprocinfo.abi $(ABI_BUILD)/libpostprocinfo.glibc.abi \
		--doc docs/target.md --update
	echo "abi-update: $(ABI_BASELINE) and docs/target.md's layout rewritten; commit them with the change"
