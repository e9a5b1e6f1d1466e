# SPDX-License-Identifier: Apache-2.0
# What a consumer of the library meets: the suite built with clang (as a
# device builds), and the host example built against the library three ways:
# the installed CMake package, pkg-config on the same prefix, and
# add_subdirectory from a parent project. Each in its own build directory.

CLANG_PACKAGES := clang-14
EXAMPLE_PACKAGES := pkg-config
EXAMPLE_DIR := build-example
EXAMPLE_PREFIX := $(CURDIR)/$(EXAMPLE_DIR)/prefix

.PHONY: check-clang check-example

check-clang: deps
	./tools/ensure-packages $(CLANG_PACKAGES)
	$(call QUIETLY,build-clang/configure.log) $(CMAKE) -S . -B build-clang \
		-DCMAKE_CXX_COMPILER=clang++-14 -DPOSTPROC_BUILD_DEMO=OFF
	$(call QUIETLY,build-clang/build.log) $(CMAKE) --build build-clang -j$(JOBS)
	cd build-clang && $(call QUIETLY,$(CURDIR)/build-clang/ctest.log) ctest --output-on-failure \
		-j$(JOBS)
	echo "check-clang: $$(grep -o '[0-9]* tests failed out of [0-9]*' build-clang/ctest.log) with clang++-14"

check-example: deps
	./tools/ensure-packages $(EXAMPLE_PACKAGES)
	rm -rf $(EXAMPLE_DIR)
	$(call QUIETLY,$(EXAMPLE_DIR)/install.log) sh -c '$(CMAKE) -S . -B $(EXAMPLE_DIR)/project \
		-DCMAKE_BUILD_TYPE=Release -DPOSTPROC_BUILD_TESTS=OFF -DPOSTPROC_BUILD_DEMO=OFF && \
		$(CMAKE) --build $(EXAMPLE_DIR)/project -j$(JOBS) && \
		$(CMAKE) --install $(EXAMPLE_DIR)/project --prefix $(EXAMPLE_PREFIX)'
	! ls $(EXAMPLE_PREFIX)/lib/libiqdbgmgr.so* 2>/dev/null || \
		{ echo "check-example: the stand-in IQ buffer manager is in the consumer's lib/"; exit 1; }
	! grep -rl 'liblog\.so' $(EXAMPLE_PREFIX)/lib/cmake $(EXAMPLE_PREFIX)/lib/pkgconfig || \
		{ echo "check-example: the package names a liblog.so file of this machine"; exit 1; }
	$(call QUIETLY,$(EXAMPLE_DIR)/package.log) sh -c '$(CMAKE) -S examples \
		-B $(EXAMPLE_DIR)/package -DCMAKE_PREFIX_PATH=$(EXAMPLE_PREFIX) && \
		$(CMAKE) --build $(EXAMPLE_DIR)/package && $(EXAMPLE_DIR)/package/ledger_example'
	$(call QUIETLY,$(EXAMPLE_DIR)/pkg-config.log) sh -c 'export \
		PKG_CONFIG_PATH=$(EXAMPLE_PREFIX)/lib/pkgconfig && \
		$${CXX:-c++} -std=c++17 examples/ledger_example.cpp -o $(EXAMPLE_DIR)/pkg-config-example \
			$$(pkg-config --cflags --libs postprocinfo-sim) && $(EXAMPLE_DIR)/pkg-config-example'
	$(call QUIETLY,$(EXAMPLE_DIR)/subdirectory.log) sh -c '$(CMAKE) -S examples/subproject \
		-B $(EXAMPLE_DIR)/subdirectory && $(CMAKE) --build $(EXAMPLE_DIR)/subdirectory \
		-j$(JOBS) && $(EXAMPLE_DIR)/subdirectory/example/ledger_example'
	echo "check-example: built and ran from the CMake package, pkg-config and add_subdirectory"
