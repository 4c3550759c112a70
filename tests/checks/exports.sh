#!/bin/bash
# usage: exports.sh <source directory> <library> <compiler and flags>
# Compares what the built library exports, needs, relocates and runs at load with what it should.
set -euo pipefail
source=$1 library=$2 compiler=("${@:3}")
export LC_ALL=C

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
faults=0
fault() {
    echo "$*"
    faults=1
}
same() { # what is compared, what is wanted, what is there
    diff -u --label "$1: wanted" --label "$1: found" "$2" "$3" || faults=1
}

# ---- Exported names: the list, the library, the hidden names and the headers say the same ----

awk '/^[A-Za-z0-9_.]+ *\{/ { node = $1 } /global:/ { on = 1 } /local:/ { on = 0 }
     on && $1 ~ /^[A-Za-z0-9_]+;$/ { sub(";", "", $1); print $1 "@@" node }' \
    "$source/lib/libk42mc_r/exports.map" | sort >"$work/list"
nm -D --defined-only --with-symbol-versions "$library" | awk '$2 != "A" { print $2, $3 }' >"$work/symbols"
cut -d' ' -f2 "$work/symbols" | sort >"$work/exported"
same "exported symbols" "$work/list" "$work/exported"

awk '$1 ~ /[Tti]/ { sub("@.*", "", $2); print $2 }' "$work/symbols" | sort >"$work/functions"
awk '$1 !~ /[Tti]/ { sub("@.*", "", $2); print $2 }' "$work/symbols" | sort >"$work/data"
sed -nE 's/^K42MC_HIDDEN_NAME\((\w+)\).*/\1/p' "$source/common/lib/libk42mc/linkage/hidden_names.h" | sort >"$work/hidden"
same "functions with a hidden name" "$work/functions" "$work/hidden"

while read -r name; do
    grep -qrw --include='*.h' -- "$name" "$source/include/k42mc" || fault "$name is in no public header"
done < <(cat "$work/functions" "$work/data")

# ---- What loading it takes ----

readelf -dW "$library" >"$work/dynamic"
sed -nE 's/.*\(NEEDED\).*\[(.*)\]/\1/p' "$work/dynamic" | while read -r needed; do
    [[ $needed =~ ^(libc\.so\.6|libgcc_s\.so\.1|ld-linux.*\.so\..*)$ ]] || echo "needs $needed"
done >"$work/needs"
[[ ! -s $work/needs ]] || fault "$(cat "$work/needs")"
grep -qE 'SONAME.*\[libk42mc_r\.so\.[0-9]+\]' "$work/dynamic" || fault "no versioned soname"
grep -qE 'TEXTREL' "$work/dynamic" && fault "has text relocations"
grep -qE 'FLAGS_1.*NOW' "$work/dynamic" || fault "binds lazily: its table of functions stays writable"
readelf -lW "$library" >"$work/segments"
grep -q GNU_RELRO "$work/segments" || fault "what is relocated stays writable"
grep -qE 'GNU_STACK.* RW ' "$work/segments" || fault "asks for an executable stack"

# Loading runs what the compiler puts into an empty library, and nothing else.
"${compiler[@]}" -shared -fPIC -o "$work/empty.so" -x c /dev/null
startup() {
    readelf -dW "$1" | sed -nE 's/.*\((INIT|FINI|(PREINIT_|INIT_|FINI_)ARRAYSZ)\) *(0x[0-9a-f]* *$)?/\1 /p' |
        sed 's/^INIT .*/INIT/; s/^FINI .*/FINI/' | sort
}
startup "$work/empty.so" >"$work/startup-wanted"
startup "$library" >"$work/startup-found"
same "code run at load and unload" "$work/startup-wanted" "$work/startup-found"

# ---- How the library reaches its own symbols ----

# "type symbol" of every relocation that names one.
readelf -rW "$library" | awk '$3 ~ /^R_/ && $5 != "" { sub("@.*", "", $5); print $3, $5 }' >"$work/relocations"
grep -q IRELATIV <(readelf -rW "$library") && fault "resolves functions at load"

# Calls go to the hidden names. Only the default hooks are the executable's, and only by address.
while read -r type name; do
    if grep -qx "$name" "$work/functions"; then
        [[ $name =~ ^(DSAlloc|DSRealloc|DSDealloc|DSDummyFunction)$ && $type != *JUMP* ]] ||
            fault "calls or names its own $name through the dynamic linker ($type)"
    elif grep -qx "$name" "$work/data"; then
        [[ $type == *GLOB_DAT || $type =~ ^R_(X86_64_64|386_32)$ ]] || fault "$type for $name"
    fi
done <"$work/relocations"
for hook in DSAlloc DSRealloc DSDealloc DSDummyFunction; do
    grep -q " $hook\$" "$work/relocations" || fault "the default hook $hook is not the executable's"
done
# The values of constants may be known to the compiler; what can change there is one of.
while read -r name; do
    grep -q "GLOB_DAT $name\$" "$work/relocations" || fault "$name is not reached through the offset table"
done < <(awk '$1 ~ /[BD]/ { sub("@.*", "", $2); print $2 }' "$work/symbols")

exit $faults
