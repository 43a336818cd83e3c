#!/usr/bin/env bash
# Installs what the project needs, only what is missing: Debian packages, and
# the npm packages of the browser test.
set -euo pipefail

packages=(
  build-essential cmake pkg-config
  libpoco-dev libasio-dev libmsgpack-cxx-dev libpaho-mqtt-dev libpaho-mqttpp-dev libssl-dev
  mosquitto mosquitto-clients
  libgtest-dev libgmock-dev googletest libbenchmark-dev
  clang libclang-rt-14-dev
  curl procps openssl
  # the packages (CPack runs dpkg-shlibdeps and file) and their checks
  dpkg-dev file lintian systemd man-db
  prometheus  # promtool checks the /host/metrics scrape in the end-to-end test
  chromium
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

# Node.js runs the browser test and the OpenAPI check: the machine's own when
# it has one (often newer than Debian's), Debian's otherwise.
if ! command -v node >/dev/null || ! command -v npm >/dev/null; then
  missing+=(nodejs npm)
fi

if [ ${#missing[@]} -eq 0 ]; then
  echo "install-deps: every Debian package is installed"
else
  echo "install-deps: installing ${missing[*]}"
  sudo_cmd=()
  if [ "$(id -u)" -ne 0 ]; then sudo_cmd=(sudo); fi
  export DEBIAN_FRONTEND=noninteractive
  "${sudo_cmd[@]}" apt-get update -qq
  "${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

# The npm packages of the browser test and the OpenAPI check, exactly as the
# lock file pins them; again only when missing or older than the lock file.
# playwright-core drives Debian's Chromium and downloads no browser.
console_tests="$(cd "$(dirname "$0")/.." && pwd)/tests/e2e/console"
installed_lock="$console_tests/node_modules/.package-lock.json"
if [ ! -f "$installed_lock" ] || [ "$console_tests/package-lock.json" -nt "$installed_lock" ]; then
  echo "install-deps: installing the npm packages of tests/e2e/console"
  (cd "$console_tests" && PLAYWRIGHT_SKIP_BROWSER_DOWNLOAD=1 npm ci --no-audit --no-fund --loglevel=error)
else
  echo "install-deps: the npm packages are installed"
fi
