#!/bin/bash
# sandbox.sh: a private root in which tty_hub runs against simulated peers.
#
#   sandbox.sh populate ROOT
#       Lays out the sandbox root: fresh tmp, sdk, user, mnt, a writable
#       stand-in of sys/class/gpio, mount points for etc, usr, proc and dev,
#       and the default stand-in programs. Idempotent: what exists is kept.
#   sandbox.sh standin ROOT PATH [STATUS]
#       Makes PATH (as seen inside) a stand-in that appends "name args" to
#       /.sb/standin.log and exits with STATUS (default 0; read at each call
#       from /.sb/standin/NAME.status, so it may change at any time).
#   sandbox.sh run [--bind DIR]... [--tty DEV:NAME]... [--tmpfs PATH:BYTES]... ROOT CMD [ARG]...
#       Runs CMD chrooted into ROOT inside private mount, IPC and PID
#       namespaces. Killing this process (it becomes `unshare`) kills
#       everything inside. DIR is bound read-only at its own path; DEV (a
#       terminal, e.g. /dev/pts/3) is bound at /dev/NAME; PATH (inside)
#       becomes a tmpfs of BYTES that starts with what PATH held.
#
# Inside: usr is an overlay whose top layer (ROOT/.sb/usr) holds the stand-ins
# over the host's /usr; bin, sbin, lib* point into usr as on the host; etc is
# the host's /etc read-only; proc is fresh. ROOT/dev is a plain host directory
# with null, zero, random, urandom, tty and pts bound from the host, and ptmx
# a link to pts/ptmx (a bound ptmx cannot find its pts), so that a simulator
# inside can make its pseudo-terminal; a test can create further device
# stand-ins (a FIFO, a file) from outside.
# Mounts are private to the namespace: on the host ROOT holds only plain files.

set -euo pipefail

die() { echo "sandbox.sh: $*" >&2; exit 2; }

# Sets STANDIN_FILE: the host path inside ROOT that holds the stand-in for PATH.
standin_file() {
    local root=$1 path=$2
    case "$path" in
    /usr/*) STANDIN_FILE="$root/.sb/usr/${path#/usr/}" ;;
    /bin/* | /sbin/* | /lib*/*)
        # On a merged-/usr host these point into usr, and so must the stand-in.
        local first=${path#/}
        first=${first%%/*}
        if [ -L "/$first" ]; then
            STANDIN_FILE="$root/.sb/usr/$first/${path#/"$first"/}"
        else
            STANDIN_FILE="$root$path"
        fi
        ;;
    /*) STANDIN_FILE="$root$path" ;;
    *) die "stand-in path must be absolute: $path" ;;
    esac
}

# Writes the stand-in script (no chmod: callers do that for all at once).
write_standin() {
    local root=$1 path=$2
    local name=${path##*/}
    standin_file "$root" "$path"
    local answer=
    # devmem ADDR reads the register: it answers what was last written there
    # (devmem ADDR WIDTH VALUE), 0 at first, as the platform's tool does.
    [ "$name" = devmem ] && answer='if [ $# -ge 3 ]; then printf "0x%08X\n" "$3" >/.sb/devmem.reg; elif [ $# -ge 1 ]; then cat /.sb/devmem.reg 2>/dev/null || echo 0x00000000; fi'
    printf '%s\n' '#!/bin/sh' \
        "if [ \$# -gt 0 ]; then printf '%s\\n' \"$name \$*\" >>/.sb/standin.log; else printf '%s\\n' '$name' >>/.sb/standin.log; fi" \
        "$answer" \
        'st=0' \
        "[ -r /.sb/standin/$name.status ] && read -r st </.sb/standin/$name.status" \
        'exit "$st"' >"$STANDIN_FILE"
}

