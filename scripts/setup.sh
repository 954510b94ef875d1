#!/usr/bin/env bash
# Installs, with apt-get, the Debian packages this project needs that are not
# installed yet. Idempotent and quiet; run as root (or with sudo available).
set -euo pipefail

packages=(
    build-essential g++ cmake ninja-build pkg-config git
    libgtest-dev libgmock-dev libbenchmark-dev
    nlohmann-json3-dev libpulse-dev libsystemd-dev libcurl4-openssl-dev libspdlog-dev libfmt-dev
    systemtap-sdt-dev
    pulseaudio pulseaudio-utils
    pipewire pipewire-pulse wireplumber dbus-daemon
    xvfb libx11-dev libxcb1-dev libxrandr-dev edid-decode libproc2-dev
    libpcre2-dev libicu-dev libutf8proc-dev libpango1.0-dev
    libcpp-httplib-dev
    clang
    python3 libglib2.0-dev
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

SUDO=""
if [ "$(id -u)" -ne 0 ]; then
    if command -v sudo >/dev/null 2>&1; then
        SUDO="sudo"
    else
        echo "setup: need root to install: ${missing[*]}" >&2
        exit 1
    fi
fi

echo "setup: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
