# The two entry points: `make run` (release build, main job) and `make test` (sanitized build, all tests).
.PHONY: run test deps build-release build-dev build-tsan clean

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

clean:
	rm -rf build
