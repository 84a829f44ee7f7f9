#!/usr/bin/env bash
# Builds Tavra with AddressSanitizer and UndefinedBehaviorSanitizer and runs
# the whole test suite.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh test
cmake --preset dev
cmake --build --preset dev -j "$(nproc)"
export ASAN_OPTIONS="${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=0}"
export UBSAN_OPTIONS="${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}"
ctest --preset dev -j "$(nproc)"
