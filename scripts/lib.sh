# Shared by the scripts in this folder: package installation and builds.
# shellcheck shell=bash

RVODDI_ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

# What every build needs, as Debian packages.
# nginx and redis-server are run by the remote tier's tests on loopback ports
# of their own (tests/support/LocalServer.h), never as system services;
# bsdutils' script(1) gives the rvoddi tool's test a terminal, and openssl
# makes the certificate of the HTTPS test's nginx. libblosc-dev is bench_codec's
# reference for the byte shuffle (the library does its own).
RVODDI_PACKAGES=(cmake ninja-build g++ pkg-config qt6-base-dev libgtest-dev
                 libbenchmark-dev zlib1g-dev libssl-dev libdeflate-dev libisal-dev
                 liblz4-dev libzstd-dev libblosc-dev
                 libcurl4-openssl-dev libhiredis-dev nginx redis-server bsdutils openssl)

rvoddi_log() { printf '== %s\n' "$*" >&2; }

# The S3 server of the remote tier's tests and bench_remote: s3rver from npm,
# at the versions scripts/npm/package-lock.json pins, installed into
# build/npm (never globally; it runs offline from there). npm comes with
# Debian's nodejs and npm where the machine has no npm yet.
rvoddi_ensure_s3rver() {
    local dir="$RVODDI_ROOT/build/npm" lock="$RVODDI_ROOT/scripts/npm/package-lock.json"
    if [ -x "$dir/node_modules/.bin/s3rver" ] && cmp -s "$lock" "$dir/package-lock.json"; then
        return 0
    fi
    command -v npm >/dev/null || rvoddi_ensure_packages nodejs npm
    rvoddi_log "installing s3rver into $dir"
    mkdir -p "$dir"
    cp "$RVODDI_ROOT/scripts/npm/package.json" "$lock" "$dir/"
    (cd "$dir" && npm ci --no-audit --no-fund --loglevel=error >&2)
}

# Installs the named Debian packages that are not installed yet.
rvoddi_ensure_packages() {
    local missing=() pkg
    for pkg in "$@"; do
        dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q 'install ok installed' \
            || missing+=("$pkg")
    done
    [ ${#missing[@]} -eq 0 ] && return 0
    rvoddi_log "installing ${missing[*]}"
    local sudo=()
    [ "$(id -u)" -eq 0 ] || sudo=(sudo)
    # A package's own service (nginx on port 80, redis-server on 6379) is not
    # started by the install: where no policy says otherwise, one that
    # refuses every start is in place while apt runs.
    local policy=/usr/sbin/policy-rc.d placed=0 status=0
    if [ ! -e "$policy" ]; then
        printf '#!/bin/sh\nexit 101\n' | "${sudo[@]}" tee "$policy" >/dev/null
        "${sudo[@]}" chmod 755 "$policy"
        placed=1
    fi
    "${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get update -qq >&2 || status=$?
    [ $status -ne 0 ] || "${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq \
        --no-install-recommends "${missing[@]}" >&2 || status=$?
    [ $placed -eq 0 ] || "${sudo[@]}" rm -f "$policy"
    return $status
}

# rvoddi_build NAME [cmake options...]: configures and builds build/NAME.
rvoddi_build() {
    local name=$1
    shift
    local dir="$RVODDI_ROOT/build/$name"
    cmake -S "$RVODDI_ROOT" -B "$dir" -G Ninja "$@" >&2
    cmake --build "$dir" --parallel "$(nproc)" >&2
}
