# The two entry points: `make run` (release build, main job) and `make test` (sanitized build, all tests);
# `make bench` runs the benchmarks of the release build (BENCH=family picks one, e.g. BENCH=cheap).
.PHONY: run test bench deps build-release build-dev build-tsan clean

deps:
	./scripts/install-deps

build-release: deps
	cmake --preset release
	cmake --build --preset release

build-dev: deps
	cmake --preset dev
	cmake --build --preset dev

build-tsan: deps
	cmake --preset tsan
	cmake --build --preset tsan --target tsan_tests

run: build-release
	./build/release/zrtool demo

test: build-dev build-tsan
	./scripts/run-tests dev tsan

BENCH ?= *
bench: build-release
	@set -e; for b in ./build/release/bench/bench_$(BENCH); do \
	  [ -x "$$b" ] || { echo "no benchmark program $$b" >&2; exit 1; }; \
	  echo "== $$b"; "$$b" --benchmark_repetitions=5 --benchmark_report_aggregates_only=true; \
	done

clean:
	rm -rf build
