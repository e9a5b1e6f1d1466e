# SPDX-License-Identifier: Apache-2.0
# The suite with the phone's standard library: everything built by clang
# against libc++ (GoogleTest from Debian's source package, so that nothing
# built with libstdc++ is linked but the C interfaces of liblog and
# libcutils), and the library compiled with the integer overflow sanitizer
# that Android.bp's integer_overflow turns on, trapping as on the phone.

LIBCXX_PACKAGES := clang-14 libc++-14-dev libc++abi-14-dev googletest binutils
LIBCXX_DIR := build-libcxx

.PHONY: check-libcxx

check-libcxx: deps
	./tools/ensure-packages $(LIBCXX_PACKAGES)
	$(call QUIETLY,$(LIBCXX_DIR)/configure.log) $(CMAKE) -S . -B $(LIBCXX_DIR) \
		-DCMAKE_CXX_COMPILER=clang++-14 -DPOSTPROC_LIBCXX=ON -DPOSTPROC_INTEGER_OVERFLOW=ON \
		-DPOSTPROC_BUILD_DEMO=OFF
	$(call QUIETLY,$(LIBCXX_DIR)/build.log) $(CMAKE) --build $(LIBCXX_DIR) -j$(JOBS)
	needed=$$(readelf -d $(LIBCXX_DIR)/lib/libpostprocinfo.so | grep NEEDED); \
	if ! printf '%s\n' "$$needed" | grep -q 'libc++\.so' || \
		printf '%s\n' "$$needed" | grep -q 'libstdc++'; then \
		printf '%s\n' "$$needed"; echo "check-libcxx: the library is not linked with libc++ alone"; \
		exit 1; \
	fi
	$(call QUIETLY,$(LIBCXX_DIR)/ctest.log) ctest --test-dir $(LIBCXX_DIR) --output-on-failure -j$(JOBS)
	echo "check-libcxx: $$(grep -o '[0-9]* tests failed out of [0-9]*' $(LIBCXX_DIR)/ctest.log)" \
		"with libc++, the library under the trapping integer overflow sanitizer"
