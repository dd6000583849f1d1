"""What the device is like: kernel objects of each namespace, generated files, what the routing daemons were told.

A state is a dict of texts: "vpn 5 link ge0_0.100 mtu" -> "1500". Two states are compared key by key, after what differs
on purpose has been taken out of both; the table DIFFERENCES names it.
"""

import ctypes
import json
import os
import re
import socket
import subprocess
from dataclasses import dataclass, field
from typing import Callable

import oracle_config
import oracle_told
import routing_objects

NETNS_DIR = "/var/run/netns"
STATUS_FILE = "/var/run/sysmgrd.status"
ROUTING_LOG_DIR = "/var/log/quagga"
FILES = ("/etc/hosts", "/etc/resolv.conf", "/etc/hostname")
FILES_OF_VPN = "/etc/netns"
IP_LIMIT_S = 60

# One run of ip(8) a namespace; each line answers with a JSON array.
IP_BATCH = "addr show\nroute show table all\nneigh show nud permanent\nmaddr show\n"

# Files below /proc/sys/net that the daemon writes for an interface.
SYSCTLS = ("ipv4/conf/{}/accept_source_route", "ipv4/conf/{}/arp_announce", "ipv4/neigh/{}/gc_stale_time",
           "ipv6/conf/{}/accept_ra", "ipv6/conf/{}/forwarding")

# Devices that the kernel has in every namespace for itself.
KERNELS_OWN = {"tunl0", "gre0", "gretap0", "erspan0", "sit0", "ip6tnl0", "ip6gre0", "ip_vti0", "ip6_vti0", "lo"}
FLAGS = {"UP", "PROMISC", "ALLMULTI", "LOOPBACK", "BROADCAST", "MULTICAST", "NOARP"}

CLONE_NEWNET = 0x40000000
libc = ctypes.CDLL(None, use_errno=True)


# --- namespaces ---

class Inside:
    """with Inside("5"): this thread is in the VPN's namespace; VPN 0 is the one that the program is in anyway."""

    def __init__(self, vpn):
        self.path = None if vpn == "0" else f"{NETNS_DIR}/{vpn}"

    @staticmethod
    def enter(path):
        file = os.open(path, os.O_RDONLY)
        try:
            if libc.setns(file, CLONE_NEWNET) != 0:
                raise OSError(ctypes.get_errno(), f"setns {path}")
        finally:
            os.close(file)

    def __enter__(self):
        if self.path:
            self.enter(self.path)

    def __exit__(self, *_):
        if self.path:
            self.enter("/proc/1/ns/net")


def namespaces():
    return ["0"] + sorted((name for name in os.listdir(NETNS_DIR) if name.isdigit() and name != "0"), key=int)


def vpns_alive():
    """Those whose routing daemons run."""
    with open(STATUS_FILE, encoding="utf-8") as file:
        return {str(row["vpn"]) for row in json.load(file)["routing"]}


# --- the kernel ---

def ip_ask():
    """The answers of IP_BATCH in the thread's namespace."""
    done = subprocess.run(["ip", "-d", "-j", "-b", "-"], input=IP_BATCH, capture_output=True, text=True, check=False,
                          timeout=IP_LIMIT_S)
    answers, decoder, text = [], json.JSONDecoder(), done.stdout.strip()
    while text:
        answer, end = decoder.raw_decode(text)
        answers.append(answer)
        text = text[end:].lstrip()
    if len(answers) != 4:
        raise OSError(f"ip gave {len(answers)} answers: {done.stderr.strip()}")
    return answers


def link_rows(link):
    info = link.get("linkinfo", {})
    yield "kind", info.get("info_kind", "")
    yield "mtu", str(link["mtu"])
    yield "flags", " ".join(sorted(FLAGS & set(link["flags"])))
    yield "master", link.get("master", "")
    # Of a tun device there is none, a bridge takes one of its members', the kernel makes one up where it has none.
    if link.get("link_type") == "ether" and info.get("info_kind") != "bridge":
        yield "mac", link["address"]
    data = info.get("info_data", {})
    if info.get("info_kind") == "vlan":
        yield "vlan", str(data.get("id"))
    if info.get("info_kind") == "gre":
        yield "ends", f"{data.get('local')} {data.get('remote')} ttl {data.get('ttl')}"


