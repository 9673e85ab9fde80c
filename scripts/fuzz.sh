#!/usr/bin/env bash
# Builds the fuzz targets (clang, libFuzzer; the libraries instrumented with
# coverage, AddressSanitizer and UndefinedBehaviorSanitizer) and runs each in
# turn for a given time, one job at a time, starting from its seed corpus.
#   scripts/fuzz.sh [seconds-per-target] [target...]   (default: 300, all)
# Each run grows a working corpus in build/fuzz/corpus/<target> (the seeds in
# fuzz/corpus/<target> are only read) and leaves its output in
# build/fuzz/logs/<target>.log; a finding stops the script with the crash
# input beside the log. The summary gives executions and coverage per target.
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${1:-300}
shift || true
all=(token_store_fuzz token_import_fuzz token_diagnostics_fuzz sm2_cipher_fuzz cli_readers_fuzz
     key_formats_fuzz host_decoders_fuzz registry_file_fuzz import_keypair_fuzz skf_blobs_fuzz
     subject_name_fuzz cli_certificate_fuzz)
targets=("$@")
[ ${#targets[@]} -eq 0 ] && targets=("${all[@]}")

bash scripts/setup.sh native
# clang and its libFuzzer runtime, from Debian's packages.
if ! command -v clang++ >/dev/null ||
   ! ls "$(clang++ -print-resource-dir 2>/dev/null)"/lib/linux/libclang_rt.fuzzer-x86_64.a \
        >/dev/null 2>&1; then
  cmd="apt-get update && DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends clang libclang-rt-dev"
  if [ "$(id -u)" -ne 0 ]; then
    echo "clang or its libFuzzer runtime is missing. Run as root:" >&2
    echo "  $cmd" >&2
    exit 1
  fi
  apt-get update -qq
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends clang \
    libclang-rt-dev >/dev/null
fi

launcher=()
command -v ccache >/dev/null && launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache
                                          -DCMAKE_C_COMPILER_LAUNCHER=ccache)
cmake --preset fuzz "${launcher[@]}" >/dev/null
cmake --build --preset fuzz -j"$(nproc 2>/dev/null || echo 2)" --target "${targets[@]}"

mkdir -p build/fuzz/logs
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
summary=()
for t in "${targets[@]}"; do
  corpus=build/fuzz/corpus/$t
  mkdir -p "$corpus"
  log=build/fuzz/logs/$t.log
  echo "== $t (${seconds}s)"
  # One process, one job: the machine's other cores stay with the builds.
  if ! build/fuzz/bin/"$t" -max_total_time="$seconds" -max_len=65536 \
       -print_final_stats=1 -artifact_prefix=build/fuzz/logs/"$t"- "$corpus" fuzz/corpus/"$t" \
       >"$log" 2>&1; then
    tail -40 "$log"
    echo "$t: finding, see $log" >&2
    exit 1
  fi
  runs=$(grep -o 'stat::number_of_executed_units: *[0-9]*' "$log" | grep -o '[0-9]*$' || echo ?)
  cov=$(grep -o 'cov: [0-9]*' "$log" | tail -1 | grep -o '[0-9]*' || echo ?)
  summary+=("$t: $runs executions, coverage $cov")
done
printf '%s\n' "${summary[@]}"
