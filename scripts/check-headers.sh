#!/usr/bin/env bash
# Compiles every product and tool header by itself.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
check() {
    g++ -std=c++20 -fsigned-char -Wall -Wextra -Werror -fsyntax-only -x c++ -I. \
        -include "$1" /dev/null || { echo "does not compile on its own: $1" >&2; exit 1; }
}
export -f check
git ls-files 'Common/*.h' 'devlib/*.h' 'softupdate/*.h' 'tools/*.h' |
    xargs -P "$(nproc)" -I{} bash -c 'check {}'
echo "$(git ls-files 'Common/*.h' 'devlib/*.h' 'softupdate/*.h' 'tools/*.h' | wc -l) headers compile on their own"
