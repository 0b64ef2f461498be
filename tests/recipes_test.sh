#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
# The recipes for other build systems name what this tree has: its licence, its version, its options. Make reads
# Buildroot's as Buildroot does, and kconfig its menu.
set -eu
cd "$(dirname "$0")/.."
bb=packaging/yocto/recipes-core/vnlog/vnlog_$(sed -n 's/^project(vnlog VERSION \([^ ]*\) .*/\1/p' CMakeLists.txt).bb
package=packaging/buildroot/package/vnlog
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() {
    echo "$*" >&2
    exit 1
}

grep -qF "file://LICENSE;md5=$(md5sum <LICENSE | cut -d' ' -f1)" "$bb" || fail "the licence's md5 in $bb"
grep -qx "sha256  $(sha256sum LICENSE)" $package/vnlog.hash || fail "the licence's sha256"
options=$(grep -ohP -e '-D\KVNLOG_[A-Z_]+' "$bb" $package/vnlog.mk | sort -u)
[ "$(wc -w <<<"$options")" -ge 3 ] || fail "no options found"
for option in $options; do
    grep -qE "^ *(option|set)\($option " CMakeLists.txt cmake/*.cmake || fail "no option $option"
done
sed -n '/^python () {$/,/^}$/p' "$bb" | sed '1s/.*/def check(d, bb):/; $d' |
    python3 -c 'import sys; compile(sys.stdin.read(), "recipe", "exec")'

# A Buildroot that only tells what it was given.
cat >"$work/Makefile" <<'END'
qstrip = $(strip $(subst ",,$(1)))
cmake-package =
include $(PACKAGE)/vnlog.mk
show: ; @echo "$(VNLOG_VERSION) $(VNLOG_SITE_METHOD):$(VNLOG_SITE) $(VNLOG_CONF_OPTS) on $(VNLOG_DEPENDENCIES)"
END
show() { make -s -f "$work/Makefile" PACKAGE=$package BR_BUILDING=y BR2_PACKAGE_VNLOG=y "$@" show; }
shown=$(show BR2_PACKAGE_VNLOG_SITE='"/src"' BR2_PACKAGE_VNLOG_ANDROID='"my-log my-utils"' BR2_PACKAGE_SYSTEMD=y)
for word in "$(basename "$bb" .bb | cut -d_ -f2) local:/src " BINDER=OFF WORK=process " my-log my-utils systemd"; do
    [[ $shown == *"$word"* ]] || fail "not '$word': $shown"
done
! show BR2_PACKAGE_VNLOG_SITE='"/src"' 2>"$work/error" || fail "no Android libraries, and no error"
grep -q BR2_PACKAGE_VNLOG_ANDROID "$work/error"
selected=$(sed -n 's/^\tselect BR2_PACKAGE_//p' $package/Config.in | tr 'A-Z_' 'a-z-')
for name in $selected; do
    [[ " $shown " == *" $name "* ]] || fail "$name is selected and not depended on"
done

# What is put into an image stays in it, and settings that are there stay.
install() { packaging/device/install "$@" 2>"$work/error"; }
mkdir -p "$work/unit/system/etc" "$work/init"
ln -s system/etc "$work/unit/etc"
install --unit /usr/lib/systemd/system "$work/unit" && install --init /etc/init.d/vnlog "$work/init" || fail "$(cat "$work/error")"
[ -e "$work/unit/usr/lib/systemd/system/vnlog.service.d/device.conf" ] && [ -x "$work/init/etc/init.d/vnlog" ]
cmp "$work/unit/system/etc/vnlog/log_default.cfg" "$work/init/etc/vnlog/log_default.cfg"
for mode in "unit /usr/lib/systemd/system" "init /etc/init.d/vnlog"; do
    image=$work/${mode%% *}
    echo MAX_LOG_SIZE=40 >"$image/etc/vnlog/log_default.cfg"
    install --$mode "$image" && grep -q "log_default.cfg is kept" "$work/error" || fail "kept settings are not told"
    [ "$(cat "$image/etc/vnlog/log_default.cfg")" = MAX_LOG_SIZE=40 ] || fail "settings of an image are gone"
    rm -r "$image/etc"
    ln -s "$work/outside" "$image/etc"
    ! install --$mode "$image" && grep -q "leads out of" "$work/error" || fail "put outside of the image"
    [ ! -e "$work/outside" ] || fail "written outside of the image"
done

command -v kconfig-conf >/dev/null || { echo "kconfig-conf is not installed: the menu is left out"; exit 77; }
sed -n 's/.*[!( ]\(BR2_[A-Z0-9_]*\).*/\1/p' $package/Config.in | grep -v VNLOG | sort -u |
    sed 's/.*/config &\n\tbool "&"/' >"$work/Config.in"
echo "source \"$PWD/$package/Config.in\"" >>"$work/Config.in"
menu() { # VALUE...: the menu's answer to these values
    printf '%s\n' BR2_{TOOLCHAIN_{USES_GLIBC,GCC_AT_LEAST_8,HAS_THREADS},INSTALL_LIBSTDCPP,USE_WCHAR,PACKAGE_VNLOG}=y "$@" >"$work/in"
    CONFIG_="" KCONFIG_CONFIG=$work/out kconfig-conf --defconfig="$work/in" "$work/Config.in" >"$work/said" 2>&1 || fail "$(cat "$work/said")"
    ! grep -i 'warning\|error' "$work/said" || fail "kconfig complains"
}
menu
for option in VNLOG VNLOG_PLATFORM_BINDER LIBARCHIVE PCRE2; do
    grep -qx "BR2_PACKAGE_$option=y" "$work/out" || fail "$option is not on"
done
menu BR2_STATIC_LIBS=y
! grep -qx BR2_PACKAGE_VNLOG=y "$work/out" || fail "offered without shared libraries"
