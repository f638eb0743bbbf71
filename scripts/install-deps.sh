#!/usr/bin/env bash
# Installs, from Debian's packages, whatever Tessarine's build, tests and
# benchmarks need and the machine does not have yet. Safe to run again: when
# everything is present it only checks and returns.
set -euo pipefail

packages=(
  # toolchain
  cmake ninja-build g++ clang libclang-rt-14-dev pkg-config
  # engine and windows
  qt6-base-dev qt6-multimedia-dev
  # MIDI, USB, serial, keys, XML
  libasound2-dev libjack-jackd2-dev libftdi1-dev libudev-dev libpugixml-dev
  libx11-dev libxi-dev
  # tests and benchmarks
  libgtest-dev libgmock-dev libbenchmark-dev
  # real peers used by the tests
  liblo-tools liblo-dev jackd2 python3 python3-rtmidi socat iproute2 procps
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

echo "Installing: ${missing[*]}"
sudo_cmd=()
if [ "$(id -u)" -ne 0 ]; then
  sudo_cmd=(sudo)
fi
export DEBIAN_FRONTEND=noninteractive
"${sudo_cmd[@]}" apt-get update -q
"${sudo_cmd[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends "${missing[@]}"
