# Thin: what a person types. The build itself is CMake's (CMakePresets.json has one preset a build folder).
JOBS ?= $(shell nproc)
# Tests wait more than they compute.
TEST_JOBS ?= $(shell expr 2 \* $(JOBS))
PREFIX ?= /usr/local

.PHONY: run run-redis test asan tsan test-arm abi abi-update lint lint-quick docs simulate faults plant bench bench-cache bench-inspect install packages packages-test clean
.NOTPARALLEL:

# The whole road on the example chassis: load, synchronise, tables, a live change arriving.
run: build/dmq/dmq
	build/dmq/dmq --load examples/chassis.json shell examples/tour.dmq

# Three processes on one Redis server, which dies in between.
run-redis: build/dmq/dmq
	scripts/setup.sh build server
	scripts/run_redis.sh

# Without the tests, so that it needs no test framework.
.PHONY: build/dmq/dmq
build/dmq/dmq:
	scripts/setup.sh build
	[ -f build/build.ninja ] || cmake --preset default -DDM_TESTS=OFF
	cmake --build build -j$(JOBS) --target dmq

# test, and the same under AddressSanitizer with UndefinedBehaviorSanitizer (asan) and under ThreadSanitizer (tsan).
test: PRESET = default
test: DIR = build
asan: PRESET = asan
asan: DIR = build-asan
tsan: PRESET = tsan
tsan: DIR = build-tsan
test asan tsan:
	scripts/setup.sh build test server
	cmake --preset $(PRESET)
	cmake --build $(DIR) -j$(JOBS)
	ctest --preset $(PRESET) -j$(TEST_JOBS)

# The same on 32-bit ARM, under an emulator.
test-arm:
	scripts/setup.sh build test server --arm
	cmake --preset arm
	cmake --build build-arm -j$(JOBS)
	scripts/library_size.py build-arm --strip arm-linux-gnueabihf-strip --limit
	ctest --preset arm -j$(TEST_JOBS)

# Both libraries on both machines, against the interface of the last version; abi-update describes a new one.
abi abi-update:
	scripts/setup.sh build test server --arm abi
	cmake --preset default
	cmake --build build -j$(JOBS) --target tq_dm_cache
	cmake --preset arm
	cmake --build build-arm -j$(JOBS) --target tq_dm_cache
	scripts/abi.sh $(if $(filter abi-update,$@),update)

# The cache against a simulated store, seeds beyond those of the tests; each seed is a process of its own.
RUNS ?= 20000
FIRST ?= 100000
simulate:
	scripts/setup.sh build test
	cmake --preset default
	cmake --build build -j$(JOBS) --target simulate
	build/tests/simulation/simulate --runs $(RUNS) --first $(FIRST)

# The stores beside their rivals: the figures whose names match. What runs beside them on the machine is in them.
BENCH ?= .
bench:
	scripts/setup.sh build test server bench
	cmake --preset default -DDM_BENCH=ON
	cmake --build build -j$(JOBS) --target bench_stores
	build/bench/bench_stores --benchmark_filter='$(BENCH)'

# The cache beside its rivals, at several sizes; the table of docs/performance.md and its plots.
PORTS ?= 10 100 1000 10000
bench-cache:
	scripts/setup.sh build test server bench
	cmake --preset default -DDM_BENCH=ON
	cmake --build build -j$(JOBS) --target bench_cache
	for n in $(PORTS); do build/bench/bench_cache $$n --benchmark_filter='$(BENCH)' --benchmark_min_time=0.1 \
	  --benchmark_repetitions=5 --benchmark_report_aggregates_only=true \
	  --benchmark_out=build/bench/cache-$$n.json --benchmark_out_format=json || exit 1; done
	scripts/performance.py build/bench

# The cache under changes, with somebody who looks into the process without a pause, and with nobody.
bench-inspect:
	scripts/setup.sh build test server bench
	cmake --preset default -DDM_BENCH=ON
	cmake --build build -j$(JOBS) --target bench_cache
	mkdir -p build/bench/inspected
	DM_CACHE_INSPECT=build/bench/inspected build/bench/bench_cache 10000 --benchmark_filter=inspected \
	  --benchmark_repetitions=5 --benchmark_report_aggregates_only=true

# The cache over a real server that is killed, frozen and cut off: runs of ten faults and comparisons each.
FAULT_RUNS ?= 12
FIRST_FAULT ?= 1
faults:
	scripts/setup.sh build test server
	cmake --preset default
	cmake --build build -j$(JOBS) --target faults
	build/tests/faults/faults --runs $(FAULT_RUNS) --cycles 10 --first $(FIRST_FAULT)

# Faults planted one by one in a copy of the project: which test notices each. Hours; PLANT chooses by file or description.
PLANT ?=
plant:
	scripts/setup.sh build test server
	scripts/plant.py --only '$(PLANT)'

lint:
	scripts/setup.sh build test lint
	scripts/lint.sh

# Without the clang build: seconds.
lint-quick:
	scripts/setup.sh build test lint
	scripts/lint.sh quick

# docs/queries.md, which is made of the headers of the queries, and the rows that each reads, which is found by asking it;
# man/dmq.1, which is made of the commands of dmq.
docs:
	scripts/setup.sh build test
	cmake --preset default
	cmake --build build -j$(JOBS) --target query_reads dmq
	python3 scripts/queries.py docs build/tests/dmq/query_reads
	build/dmq/dmq help --man > man/dmq.1

install: build/dmq/dmq
	DESTDIR='$(DESTDIR)' cmake --install build --prefix '$(PREFIX)'

# Debian packages of this machine's architecture and of 32-bit ARM; packages-test uses them in roots of their own.
packages:
	scripts/setup.sh build package --arm
	JOBS=$(JOBS) scripts/packages.sh

packages-test: packages
	tests/packages/clean_root_test.sh

clean:
	rm -rf build build-asan build-tsan build-lint build-arm build-arm-root build-packages build-plant
