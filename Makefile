# Thin wrapper over the CMake presets; see README.md.
.PHONY: all release debug asan fuzz test test-release test-asan check bench demo format clean

all: release

release debug asan:
	cmake --preset $@ >/dev/null
	cmake --build --preset $@

# The whole suite twice: a Release build with warnings as errors, then ASan+UBSan;
# then the short fuzz run (its targets are built with ASan+UBSan of their own).
test: test-release test-asan fuzz

test-release: release
	ctest --preset release

test-asan: asan
	ctest --preset asan

# The libFuzzer targets (clang, ASan+UBSan), each run for FUZZ_SECONDS on its
# seed corpus; fails on any crash.
FUZZ_SECONDS ?= 30
fuzz:
	cmake --preset fuzz >/dev/null
	cmake --build --preset fuzz
	scripts/run-fuzz $(FUZZ_SECONDS)

# Quick loop while developing: the Release suite only.
check: test-release

bench: release
	@for b in build/release/bench/*_bench; do echo "== $$b"; $$b; done

demo: release
	build/release/quillon demo

format:
	git ls-files '*.h' '*.cc' | xargs clang-format -i

clean:
	rm -rf build
