#!/usr/bin/env bash
# check-layers.sh [BUILD_DIR]: the structure rules that a compiler doesn't check.
#
# 1. Includes run downhill: a file under src/ includes headers of its own layer or of layers below it;
#    zlkd (node/) includes only the layers it links; tools, examples and the public headers include only
#    the public headers.
# 2. No two files share a base name across folders (CMakeLists.txt and README.md excepted).
# 3. With a build directory whose libzlk.so exists: the library exports zlk_* symbols and nothing else.
#
# Fast and needs no build for 1 and 2. Exits non-zero on the first broken rule's list.
set -euo pipefail
cd "$(dirname "$0")/.."

# The layers, lowest first. A folder may include its own layer and those before it.
layers=(log base wire timeseries/codec network ring entries timeseries query/grammar query/engine api)
# What zlkd links, and so may include.
node_may_include=(node log base wire timeseries/codec)

rank_of() {
    # Longest matching prefix wins: timeseries/codec before timeseries.
    local path=$1 best=-1 best_len=0 i
    for i in "${!layers[@]}"; do
        local l=${layers[$i]}
        if [[ $path == "$l"/* && ${#l} -gt $best_len ]]; then
            best=$i
            best_len=${#l}
        fi
    done
    echo "$best"
}

failures=()

while IFS= read -r file; do
    case $file in
        src/*) own=$(rank_of "${file#src/}") ;;
        node/*) own=node ;;
        tools/* | examples/* | include/*) own=public ;;
        *) continue ;;
    esac
    while IFS= read -r line; do
        target=$(sed -E 's/^[0-9]+:#include "([^"]+)".*/\1/' <<<"$line")
        [[ $target == */* ]] || continue
        case $own in
            public)
                [[ $target == zlk/* ]] || failures+=("$file includes $target: only the public headers are allowed here")
                ;;
            node)
                ok=0
                [[ $target == zlk/* ]] && ok=1
                for l in "${node_may_include[@]}"; do
                    if [[ $target == "$l"/* ]]; then
                        # timeseries/codec is allowed, the rest of timeseries isn't.
                        ok=1
                    fi
                done
                if [[ $target == timeseries/* && $target != timeseries/codec/* ]]; then
                    ok=0
                fi
                [[ $ok == 1 ]] || failures+=("$file includes $target: zlkd links only ${node_may_include[*]}")
                ;;
            *)
                [[ $target == zlk/* ]] && continue
                theirs=$(rank_of "$target")
                if [[ $theirs -lt 0 ]]; then
                    failures+=("$file includes $target: not a header of any layer")
                elif [[ $theirs -gt $own ]]; then
                    failures+=("$file includes $target: ${layers[$theirs]} is above ${layers[$own]}")
                fi
                ;;
        esac
    done < <(grep -n -E '^#include "' "$file" || true)
done < <(git ls-files 'src/*' 'node/*' 'tools/*' 'examples/*' 'include/*' | grep -E '\.(c|cpp|h|hpp)$')

while IFS= read -r name; do
    failures+=("base name used in more than one folder: $name")
done < <(git ls-files | xargs -n1 basename | grep -v -x -E 'CMakeLists.txt|README.md' | sort | uniq -d)

build=${1:-}
if [[ -n $build && -f $build/src/libzlk.so ]]; then
    while IFS= read -r symbol; do
        failures+=("libzlk.so exports $symbol")
    done < <(nm -D --defined-only "$build/src/libzlk.so" | awk '{print $3}' | grep -v -E '^zlk_' | head -n 20)
fi

if [[ ${#failures[@]} -gt 0 ]]; then
    printf '%s\n' "${failures[@]}" >&2
    echo "layer check: ${#failures[@]} problem(s)" >&2
    exit 1
fi
echo "layer check: includes run downhill, base names are unique${build:+, libzlk.so exports zlk_* only}"
