# The two commands of the README: `make demo` and `make test`.
JOBS ?= $(shell nproc)
PROFILE ?= dell

.PHONY: all deps build test test-asan test-tsan demo format clean install

all: build

deps:
	scripts/install-deps

build: deps
	cmake --preset dev
	cmake --build --preset dev -j$(JOBS)

test: build
	ctest --preset dev -j$(JOBS)

test-asan: deps
	cmake --preset asan
	cmake --build --preset asan -j$(JOBS)
	ctest --preset asan -j$(JOBS)

test-tsan: deps
	cmake --preset tsan
	cmake --build --preset tsan -j$(JOBS)
	ctest --preset tsan -j$(JOBS) -L 'unit|http|concurrency'

demo: build
	scripts/demo $(PROFILE)

format:
	clang-format -i $$(git ls-files '*.cpp' '*.h' '*.c')

clean:
	rm -rf build build-asan build-tsan

# Installs the library, headers, pkg-config and CMake files, redfishctl, man
# pages and licence; DESTDIR stages it elsewhere.
PREFIX ?= /usr/local
install: build
	cmake --install build --prefix $(PREFIX)
