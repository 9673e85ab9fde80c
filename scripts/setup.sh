#!/usr/bin/env bash
# Installs what the build, the tests and the demo need on Debian 12, from
# Debian's own packages. As root it runs apt-get; otherwise it prints the
# exact command and stops.
#   scripts/setup.sh          everything (native build, Win64 cross-build, Wine)
#   scripts/setup.sh native   only what the native build and the demo need
set -euo pipefail

native=(build-essential cmake pkg-config libssl-dev openssl googletest libgtest-dev
        libbenchmark-dev libgcrypt20-dev)
windows=(g++-mingw-w64-x86-64-posix libgcrypt-mingw-w64-dev libgpg-error-mingw-w64-dev
         wine wine64)

packages=("${native[@]}")
if [ "${1:-all}" != native ]; then
  packages+=("${windows[@]}")
fi

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

cmd="apt-get update && DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends ${missing[*]}"
if [ "$(id -u)" -ne 0 ]; then
  echo "Missing packages. Run as root:" >&2
  echo "  $cmd" >&2
  exit 1
fi
echo "Installing: ${missing[*]}"
apt-get update -qq
DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
