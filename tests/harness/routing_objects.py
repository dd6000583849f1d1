"""What a routing daemon holds, from what it was told: the messages of its log folded into objects.

    objects = routing_objects.fold(lines)    # {("bgp", "65000", "neighbor", "10.0.0.2"): {"remote_as": 65001}}

The key of an object is a path, so that what lies below another object begins with its key. A field that is told replaces
what was there, one that is taken back is gone, and 0 counts as not there where nothing else takes a number back. With an
object goes all that lies below it, as a daemon would have it. Only what was told since the daemon's last start counts.
"""

import json
import re
from dataclasses import dataclass, field

# First words of the keys of what is configured once for all VPNs.
POLICIES = ("as-path-list", "community-list", "ext-community-list", "prefix-list", "route-map")


@dataclass(frozen=True)
class Kind:
    """One type of messages. Paths are keys; a word in braces is the value of that field."""
    path: str
    gone: dict                                 # field that is true -> path of what goes, with all below it
    zeros: tuple = ()                          # numbers of which 0 is a value, by patterns of their names
    apart: dict = field(default_factory=dict)  # field -> path of an object of its own, which nothing takes along
    above: str = ""                            # path of an object that is there as soon as it is named
    is_bare: bool = True                       # whether an object without any field is one


def object_kind(path, **rest):
    return Kind(path, {"entry_is_deleted": path}, **rest)


def list_kind(name, member):
    path = f"{name} {{name}} {{{member}}}"
    return Kind(path, {"entry_is_deleted": path, "prefix_is_deleted": path, "list_is_deleted": f"{name} {{name}}"}, ("[gl]e",))


FAMILY = "bgp {as_num} family {address_family}"
NEIGHBOR = "bgp {as_num} neighbor {neighbor}"
NEIGHBOR_FAMILY = NEIGHBOR + " family {address_family}"
AREA = "ospf area {area}"
MAP = "route-map {name}"
CLAUSE = MAP + " {sequence}"

KINDS = {
    "m_system_routerid": Kind("router-id", {}, is_bare=False),
    "m_rtm_route_map_ospf": object_kind("ospf-routes {direction}"),
    "m_bgp_instance": object_kind("bgp {as_num}"),
    "m_bgp_address_family": object_kind(FAMILY),
    "m_bgp_address_family_redistribute": object_kind(FAMILY + " redistribute {protocol}"),
    "m_bgp_address_family_aggregate_address": object_kind(FAMILY + " aggregate {ipv4_prefix}"),
    "m_bgp_address_family_network": object_kind(FAMILY + " network {ipv4_prefix}"),
    "m_bgp_neighbor": object_kind(NEIGHBOR),
    "m_bgp_neighbor_address_family": object_kind(NEIGHBOR_FAMILY),
    "m_bgp_neighbor_address_family_route_map": object_kind(NEIGHBOR_FAMILY + " policy {direction}"),
    # Told of a VPN as soon as it is there, with OSPF or without: the one field.
    "m_ospf_instance": object_kind("ospf", zeros=("default_originate_metric_type",),
                                   apart={"ignore_down_bit": "ospf-down-bit"}, is_bare=False),
    "m_ospf_redistribute": object_kind("ospf redistribute {protocol}"),
    "m_ospf_max_metric": object_kind("ospf max-metric {advertise}"),
    "m_ospf_area": object_kind(AREA),
    "m_ospf_area_interface": object_kind(AREA + " interface {interface}"),
    "m_ospf_area_interface_address": object_kind(AREA + " interface {interface} address {prefix}"),
    "m_ospf_area_range": object_kind(AREA + " range {prefix}"),
    "m_bgp_as_path_list": list_kind("as-path-list", "regex"),
    "m_bgp_community_list": list_kind("community-list", "community"),
    "m_bgp_ext_community_list": list_kind("ext-community-list", "community"),
    "m_prefix_list": list_kind("prefix-list", "prefix"),
    "m_route_map": Kind(CLAUSE, {"seq_is_deleted": CLAUSE, "route_map_is_deleted": MAP}, (".*",), above=MAP),
}
NO_CLAUSE = "None" # of a clause in a message about the whole map, which has no number

# Messages that only ask: type and number on the wire.
QUESTIONS = {("m_bgp_neighbor", 14), ("m_bgp_as_path_list", 15), ("m_ospf_instance", 1)}

# What a log has beside configuration.
OTHERS = {"start", "notification-socket-up", "m_rtm_control"} | {
    f"m_{daemon}_{word}" for daemon in ("rtm", "ospf", "bgp") for word in ("show", "clear", "debug")}

# Fields that take back others than their names say.
TAKEN_BACK = {
    "set_local_pref_is_deleted": ("set_local_preference",),
    "set_aggregator_is_deleted": ("set_aggr_as_num", "set_aggr_ip_addr"),
    "set_as_exclude_is_deleted": ("set_as_path_exclude",),
    "set_as_prepend_is_deleted": ("set_as_path_prepend",),
}

# Fields that mean something only beside another.
BESIDE = {"stub_no_summary": "stub", "nssa_no_summary": "nssa", "translate_role": "nssa"}


def rows(lines):
    """The rows of a log since the daemon's last start, without one that is still being written."""
    found = []
    for line in lines:
        if not line.endswith("\n"):
            break
        row = json.loads(line)
        if row["type"] == "start":
            found = []
        found.append(row)
    return found


def plain(value):
    """Addresses and prefixes as text."""
    return value.get("address") or value.get("prefix") if isinstance(value, dict) else value


def key_of(path, message):
    words = [str(message.get(word[1:-1])) if word.startswith("{") else word for word in path.split()]
    return tuple(words)


def remove(objects, key):
    for below in [one for one in objects if one[:len(key)] == key]:
        del objects[below]


def is_told(name, value, zeros):
    return bool(value) or value is not False and any(re.fullmatch(pattern, name) for pattern in zeros)


def fields_apply(there, told, zeros):
    for name, value in told.items():
        if name.endswith("_is_deleted") and value:
            for taken in TAKEN_BACK.get(name, (name.removesuffix("_is_deleted"),)):
                there.pop(taken, None)
    for name, value in told.items():
        if not name.endswith("_is_deleted"):
            there.pop(name, None)
            if is_told(name, value, zeros):
                there[name] = value
    for name, other in BESIDE.items():
        if other not in there:
            there.pop(name, None)


def object_apply(objects, what, message):
    key = key_of(what.path, message)
    told = {name: value for name, value in message.items() if f"{{{name}}}" not in what.path.split()}
    for name, path in what.apart.items():
        if name in told:
            objects[key_of(path, message)] = {name: told.pop(name)}
            if not told:
                return
    if what.above:
        objects.setdefault(key_of(what.above, message), {})
    if what.above and "sequence" not in message:
        return # about the map as a whole
    there = objects.setdefault(key, {})
    fields_apply(there, told, what.zeros)
    if not there and not what.is_bare:
        del objects[key]


def row_apply(objects, row):
    """Changes the objects by one message. KeyError when it is of a type that nobody knows."""
    name = row["type"]
    if name in OTHERS or (name, row.get("number")) in QUESTIONS:
        return
    what, message = KINDS[name], {word: plain(value) for word, value in row["message"].items()}
    gone = [key_of(path, message) for word, path in what.gone.items() if message.get(word)]
    for key in gone:
        remove(objects, key)
    if not gone:
        object_apply(objects, what, message)


def fold(lines):
    """{key: {field: value}} of what the daemon holds that has this log."""
    objects = {}
    for row in rows(lines):
        row_apply(objects, row)
    return objects
