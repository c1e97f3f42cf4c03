#!/usr/bin/env bash
# Builds the Debian package (release build in build/) and checks it: the
# files it installs and their modes, and the systemd unit.
set -euo pipefail
cd "$(dirname "$0")/.."

gen=()
[[ -f build/CMakeCache.txt ]] || gen=(-G Ninja)
cmake -S . -B build "${gen[@]}" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCLOUD_SANITIZE=OFF >/dev/null
cmake --build build -j "$(nproc)" >/dev/null
(cd build && cpack -G DEB >/dev/null)
deb=$(ls build/cloud_*_*.deb | head -n 1)
echo "package: $deb"

contents=$(dpkg --contents "$deb")
status=0
check() {  # MODE PATH
    if ! grep -qE "^$1 .* \./${2#/}\$" <<<"$contents"; then
        echo "package check: missing $2 with mode $1" >&2
        status=1
    fi
}
check '-rwxr-xr-x' /usr/sbin/cloud
check '-rwxr-xr-x' /usr/bin/cloudctl
check '-rwxr-xr-x' /usr/bin/vtsim
check '-rw-r--r--' /etc/cloud.conf
check '-rw-------' /etc/cloud.db.conf
check '-rw-r--r--' /usr/logd/bin/log.conf
check '-rw-r--r--' /lib/systemd/system/cloud.service
deps=$(dpkg-deb -f "$deb" Depends)
[[ "$deps" == *libmariadb3* && "$deps" == *libcurl4* && "$deps" == *libprometheus-cpp-pull1.0* ]] || { echo "package check: Depends is '$deps'" >&2; status=1; }
[[ "$(dpkg-deb --ctrl-tarfile "$deb" | tar -xO ./conffiles)" == *"/etc/cloud.db.conf"* ]] ||
    { echo "package check: conffiles missing" >&2; status=1; }

scratch=$(mktemp -d /tmp/cloud-pkg.XXXXXX)
trap 'rm -rf "$scratch"' EXIT
dpkg -x "$deb" "$scratch"
usage=$("$scratch/usr/sbin/cloud" -h 2>&1 || true)
[[ "$usage" == *"usage: "* ]] || { echo "package check: cloud does not run: $usage" >&2; status=1; }
if command -v systemd-analyze >/dev/null 2>&1; then
    # The unit's ExecStart names /usr/sbin/cloud, not installed here:
    # verify a copy that points into the unpacked tree.
    sed "s|^ExecStart=/usr/sbin/cloud|ExecStart=$scratch/usr/sbin/cloud|" \
        "$scratch/lib/systemd/system/cloud.service" >"$scratch/cloud.service"
    if ! systemd-analyze verify "$scratch/cloud.service"; then
        echo "package check: systemd-analyze verify failed" >&2
        status=1
    fi
else
    echo "package check: systemd-analyze not present, unit not verified"
fi
((status == 0)) && echo "package check: ok"
exit "$status"
