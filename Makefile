# make demo   build, register the control in a Wine prefix and let a page ask it
# make test   every test: the Windows build under Wine, the portable logic natively under
#             AddressSanitizer/UBSan, and a short run of every fuzzer
# make fuzz   every fuzzer to FUZZ_RUNS executions (10 million), at most FUZZ_SECONDS each (900)
# make bench  every benchmark; the table goes to the terminal and bench/results.md
# make release  signed x64 and x86 DLLs, the CAB for pages, the MSI, checksums, in
#             build/release/TarnSMX-<version>/ (TARN_SIGN_CERT, TARN_SIGN_KEY, TARN_TIMESTAMP_URL;
#             without them: a throw-away test certificate and a -TESTSIGNED folder)
SHELL := /bin/sh
WIN := build/win
NATIVE := build/native

.PHONY: all deps build native native32 fuzz-build test demo fuzz bench release clean
FUZZ_SECONDS ?= 900
FUZZ_RUNS ?= 10000000
FUZZ_SMOKE_SECONDS ?= 4

all: build

deps:
	@testing/install-deps.sh

build: deps
	@cmake --preset windows >/dev/null
	@cmake --build --preset windows

native: deps
	@cmake --preset native >/dev/null
	@cmake --build --preset native

native32: deps
	@cmake --preset native32 >/dev/null
	@cmake --build --preset native32

fuzz-build: deps
	@cmake --preset fuzz >/dev/null
	@cmake --build --preset fuzz

test: build native native32 fuzz-build
	@ctest --preset native
	@ctest --preset native32
	@ctest --preset windows
	@packaging/release.sh --test-cert
	@ctest --preset packaging
	@testing/fuzz/run-fuzzers.sh build/fuzz $(FUZZ_SMOKE_SECONDS)

bench: build
	@bench/run-benchmarks.sh $(WIN)

fuzz: fuzz-build
	@testing/fuzz/run-fuzzers.sh build/fuzz $(FUZZ_SECONDS) $(FUZZ_RUNS)

demo: build
	@demo/demo.sh $(WIN)

release: deps
	@packaging/release.sh $(RELEASE_ARGS)

clean:
	@testing/wine-env.sh down $(WIN) 2>/dev/null || true
	rm -rf build
