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

# The configuration beyond what the device came up with, as commands; "gone:" stands before what is there no more.
configured()
{
    diff <(sort /run/lab/first.cfg) <(cli -c 'show configuration | display set' | sort) |
        sed -n 's/^> //p; s/^< /gone: /p'
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

# Agent and daemon end at once, and find the store as it was.
reboot_device()
{
    kill -STOP "$(pid_of sysmgrd)" && keep_pid agentd cfgmgr && kill -KILL "$(pid_of agentd)" "$(pid_of cfgmgr)"
    kill -CONT "$(pid_of sysmgrd)"
}

# cfgmgr_with OPTION: from its next start on the daemon has the option, in place of that of the call before.
cfgmgr_with()
{
    local program
    program=$(command -v cfgmgr)
    [ -e /tmp/real/cfgmgr ] || { mkdir -p /tmp/real && cp "$program" /tmp/real/; }
    ! mountpoint -q "$program" || umount "$program"
    printf '#!/bin/sh\nexec /tmp/real/cfgmgr "$@" %s\n' "$1" >/tmp/real/wrapper && chmod 755 /tmp/real/wrapper &&
        mount --bind /tmp/real/wrapper "$program"
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

# routing_held DAEMON VPN: what the routing daemon was told since its start, as the objects that it then holds, one a line.
routing_held()
{
    PYTHONPATH=$harness python3 - "$@" <<'END'
import sys
import routing_objects
daemon, vpn = sys.argv[1:]
with open(f"/var/log/quagga/{daemon}.log" + (f".{vpn}" if vpn != "0" else ""), encoding="utf-8") as log:
    for key, fields in sorted(routing_objects.fold(log).items()):
        print(*key, *(f"{name}={value}" for name, value in sorted(fields.items())))
END
}

# --- interfaces as the kernel has them; VPN 0 is the network that the device's processes are in ---

# vpn_ip VPN ARGUMENT...: ip(8) in the VPN
vpn_ip()
{
    local vpn=$1
    shift
    [ "$vpn" = 0 ] && { ip "$@"; return; }
    ip -n "$vpn" "$@"
}

# in_vpn VPN COMMAND [ARGUMENT]...
in_vpn()
{
    local vpn=$1
    shift
    [ "$vpn" = 0 ] && { "$@"; return; }
    ip netns exec "$vpn" "$@"
}

# if_names VPN: on one line, without what is there in any case: the kernel's own, loops and taps, twins of ports.
if_names()
{
    vpn_ip "$1" -o link show | sed -E 's/^[0-9]+: ([^:@]+).*/\1/' | sort |
        sed -E '/^(lo|(tunl|gre|gretap|erspan|sit|ip6tnl|ip6gre|ip6_vti|ip_vti)0|loop[023](\.[0-9]+)?|loop1|sim[0-9]+_[0-9]+)$/d' |
        paste -sd' '
}

# The kind of device in a line of "ip -d -o link show", with what tells one of the kind from another; else nothing.
if_kind()
{
    local vlan=': [^ @]+@([^ :]+): .* vlan protocol 802.1Q id ([0-9]+)' parent
    local gre=' gre remote ([^ ]+) local ([^ ]+) ttl ([^ ]+)' tun=' tun type (tun|tap) '
    if [[ $1 =~ $vlan ]]; then
        parent=${BASH_REMATCH[1]}
        # "if12": it is in another VPN than the parent, which all of them have in VPN 0.
        [[ $parent != if* ]] || parent=$(sed -nE "s/^${parent#if}: ([^:@]+).*/\1/p" <<<"$if_ports")
        echo ", vlan ${BASH_REMATCH[2]} of $parent"
    elif [[ $1 =~ $gre ]]; then
        echo ", gre ${BASH_REMATCH[2]} to ${BASH_REMATCH[1]} ttl ${BASH_REMATCH[3]}"
    elif [[ $1 =~ $tun ]]; then
        echo ", ${BASH_REMATCH[1]}"
    fi
}

# A line of "ip -d -o link show" as "up, mtu 1500, 02:43:00:00:00:01", then as they apply: promiscuous, bridge, kind.
if_link()
{
    local text=down
    ! [[ $1 =~ [\<,]UP[,\>] ]] || text=up
    ! [[ $1 =~ \ mtu\ ([0-9]+) ]] || text+=", mtu ${BASH_REMATCH[1]}"
    ! [[ $1 =~ link/ether\ ([0-9a-f:]+) ]] || text+=", ${BASH_REMATCH[1]}"
    ! [[ $1 =~ [\<,]PROMISC[,\>] ]] || text+=", promiscuous"
    ! [[ $1 =~ \ master\ ([^ ]+) ]] || text+=", in bridge ${BASH_REMATCH[1]}"
    echo "$text$(if_kind "$1")"
}

# if_show VPN NAME...: the link; the addresses, one a line in the kernel's order, without those that the kernel makes of
# the MAC address; what every interface of the daemon gets below /proc/sys. Fails when one of them is not there.
if_show()
{
    local vpn=$1 name line links addrs settings if_ports status=0
    shift
    if_ports=$(ip -o link show)
    links=$(vpn_ip "$vpn" -d -o link show)
    addrs=$(vpn_ip "$vpn" -o addr show | sed -nE '/ scope link/!s/^[0-9]+: ([^ ]+) +inet6? ([^ ]+( brd [^ ]+)?) .*/\1 \2/p')
    settings=$(in_vpn "$vpn" sh -c 'cd /proc/sys/net/ipv4/conf && grep "" */accept_source_route */arp_announce')
    for name; do
        line=$(grep -E "^[0-9]+: ${name}[:@]" <<<"$links") || { echo "$name: none" && status=1 && continue; }
        echo "$name: $(if_link "$line")"
        sed -n "s|^$name |    |p" <<<"$addrs"
        sed -nE "s|^$name/([a-z_]+):|    \1 |p" <<<"$settings" | paste -sd, | sed 's/,    /, /'
    done
    return $status
}

# Waits for a port of the transport VPN, which comes up a while after the daemon has raised it.
port_up()
{
    local i
    for i in {1..100}; do
        ! ip -br link show dev "$1" | grep -q ' UP ' || return 0
        sleep 0.1
    done
    return 1
}

# The whole of a VPN: all interfaces, and the routes that are neither the kernel's own nor of the taps.
vpn_show()
{
    local family names
    read -ra names < <(if_names "$1")
    if_show "$1" ${names[@]+"${names[@]}"}
    for family in -4 -6; do
        vpn_ip "$1" "$family" -o route show table all |
            grep -vE 'table local|proto kernel|^multicast|127\.1\.0|fcff::' | sed 's/ *$//'
    done
    true
}

# --- what daemons and kernel hold ---

# Descriptors, processes, namespaces and files, a line each: the same before and after what has left nothing behind.
held()
{
    local name
    for name in cfgmgr sysmgrd agentd; do
        echo "$name: $(find "/proc/$(pid_of "$name")/fd" -mindepth 1 | wc -l) descriptors"
    done
    echo "$(pgrep -c '^(routing_peer|cfgmgr|sysmgrd|agentd)') processes, zombies: $(pgrep -c -r Z .)"
    echo "$(grep -c ' /run/netns/' /proc/self/mountinfo) namespaces: $(ip netns list | sort | paste -sd' ')"
    echo "$(find /etc/netns /var/run/quagga -mindepth 1 | wc -l) files"
}

# Resident KiB of the daemons, a line each. memory_grown KIB BEFORE: fails, and tells by how much, when one has more.
memory()
{
    local name
    for name in cfgmgr sysmgrd; do
        sed -n "s/^VmRSS:\s*\([0-9]*\) kB/$name \1/p" "/proc/$(pid_of "$name")/status"
    done
}

memory_grown()
{
    # A sanitizer keeps what is freed for a while.
    ! grep -q 'libasan' "/proc/$(pid_of cfgmgr)/maps" || return 0
    memory | paste -d' ' "$2" - | awk -v limit="$1" '
        { lines++; if ($4 - $2 > limit) { grown = 1; print $1, "has grown by", $4 - $2, "KiB" } }
        END { exit grown || lines != 2 }'
}

# commits TIMES 'LINE; LINE...' 'LINE; LINE...': one commit with the first lines and one with the others, so many times.
commits()
{
    local i
    for ((i = 0; i < $1; i++)); do
        printf '%s\ncommit\n%s\ncommit\n' "${2//; /$'\n'}" "${3//; /$'\n'}"
    done >/tmp/commits.cfg
    cli /tmp/commits.cfg
}

# typed LINE...: what the operator's CLI shows of lines typed in configuration mode, "\t" for a tab (cli_typing.py).
typed()
{
    python3 "$harness/cli_typing.py" "$@"
}

# callpoints_shown GROUPS [LEFT_OUT]...: shows each callpoint of the groups, and tells what is not as it should be and
# how many there are. Those of the groups left out have no program here, and the agent names them; all others show an
# empty table.
callpoints_shown()
{
    local groups=" $1 " left_out name path said
    left_out=" ${*:2} "
    awk -v groups="$groups" -v left_out="$left_out" \
        'index(groups, " " $1 " ") && !index(left_out, " " $1 " ")' < <(callpoint_paths) >/tmp/callpoints.empty
    diff <(cut -d ' ' -f 3- /tmp/callpoints.empty | sed "s/.*/nothing at '&'/") \
        <(cut -d ' ' -f 3- /tmp/callpoints.empty | sed 's/^/show /' | cli 2>&1)
    awk -v groups="$groups" -v left_out="$left_out" \
        'index(groups, " " $1 " ") && index(left_out, " " $1 " ")' < <(callpoint_paths) >/tmp/callpoints.left_out
    while read -r _ name path; do
        said=$(cli -c "show $path" 2>&1)
        [ "$name" != ospf-show ] || name=ospf-process # it holds nothing but lists that have callpoints of their own
        [[ $said == *"callpoint \"$name\": "*": no daemon serves it;"* ]] || echo "$name at $path: $said"
    done </tmp/callpoints.left_out
    echo "$(wc -l </tmp/callpoints.empty) empty, $(wc -l </tmp/callpoints.left_out) left out"
}

# chassis_become TYPE: the daemon starts again on a chassis of another type, whose ports are the same.
chassis_become()
{
    keep_pid cfgmgr && kill_it cfgmgr STOP || return
    printf '%b' "\\x$(printf %02x "$1")" | dd of=/dev/shm/chassis_info bs=1 seek=12 conv=notrunc status=none || return
    kill -KILL "$(pid_of cfgmgr)"
}
