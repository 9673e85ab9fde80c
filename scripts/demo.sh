#!/usr/bin/env bash
# The main job: builds the provider, the software token and the command-line
# host, provisions a software token in a store of its own (once), and runs a
# typical signature step by step for SM2 and RSA, verifies both signatures and
# decrypts a message encrypted to the token's encryption keys.
#   scripts/demo.sh [store-dir]     (default: build/demo-store)
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh native
cmake --preset default >/dev/null
cmake --build --preset default -j"$(nproc 2>/dev/null || echo 2)" --target tembra TembraKeyProv QXSKFAPI ORVEL_CRYPTO >/dev/null

store="${1:-build/demo-store}"
mkdir -p "$store"
export TEMBRA_KEY_PROV_LOG_PATH="${TEMBRA_KEY_PROV_LOG_PATH:-$PWD/build/demo-tembra_key_prov.log}"
exec build/default/bin/tembra demo --store "$store"
