#!/usr/bin/env bash
# Runs the Win64 build's tests under Wine.
#
#   bash scripts/test-wine.sh <mingw-build-dir>
#
# Every test CTest knows in the build directory runs once as a whole (a gtest
# executable runs all its cases in one process; Wine's start-up is too slow to
# run them case by case), under a time limit, in a throw-away Wine prefix,
# with its own empty software-token store (TEMBRA_SOFTSKF_DIR) and log file
# (TEMBRA_KEY_PROV_LOG_PATH). Tests that CTest runs natively (for instance the
# export-table check, a CMake script) run natively. Then the packaged registry
# settings are imported and `tembra.exe demo` runs against a fresh store.
#
# Prints one summary line "N passed, N failed" and exits non-zero on any
# failure. Environment:
#   WINE                  the Wine loader (default: wine64 if present, else wine)
#   TEMBRA_WINE_TIMEOUT   seconds allowed per executable (default 600)
#   TEMBRA_WINE_FILTER    run only tests whose name matches this regex
#   TEMBRA_WINE_KEEP      set to 1 to keep the temporary directory, Wine prefix
#                         included (outputs are kept anyway when a test fails)
set -u

if [ $# -ne 1 ] || [ ! -d "$1" ]; then
  echo "usage: $0 <mingw-build-dir>" >&2
  exit 2
fi
build_dir=$(cd "$1" && pwd)
source_dir=$(cd "$(dirname "$0")/.." && pwd)
timeout_seconds=${TEMBRA_WINE_TIMEOUT:-600}
filter=${TEMBRA_WINE_FILTER:-}

if [ -z "${WINE:-}" ]; then
  WINE=$(command -v wine64 || command -v wine || true)
fi
if [ -z "$WINE" ]; then
  echo "test-wine: no wine or wine64 found" >&2
  exit 2
fi
wineserver_bin=$(command -v wineserver || true)
if [ -z "$wineserver_bin" ] && [ -x /usr/lib/wine/wineserver64 ]; then
  wineserver_bin=/usr/lib/wine/wineserver64
fi

work_dir=$(mktemp -d "${TMPDIR:-/tmp}/tembra-wine.XXXXXX")
export WINEPREFIX="$work_dir/prefix"
export WINEDEBUG=-all
export WINEDLLOVERRIDES="mscoree,mshtml="
export WINEARCH=win64
unset DISPLAY WAYLAND_DISPLAY

keep_all=${TEMBRA_WINE_KEEP:-0}
keep_logs=0
# The prefix (several hundred MB) goes unless TEMBRA_WINE_KEEP=1; the outputs
# stay when a test failed.
cleanup() {
  if [ -n "$wineserver_bin" ]; then
    WINEPREFIX="$WINEPREFIX" "$wineserver_bin" -k >/dev/null 2>&1 || true
  fi
  if [ "$keep_all" = 1 ]; then
    return
  fi
  if [ "$keep_logs" = 1 ]; then
    rm -rf "$WINEPREFIX"
  else
    rm -rf "$work_dir"
  fi
}
trap cleanup EXIT

echo "test-wine: Wine prefix $WINEPREFIX"
if ! timeout 300 "$WINE" wineboot -i >"$work_dir/wineboot.log" 2>&1; then
  echo "test-wine: wineboot failed:" >&2
  cat "$work_dir/wineboot.log" >&2
  exit 2
fi
# One wineserver for the whole run, so that each test does not start its own.
if [ -n "$wineserver_bin" ]; then
  "$wineserver_bin" -p >/dev/null 2>&1 || true
fi

windows_path() {
  winepath -w "$1" 2>/dev/null || echo "Z:${1//\//\\}"
}

passed=0
failed=0
failed_names=()

# The tests as CTest lists them: name, working directory, environment and
# command, one record per test, fields separated by \x1e, list items by \x1f
# (not whitespace, so that empty fields survive `read`).
list_tests() {
  (cd "$build_dir" && ctest --show-only=json-v1) | python3 -c '
import json, sys
data = json.load(sys.stdin)
for test in data.get("tests", []):
    command = test.get("command") or []
    if not command:
        continue
    props = {p["name"]: p["value"] for p in test.get("properties", [])}
    env = props.get("ENVIRONMENT") or []
    if isinstance(env, str):
        env = [env]
    print("\x1e".join([test["name"], props.get("WORKING_DIRECTORY", ""),
                     "\x1f".join(env), "\x1f".join(command)]))
'
}

# run_one NAME WORKDIR ENV COMMAND...: runs one test with fresh state.
run_one() {
  local name=$1 workdir=$2 envlist=$3
  shift 3
  local safe=${name//[^A-Za-z0-9_.-]/_}
  local state="$work_dir/state/$safe"
  mkdir -p "$state/store" "$state/log"
  local log="$work_dir/logs/$safe.txt"
  mkdir -p "$work_dir/logs"
  local -a env_args=(
    "TEMBRA_SOFTSKF_DIR=$(windows_path "$state/store")"
    "TEMBRA_KEY_PROV_LOG_PATH=$(windows_path "$state/log")\\tembra_key_prov.log"
  )
  if [ -n "$envlist" ]; then
    local -a extra
    IFS=$'\x1f' read -r -a extra <<<"$envlist"
    env_args+=("${extra[@]}")
  fi
  local -a command=("$@")
  case "${command[0]}" in
    *wine | *wine64) command=("$WINE" "${command[@]:1}") ;;
    *.exe) command=("$WINE" "${command[@]}") ;;
  esac
  local status
  (
    [ -n "$workdir" ] && cd "$workdir"
    env "${env_args[@]}" timeout --kill-after=10 "$timeout_seconds" "${command[@]}" </dev/null
  ) >"$log" 2>&1
  status=$?
  if [ $status -eq 0 ]; then
    passed=$((passed + 1))
    printf 'PASS  %s\n' "$name"
  else
    failed=$((failed + 1))
    failed_names+=("$name")
    if [ $status -eq 124 ] || [ $status -eq 137 ]; then
      printf 'FAIL  %s (timed out after %ss)\n' "$name" "$timeout_seconds"
    else
      printf 'FAIL  %s (exit %d)\n' "$name" "$status"
    fi
    # The failing cases and their messages, not the whole run.
    grep -E '^\[  FAILED  \]|Failure|error|Error' "$log" | head -40 | sed 's/^/      /'
    echo "      full output: $log"
  fi
}

