#!/usr/bin/env bash
# Installs the library, moves the tree, and builds programs against it from elsewhere: through
# find_package and through pkg-config, run with an empty environment.
#   install_test.sh BUILD_DIR SOURCES
set -euo pipefail
build=$1 sources=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cmake --install "$build" --prefix "$work/first" >"$work/log" || { cat "$work/log"; exit 1; }
mv "$work/first" "$work/moved tree"
root="$work/moved tree"
library=$(find "$root" -name 'libzorv_core.so' | head -n 1)
[ -L "$library" ] || { echo "no libzorv_core.so link in $root"; exit 1; }
soname=$(objdump -p "$library" | awk '$1 == "SONAME" {print $2}')
[ "$soname" = libzorv_core.so.0 ] || { echo "soname is '$soname'"; exit 1; }

# The program must get as far as the model runtime: a bundle is missing, its models are not.
expect() { # program
    local said
    said=$(env -i "$1" "$work/none")
    [ "$said" = "zorv_create: cannot open $work/none/manifest.json" ] || { echo "$1: $said"; exit 1; }
    ! env -i ldd "$1" | grep "not found" || exit 1
    # grep reads to the end: one that leaves early would make ldd fail.
    env -i ldd "$1" | grep "moved tree/.*libonnxruntime\|/usr/lib.*libonnxruntime" >/dev/null ||
        { echo "the model runtime comes from elsewhere"; env -i ldd "$1"; exit 1; }
}

mkdir "$work/project"
cp "$sources"/main.c* "$sources/CMakeLists.txt" "$work/project"
cmake -S "$work/project" -B "$work/build" -DCMAKE_PREFIX_PATH="$root" >"$work/log" &&
    cmake --build "$work/build" >>"$work/log" || { cat "$work/log"; exit 1; }
expect "$work/build/host"
expect "$work/build/host_cpp"

export PKG_CONFIG_PATH="$(dirname "$library")/pkgconfig"
eval cc -std=c99 "'$work/project/main.c'" -o "'$work/host'" \
    "$(pkg-config --cflags --libs zorv_core)" -Wl,-rpath,"'$(dirname "$library")'"
expect "$work/host"

if [ -x "$root/bin/zorv" ]; then
    env -i "$root/bin/zorv" --version >/dev/null
    # The manual page knows every command.
    gzip -dc "$root/share/man/man1/zorv.1.gz" >"$work/page"
    for command in $(env -i "$root/bin/zorv" --help | sed '1,/^Subcommands/d' | awk '{print $1}'); do
        grep "^\.SS zorv $command" "$work/page" >/dev/null || { echo "no $command in zorv(1)"; exit 1; }
    done
fi
echo "installed tree works: $(du -sm "$root" | cut -f1) MiB"
