#!/usr/bin/env bash
# Installs the Debian 12 packages that orvexScript builds, tests and runs with.
# Non-interactive and idempotent: packages already present are left alone.
set -euo pipefail

PACKAGES=(
  # toolchain
  build-essential cmake ninja-build pkg-config git clang libclang-rt-14-dev llvm
  libgtest-dev libgmock-dev libbenchmark-dev
  # interpreter and its pattern library
  libluajit-5.1-dev lua-lpeg-dev
  # the stock interpreter program: a test loads the library into it as the module "qmscript"
  luajit
  # for the benchmarks only: msgpack-c, the codec baseline of bench/RemoteBench, and RapidJSON, the
  # writer baseline of bench/TextBench
  libmsgpack-dev rapidjson-dev
)

missing=()
for p in "${PACKAGES[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  echo "install-deps: all ${#PACKAGES[@]} packages present"
  exit 0
fi

SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
export DEBIAN_FRONTEND=noninteractive
echo "install-deps: installing ${missing[*]}"
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
