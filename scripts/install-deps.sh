#!/bin/sh
# Installs with apt-get the build, test and benchmark dependencies that are
# missing (CLI11 for the tools; pybind11, NumPy, pytest and OpenCV's Python
# module for the bindings and their tests); does nothing when all are present. Extra package names given as
# arguments (e.g. doxygen for `make docs`) are installed the same way.
set -e
packages="${*:-cmake g++ make pkgconf libopencv-dev libgtest-dev libbenchmark-dev libcli11-dev pybind11-dev python3-dev python3-numpy python3-pytest python3-opencv}"
missing=""
for p in $packages; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing="$missing $p"
  fi
done
[ -z "$missing" ] && exit 0
echo "installing:$missing"
sudo=""
[ "$(id -u)" -ne 0 ] && sudo="sudo"
$sudo apt-get update -qq
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends $missing
