# The two set-up commands of the README, and a fast developer build.
#   make demo   installs what is missing, makes an optimised build and shows the corvane command
#               locking, opening, closing and unlocking a sample folder in a private temporary place
#   make test   installs what is missing, builds with AddressSanitizer and UndefinedBehaviorSanitizer,
#               and runs every test (this is what CI runs)
#   make build  an optimised build without sanitizers
#   make app    the optimised build, then starts corvane-app (needs a desktop session)
#   make screenshots  renders the application's windows offscreen into docs/screenshots/
#   make bench  the benchmarks, on an optimised build
#   make torture  200 commands killed at random moments, each settled by recovery, on an optimised
#               build; nothing may be lost or left behind
#   make package  the optimised build, then the Debian package $(BUILD_DIR)/corvane_VERSION_ARCH.deb
#   make fuzz   builds the fuzzers with clang, runs each for FUZZ_SECONDS (60) on a copy of its seed
#               corpus, or for FUZZ_RUNS executions when given; fails when one crashes

BUILD_DIR ?= build
FUZZ_SECONDS ?= 60
JOBS ?= $(shell nproc)

.PHONY: deps demo test build app screenshots bench torture fuzz clean

deps:
	scripts/install-deps

demo: build
	scripts/demo $(BUILD_DIR)/release/cli/corvane

test: deps
	cmake -S . -B $(BUILD_DIR)/sanitize -G Ninja -DCMAKE_BUILD_TYPE=Debug -DCORVANE_SANITIZE=ON
	cmake --build $(BUILD_DIR)/sanitize -j $(JOBS)
	cd $(BUILD_DIR)/sanitize && ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 \
		LSAN_OPTIONS=suppressions=$(CURDIR)/tests/lsan.supp:print_suppressions=0 \
		UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
		ctest --output-on-failure -j $(JOBS)

build: deps
	cmake -S . -B $(BUILD_DIR)/release -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo
	cmake --build $(BUILD_DIR)/release -j $(JOBS)

app: build
	$(BUILD_DIR)/release/Corvane/corvane-app

screenshots: build
	QT_QPA_PLATFORM=offscreen $(BUILD_DIR)/release/Corvane/screenshots/corvane-screenshots docs/screenshots

bench: build
	bench/verifier.sh $(BUILD_DIR)/release/bench/corvane-verifier-bench
	rm -rf $(BUILD_DIR)/image-bench && mkdir -p $(BUILD_DIR)/image-bench
	$(BUILD_DIR)/release/bench/corvane-image-bench $(BUILD_DIR)/image-bench 10
	bench/lock.sh $(BUILD_DIR)/release/cli/corvane $(BUILD_DIR)/release/bench/corvane-verifier-bench
	rm -rf $(BUILD_DIR)/sleep-bench && mkdir -p $(BUILD_DIR)/sleep-bench
	$(BUILD_DIR)/release/bench/corvane-sleep-bench $(BUILD_DIR)/sleep-bench

torture: build
	tests/torture/torture.sh $(BUILD_DIR)/release/cli/corvane 200

fuzz: deps
	FUZZ_SECONDS=$(FUZZ_SECONDS) FUZZ_RUNS=$(FUZZ_RUNS) JOBS=$(JOBS) fuzz/run.sh $(BUILD_DIR)/fuzz

.PHONY: package
package: build
	rm -rf $(BUILD_DIR)/release/package
	cpack --config $(BUILD_DIR)/release/CPackConfig.cmake -G DEB -B $(BUILD_DIR)/release/package
	cp $(BUILD_DIR)/release/package/corvane_*.deb $(BUILD_DIR)/

clean:
	rm -rf $(BUILD_DIR)
