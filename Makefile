# make demo   build, register the control in a Wine prefix and let a page ask it
# make test   every test: the Windows build under Wine and the portable logic natively
#             under AddressSanitizer/UBSan
SHELL := /bin/sh
WIN := build/win
NATIVE := build/native

.PHONY: all deps build native test demo bench clean

all: build

deps:
	@testing/install-deps.sh

build: deps
	@cmake --preset windows >/dev/null
	@cmake --build --preset windows

native: deps
	@cmake --preset native >/dev/null
	@cmake --build --preset native

test: build native
	@ctest --preset native
	@ctest --preset windows

demo: build
	@testing/demo/demo.sh $(WIN)

clean:
	@testing/wine-env.sh down $(WIN) 2>/dev/null || true
	rm -rf build
