# Entry points. `make test` is what CI runs on a fresh machine.
JOBS ?= $(shell nproc)
FORMAT_FILES = $(shell git ls-files '*.h' '*.cpp' '*.h.in')

.PHONY: all deps build test demo codec-demo bench profile-startup fuzz fuzz-campaign differential \
  lint docs format tsan clean

all: build

deps:
	./scripts/install-deps

build: deps
	cmake --preset release
	cmake --build --preset release -j $(JOBS)

# clang-tidy over every source, then the release, AddressSanitizer + UndefinedBehaviorSanitizer,
# and ThreadSanitizer builds with every test in each (the soak tests not under ThreadSanitizer);
# then the API reference. Each step fails on any warning.
test: deps
	cmake --preset release
	cmake --build --preset release -j $(JOBS)
	./scripts/lint
	ctest --preset release -j $(JOBS)
	cmake --preset asan
	cmake --build --preset asan -j $(JOBS)
	ctest --preset asan -j $(JOBS)
	cmake --preset tsan
	cmake --build --preset tsan -j $(JOBS)
	ctest --preset tsan -j $(JOBS)
	$(MAKE) --no-print-directory docs

tsan: deps
	cmake --preset tsan
	cmake --build --preset tsan -j $(JOBS)
	ctest --preset tsan -j $(JOBS)

# The consent screens in a browser; DEMO_ARGS passes options, e.g. DEMO_ARGS="--reset".
DEMO_ARGS ?=
demo: build
	./build/release/cli/quillet demo $(DEMO_ARGS)

codec-demo: build
	./scripts/demo build/release/cli/quillet testdata/vendor-list.json

bench: build
	./build/release/bench/codec_bench --benchmark_min_time=0.2 --benchmark_repetitions=10 \
	  --benchmark_report_aggregates_only=true
	node bench/parse_ratio.mjs build/release/bench/codec_bench testdata
	./build/release/bench/model_bench --benchmark_min_time=0.5
	./build/release/bench/network_bench --benchmark_min_time=1 --benchmark_repetitions=5 \
	  --benchmark_enable_random_interleaving=true --benchmark_report_aggregates_only=true
	./build/release/bench/facade_bench --benchmark_repetitions=5 --benchmark_report_aggregates_only=true
	./build/release/bench/screen_bench --benchmark_repetitions=5 --benchmark_report_aggregates_only=true
	cd tests && node ../bench/demo_startup.mjs ../build/release/cli/quillet 10
	./bench/decode_stream.sh build/release/cli/quillet
	./bench/startup.sh build/release/cli/quillet

# Instructions of one start-up to the banner, step by step, under callgrind (needs valgrind).
profile-startup: build
	./bench/startup_profile.sh build/release/bench/facade_bench

# Every fuzz target for FUZZ_SECONDS (default 60) each; FUZZ_TARGETS names a few.
FUZZ_SECONDS ?= 60
FUZZ_TARGETS ?=
fuzz: deps
	FUZZ_SECONDS=$(FUZZ_SECONDS) ./scripts/fuzz $(FUZZ_TARGETS)

# Variants of the real TC Strings read by `quillet decode` and by the IAB's reference library;
# every kind of disagreement is printed with its verdict from docs/differential.md.
VARIANTS ?= 100000
differential: build
	node scripts/differential.mjs build/release/cli/quillet testdata --variants $(VARIANTS)

# A fuzz campaign: FUZZ_MINUTES (default 10) per target, two targets at a time, each target's
# grown corpus minimised into fuzz/corpus/<target>/ and its runs added to fuzz/campaigns.tsv.
FUZZ_MINUTES ?= 10
fuzz-campaign: deps
	FUZZ_MINUTES=$(FUZZ_MINUTES) ./scripts/fuzz-campaign $(FUZZ_TARGETS)

# clang-tidy with .clang-tidy over every source file; fails on any warning.
lint: deps
	./scripts/lint

# The API reference from the public headers: build/docs/html/index.html. Fails on any warning.
docs: deps
	cmake --preset release >/dev/null
	doxygen docs/Doxyfile
	@echo "API reference: build/docs/html/index.html"

format:
	clang-format -i $(FORMAT_FILES)

clean:
	rm -rf build
