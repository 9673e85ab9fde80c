#!/usr/bin/env bash
# Builds and runs every test: the native Linux build (warnings as errors,
# OpenSSL backend), the same suite built with AddressSanitizer and
# UndefinedBehaviorSanitizer, the threaded tests built with ThreadSanitizer,
# then the Win64 cross-build (libgcrypt backend), whose tests and demo run
# under Wine.
#   scripts/test.sh                  all of it
#   scripts/test.sh --native         the Linux runs only (sanitizers included)
#   scripts/test.sh --no-sanitizers  leave the sanitizer builds out (quick local runs)
# ccache is used when installed (developer machines); nothing requires it.
set -euo pipefail
cd "$(dirname "$0")/.."

mode=all
sanitizers=yes
for arg in "$@"; do
  case $arg in
    --native) mode=native ;;
    --no-sanitizers) sanitizers=no ;;
    *) echo "unknown option $arg" >&2; exit 2 ;;
  esac
done

bash scripts/setup.sh "$([ $mode = native ] && echo native || echo all)"

jobs=$(nproc 2>/dev/null || echo 2)
launcher=()
command -v ccache >/dev/null && launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache
                                          -DCMAKE_C_COMPILER_LAUNCHER=ccache)

echo "== Linux build"
cmake --preset default -DTEMBRA_WERROR=ON "${launcher[@]}" >/dev/null
cmake --build --preset default -j"$jobs"
echo "== Linux tests"
ctest --preset default -j"$jobs"

if [ $sanitizers = yes ]; then
  echo "== Linux build with AddressSanitizer and UndefinedBehaviorSanitizer"
  cmake --preset asan -DTEMBRA_WERROR=ON "${launcher[@]}" >/dev/null
  cmake --build --preset asan -j"$jobs"
  echo "== Linux tests with AddressSanitizer and UndefinedBehaviorSanitizer"
  ASAN_OPTIONS=detect_leaks=1:strict_string_checks=1 UBSAN_OPTIONS=print_stacktrace=1 \
    ctest --preset asan -j"$jobs"

  # The tests that run threads, each limited to its threaded cases.
  tsan_tests=(
    "provider_ops_tests:SignThreadsTest.*"
    "provider_records_test:Cases/ReleaseRuleTest.*"
    "trace_log_test:*Thread*"
    "hostcrypto_test:*Threads*"
    "softskf_diagnostics_test:*Concurrent*"
    "crypto_conformance_test:PreparedKeys.*"
  )
  echo "== Linux build of the threaded tests with ThreadSanitizer"
  cmake --preset tsan -DTEMBRA_WERROR=ON "${launcher[@]}" >/dev/null
  cmake --build --preset tsan -j"$jobs" --target "${tsan_tests[@]%%:*}"
  echo "== Threaded tests with ThreadSanitizer"
  for entry in "${tsan_tests[@]}"; do
    TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
      build/tsan/bin/"${entry%%:*}" --gtest_filter="${entry#*:}" --gtest_brief=1
  done
fi

if [ $mode = all ]; then
  echo "== Win64 cross-build"
  cmake --preset mingw64 -DTEMBRA_WERROR=ON >/dev/null
  cmake --build --preset mingw64 -j"$jobs"
  echo "== Win64 tests under Wine"
  bash scripts/test-wine.sh build/mingw64
fi