def address_rows(link):
    for row in link.get("addr_info", ()):
        broadcast = f" brd {row['broadcast']}" if "broadcast" in row else ""
        kind = "secondary" if row.get("secondary") else "address"
        yield f"{kind} {row['local']}/{row['prefixlen']}{broadcast}", row["scope"]


def route_row(route):
    words = ("type", "gateway", "protocol", "scope", "prefsrc", "metric")
    return f"route {route.get('table', 'main')} {route['dst']} dev {route.get('dev', '')}", " ".join(
        f"{word} {route[word]}" for word in words if word in route)


def sysctl_rows(device):
    for name in SYSCTLS:
        try:
            with open("/proc/sys/net/" + name.format(device), encoding="utf-8") as file:
                yield name.format("*"), file.read().strip()
        except OSError:
            pass # the device has just gone, or has no such family


def kernel_rows(vpn):
    links, routes, neighbours, groups = ip_ask()
    for link in links:
        name = link.get("ifname")
        if not name or name in KERNELS_OWN:
            continue
        for rows in (link_rows(link), address_rows(link), sysctl_rows(name)):
            for word, value in rows:
                yield f"vpn {vpn} link {name} {word}", value
    for key, value in map(route_row, routes):
        yield f"vpn {vpn} {key}", value
    for row in neighbours:
        yield f"vpn {vpn} neighbour {row['dst']} dev {row['dev']}", row.get("lladdr", "")
    for row in groups:
        for group in row.get("maddr", ()):
            if group.get("link") and row["ifname"].startswith("sim"): # others are the kernel's own
                yield f"vpn {vpn} link {row['ifname']} group {group['link']}", "joined"


# --- files, messages, operational data ---

def file_rows():
    names = list(FILES)
    for folder, _, found in os.walk(FILES_OF_VPN):
        names += [os.path.join(folder, name) for name in found]
    for name in names:
        try:
            with open(name, encoding="utf-8", errors="replace") as file:
                yield f"file {name}", file.read()
        except OSError:
            pass # not written yet, or just removed
    yield "hostname", socket.gethostname()


def object_rows(objects, prefix):
    for key, fields in objects.items():
        name = " ".join((prefix, *key))
        yield name, oracle_told.THERE
        for field, value in fields.items():
            yield f"{name} .{field}", str(value)


def message_rows(alive):
    """What each routing daemon of each VPN holds, by what it was told."""
    for name in sorted(os.listdir(ROUTING_LOG_DIR)):
        match = re.fullmatch(r"(zebra|ospfd|bgpd)\.log(?:\.(\d+))?", name)
        if not match or (match.group(2) or "0") not in alive:
            continue
        with open(os.path.join(ROUTING_LOG_DIR, name), encoding="utf-8", errors="replace") as file:
            yield from object_rows(routing_objects.fold(file), f"vpn {match.group(2) or '0'} message {match.group(1)}")


def leaf_rows(node, path):
    if isinstance(node, dict):
        keys = [word for word in ("vpn-id", "service-type", "if-name") if word in node]
        path = path + [str(node[word]) for word in keys]
        for word, child in node.items():
            if word not in keys:
                yield from leaf_rows(child, path + [word.split(":")[-1]])
    elif isinstance(node, list):
        for child in node:
            yield from leaf_rows(child, path)
    else:
        yield " ".join(path), str(node)


def oper_rows():
    done = subprocess.run(["agent_cmd", "dump", "operational", "json"], capture_output=True, text=True, check=True,
                          timeout=IP_LIMIT_S)
    yield from leaf_rows(json.loads(done.stdout or "{}"), ["oper"])


def capture():
    """The state as it is, nothing taken out."""
    alive, state = vpns_alive(), {}
    for vpn in namespaces():
        with Inside(vpn):
            state.update(kernel_rows(vpn))
        state[f"vpn {vpn} alive"] = str(vpn in alive)
    for rows in (file_rows(), message_rows(alive), oper_rows()):
        state.update(rows)
    return state


# --- what differs on purpose ---

