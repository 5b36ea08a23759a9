#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# What limits the harm of a memory fault is in the built files, as these say themselves, of this machine or another.
# Usage: hardening_test.sh LIST READELF optimized|plain COMPILER BRANCH_PROTECTION [REASON]
# LIST has a kind and a file a line. BRANCH_PROTECTION is the compiler's option for it, or empty. REASON: why not.
set -euo pipefail
export LC_ALL=C
list=$1
readelf=$2
optimized=$3
compiler=$4
protection=$5
[ -z "${6:-}" ] || { echo "SKIPPED: $6"; exit 77; }

folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
marks() { "$readelf" -Wn "$1" 2>/dev/null | sed -n 's/.*\(x86\|AArch64\) feature: //p'; }
# What the compiler marks, and whether the linker can: a library has a mark if the system's start files have it, too.
mark='' linked_mark=''
if [ -n "$protection" ]; then
    echo 'int used(int x) { return x; }' >"$folder/empty.cpp"
    "$compiler" "$protection" -fPIC -c "$folder/empty.cpp" -o "$folder/empty.o"
    "$compiler" "$protection" -fPIC -shared "$folder/empty.cpp" -o "$folder/empty.so"
    mark=$(marks "$folder/empty.o")
    linked_mark=$(marks "$folder/empty.so")
    [ -n "$mark" ] || { echo "FAIL: $protection leaves no mark"; exit 1; }
fi

# kind_is PATTERN: the files of such kinds.
kind_is() { sed -nE "s/^($1) //p" "$list"; }
mapfile -t linked < <(kind_is 'EXECUTABLE|SHARED_LIBRARY|MODULE_LIBRARY')
mapfile -t libraries < <(kind_is SHARED_LIBRARY)
mapfile -t archives < <(kind_is STATIC_LIBRARY)
[ ${#libraries[@]} -gt 0 ] && [ ${#archives[@]} -gt 0 ]

"$readelf" -W --file-header --segments --dynamic --dyn-syms --notes "${linked[@]}" >"$folder/linked"
awk -v optimized="$optimized" -v mark="$linked_mark" '
    function needs(has, what) { if (!has) { print file ": " what; bad = 1 } }
    function judge() {
        needs(relro && now, "its relocations stay writable (GNU_RELRO " relro ", NOW " now ")")
        needs(stack ~ /^RW?$/, "its stack is executable (" stack ")")
        needs(!text, "its code is relocated (TEXTREL)")
        if (kind[file] == "EXECUTABLE") needs(position && pie, "no PIE")
        if (kind[file] == "SHARED_LIBRARY") {
            needs(stack_check, "no stack protector")
            needs(checked || optimized != "optimized" || !glibc, "no checked call (_FORTIFY_SOURCE)")
            needs(marked == mark, "marked for [" marked "], not for [" mark "]")
        }
        ++judged
    }
    FNR == NR { path = $0; sub(/^[^ ]* /, "", path); kind[path] = $1; next }
    /^File: / {
        if (file != "") judge()
        file = substr($0, 7)
        relro = now = text = position = pie = stack_check = checked = glibc = 0; stack = marked = ""
    }
    /^ *Type: +DYN / { position = 1 }
    /^ *GNU_RELRO / { relro = 1 }
    /^ *GNU_STACK / { stack = $(NF - 1) }
    /\(BIND_NOW\)|\(FLAGS\).* BIND_NOW|\(FLAGS_1\).* NOW/ { now = 1 }
    /\(FLAGS_1\).* PIE/ { pie = 1 }
    /\(TEXTREL\)|\(FLAGS\).*TEXTREL/ { text = 1 }
    / UND __stack_chk_fail/ { stack_check = 1; next }
    / UND __[a-z0-9_]+_chk(@|$)/ { checked = 1 }
    / UND .*@GLIBC_/ { glibc = 1 }
    /(x86|AArch64) feature: / { marked = $0; sub(/.* feature: /, "", marked) }
    END { judge(); print judged " programs and libraries"; exit bad }' "$list" "$folder/linked" || failed=1

# Every object, as it is in the archives that hosts may link.
if [ -n "$protection" ]; then
    "$readelf" -Wn "${archives[@]}" | awk -v mark="$mark" '
        function judge() { if (file != "" && marked != mark) { print file ": marked for [" marked "], not for [" mark "]"; bad = 1 } }
        /^File: / { judge(); file = $2; marked = ""; ++objects }
        /(x86|AArch64) feature: / { marked = $0; sub(/.* feature: /, "", marked) }
        END { judge(); print objects " objects marked for " mark; exit bad }' || failed=1
fi

# GCC notes its options beside the debug information; of stack clash protection most functions bear no other trace.
"$readelf" -W --debug-dump=info --dwarf-depth=1 "${libraries[@]}" 2>/dev/null | awk '
    /DW_AT_producer.*: GNU C/ {
        ++units
        if (/-fstack-clash-protection/ && /-fstack-protector-strong/) next
        sub(/.*: GNU/, "GNU")
        if (!told[$0]++) print "compiled without one of the stack protections: " $0
        bad = 1
    }
    END { print units + 0 " units that name the options of their compiler"; exit bad }' || failed=1
[ -z "${failed:-}" ]
