#!/usr/bin/env bash
# clang-format check and clang-tidy over the project's own sources. Needs a configured build
# directory (default: build) for compile_commands.json.
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
mapfile -t files < <(git ls-files '*.cc' '*.h' | grep -v '^tests/fixtures/')
clang-format --dry-run --Werror "${files[@]}"
mapfile -t sources < <(git ls-files 'src/*.cc' 'tools/*.cc' 'coreml/*.cc')
clang-tidy -p "$build" --quiet "${sources[@]}"