@dataclass(frozen=True)
class Configured:
    """What the state is of."""
    tree: dict
    left_ports: frozenset = frozenset() # have been in a bridge without a VLAN and are no more
    stale: dict = field(default_factory=dict) # of oracle_told.stale_rows; empty after a start


@dataclass(frozen=True)
class Difference:
    """What is taken out of a state before it is compared, and why a restart may change it."""
    what: str
    reason: str
    take_out: Callable  # (state, Configured) -> state


def without(pattern):
    matches = re.compile(pattern).search
    return lambda state, _: {key: value for key, value in state.items() if not matches(key)}


def taps_by_role(state, _):
    """loop0.3 and loop0.2003 of a VPN are called loop0.TAP and loop0.FP; a second one of a kind stands out."""
    new = {}
    for key, value in state.items():
        match = re.match(r"vpn (\d+) ", key)
        key = re.sub(r"\bloop0\.2\d{3}\b", "loop0.FP", re.sub(r"\bloop0\.\d{1,2}\b", "loop0.TAP", key))
        if match and key.endswith("loop0.TAP vlan") or key.endswith("loop0.FP vlan"):
            value = "of the VPN" if key not in new else new[key] + " twice"
        new[key] = value
    return new


def numbers_by_presence(state, _):
    return {key: "given" if re.fullmatch(r"oper .* (label|vrf-id)", key) and value != "0" else value
            for key, value in state.items()}


def allmulti_of_down_gone(state, _):
    return {key: re.sub(r"\bALLMULTI ?", "", value) if key.endswith(" flags") and "UP" not in value.split() else value
            for key, value in state.items()}


def sysctls_of_idle_ports_gone(state, configured):
    used = {oracle_config.kernel_name(name) for _, name, _ in oracle_config.interfaces(configured.tree)}
    used |= {oracle_config.kernel_name(port) for _, _, port, _ in oracle_config.members(configured.tree)}
    matches = re.compile(r"^vpn 0 link (ge\S+) ipv[46]/").match
    return {key: value for key, value in state.items() if not matches(key) or matches(key).group(1) in used}


def ipv6_of_down_links_gone(state, _):
    down = {tuple(key.split()[1:4:2]) for key, value in state.items() if key.endswith(" flags") and "UP" not in value.split()}

    def is_lost(key):
        words = key.split()
        if len(words) < 6 or ":" not in key:
            return False
        device = words[3] if words[2] == "link" else words[words.index("dev") + 1] if "dev" in words[:-1] else ""
        return (words[1], device) in down and (words[2] == "route" or words[4] in ("address", "secondary"))
    return {key: value for key, value in state.items() if not is_lost(key)}


def left_ports_gone(state, configured):
    ports = "|".join(map(oracle_config.kernel_name, configured.left_ports))
    matches = re.compile(rf"^vpn 0 (link ({ports})(\.\d+)? (flags|address|secondary)|route .* dev ({ports})(\.\d+)?$)").match
    return {key: value for key, value in state.items() if not (ports and matches(key))}


def unset_mgmt_port_gone(state, configured):
    port = oracle_config.tree_at(configured.tree, ("vpn", "vpn-instance", "512", "interface", "eth0"))
    matches = re.compile(r"^vpn 512 (link eth0 (flags|address|secondary)|route .* dev eth0$)").match
    is_unset = port is not None and "shutdown" not in port
    return {key: value for key, value in state.items() if not (is_unset and matches(key))}


def unset_irb_sizes_gone(state, configured):
    """The size of interfaces of bridges that have none configured."""
    own = {oracle_config.kernel_name(name) for _, name, leaves in oracle_config.interfaces(configured.tree)
           if "mtu" in leaves}
    matches = re.compile(r"^vpn \d+ link (irb\.\d+) mtu$").match
    return {key: value for key, value in state.items() if not ((found := matches(key)) and found.group(1) not in own)}


def unset_sizes_on_large_ports_gone(state, configured):
    """The size of tagged interfaces that have none configured: from 1500 to that of their ports, which is more."""
    ports, largest = oracle_config.ports_of_vpn0(configured.tree), {}
    for vpn, name, leaves in oracle_config.interfaces(configured.tree):
        if oracle_config.kind_of(name) == "subif" and "mtu" not in leaves:
            size = oracle_config.mtu_of(ports.get(name.split(".")[0], {}))
            device = oracle_config.kernel_name(name)
            largest |= {f"vpn {vpn} link {device} mtu": size, f"vpn 0 link {device.replace('ge', 'sim', 1)} mtu": size}
    return {key: value for key, value in state.items()
            if not (key in largest and 1500 <= int(value) <= largest[key] and largest[key] > 1500)}


