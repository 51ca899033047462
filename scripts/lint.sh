#!/usr/bin/env bash
# Checks the C++ code: clang-format (the style of .clang-format) on every C/C++ file of the
# tree, then clang-tidy (the checks of .clang-tidy) on the program's own sources, with the
# compile commands of the build directory (configured here when it has none). Any finding
# fails the run.
# Usage: bash scripts/lint.sh [--tidy-only | --format-only]
# PLINKORA_BUILD_DIR names the build directory (default build); PLINKORA_LINT_JOBS the
# clang-tidy processes run at once (default 2).
# Reformat the tree with:  git ls-files '*.cpp' '*.h' '*.c' | xargs clang-format -i
set -euo pipefail
cd "$(dirname "$0")/.."

format=1
tidy=1
case "${1:-}" in
    "") ;;
    --tidy-only) format=0 ;;
    --format-only) tidy=0 ;;
    *) echo "Usage: $0 [--tidy-only | --format-only]" >&2; exit 2 ;;
esac

build=${PLINKORA_BUILD_DIR:-build}
jobs=${PLINKORA_LINT_JOBS:-2}
# The program's own sources; the tests, benchmarks, fuzzers and tools are formatted but not tidied.
sources=(app midi input benders properties common platform synth ui)
status=0

if [ "$format" -eq 1 ]; then
    began=$SECONDS
    if git rev-parse --is-inside-work-tree >/dev/null 2>&1; then
        mapfile -t files < <(git ls-files '*.cpp' '*.h' '*.c')
    else
        mapfile -t files < <(find . -path './build*' -prune -o -type f \( -name '*.cpp' -o -name '*.h' -o -name '*.c' \) -print | sort)
    fi
    if clang-format --dry-run -Werror "${files[@]}"; then
        echo "== clang-format: ${#files[@]} files as .clang-format wants them ($((SECONDS - began)) s)"
    else
        echo "== clang-format: files above differ from .clang-format's style;" \
             "git ls-files '*.cpp' '*.h' '*.c' | xargs clang-format -i  reformats them" >&2
        status=1
    fi
fi

if [ "$tidy" -eq 1 ]; then
    began=$SECONDS
    if [ ! -f "$build/compile_commands.json" ]; then
        cmake -S . -B "$build" >/dev/null
    fi
    pattern="^$PWD/($(IFS='|'; echo "${sources[*]}"))/"
    if run-clang-tidy -quiet -j "$jobs" -p "$build" "$pattern" >"$build/clang-tidy.log" 2>&1; then
        echo "== clang-tidy: no findings ($((SECONDS - began)) s)"
    else
        # Only the findings and their notes; the rest is progress and the commands run.
        grep -E '(warning|error|note):' "$build/clang-tidy.log" | sed -r 's/\x1b\[[0-9;]*m//g' >&2 || cat "$build/clang-tidy.log" >&2
        echo "== clang-tidy: findings above (full output in $build/clang-tidy.log)" >&2
        status=1
    fi
fi
exit "$status"
