#!/usr/bin/env bash
# Installs the Debian packages the project builds with, when any is missing; otherwise does
# nothing. Safe to run again.
set -euo pipefail

packages=(cmake g++ make libeigen3-dev libgtest-dev libgmock-dev libbenchmark-dev gnuplot-nox
  libmujoco-dev libmsgpack-cxx-dev
  clang libclang-rt-14-dev
  doxygen dpkg-dev file
  pybind11-dev python3-dev python3-numpy python3-pytest python3-matplotlib
  python3-setuptools python3-wheel python3-pip python3-venv)

missing=()
for package in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$package")
  fi
done

if ((${#missing[@]} > 0)); then
  echo "Installing missing packages: ${missing[*]}"
  apt-get update
  DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends "${missing[@]}"
fi
