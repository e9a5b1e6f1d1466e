# SPDX-License-Identifier: Apache-2.0
# postproc-logcheck's page as a person sees it: Debian's Chromium, installed
# for this target only, opens the report of a seeded leak headless, runs its
# script and draws it (build/tests/logcheck-page.png). `make page-picture`
# copies that picture to docs/ for the README.

.PHONY: check-page page-picture

check-page: deps
	./tools/ensure-packages chromium
	$(call QUIETLY,$(BUILD_DIR)/configure.log) $(CMAKE) -S . -B $(BUILD_DIR) $(CMAKE_FLAGS)
	$(call QUIETLY,$(BUILD_DIR)/page-build.log) $(CMAKE) --build $(BUILD_DIR) -j$(JOBS) \
		--target logcheck_page_test
	$(call QUIETLY,$(BUILD_DIR)/page.log) $(BUILD_DIR)/bin/logcheck_page_test
	echo "check-page: Chromium drew the report of a seeded leak with its script run and no" \
		"console error ($(BUILD_DIR)/tests/logcheck-page.png)"

page-picture: check-page
	cp $(BUILD_DIR)/tests/logcheck-page.png docs/logcheck-page.png
