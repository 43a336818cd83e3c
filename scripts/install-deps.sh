#!/usr/bin/env bash
# Installs the Debian packages the project needs, only those that are missing.
set -euo pipefail

packages=(
  build-essential cmake pkg-config
  libpoco-dev libasio-dev libmsgpack-cxx-dev libpaho-mqtt-dev libpaho-mqttpp-dev libssl-dev
  mosquitto mosquitto-clients
  libgtest-dev libgmock-dev googletest libbenchmark-dev
  clang libclang-rt-14-dev
  curl procps
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  echo "install-deps: everything is installed"
  exit 0
fi

echo "install-deps: installing ${missing[*]}"
sudo_cmd=()
if [ "$(id -u)" -ne 0 ]; then sudo_cmd=(sudo); fi
export DEBIAN_FRONTEND=noninteractive
"${sudo_cmd[@]}" apt-get update -qq
"${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
