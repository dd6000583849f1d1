# Words for the shell lines of step files: the device's own processes, what it is in, the store.
# shellcheck shell=bash disable=SC2034

unset BASH_ENV # for this shell only, not for the scripts that it runs

harness=$(dirname "$(readlink -f "${BASH_SOURCE[0]}")")
STORE=/var/confd/cdb

# Pid of sysmgrd, agentd, chmgrd or cfgmgr; the last has one from its first hello on.
pid_of()
{
    cat "/run/$1.0.pid" 2>/dev/null
}

# keep_pid NAME..., then same_pid NAME... and other_pid NAME...: whether the service is the process that it was then.
keep_pid()
{
    local name
    for name; do pid_of "$name" >"/tmp/pid.$name" || return; done
}

same_pid()
{
    local name
    for name; do
        [ "$(pid_of "$name")" = "$(<"/tmp/pid.$name")" ] && kill -0 "$(pid_of "$name")" || return
    done
}

other_pid()
{
    local name pid
    for name; do
        pid=$(pid_of "$name") && [ "$pid" != "$(<"/tmp/pid.$name")" ] && kill -0 "$pid" 2>/dev/null || return
    done
}

# The daemon is another one than keep_pid has seen, and has had all of the configuration: the last part of its initial
# read was delivered to it. The mark that in_sync goes by may be its predecessor's.
cfgmgr_again()
{
    other_pid cfgmgr && in_sync && agent_cmd status --json |
        grep -q "\"client\":\"cfgmgr (pid $(pid_of cfgmgr))\",\"path\":\"/vpn/vpn-instance/host\"[^}]*\"deliveries\":[1-9]"
}

# kill_it NAME [SIGNAL]: the pid is kept for other_pid.
kill_it()
{
    keep_pid "$1" && kill "-${2:-KILL}" "$(pid_of "$1")"
}

in_sync()
{
    "$harness/../../lab/in-sync" >/dev/null
}

# Number in an operational leaf of a VPN, nothing when there is none: leaf_of 5 label
leaf_of()
{
    cli -c "show vpn vpn-instance $1 $2 | display json" | sed -n "s/.*\"$2\": \([0-9]*\).*/\1/p"
}

# The system manager keeps still while the agent is down and its files are changed.
agent_down()
{
    kill -STOP "$(pid_of sysmgrd)" && kill_it agentd
    while kill -0 "$(pid_of agentd)" 2>/dev/null && ! grep -q '^State:.*zombie' "/proc/$(pid_of agentd)/status"; do
        sleep 0.02
    done
}

agent_up()
{
    kill -CONT "$(pid_of sysmgrd)"
}

# The system manager stays away: its program is another one for as long.
sysmgrd_away()
{
    mount --bind /bin/false "$(command -v sysmgrd)" && kill_it sysmgrd
}

sysmgrd_back()
{
    umount "$(command -v sysmgrd)"
}

# Another user session holds the lock of running.
lock_hold()
{
    local i
    rm -f /tmp/store_lock
    python3 "$harness/store_lock.py" >/tmp/store_lock 2>&1 </dev/null &
    echo $! >/tmp/store_lock.pid
    for i in {1..100}; do
        ! grep -qx held /tmp/store_lock || return 0
        sleep 0.05
    done
    cat /tmp/store_lock
    return 1
}

lock_drop()
{
    kill "$(</tmp/store_lock.pid)"
}

# A frame, as hexadecimal digits, on the connection by which zebra of a VPN notifies: notify_zebra 5 0008000900000801
notify_zebra()
{
    python3 - "$@" <<'END'
import socket, sys
with socket.socket(socket.AF_UNIX) as link:
    link.connect("/var/run/quagga/zebra_protobuf_notify.api." + sys.argv[1])
    link.sendall(bytes.fromhex(sys.argv[2]))
END
}
