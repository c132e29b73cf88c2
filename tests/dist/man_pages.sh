#!/bin/bash
# man_pages.sh BUILD_DIR: every manual page is clean for mandoc -T lint, and
# names every option its program takes: those of its --help, and for tty_hub
# also those of its option table (the usage text is fixed and names not all).
set -uo pipefail
build=$1
src=$(cd "$(dirname "$0")/../.." && pwd)
bad=0
# options TEXT: the option words of a usage text, one a line.
options() { grep -oE '(^|[] ,(|[])(--[a-z0-9][a-z0-9-]*|-[a-zA-Z])\b' | sed 's/^[] ,(|[]//' | sort -u; }
check() {
    local page=$1 prog=$2 text opt
    shift 2
    mandoc -T lint "$page" || { echo "$page: not lint-clean"; bad=1; }
    text=$(mandoc -T ascii -O width=250 "$page" | sed 's/.\x08//g')
    for opt in $("$@" | options); do
        grep -qE -- "(^|[^a-zA-Z0-9-])$opt([^a-zA-Z0-9-]|$)" <<<"$text" || { echo "$page: $prog option $opt missing"; bad=1; }
    done
}
daemon_options() {
    "$build/tty_hub" --help
    grep -oE '\{"[a-z0-9-]+", [a-z_]+argument' "$src/core/main.cpp" | sed 's/{"\([^"]*\)".*/ --\1/'
    sed -n 's/.*getopt_long(argc, argv, "\([^"]*\)".*/\1/p' "$src/core/main.cpp" | sed 's/://g; s/\(.\)/ -\1/g'
}
check "$src/dist/man/tty_hub.8" tty_hub daemon_options
if [ -x "$build/tools/mcu_sim" ] || [ -x "$build/tools/mcu_sim/mcu_sim" ]; then
    for prog in mcu_sim tool_sim dsp_sim tty_hub_pkg; do
        exe=$(find "$build/tools" -name "$prog" -type f -perm -u+x | head -n 1)
        check "$src/dist/man/$prog.1" "$prog" "$exe" --help
    done
fi
[ $bad -eq 0 ] && echo "manual pages: lint-clean, every option named"
exit $bad
