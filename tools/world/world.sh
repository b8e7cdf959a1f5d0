#!/usr/bin/env bash
# world.sh: runs a command in the simulated router world, where the kernel
# module is played from user space.
#
#   world.sh [-m MODULE]... [-L] [-s RECORDING_SHELL] DIR COMMAND [ARG]...
#
# COMMAND (normally zor_service) is exec'd in a private mount namespace with
# the same process id as this script, so the caller's child pid is the
# netlink port id. Inside that namespace:
#   /proc            a tmpfs; every entry of the real /proc but the process
#                    directories is a symlink into it (self, sys, mounts, ...),
#                    and so is the directory of COMMAND's own pid
#   /proc/zor        DIR/zor: the control file "ctrl", a regular file, appears
#                    there empty when the insmod stub loads zor.ko; every
#                    command written into it is appended, so it holds what the
#                    module received, in order. rmmod moves its content to
#                    DIR/ctrl.log and removes it
#   /proc/world      DIR itself
#   /bin/sh          the recording shell (world_sh): every command line goes
#                    to DIR/commands.log, then runs in the real shell; a line
#                    that echoes into the control file appends to it
#   PATH             starts with DIR/bin, which holds insmod, lsmod and rmmod
#                    stubs that keep the loaded modules in DIR/modules
#   /dev/log         with -L only: a symlink to DIR/devlog, where the caller
#                    binds the datagram socket a system log daemon would
#                    listen on; /dev is then a tmpfs whose other entries are
#                    symlinks into the real /dev
# -m MODULE lists MODULE as already loaded. The recording shell is found with
# -s, else $ZOR_WORLD_SH. DIR holds nothing of value once COMMAND has ended;
# the mounts vanish with the namespace.
#
# Exit status 77 (with a message) when mount namespaces are not permitted.
set -euo pipefail

usage() {
    echo "usage: world.sh [-m MODULE]... [-L] [-s RECORDING_SHELL] DIR COMMAND [ARG]..." >&2
    exit 2
}

write_stubs() {
    local bin=$1
    mkdir -p "$bin"
    cat > "$bin/insmod" <<'EOF'
#!/bin/bash
# insmod of the simulated world: remembers the module and its parameters;
# zor.ko brings the control file with it.
ko=${1:-}
[ -n "$ko" ] || { echo "insmod: ERROR: missing filename." >&2; exit 1; }
shift
if [ ! -f "$ko" ]; then
    echo "insmod: ERROR: could not load module $ko: No such file or directory" >&2
    exit 1
fi
name=$(basename "$ko" .ko)
if cut -d' ' -f1 /proc/world/modules | grep -qx -- "$name"; then
    echo "insmod: ERROR: could not insert module $ko: File exists" >&2
    exit 1
fi
# The control file first: a module listed as loaded has its file.
if [ "$name" = zor ]; then : > /proc/zor/ctrl; fi
echo "$name $*" >> /proc/world/modules
EOF
    cat > "$bin/lsmod" <<'EOF'
#!/bin/bash
# lsmod of the simulated world.
printf '%-19s %8s  %s\n' Module Size 'Used by'
while read -r name _; do
    [ -n "$name" ] && printf '%-19s %8d  %d\n' "$name" 16384 0
done < /proc/world/modules
EOF
    cat > "$bin/rmmod" <<'EOF'
#!/bin/bash
# rmmod of the simulated world: forgets the module; zor takes its control
# file away (its content is kept in /proc/world/ctrl.log).
[ $# -gt 0 ] || { echo "rmmod: ERROR: missing module name." >&2; exit 1; }
status=0
for name in "$@"; do
    if cut -d' ' -f1 /proc/world/modules | grep -qx -- "$name"; then
        grep -v -- "^$name\( \|\$\)" /proc/world/modules > /proc/world/modules.new || true
        mv /proc/world/modules.new /proc/world/modules
        if [ "$name" = zor ]; then
            # What the module received goes with it; the world keeps it.
            cat /proc/zor/ctrl >> /proc/world/ctrl.log 2>/dev/null || true
            rm -f /proc/zor/ctrl
        fi
    else
        echo "rmmod: ERROR: Module $name is not currently loaded" >&2
        status=1
    fi
done
exit $status
EOF
    chmod 755 "$bin/insmod" "$bin/lsmod" "$bin/rmmod"
}

# Runs inside the new namespace: builds the world, then becomes COMMAND.
inside() {
    local dir=$1 rsh=$2 devlog=$3; shift 3
    local real_sh
    real_sh=$(readlink -f /bin/sh)

    mount --bind /proc "$dir/realproc"
    mount -t tmpfs -o mode=0755,size=16m world-proc /proc
    local entry name
    for entry in "$dir"/realproc/*; do
        name=${entry##*/}
        case $name in
            *[!0-9]*) ln -s "$entry" "/proc/$name" ;;
        esac
    done
    # COMMAND keeps this shell's pid: its own directory is there too (leak
    # checkers read /proc/<pid>/task rather than /proc/self).
    ln -s "$dir/realproc/$$" "/proc/$$"
    mkdir /proc/zor /proc/world
    mount --bind "$dir/zor" /proc/zor
    mount --bind "$dir" /proc/world
    mount --bind "$real_sh" /proc/world/real-sh
    mount --bind "$rsh" "$real_sh"
    if [ "$devlog" = 1 ]; then
        mount --bind /dev "$dir/realdev"
        mount -t tmpfs -o mode=0755,size=64k world-dev /dev
        for entry in "$dir"/realdev/*; do
            name=${entry##*/}
            [ "$name" = log ] || ln -s "$entry" "/dev/$name"
        done
        ln -s "$dir/devlog" /dev/log
    fi

    export PATH="$dir/bin:$PATH"
    echo $$ > "$dir/world.pid"
    exec "$@"
}

if [ "${1:-}" = "--inside" ]; then
    shift
    inside "$@"
fi

modules=()
rsh=${ZOR_WORLD_SH:-}
devlog=0
while getopts "m:Ls:" opt; do
    case $opt in
        m) modules+=("$OPTARG") ;;
        L) devlog=1 ;;
        s) rsh=$OPTARG ;;
        *) usage ;;
    esac
done
shift $((OPTIND - 1))
[ $# -ge 2 ] || usage
[ -n "$rsh" ] || { echo "world.sh: the recording shell is not given (-s or ZOR_WORLD_SH)" >&2; exit 2; }
[ -x "$rsh" ] || { echo "world.sh: $rsh is not an executable" >&2; exit 2; }
[ "$(id -u)" -eq 0 ] || { echo "world.sh: the simulated world needs root" >&2; exit 77; }
if ! unshare -m --propagation private true 2>/dev/null; then
    echo "world.sh: mount namespaces are not permitted here" >&2
    exit 77
fi

dir=$(mkdir -p "$1" && cd "$1" && pwd)
shift
rsh=$(readlink -f "$rsh")
write_stubs "$dir/bin"
mkdir -p "$dir/zor" "$dir/realproc" "$dir/realdev"
: > "$dir/real-sh"
: > "$dir/commands.log"
: > "$dir/ctrl.log"
: > "$dir/modules"
for m in "${modules[@]}"; do echo "$m" >> "$dir/modules"; done

exec unshare -m --propagation private "$(readlink -f "$0")" --inside "$dir" "$rsh" "$devlog" "$@"
