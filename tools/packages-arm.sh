# SPDX-License-Identifier: Apache-2.0
# Sourced by test --arm and by package --arch armhf: the cross compiler, the emulator, and the libraries for 32-bit
# ARM. The latter are downloaded with package lists of their own and unpacked under build/arm-root; the machine's own
# package manager learns of no second architecture.

need_arm_packages() {
    need_packages $ARM_PACKAGES
    local root=build/arm-root apt=$PWD/build/arm-apt package
    local libraries="zlib1g-dev libdeflate-dev android-liblog-dev android-libutils-dev libgtest-dev libstdc++-12-dev
        nlohmann-json3-dev libpcre2-dev libarchive-dev libmd-dev libsystemd-dev"
    [ "$(cat $root/.complete 2>/dev/null)" != "$libraries" ] || return 0
    echo "Unpacking the libraries for 32-bit ARM"
    rm -rf $root "$apt"
    mkdir -p $root "$apt/lists/partial" "$apt/cache/archives/partial" "$apt/state"
    : >"$apt/state/status"
    set -- -q -o APT::Architecture=armhf -o APT::Architectures=armhf -o Debug::NoLocking=1 \
        -o Dir::State="$apt/state" -o Dir::State::status="$apt/state/status" \
        -o Dir::State::lists="$apt/lists" -o Dir::Cache="$apt/cache"
    apt-get "$@" update >"$apt/log" 2>&1 || true # the download below tells whether a list is missing
    # shellcheck disable=SC2086 # a list of words
    apt-get "$@" install -y --no-install-recommends --download-only $libraries >>"$apt/log" 2>&1 || {
        cat "$apt/log" >&2
        exit 1
    }
    for package in "$apt"/cache/archives/*.deb; do
        dpkg -x "$package" $root
    done
    # Links to absolute places would lead into the machine's own folders, or nowhere: a static library would be taken.
    find $root -type l -lname '/*' -printf '%p %l\n' | while read -r link target; do
        ln -srfn "$root$target" "$link"
    done
    echo "$libraries" >$root/.complete
}