if ! tests=$(list_tests); then
  echo "test-wine: cannot list the tests of $build_dir (ctest, python3)" >&2
  exit 2
fi
while IFS=$'\x1e' read -r name workdir envlist commandlist; do
  [ -z "$name" ] && continue
  if [ -n "$filter" ] && ! [[ "$name" =~ $filter ]]; then
    continue
  fi
  IFS=$'\x1f' read -r -a command <<<"$commandlist"
  run_one "$name" "$workdir" "$envlist" "${command[@]}"
done <<<"$tests"

# The shipped binaries import only Windows system DLLs and one another: the C
# and C++ runtimes and libgcrypt are linked in statically.
imports_name="dll_imports"
if [ -z "$filter" ] || [[ "$imports_name" =~ $filter ]]; then
  objdump_bin=$(command -v x86_64-w64-mingw32-objdump || command -v objdump || true)
  allowed='^(kernel32|advapi32|msvcrt|user32|ws2_32|bcrypt|crypt32|ntdll|shell32|ole32|gdi32|api-ms-win-.*|qxskfapi|orvel_crypto|tembrakeyprov)\.dll$'
  bad=()
  for binary in TembraKeyProv.dll QXSKFAPI.dll ORVEL_CRYPTO.dll tembra.exe; do
    path="$build_dir/bin/$binary"
    if [ ! -f "$path" ] || [ -z "$objdump_bin" ]; then
      bad+=("$binary: missing (or no objdump)")
      continue
    fi
    while read -r dll; do
      lower=$(printf '%s' "$dll" | tr 'A-Z' 'a-z')
      [[ "$lower" =~ $allowed ]] || bad+=("$binary imports $dll")
    done < <("$objdump_bin" -p "$path" | awk '/DLL Name:/ {print $3}')
  done
  if [ ${#bad[@]} -eq 0 ]; then
    passed=$((passed + 1))
    printf 'PASS  %s\n' "$imports_name"
  else
    failed=$((failed + 1))
    failed_names+=("$imports_name")
    printf 'FAIL  %s\n' "$imports_name"
    printf '      %s\n' "${bad[@]}"
  fi
fi

# The demo, with the settings a Windows installation gets from TembraKey.reg.
demo_name="tembra_demo"
if [ -z "$filter" ] || [[ "$demo_name" =~ $filter ]]; then
  reg_file="$source_dir/packaging/windows/TembraKey.reg"
  if ! "$WINE" reg import "$(windows_path "$reg_file")" >"$work_dir/reg.log" 2>&1 ||
     ! "$WINE" reg query 'HKLM\Software\ORVEL\PKI\Devices\TembraKey' /v MaxOperationLen \
       >>"$work_dir/reg.log" 2>&1; then
    # Fall back to setting the values one by one.
    for value in HasSM3:1 HasSM4:1 MaxOperationLen:1024 SupportGDKMSM2Import:0; do
      "$WINE" reg add 'HKLM\Software\ORVEL\PKI\Devices\TembraKey' /v "${value%%:*}" \
        /t REG_DWORD /d "${value##*:}" /f >>"$work_dir/reg.log" 2>&1
    done
  fi
  if [ -f "$build_dir/bin/tembra.exe" ]; then
    run_one "$demo_name" "$build_dir/bin" "" "$build_dir/bin/tembra.exe" demo
  else
    failed=$((failed + 1))
    failed_names+=("$demo_name")
    echo "FAIL  $demo_name ($build_dir/bin/tembra.exe was not built)"
  fi
fi

if [ $failed -gt 0 ]; then
  echo "test-wine: failed: ${failed_names[*]}"
  echo "test-wine: outputs kept in $work_dir/logs"
  keep_logs=1
fi
echo "$passed passed, $failed failed"
[ $failed -eq 0 ]
