# Top-level driver.  `make demo` and `make test` install whatever a fresh
# Debian 12 machine lacks, build, and run.

JOBS ?= $(shell nproc)
BUILD ?= build
TEST_BUILD ?= build-asan
BENCH_BUILD ?= build-bench

DEB_PACKAGES := cmake g++ make pkg-config libgtest-dev libgmock-dev libbenchmark-dev python3 tnef binutils media-types bison

.PHONY: all deps build demo test bench install clean

all: build

# Installs missing Debian packages (only when something is missing).
deps:
	@missing=""; for p in $(DEB_PACKAGES); do \
	  dpkg-query -W -f='$${Status}' $$p 2>/dev/null | grep -q "install ok installed" || missing="$$missing $$p"; \
	done; \
	if [ -n "$$missing" ]; then \
	  echo "installing:$$missing"; \
	  SUDO=""; [ "$$(id -u)" -eq 0 ] || SUDO=sudo; \
	  $$SUDO apt-get update -qq && DEBIAN_FRONTEND=noninteractive $$SUDO apt-get install -y -qq $$missing; \
	fi

build: deps
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=Release -DTARN_TESTS=OFF >/dev/null
	cmake --build $(BUILD) -j $(JOBS)

demo: build
	@bash tools/demo.sh $(BUILD)

test: deps
	cmake -S . -B $(TEST_BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTARN_SANITIZE=ON -DTARN_TESTS=ON >/dev/null
	cmake --build $(TEST_BUILD) -j $(JOBS)
	cd $(TEST_BUILD) && TARN_APACHE_MAGIC="$$(bash $(CURDIR)/tools/fetch-test-data.sh $$PWD/testdeps)" \
	  ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
	  ctest --output-on-failure -j $(JOBS)

bench: deps
	cmake -S . -B $(BENCH_BUILD) -DCMAKE_BUILD_TYPE=Release -DTARN_TESTS=OFF -DTARN_BENCH=ON >/dev/null
	cmake --build $(BENCH_BUILD) -j $(JOBS)
	@for b in $(BENCH_BUILD)/bench/bench_*; do echo "== $$b"; $$b; done

install: build
	cmake --install $(BUILD)

clean:
	rm -rf $(BUILD) $(TEST_BUILD) $(BENCH_BUILD) out
