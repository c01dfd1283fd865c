#!/bin/sh
# run.sh PKG-CONFIG COMPILER PREFIX LIBDIR VERSION OUT-DIR: compiles and runs the consumer with what zel.pc says.
# The copy under PREFIX is moved first, since an installed tree may be.
set -eu
pkg_config=$1 compiler=$2 prefix=$3 libdir=$4 version=$5 out=$6
here=$(cd "$(dirname "$0")" && pwd)

rm -rf "$out"
mkdir -p "$out"
cp -a "$prefix" "$out/moved"
PKG_CONFIG_PATH=$out/moved/$libdir/pkgconfig
export PKG_CONFIG_PATH
"$pkg_config" --exact-version="$version" zel
for program in main mere; do
    # Unquoted on purpose: these are lists of arguments.
    # shellcheck disable=SC2046
    "$compiler" -std=c++17 -Wl,--as-needed "$here/../$program.cpp" $("$pkg_config" --cflags --libs zel) -o "$out/$program"
    LD_LIBRARY_PATH=$out/moved/$libdir "$out/$program"
done