def standin_macs_gone(state, configured):
    own = {oracle_config.kernel_name(name) for _, name, leaves in oracle_config.interfaces(configured.tree)
           if "mac-address" in leaves}
    standins = {match.groups() for match in (re.match(r"vpn (\d+) link (\S+\.\d+) kind$", key) for key in state)
                if match and state[match.group()] == "tun" and match.group(2) not in own}
    return {key: value for key, value in state.items()
            if not (key.endswith(" mac") and (key.split()[1], key.split()[3]) in standins)}


def as_after_a_start(what):
    """Rows that hold what they must before a restart get what they must have after it."""
    def take_out(state, configured):
        rows = {name: fresh for name, (held, fresh) in configured.stale.get(what, {}).items() if state.get(name) == held}
        return {name: value for name, value in (state | rows).items() if value is not None}
    return take_out


DIFFERENCES = (
    Difference("numbers of taps", "VRF indexes are handed out in the order in which VPNs come: by number after a restart",
               taps_by_role),
    Difference("labels and VRF indexes", "computed anew at each start, in the order in which VPNs and services come",
               numbers_by_presence),
    Difference("who listens to all groups on a link that is down",
               "raising sets it and lowering leaves it; a device made anew has never been up", allmulti_of_down_gone),
    Difference("kernel settings of ports that nothing is configured on",
               "set when a port is configured, and at the start; a port that comes back from a VPN has the kernel's",
               sysctls_of_idle_ports_gone),
    Difference("IPv6 addresses of links that are down",
               "the kernel drops them, and the daemon sets them again when zebra happens to tell of the link",
               ipv6_of_down_links_gone),
    Difference("state of ports that have left a bridge without a VLAN",
               "they stay as the bridge had them until something is set on them", left_ports_gone),
    Difference("state of a management port that is neither shut down nor raised",
               "each start raises it, so that the device can be reached; taking its setting back lowers it",
               unset_mgmt_port_gone),
    Difference("the size of a bridge's interface that has none configured",
               "it is made with that of its parent's VLANs, 2000, and gets 1500 when its setting is taken back",
               unset_irb_sizes_gone),
    Difference("the size of tagged interfaces that have none configured, on ports larger than 1500",
               "one is made as large as its port is then, and does not grow with it", unset_sizes_on_large_ports_gone),
    Difference("MAC addresses of tagged interfaces that have none of their own, on stand-ins for them",
               "a VLAN follows its port's address; a stand-in keeps the one that it was made with", standin_macs_gone),
    Difference("link-local addresses and routes of the table local",
               "the kernel makes them of others by itself, some after a random time", without(
                   r" (address|secondary) fe80:| route (local|255) | route main (fe80::/64|multicast|ff00::/8|anycast)")),
    *(Difference(cause.what, cause.reason, as_after_a_start(cause.what)) for cause in oracle_told.CAUSES),
)


def comparable(state, configured):
    for difference in DIFFERENCES:
        state = difference.take_out(state, configured)
    return state


def whole_links(state, other):
    """The links, as the beginnings of their keys, that only the first state has."""
    kinds = [key.removesuffix(" kind") for key in state if key.endswith(" kind") and key not in other]
    return [link for link in kinds if " link " in link]


def differences(before, after):
    """Lines of what is not the same, in two comparable states; of a link that is in one alone, just that."""
    gone, come = whole_links(before, after), whole_links(after, before)
    lines = [f"{link} only before the restart" for link in gone] + [f"{link} only after it" for link in come]
    for key in sorted(set(before) | set(after)):
        if before.get(key) != after.get(key) and not any(key.startswith(link + " ") for link in gone + come):
            lines += [key, f"    running:   {before.get(key, '(nothing)')!r}", f"    restarted: {after.get(key, '(nothing)')!r}"]
    return lines
