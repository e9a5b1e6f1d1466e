# SPDX-License-Identifier: Apache-2.0
# The lock table checked at compile time: the library built with clang's
# thread-safety analysis against libc++, whose std::mutex and
# std::lock_guard carry the capability annotations. A guarded member touched
# without its mutex, a helper called without the lock it requires, or two
# mutexes taken out of order fail the build.

THREAD_SAFETY_PACKAGES := clang-14 libc++-14-dev libc++abi-14-dev
THREAD_SAFETY_DIR := build-thread-safety

.PHONY: check-thread-safety

check-thread-safety: deps
	./tools/ensure-packages $(THREAD_SAFETY_PACKAGES)
	$(call QUIETLY,$(THREAD_SAFETY_DIR)/configure.log) $(CMAKE) -S . -B $(THREAD_SAFETY_DIR) \
		-DCMAKE_CXX_COMPILER=clang++-14 \
		-DCMAKE_CXX_FLAGS="-stdlib=libc++ -D_LIBCPP_ENABLE_THREAD_SAFETY_ANNOTATIONS" \
		-DPOSTPROC_THREAD_SAFETY=ON -DPOSTPROC_BUILD_TESTS=OFF -DPOSTPROC_BUILD_DEMO=OFF
	$(call QUIETLY,$(THREAD_SAFETY_DIR)/build.log) $(CMAKE) --build $(THREAD_SAFETY_DIR) \
		-j$(JOBS) --target postprocinfo
	echo "check-thread-safety: the lock table holds"
