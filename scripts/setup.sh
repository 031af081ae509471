#!/usr/bin/env bash
# Installs every build, test and runtime dependency of QZmath from Debian 12's archive.
# Idempotent: when everything is already present it installs nothing and touches no
# apt state. Works as root or through sudo.
set -euo pipefail

PACKAGES=(
  build-essential g++ cmake pkg-config
  libmkl-dev
  libboost-dev
  libcminpack-dev
  libnanoflann-dev
  googletest libgtest-dev libgmock-dev libbenchmark-dev
  libcli11-dev nlohmann-json3-dev
  python3-dev pybind11-dev python3-numpy python3-pytest python3-matplotlib
  clang-14 libclang-rt-14-dev libfuzzer-14-dev
)

if [ "$(id -u)" -eq 0 ]; then
  SUDO=()
elif command -v sudo >/dev/null 2>&1; then
  SUDO=(sudo)
else
  echo "setup: must run as root or with sudo available" >&2
  exit 1
fi

missing=()
for p in "${PACKAGES[@]}"; do
  status=$(dpkg-query -W -f='${Status}' "$p" 2>/dev/null || true)
  case "$status" in
    *"install ok installed"*) ;;
    *) missing+=("$p") ;;
  esac
done

if [ ${#missing[@]} -eq 0 ]; then
  echo "setup: all dependencies present"
  exit 0
fi

# MKL lives in Debian's non-free component; add it to the sources where it is missing.
enable_non_free() {
  local changed=0 f
  if [ -f /etc/apt/sources.list.d/debian.sources ]; then
    f=/etc/apt/sources.list.d/debian.sources
    if grep -qE '^Components:' "$f" && grep -E '^Components:' "$f" | grep -vq 'non-free\b'; then
      "${SUDO[@]}" sed -i -E '/^Components:/{/(^|[[:space:]])non-free([[:space:]]|$)/!s/$/ non-free/}' "$f"
      changed=1
    fi
  fi
  if [ -f /etc/apt/sources.list ]; then
    f=/etc/apt/sources.list
    if grep -qE '^deb[[:space:]]' "$f" && grep -E '^deb[[:space:]]' "$f" | grep -vqE '[[:space:]]non-free([[:space:]]|$)'; then
      "${SUDO[@]}" sed -i -E '/^deb[[:space:]]/{/[[:space:]]non-free([[:space:]]|$)/!s/$/ non-free/}' "$f"
      changed=1
    fi
  fi
  return 0
}

echo "setup: installing ${missing[*]}"
enable_non_free
export DEBIAN_FRONTEND=noninteractive
"${SUDO[@]}" apt-get update -q
# MKL's package asks through debconf whether to become the default BLAS; the
# non-interactive frontend takes the default answer.
"${SUDO[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends "${missing[@]}"
echo "setup: done"
