#!/usr/bin/env bash
# Installs the Debian packages the build, the host and the tests need, when missing.
# Safe to run again: it installs only what is not there yet.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config
  libcurl4-openssl-dev libsqlite3-dev libboost-dev nlohmann-json3-dev uuid-dev
  libcli11-dev gettext libgtest-dev libgmock-dev media-types
  libavformat-dev libavcodec-dev libavutil-dev ffmpeg
  clang libclang-rt-14-dev
  chromium fonts-dejavu-core
)
# Node.js and npm may come from elsewhere than Debian (npm is bundled with some
# Node.js builds); only a missing command asks for Debian's package.
command -v node >/dev/null || packages+=(nodejs)
command -v npm >/dev/null || packages+=(npm)

missing=()
for p in "${packages[@]}"; do
  status=$(dpkg-query -W -f='${Status}' "$p" 2>/dev/null || true)
  [[ "$status" == "install ok installed" ]] || missing+=("$p")
done

if ((${#missing[@]})); then
  echo "setup: installing ${missing[*]}"
  sudo=""
  [[ $(id -u) -eq 0 ]] || sudo="sudo"
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

# The browser tests' npm packages: playwright-core drives Debian's Chromium, axe-core audits the pages.
here=$(cd "$(dirname "$0")/.." && pwd)
if [[ ! -d "$here/tests/browser/node_modules/playwright-core" || ! -d "$here/tests/browser/node_modules/axe-core" ]]; then
  echo "setup: installing the browser tests' npm packages"
  (cd "$here/tests/browser" && npm ci --no-audit --no-fund --loglevel=error)
fi
