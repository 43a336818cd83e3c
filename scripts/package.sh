#!/usr/bin/env bash
# Builds the Debian packages into build/packages/:
#   velmora-host, velmora-plugin-pilot-control, pilot-sim, velmora-dev
#
#   scripts/package.sh          install what is missing, build (plain), package
#
# Install them with:
#   sudo apt install ./build/packages/*.deb
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"

"$root/scripts/install-deps.sh"
"$root/scripts/build.sh" plain

out="$root/build/packages"
mkdir -p "$out"
rm -f "$out"/*.deb
(cd "$root/build/plain" && cpack -B "$out")
# CPack's work folder is not needed once the packages exist.
rm -rf "$out/_CPack_Packages"
echo
echo "Packages in $out:"
ls -1 "$out"/*.deb
echo
echo "Install them with:  sudo apt install $out/*.deb"
