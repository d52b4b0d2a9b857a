# Thin wrapper around CMake and CTest. Every target that builds installs the
# missing build dependencies first, so one command is enough on a fresh machine.
#
#   make test                the tests (build/)
#   make asan / make tsan    the tests under AddressSanitizer+UBSan / ThreadSanitizer
#   make demo                a sample pool under build/demo/, listed with kavrel
#   make install PREFIX=...  the installed package (default /usr/local)
#   make bench / fuzz / deb  benchmarks, fuzzing, Debian package
#   make deps                the dependency step alone

PREFIX     ?= /usr/local
BUILD_TYPE ?= RelWithDebInfo
SAN_TYPE   ?= Debug
JOBS       ?= 2
CTEST_JOBS ?= 2

# Debian packages the build and the tests need (restic, openssh-server and
# rclone: the off-site copy's tests run restic against a private sshd over
# SFTP and a private REST server, rclone serve restic, with openssl's keys;
# groff-base and systemd: the manual pages are checked with groff and the
# systemd units with systemd-analyze, and those tests are skipped without them;
# prometheus and prometheus-node-exporter: promtool checks kavrel-shadow's
# metrics and alerting rules, and the tests scrape the metrics from a node
# exporter they start themselves, never the packages' services).
DEB_PACKAGES := cmake g++ make pkg-config libsqlite3-dev sqlite3 zlib1g-dev libboost-dev nlohmann-json3-dev \
                libgtest-dev libgmock-dev libbenchmark-dev python3 restic openssh-server rclone openssl groff-base systemd \
                prometheus prometheus-node-exporter
# make fuzz: clang, its libFuzzer and sanitizer runtimes (not a dependency of
# clang itself), and llvm-symbolizer, without which a sanitizer report names no
# function or line. The unversioned names follow the release's default clang.
FUZZ_PACKAGES := clang libclang-rt-dev llvm
# make bench: strace (BENCH_SYSCALLS=1, scripts/bench_syscalls.sh), time (peak
# memory of the off-site rows) and procps (free, for the machine line); sqlite3
# and restic, the other programs it runs, are build dependencies already.
BENCH_PACKAGES := strace time procps

# Recursive makes (the demo's build, CMake's own makefiles) stay quiet about the
# directories they enter; the build's progress lines are what a reader needs.
MAKEFLAGS += --no-print-directory

CMAKE ?= cmake
CTEST ?= ctest
CTEST_FLAGS := --output-on-failure -j$(CTEST_JOBS)

.PHONY: all deps build test asan tsan install demo bench fuzz deb clean

all: build

# Installs only what is missing; refreshes the package lists only then.
deps:
	@missing=""; \
	for p in $(DEB_PACKAGES); do \
	  dpkg-query -W -f='$${Status}' "$$p" 2>/dev/null | grep -q "install ok installed" || missing="$$missing $$p"; \
	done; \
	if [ -z "$$missing" ]; then echo "deps: all build dependencies are installed"; exit 0; fi; \
	echo "deps: installing$$missing"; \
	if [ "$$(id -u)" -eq 0 ]; then sudo=""; else sudo="sudo"; fi; \
	$$sudo apt-get update && \
	$$sudo env DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends $$missing

# $(call configure_build,DIR,BUILD TYPE,EXTRA CMAKE ARGUMENTS)
define configure_build
	$(CMAKE) -S . -B $(1) -DCMAKE_BUILD_TYPE=$(2) $(3)
	$(CMAKE) --build $(1) -j$(JOBS)
endef

build: deps
	$(call configure_build,build,$(BUILD_TYPE),)

test: build
	$(CTEST) --test-dir build $(CTEST_FLAGS)

asan: deps
	$(call configure_build,build-asan,$(SAN_TYPE),-DKAVREL_SANITIZE=address)
	ASAN_OPTIONS=detect_leaks=1:abort_on_error=0 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
	  $(CTEST) --test-dir build-asan $(CTEST_FLAGS)

tsan: deps
	$(call configure_build,build-tsan,$(SAN_TYPE),-DKAVREL_SANITIZE=thread)
	TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
	  $(CTEST) --test-dir build-tsan $(CTEST_FLAGS)

install: build
	$(CMAKE) --install build --prefix "$(PREFIX)"

# Targets whose work lives in a script under scripts/.
# $(call need_script,PATH,TARGET)
define need_script
	@if [ ! -f $(1) ]; then echo "make $(2): not available yet ($(1) is missing)"; exit 1; fi
endef

# The script configures build/ and builds only the programs the demo runs.
demo:
	$(call need_script,scripts/demo.sh,demo)
	@$(MAKE) --no-print-directory deps
	@BUILD_DIR=build DEMO_DIR=build/demo bash scripts/demo.sh

bench:
	$(call need_script,scripts/bench.sh,bench)
	$(MAKE) deps DEB_PACKAGES="$(DEB_PACKAGES) $(BENCH_PACKAGES)"
	$(call configure_build,build-bench,Release,-DKAVREL_BUILD_BENCH=ON -DKAVREL_BUILD_TESTS=OFF)
	BUILD_DIR=build-bench bash scripts/bench.sh

# The fuzz targets build with clang and link libFuzzer from its runtime package.
fuzz:
	$(call need_script,scripts/fuzz.sh,fuzz)
	$(MAKE) deps DEB_PACKAGES="$(DEB_PACKAGES) $(FUZZ_PACKAGES)"
	BUILD_DIR=build-fuzz bash scripts/fuzz.sh

deb:
	$(call need_script,scripts/deb.sh,deb)
	$(MAKE) deps
	bash scripts/deb.sh

clean:
	rm -rf build build-asan build-tsan build-bench build-fuzz
