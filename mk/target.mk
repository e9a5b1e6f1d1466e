# SPDX-License-Identifier: Apache-2.0
# Proof on the target: the suite on AArch64 under qemu, the device build file
# built through mini-soong, and the library's binary interface against its
# committed baseline. See docs/target.md.

# The cross compiler and the arm64 builds of what the library links.
CROSS_PACKAGES := cmake make g++-aarch64-linux-gnu binutils-aarch64-linux-gnu libc6:arm64 \
	android-liblog-dev:arm64 android-libcutils-dev:arm64 android-libbase-dev:arm64 \
	android-libziparchive-dev:arm64 zlib1g-dev:arm64
AARCH64_PACKAGES := $(CROSS_PACKAGES) libgtest-dev:arm64 libgmock-dev:arm64 nlohmann-json3-dev \
	qemu-user
BP_PACKAGES := make gcc g++ dpkg-dev python3 blueprint-tools mini-soong \
	android-liblog-dev android-libcutils-dev android-libbase-dev
ABI_PACKAGES := $(CROSS_PACKAGES) abigail-tools

ABI_BASELINE := abi/libpostprocinfo.aarch64.abi
ABI_BUILD := build-abi
# No paths of the machine in the baseline: locations, the corpus path and the
# compilation directory would differ in every clone; only what the library
# exports counts.
ABIDW := abidw --exported-interfaces-only --no-corpus-path --no-comp-dir-path --no-show-locs

.PHONY: check-aarch64 check-bp abi-check abi-update abi-build

check-aarch64:
	./tools/ensure-packages $(AARCH64_PACKAGES)
	$(call QUIETLY,build-aarch64/configure.log) $(CMAKE) --preset aarch64
	$(call QUIETLY,build-aarch64/build.log) $(CMAKE) --build --preset aarch64 -j$(JOBS)
	$(call QUIETLY,build-aarch64/ctest.log) ctest --preset aarch64 -j$(JOBS)
	echo "check-aarch64: $$(grep -o '[0-9]* tests failed out of [0-9]*' build-aarch64/ctest.log) under qemu-aarch64"

# Formatted, every property known to its module type (a misspelled one is
# refused: the check is tried on one), and the library and the log checker
# built through mini-soong outside the source tree.
check-bp:
	./tools/ensure-packages $(BP_PACKAGES)
	diff=$$(bpfmt -d Android.bp) || exit 1; \
	if [ -n "$$diff" ]; then \
		printf '%s\n' "$$diff"; echo "Android.bp is not formatted: run bpfmt -w Android.bp"; exit 1; \
	fi
	./tools/check-bp Android.bp >/dev/null || ./tools/check-bp Android.bp
	out=$$(mktemp -d) && trap 'rm -rf "$$out"' EXIT && \
	sed 's/integer_overflow: true/integer_overflw: true/' Android.bp >$$out/misspelled.bp && \
	if ./tools/check-bp $$out/misspelled.bp >/dev/null; then \
		echo "check-bp: a misspelled property was accepted"; exit 1; fi && \
	$(call QUIETLY,$$out/soong.log) ./tools/soong-host-build $$out/soong && \
	tests/check_exports.sh $$out/soong/libpostprocinfo.so >/dev/null && \
	$$out/soong/postproc-logcheck -h >/dev/null
	echo "check-bp: Android.bp formatted, every property known, built through mini-soong"

abi-build:
	./tools/ensure-packages $(ABI_PACKAGES)
	$(call QUIETLY,$(ABI_BUILD)/configure.log) $(CMAKE) --preset aarch64-abi
	$(call QUIETLY,$(ABI_BUILD)/build.log) $(CMAKE) --build --preset aarch64-abi -j$(JOBS)

abi-check: abi-build
	$(ABIDW) $(ABI_BUILD)/lib/libpostprocinfo.so >$(ABI_BUILD)/libpostprocinfo.aarch64.abi
	abidiff $(ABI_BASELINE) $(ABI_BUILD)/libpostprocinfo.aarch64.abi || { \
		echo "the binary interface differs from $(ABI_BASELINE);"; \
		echo "if the change is meant, run make abi-update and commit the baseline"; exit 1; }
	echo "abi-check: the library's binary interface matches $(ABI_BASELINE)"

abi-update: abi-build
	$(ABIDW) $(ABI_BUILD)/lib/libpostprocinfo.so >$(ABI_BUILD)/libpostprocinfo.aarch64.abi
	mkdir -p $(dir $(ABI_BASELINE))
	cp $(ABI_BUILD)/libpostprocinfo.aarch64.abi $(ABI_BASELINE)
	echo "abi-update: $(ABI_BASELINE) rewritten; commit it with the change"
