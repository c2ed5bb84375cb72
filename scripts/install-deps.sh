#!/usr/bin/env bash
# Installs the Debian 12 packages the build, the tests and the demo need, as root (or via
# sudo). Packages already present are left alone, so a second run costs nothing.
set -euo pipefail

packages=(
    build-essential cmake pkg-config git perl python3
    libavformat-dev libavcodec-dev libavutil-dev libavfilter-dev libswscale-dev libswresample-dev
    nlohmann-json3-dev libseccomp-dev libgtest-dev ffmpeg
    qt6-base-dev xvfb xauth
    clang clang-format clang-tidy libclang-rt-14-dev
    parallel chromium poppler-utils
    lintian man-db appstream
)

missing=()
for p in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[[ ${#missing[@]} -eq 0 ]] && exit 0

echo "Installing: ${missing[*]}"
as_root=()
if [[ $(id -u) -ne 0 ]]; then
    command -v sudo >/dev/null || { echo "Run as root (or install sudo) to install: ${missing[*]}" >&2; exit 2; }
    as_root=(sudo)
fi
export DEBIAN_FRONTEND=noninteractive
"${as_root[@]}" apt-get update -qq
"${as_root[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