make_standin() {
    local root=$1 path=$2 status=$3
    local name=${path##*/}
    standin_file "$root" "$path"
    mkdir -p "${STANDIN_FILE%/*}" "$root/.sb/standin"
    write_standin "$root" "$path"
    chmod 0755 "$STANDIN_FILE"
    echo "$status" >"$root/.sb/standin/$name.status.tmp"
    mv "$root/.sb/standin/$name.status.tmp" "$root/.sb/standin/$name.status"
}

DEFAULT_STANDINS=(/usr/bin/devmem /usr/sbin/modprobe /usr/bin/udisk /usr/sbin/flashcp
    /usr/sbin/flash_eraseall /bin/ota_upg /sdk/bin/music_file)

# Few processes on purpose: every test starts with this.
populate() {
    local root=$1
    local gpio=$root/sys/class/gpio
    mkdir -p "$root"/{tmp,user,mnt,etc,usr,proc,dev/pts} "$root"/sdk/{config/xml,recorded,bin} \
        "$root"/.sb/{standin,usr/bin,usr/sbin} "$gpio"/{P5_02,P5_03,P6_00}
    local f line n d
    for f in export unexport; do [ -e "$gpio/$f" ] || : >"$gpio/$f"; done
    for line in P5_02 P5_03 P6_00; do
        for f in direction value; do [ -e "$gpio/$line/$f" ] || : >"$gpio/$line/$f"; done
    done
    for n in null zero random urandom tty; do [ -e "$root/dev/$n" ] || : >"$root/dev/$n"; done
    [ -e "$root/dev/ptmx" ] || ln -s pts/ptmx "$root/dev/ptmx"
    # The SPI slave device: a FIFO that nobody feeds is a device with no
    # package coming, so the OTA reception waits silently.
    [ -e "$root/dev/vmb_ota" ] || mkfifo "$root/dev/vmb_ota"
    # Follow the host: merged /usr gives symlinks, otherwise directories bound later.
    local links=() dirs=()
    for d in bin sbin lib lib32 lib64 libx32; do
        if [ -L "/$d" ]; then
            [ -L "$root/$d" ] || links+=("usr/$d")
        elif [ -d "/$d" ]; then
            dirs+=("$root/$d")
        fi
    done
    [ ${#links[@]} -eq 0 ] || ln -s "${links[@]}" "$root/"
    [ ${#dirs[@]} -eq 0 ] || mkdir -p "${dirs[@]}"
    local made=() p
    for p in "${DEFAULT_STANDINS[@]}"; do
        standin_file "$root" "$p"
        if [ ! -e "$STANDIN_FILE" ]; then
            write_standin "$root" "$p"
            made+=("$STANDIN_FILE")
        fi
    done
    [ ${#made[@]} -eq 0 ] || chmod 0755 "${made[@]}"
    chmod 1777 "$root/tmp"
    [ -e "$root/.sb/standin.log" ] || : >"$root/.sb/standin.log"
    : >"$root/.sb/populated"
}

bind_ro() {
    mount --bind "$1" "$2"
    mount -o remount,bind,ro "$2"
}

run_inside() {
    local binds=() ttys=() tmpfss=()
    while [ $# -gt 0 ]; do
        case "$1" in
        --bind) binds+=("$2"); shift 2 ;;
        --tty) ttys+=("$2"); shift 2 ;;
        --tmpfs) tmpfss+=("$2"); shift 2 ;;
        --) shift; break ;;
        *) break ;;
        esac
    done
    [ $# -ge 2 ] || die "run: ROOT and CMD required"
    local root
    root=$(realpath "$1")
    shift
    [ "$root" != / ] || die "refusing / as the sandbox root"

    # Nothing done here may reach the host's mount table.
    mount --make-rprivate /
    # What a test removed or changed on purpose stays as it is.
    [ -e "$root/.sb/populated" ] || populate "$root"
    # Small file systems, for a disk that fills.
    local f dir copy
    for f in "${tmpfss[@]}"; do
        dir=$root${f%%:*}
        copy=$(mktemp -d)
        cp -a "$dir/." "$copy/"
        mount -t tmpfs -o "size=${f#*:},mode=$(stat -c %a "$dir")" tmpfs "$dir"
        cp -a "$copy/." "$dir/"
        rm -rf "$copy"
    done
    mount -t overlay overlay -o "lowerdir=$root/.sb/usr:/usr" "$root/usr"
    bind_ro /etc "$root/etc"
    for d in bin sbin lib lib32 lib64 libx32; do
        if [ -d "/$d" ] && [ ! -L "/$d" ]; then bind_ro "/$d" "$root/$d"; fi
    done
    for n in null zero random urandom tty; do mount --bind "/dev/$n" "$root/dev/$n"; done
    mount --bind /dev/pts "$root/dev/pts"
    local t dev name
    for t in "${ttys[@]}"; do
        dev=${t%%:*}
        name=${t#*:}
        [ -e "$root/dev/$name" ] || : >"$root/dev/$name"
        mount --bind "$dev" "$root/dev/$name"
    done
    local b
    for b in "${binds[@]}"; do
        b=$(realpath "$b")
        mkdir -p "$root$b"
        bind_ro "$b" "$root$b"
    done
    mount -t proc proc "$root/proc"

    local keep=()
    local v
    for v in $(compgen -e); do
        case "$v" in ASAN_* | UBSAN_* | TSAN_* | LSAN_* | MSAN_*) keep+=("$v=${!v}") ;; esac
    done
    exec chroot "$root" /usr/bin/env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/ TERM=dumb \
        "${keep[@]}" "$@"
}

# The usage is the head of this file, from its second line to the first blank one.
usage() { sed -n '2,/^$/s/^# \{0,1\}//p' "$0"; }

[ $# -ge 1 ] || { usage >&2; exit 2; }
mode=$1
shift
case "$mode" in
populate)
    [ $# -eq 1 ] || die "usage: sandbox.sh populate ROOT"
    populate "$1"
    ;;
standin)
    [ $# -ge 2 ] || die "usage: sandbox.sh standin ROOT PATH [STATUS]"
    make_standin "$1" "$2" "${3:-0}"
    ;;
run)
    [ "$EUID" -eq 0 ] || die "run needs root (mount namespaces, chroot)"
    if [ -z "${TTY_HUB_SANDBOX_INSIDE:-}" ]; then
        exec unshare --mount --ipc --pid --fork --kill-child --propagation private \
            env TTY_HUB_SANDBOX_INSIDE=1 bash "$0" run "$@"
    fi
    run_inside "$@"
    ;;
-h | --help) usage ;;
--version) echo "sandbox.sh (tty_hub) 1.0" ;;
*) die "unknown mode $mode (sandbox.sh --help)" ;;
esac
