# SPDX-License-Identifier: Apache-2.0
# Sourced by run, test, package and bench/run: installs the Debian packages that are missing, and only those.

BUILD_PACKAGES="g++ cmake ninja-build pkg-config zlib1g-dev libdeflate-dev android-liblog-dev android-libutils-dev nlohmann-json3-dev libpcre2-dev libarchive-dev libmd-dev libsystemd-dev scdoc"
TEST_PACKAGES="libgtest-dev gzip binutils groff-base make python3-minimal"
BENCH_PACKAGES="gzip strace"
PEER_PACKAGES="runit s6 execline busybox" # programs alone: none of them starts a system log of its own
CHECK_PACKAGES="clang clang-format clang-tidy strace lnav abigail-tools doxygen kconfig-frontends-nox"
PACKAGE_PACKAGES="dpkg-dev debhelper fakeroot lintian doxygen busybox make shellcheck systemd" # the last four for its test
BROWSER_PACKAGES="chromium chromium-driver nodejs" # for the test of the reports
ARM_PACKAGES="g++-arm-linux-gnueabihf qemu-user"
PLATFORM_PACKAGES="android-platform-frameworks-native-headers"

ask_for() { # " PACKAGE..."
    echo "These packages are missing. Have them installed by root, then try again:" >&2
    echo "  apt-get update && apt-get install -y --no-install-recommends$1" >&2
    exit 1
}

need_packages() { # PACKAGE...
    local missing="" package rights="" log
    for package in "$@"; do
        dpkg-query -W -f '${Status}' "$package" 2>/dev/null | grep -q "ok installed" || missing="$missing $package"
    done
    [ -n "$missing" ] || return 0
    if [ "$(id -u)" != 0 ]; then
        # Nobody can answer sudo without a terminal.
        if ! command -v sudo >/dev/null || { ! [ -t 0 ] && ! sudo -n true 2>/dev/null; }; then
            ask_for "$missing"
        fi
        rights=sudo
    fi
    echo "Installing:$missing"
    log=$(mktemp)
    # A package list that cannot be refreshed may still know what is needed; installing tells.
    # shellcheck disable=SC2086 # both are lists of words
    if ! { $rights apt-get update -q || true; $rights env DEBIAN_FRONTEND=noninteractive \
        apt-get install -y -q --no-install-recommends $missing; } >"$log" 2>&1; then
        tail -n 20 "$log" >&2
        rm -f "$log"
        echo "The packages could not be installed." >&2
        ask_for "$missing"
    fi
    rm -f "$log"
}

# Configures and builds one preset; prints the compiler's output only when it fails.
build_preset() { # PRESET
    local log
    log=$(mktemp)
    echo "Building ($1)"
    if ! { cmake --preset "$1" && cmake --build --preset "$1"; } >"$log" 2>&1; then
        cat "$log" >&2
        rm -f "$log"
        exit 1
    fi
    rm -f "$log"
}
