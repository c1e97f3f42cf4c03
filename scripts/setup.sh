#!/usr/bin/env bash
# Installs what building, testing and the demo of cloud need (Debian 12).
#
# Idempotent and quick when nothing is missing: the package list is checked
# with dpkg-query first, and apt-get runs only when something is absent.
# The system MariaDB service is never used (tests and the demo start their own
# throwaway server with scripts/mariadb.sh), so installing mariadb-server is
# done with service starts blocked and must not fail because no init system
# is there to start it.
set -euo pipefail

PACKAGES=(
    g++ cmake ninja-build make pkg-config
    googletest libgtest-dev libgmock-dev libbenchmark-dev
    mariadb-server mariadb-client libmariadb-dev
    libcurl4-openssl-dev libcrypt-dev
    prometheus-cpp-dev libprometheus-cpp-core1.0 libprometheus-cpp-pull1.0
    clang libclang-rt-14-dev
    python3 procps
)

log() { printf 'setup: %s\n' "$*"; }

# Prints the packages of PACKAGES that are not fully installed.
missing_packages() {
    local p status
    for p in "${PACKAGES[@]}"; do
        status=$(dpkg-query -W -f='${Status}' "$p" 2>/dev/null || true)
        if [[ "$status" != "install ok installed" ]]; then
            printf '%s\n' "$p"
        fi
    done
}

if ! command -v dpkg-query >/dev/null 2>&1 || ! command -v apt-get >/dev/null 2>&1; then
    log "this script needs a Debian system (dpkg-query and apt-get)" >&2
    exit 1
fi

mapfile -t missing < <(missing_packages)
if ((${#missing[@]} == 0)); then
    log "all ${#PACKAGES[@]} packages already installed"
    exit 0
fi
log "missing: ${missing[*]}"

SUDO=()
if [[ "$(id -u)" -ne 0 ]]; then
    if command -v sudo >/dev/null 2>&1; then
        SUDO=(sudo)
    else
        log "not root and no sudo: install these as root: ${missing[*]}" >&2
        exit 1
    fi
fi

# Keep maintainer scripts from starting services while we install. An
# existing policy-rc.d (containers often ship one) is left as it is; one we
# create is removed again on the way out.
POLICY=/usr/sbin/policy-rc.d
policy_created=0
cleanup() {
    if ((policy_created)); then
        "${SUDO[@]}" rm -f "$POLICY" || true
    fi
}
trap cleanup EXIT
if [[ ! -e "$POLICY" ]]; then
    printf '#!/bin/sh\n# temporary: cloud setup.sh blocks service starts\nexit 101\n' |
        "${SUDO[@]}" tee "$POLICY" >/dev/null
    "${SUDO[@]}" chmod 0755 "$POLICY"
    policy_created=1
fi

"${SUDO[@]}" env DEBIAN_FRONTEND=noninteractive apt-get update
if ! "${SUDO[@]}" env DEBIAN_FRONTEND=noninteractive \
        apt-get install -y --no-install-recommends "${PACKAGES[@]}"; then
    # A post-install step that only tried to start a service may fail while
    # the files are all in place; finish configuring and judge by what dpkg
    # says is installed.
    log "apt-get install reported an error; checking what got installed" >&2
    "${SUDO[@]}" env DEBIAN_FRONTEND=noninteractive dpkg --configure -a || true
fi

mapfile -t missing < <(missing_packages)
if ((${#missing[@]} != 0)); then
    log "still missing after install: ${missing[*]}" >&2
    exit 1
fi
log "installed; all ${#PACKAGES[@]} packages present"
