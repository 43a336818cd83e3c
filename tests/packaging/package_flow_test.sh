#!/usr/bin/env bash
# The product as an operator and a plug-in author get it, from this build tree:
#
#   package_flow_test.sh deb     BUILD SOURCE   cpack, then dpkg-deb -x into a temporary root
#   package_flow_test.sh install BUILD SOURCE   cmake --install into a temporary prefix
#
# Then, from the unpacked or installed files alone (no LD_LIBRARY_PATH, no
# build tree): the host with the pilot-control plug-in, found by its file name
# in the plug-in directory, against the simulator: health "ok" and one request
# forwarded. examples/hello-plugin built out of tree against the installed
# SDK and loaded beside it: both "running", its route and its bus answer.
# deb also checks the packages' metadata, runs systemd-analyze verify on the
# units and lintian on the packages; install also builds the example with the
# pkg-config file.
#
# Nothing is compiled in BUILD: cpack and cmake --install use what is built.
set -euo pipefail

if [ $# -ne 3 ] || { [ "$1" != deb ] && [ "$1" != install ]; }; then
  echo "usage: $0 deb|install BUILD_DIR SOURCE_DIR" >&2
  exit 2
fi
mode="$1"
build="$(cd "$2" && pwd)"
source="$(cd "$3" && pwd)"
here="$(cd "$(dirname "$0")" && pwd)"
work="$(mktemp -d "${TMPDIR:-/tmp}/velmora-package-$mode.XXXXXX")"
started_at=$SECONDS

. "$here/stack.sh"
finish() {
  local status=$?
  exec 7>&- 2>/dev/null || true
  stop_started
  if [ "$status" -eq 0 ]; then rm -rf "$work"; else echo "files kept in $work" >&2; fi
}
trap finish EXIT

pilot_guid="{D639B3D5-A951-4BC7-A629-91255EBF9638}"
hello_guid="{5B0E7C1A-4F3D-4E8B-9A26-D1C3B7E4F902}"
version="$(sed -nE 's/^CMAKE_PROJECT_VERSION:STATIC=(.*)$/\1/p' "$build/CMakeCache.txt")"
[ -n "$version" ] || fail "no project version in $build/CMakeCache.txt"

# --- stage: the packages unpacked, or an install ---------------------------------
if [ "$mode" = deb ]; then
  (cd "$build" && cpack -B "$work/packages") > "$work/cpack.log" 2>&1 || fail "cpack failed"
  debs=()
  for package in velmora-host velmora-plugin-pilot-control pilot-sim velmora-dev; do
    deb="$work/packages/${package}_${version}_$(dpkg --print-architecture).deb"
    [ -f "$deb" ] || fail "cpack made no $package package"
    debs+=("$deb")
    dpkg-deb -x "$deb" "$work/root"
  done
  pass "cpack made the four packages; unpacked with dpkg-deb -x"
  prefix="$work/root/usr"
  etc="$work/root/etc/velmora"

  plugin_deb="${debs[1]}"
  depends="$(dpkg-deb -f "$plugin_deb" Depends)"
  grep -q "velmora-host (= $version)" <<< "$depends" || fail "the plug-in does not depend on velmora-host: $depends"
  grep -q "libpoconet" <<< "$depends" || fail "the plug-in's Depends lack its POCO libraries: $depends"
  grep -q "libpaho-mqttpp3" <<< "$(dpkg-deb -f "${debs[0]}" Depends)" || fail "the host's Depends lack Paho"
  grep -qx "/etc/velmora/velmora-host.json" <<< "$(dpkg-deb -I "${debs[0]}" conffiles)" \
    || fail "/etc/velmora/velmora-host.json is not a conffile"
  grep -q "adduser" <<< "$(dpkg-deb -I "${debs[0]}" postinst)" || fail "the host's postinst creates no user"
  pass "Depends from shlibdeps and between the packages; the conffile"
else
  cmake --install "$build" --prefix "$work/prefix" > "$work/install.log" 2>&1 || fail "cmake --install failed"
  pass "cmake --install into a temporary prefix"
  prefix="$work/prefix"
  etc="$prefix/etc/velmora"
fi

host="$prefix/bin/velmora-host"
sim="$prefix/bin/pilot-sim"
plugin="$prefix/lib/velmora/plugins/libVelmoraPluginPilotControl.so"
for f in "$host" "$sim" "$plugin" "$etc/velmora-host.json" "$prefix/share/velmora/velmora-host.example.json" \
         "$prefix/include/velmora/PluginBase.h" "$prefix/lib/cmake/Velmora/VelmoraConfigVersion.cmake" \
         "$prefix/lib/pkgconfig/velmora.pc" "$prefix/lib/systemd/system/velmora-host.service"; do
  [ -e "$f" ] || fail "not installed: ${f#"$work"/}"
done
[ "$(stat -c %a "$etc/velmora-host.json")" = 640 ] || fail "the configuration is not mode 0640"

# The installed binaries must find our libraries beside them, never in the
# build tree: that would pass here and fail on a station.
for elf in "$host" "$plugin"; do
  runpath="$(readelf -d "$elf" | grep -E 'RUNPATH|RPATH' || true)"
  grep -q '\$ORIGIN' <<< "$runpath" || fail "$(basename "$elf") has no \$ORIGIN RUNPATH: $runpath"
  ! grep -q "$build" <<< "$runpath" || fail "$(basename "$elf") still searches the build tree: $runpath"
  libs="$(env -u LD_LIBRARY_PATH ldd "$elf" | grep -E 'libVelmora|not found' || true)"
  ! grep -q "not found" <<< "$libs" || fail "$(basename "$elf"): $libs"
  while read -r lib _ path _; do
    case "$path" in "$work"/*) ;; *) fail "$(basename "$elf") loads $lib from $path" ;; esac
  done <<< "$libs"
done
pass "RUNPATHs are \$ORIGIN-relative; the libraries resolve inside the install"

"$host" --check --config "$etc/velmora-host.json" > "$work/check.out" 2>&1 \
  || fail "the installed configuration does not pass --check: $(cat "$work/check.out")"
pass "the installed configuration passes velmora-host --check"

# --- host + plug-in + simulator ----------------------------------------------------
start_broker
start_sim "$sim"
pilot_entry="{\"library\": \"libVelmoraPluginPilotControl.so\", \"service_address\": \"127.0.0.1\", \"service_port\": $sim_port, \"service_wait_seconds\": 5}"
write_host_config "$work/host.json" "$pilot_entry"
start_host "$host" "$work/host.json" "velmora-host ready: 1 of 1 plug-in(s) started"
wait_for_health '"status":"ok"' || fail "health is not ok: $(health)"
grep -q "\"library\":\"$plugin\"" <<< "$(health)" || fail "the plug-in was not loaded from the plug-in directory: $(health)"
pass "the installed host runs the plug-in found in lib/velmora/plugins: health ok"

request='{"type":"request","from":"package-test","target":"station-package","msgId":"p1","message":{}}'
before="$(sim_forwarded)"
answer="$(curl -sf -m 10 -X POST "$base/index/api/pilot/getConfig" -d "$request")" || fail "getConfig was not answered"
grep -q '"code":200' <<< "$answer" || fail "getConfig answer: $answer"
after="$(sim_forwarded)"
[ "$after" -eq $((before + 1)) ] || fail "the simulator counted $before then $after forwarded requests, not one more"
pass "one request forwarded to the simulator and answered"

# The link's command-line client, from the same install, asks the simulator
# directly.
rpc_answer="$(env -u LD_LIBRARY_PATH "$prefix/bin/pilot-rpc" --timeout 5 call "127.0.0.1:$sim_port" \
              getStringConfig vehicle.pilot_id 2>&1)" || fail "pilot-rpc call failed: $rpc_answer"
grep -q "SIM-UAV" <<< "$rpc_answer" || fail "pilot-rpc answer: $rpc_answer"
pass "the installed pilot-rpc calls the installed simulator"
stop_host

# --- the example plug-in, built against the installed SDK ---------------------------
hello_build="$work/hello-build"
cmake -S "$source/examples/hello-plugin" -B "$hello_build" -DCMAKE_PREFIX_PATH="$prefix" \
      -DCMAKE_BUILD_TYPE=Release > "$work/hello.log" 2>&1 || fail "configuring examples/hello-plugin failed"
grep -q "SDK from $prefix/lib/cmake/Velmora" "$work/hello.log" || fail "find_package(Velmora) did not take the installed SDK"
cmake --build "$hello_build" >> "$work/hello.log" 2>&1 || fail "building examples/hello-plugin failed"
cmake --install "$hello_build" --prefix "$prefix" >> "$work/hello.log" 2>&1 || fail "installing examples/hello-plugin failed"
[ -f "$prefix/lib/velmora/plugins/libVelmoraPluginHello.so" ] || fail "hello-plugin was not installed into the plug-in directory"
pass "examples/hello-plugin built out of tree with find_package(Velmora) and installed beside the plug-in"

# The example has no micro service; the host still wants a port for it (and
# reports its link down).
hello_entry="{\"library\": \"libVelmoraPluginHello.so\", \"service_address\": \"127.0.0.1\", \"service_port\": 9, \"service_wait_seconds\": 0}"
write_host_config "$work/host2.json" "$pilot_entry" "$hello_entry"
: > "$work/host.out"
start_host "$host" "$work/host2.json" "velmora-host ready: 2 of 2 plug-in(s) started"
running() { echo "\"name\":\"$1\",\"guid\":\"[^\"]*\",\"type\":[0-9]+,\"library\":\"[^\"]*\",\"state\":\"running\""; }
wait_for_health "$(running VelmoraPluginPilotControl)" || fail "pilot control not running: $(health)"
wait_for_health "$(running VelmoraPluginHello)" || fail "hello not running: $(health)"
pass "both plug-ins running in health"

greeting="$(curl -sf -m 5 -X POST "$base/index/api/hello/greet" -d '{"name":"package test"}')" || fail "the hello route did not answer"
grep -q '"msg":"Hello, package test!"' <<< "$greeting" || fail "hello route answer: $greeting"
grep -q '"station":"station-package"' <<< "$greeting" || fail "hello route answer lacks the station: $greeting"
pass "the hello route answers: $greeting"

# A bus message to the example, with the tap open: its answer comes back
# addressed to the sender.
curl -sN -m 15 "$base/host/bus" > "$work/tap.txt" 2>/dev/null &
tap_pid=$!
pids+=("$tap_pid")
wait_for_health '"taps":1' || fail "the bus tap did not open"
sender="{00000000-0000-4000-8000-00000000F00D}"
curl -sf -m 5 -X POST "$base/host/bus" \
  -d "{\"to\":[\"$hello_guid\"],\"guid\":\"$sender\",\"api\":\"hello\",\"type\":\"request\",\"data\":{}}" > /dev/null \
  || fail "POST /host/bus was refused"
poll 50 grep -q "\"to\":\[\"$sender\"\]" "$work/tap.txt" || true
bus_answer="$(grep "\"to\":\[\"$sender\"\]" "$work/tap.txt" || true)"
grep -q "\"guid\":\"$hello_guid\"" <<< "$bus_answer" || fail "no bus answer from hello: $(cat "$work/tap.txt")"
grep -q '"msg":"hello from VelmoraPluginHello"' <<< "$bus_answer" || fail "hello's bus answer: $bus_answer"
pass "the example answers a bus message addressed to it"
stop_host

# --- per mode -------------------------------------------------------------------------
if [ "$mode" = install ]; then
  # The pkg-config file alone is enough to compile and link the example, and
  # it points into the install wherever that was put.
  pc() { PKG_CONFIG_PATH="$prefix/lib/pkgconfig" pkg-config "$@" velmora; }
  flags="$(pc --cflags --libs)" || fail "pkg-config velmora failed"
  include_dir="$(pc --cflags-only-I | sed -E 's/^ *-I//; s/ *$//')"
  [ "$(realpath "$include_dir")" = "$(realpath "$prefix/include/velmora")" ] \
    || fail "pkg-config's include folder $include_dir is not the installed one"
  # shellcheck disable=SC2086
  c++ -std=c++17 -shared -fPIC -fvisibility=hidden -Wl,--no-undefined -o "$work/hello-pc.so" \
      "$source/examples/hello-plugin/HelloPlugin.cpp" "$source/examples/hello-plugin/PluginEntry.cpp" $flags \
      > "$work/pkg-config.log" 2>&1 || fail "compiling the example with pkg-config's flags failed"
  pass "pkg-config velmora compiles and links the example"
else
  command -v systemd-analyze > /dev/null || fail "systemd-analyze is not installed (scripts/install-deps.sh installs systemd)"
  command -v lintian > /dev/null || fail "lintian is not installed (scripts/install-deps.sh installs it)"
  # Offline, against the unpacked root (its binaries and manual pages) plus
  # the system's targets the units are ordered against.
  verify_root="$work/verify-root"
  cp -al "$work/root" "$verify_root"
  cp -n /lib/systemd/system/*.target "$verify_root/usr/lib/systemd/system/" 2>/dev/null || true
  verify_out="$(MANPATH="$verify_root/usr/share/man" systemd-analyze verify --root="$verify_root" \
                "$verify_root/usr/lib/systemd/system/velmora-host.service" \
                "$verify_root/usr/lib/systemd/system/pilot-sim.service" 2>&1)" || fail "systemd-analyze verify: $verify_out"
  # Unknown or misspelt directives are only warned about: any word is a fault.
  [ -z "$verify_out" ] || fail "systemd-analyze verify: $verify_out"
  pass "systemd-analyze verify: both units clean"
  lintian_status=0
  lintian_out="$(lintian --fail-on error "${debs[@]}" 2>&1)" || lintian_status=$?
  lintian_out="$(grep -v 'running with root privileges' <<< "$lintian_out" || true)"
  [ "$lintian_status" -eq 0 ] || fail "lintian reports errors: $lintian_out"
  pass "lintian: no errors${lintian_out:+; other tags: $(tr '\n' ';' <<< "$lintian_out")}"
fi

echo "package flow ($mode) passed in $((SECONDS - started_at)) s"
