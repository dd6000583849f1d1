# What the two sandbox tiers share: messages, the way of the settings into the sandbox, the user-mode kernel's place and
# the parts of the inner tree that do not depend on the tier. Sourced by the scripts of this folder; runs nothing itself.
#
# Settings travel as the file RUN/settings, which both sides source: variables LAB_*, written once by lab/device.
# Inside the sandbox the run directory is mounted, writable, at LAB_INSIDE/host.
# shellcheck shell=bash disable=SC2034

LAB_INSIDE=/run/lab

LAB_EXIT_DEVICE=123   # the device did not come up, or a configuration was refused
LAB_EXIT_TIMEOUT=124  # the command did not end in time
LAB_EXIT_REFUSED=125  # the sandbox could not be made
LAB_EXIT_LOST=126     # the sandbox ended and left no status

# A line of progress with the seconds since the start of lab/device. Inside, the phases are kept for the report.
lab_say()
{
    local us=$((${EPOCHREALTIME/[.,]/} - ${LAB_START:-${EPOCHREALTIME/[.,]/}})) seconds
    printf -v seconds '%d.%02d' $((us / 1000000)) $((us % 1000000 / 10000))
    printf 'device: [%6s s] %s\n' "$seconds" "$*" >&2
    [ ! -d "$LAB_INSIDE/host" ] || printf '%s\t%s\n' "$seconds" "$*" >>"$LAB_INSIDE/phases"
}

lab_fail()
{
    local status=$1
    shift
    printf 'device: %s\n' "$@" >&2
    exit "$status"
}

# The place of the kernel that lab/build-kernel makes. The name carries the configuration's hash: a changed
# configuration is another kernel.
kernel_cache_path()
{
    local config=$1/uml-kernel.config hash
    hash=$(sha256sum "$config") || return 1
    printf '%s/cfgmgr-lab/linux-uml-%s\n' "${XDG_CACHE_HOME:-$HOME/.cache}" "${hash:0:12}"
}

# The user-mode kernel to run: the given one, the built one, or Debian's. Prints nothing when there is none.
kernel_find()
{
    local cached
    cached=$(kernel_cache_path "$1")
    if [ -n "${LAB_UML_KERNEL:-}" ]; then
        [ -x "$LAB_UML_KERNEL" ] && readlink -f "$LAB_UML_KERNEL"
    elif [ -x "$cached" ]; then
        printf '%s\n' "$cached"
    else
        command -v linux.uml
    fi
}

# --- the inner tree; $1 is its root, mounted but not yet entered ---

tree_dev_common()
{
    mkdir -p "$1"/dev/{net,pts,shm,mqueue}
    # One instance of its own: the host's terminals are not reachable by name.
    mount -t devpts -o newinstance,ptmxmode=0666,mode=620,gid=5 pts "$1/dev/pts"
    # Shared memory and named semaphores are files here; the IPC namespace does not cover them.
    mount -t tmpfs -o mode=1777,nosuid,nodev shm "$1/dev/shm"
    mount -t mqueue mqueue "$1/dev/mqueue"
    ln -sfn pts/ptmx "$1/dev/ptmx"
    ln -sfn /proc/self/fd "$1/dev/fd"
    ln -sfn fd/0 "$1/dev/stdin"
    ln -sfn fd/1 "$1/dev/stdout"
    ln -sfn fd/2 "$1/dev/stderr"
}

# New /run and /tmp: the host's network namespaces, pid files and sockets do not shine through.
tree_volatile()
{
    mount -t tmpfs -o mode=755 run "$1/run"
    mount -t tmpfs -o mode=1777 tmp "$1/tmp"
    mkdir -p "$1"/run/{netns,lock,sshd,service,sv,quagga} "$1$LAB_INSIDE/host"
    [ -L "$1/var/run" ] || { rm -rf "$1/var/run" && ln -s /run "$1/var/run"; }
}

# A name that resolves, and a resolver that refuses at once: with the host's unreachable one each lookup waits 5 s.
tree_names()
{
    echo device >"$1/etc/hostname"
    printf '127.0.0.1 localhost device\n::1 localhost\n' >"$1/etc/hosts"
    rm -f "$1/etc/resolv.conf"
    echo 'nameserver 127.0.0.1' >"$1/etc/resolv.conf"
}

# The folders of the device's firmware, empty: no state of an earlier boot, none of the host.
tree_firmware()
{
    local dir
    for dir in etc/corvane etc/confd etc/netns etc/sv var/confd var/crash var/log; do
        rm -rf "${1:?}/$dir"
        mkdir -p "$1/$dir"
    done
    mkdir -p "$1"/etc/{ppp,raddb,logrotate.d,pam.d} "$1/var/confd/cdb"
}

# Everything that is the same in both tiers, in the order that the mounts need.
tree_common()
{
    tree_dev_common "$1"
    tree_volatile "$1"
    tree_firmware "$1"
    tree_names "$1"
}

# Before the recorder, which so stands in front of the stand-in and notes what the daemon has said.
standins_install()
{
    local program
    program=$(readlink -f "$(command -v ip)")
    mkdir -p "$LAB_INSIDE/standin"
    cp -p "$program" "$LAB_INSIDE/standin/ip"
    rm -f "$program"
    cp -p "$LAB_CHECKOUT/lab/standin-ip" "$program"
}

# Called in the new root: the first process of the device takes over.
tree_enter()
{
    export PATH=$LAB_BUILD/bin:/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin
    export HOME=/root SHELL=/bin/bash LANG=C.UTF-8 PYTHONDONTWRITEBYTECODE=1
    ip link set lo up
    cd "$LAB_CWD" 2>/dev/null || cd /
    "$LAB_CHECKOUT/lab/services" >"$LAB_INSIDE/services"
    [ "$LAB_BARE" = 0 ] || return 0 # the programs may be the host's own
    cp -r "$LAB_CHECKOUT/platform/image/." / # the files of the device's firmware
    [ "$LAB_STANDINS" = 0 ] || standins_install
    [ "$LAB_RECORD" = 0 ] || "$LAB_CHECKOUT/lab/recorder-install"
}
