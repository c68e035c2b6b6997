# Tasks of developers, over the scripts that do them. `make` alone shows the list; building is CMake's.
# fuzz: TARGET=kernels and so on (fuzz/README.md), RUNS=100000.
TARGET ?= kernels
RUNS ?= 100000
.PHONY: help quick test all lint format bench fuzz docs

help: ## this list
	@sed -nE 's/^([a-z]+):.*## (.*)/  make \1\t\2/p' Makefile | expand -t 16

quick: ## the 64-bit library and its tests: a few minutes
	tools/install_packages.sh packages.txt
	cmake --preset default && cmake --build --preset default && ctest --preset default

test: ## what is merged passes this: all builds and tests (./test.sh)
	./test.sh

all: ## everything that there is (./test.sh --all)
	./test.sh --all

lint: ## shell scripts, spelling, Python, types, links, layers, tables, versions, clang-tidy, formatting
	tools/lint.sh --all

format: ## formats C++ and Python as clang-format 14 and black 23 do
	git ls-files '*.cpp' '*.cc' '*.h' '*.hpp' | xargs clang-format -i
	git ls-files '*.py' | xargs black --quiet

bench: ## benchmarks as a report, bench-output/report.md
	./bench.sh

fuzz: ## one fuzzing target with clang: TARGET=gateway, geometry, kernels, sense or stream; RUNS=100000
	tools/install_packages.sh packages-all.txt
	cmake --preset fuzz && cmake --build --preset fuzz --target fuzz_$(TARGET)
	mkdir -p build/found
	OMP_NUM_THREADS=1 build/fuzz/fuzz/fuzz_$(TARGET) -runs=$(RUNS) -max_len=512 -use_cmp=0 -entropic=0 \
	  build/found $(wildcard fuzz/corpus/$(TARGET))

docs: ## the documentation site, build/site/html/index.html
	docs/build.sh
