"""What the routing daemons of all VPNs were told, from their logs, and how tests write it.

A message is one line: the daemon, its VPN, the message's name, the fields that are present.

    bgpd 10 m_bgp_neighbor as_num=65000 neighbor=10.0.0.2 +shutdown remote_as=65546 password="P:a.s+s"

A value is JSON; a bare address or prefix is that sub-message; "+" stands for true, "-" for false. Daemons and VPNs may be
several, joined by commas: a message to each, daemon by daemon and in each VPN by VPN; "all" are the VPNs of the device that
have the daemon. A request for validation has "?" behind its name.
"""

import ipaddress
import itertools
import json
import os
import re
import time
from dataclasses import dataclass

LOG_DIR = "/var/log/quagga"
STATUS_FILE = "/var/run/sysmgrd.status"
NO_CONFIGURATION = {"start", "notification-socket-up", "m_rtm_control", "m_rtm_show", "m_ospf_show", "m_bgp_show"}
VALIDATIONS = {("ospfd", 1), ("bgpd", 14), ("bgpd", 15)}
ZEBRA_ONLY = "512"  # the VPN that has no other routing daemon
QUIET_S = 0.3


class Unreadable(Exception):
    """A line that is no message; the text says why."""


@dataclass(frozen=True)
class Message:
    daemon: str
    vpn: str
    name: str
    fields: str  # JSON, sorted

    def is_validation(self):
        return self.name.endswith("?")

    def line(self):
        words = [field_text(name, value) for name, value in json.loads(self.fields).items()]
        return " ".join([self.daemon, self.vpn, self.name, *words])


# --- text ---

def field_text(name, value):
    if isinstance(value, bool):
        return ("+" if value else "-") + name
    if isinstance(value, dict) and set(value) in ({"is_ipv4", "address"}, {"is_ipv4", "prefix"}):
        bare = value.get("address", value.get("prefix"))
        if sub_message(bare) == value:
            return f"{name}={bare}"
    return f"{name}={json.dumps(value, separators=(',', ':'))}"


def sub_message(text):
    """The message of an address or a prefix, None when it is neither."""
    address, slash, _ = text.partition("/")
    try:
        is_ipv4 = ipaddress.ip_address(address).version == 4
    except ValueError:
        return None
    return {"is_ipv4": is_ipv4, "prefix" if slash else "address": text}


def value_read(text):
    """The value that text begins with, and what follows it."""
    bare = text.partition(" ")[0]
    found = sub_message(bare)
    if found is not None:
        return found, text[len(bare):]
    try:
        value, end = json.JSONDecoder().raw_decode(text)
    except ValueError:
        raise Unreadable(f"no value: {text!r}") from None
    return value, text[end:]


def fields_read(text):
    fields, text = {}, text.strip()
    while text:
        match = re.match(r"([-+]?)(\w+)(=?)", text)
        if not match or bool(match.group(1)) == bool(match.group(3)):
            raise Unreadable(f"no field: {text!r}")
        name, rest = match.group(2), text[match.end():]
        fields[name], rest = value_read(rest) if match.group(3) else (match.group(1) == "+", rest)
        if rest and rest[0] != " ":
            raise Unreadable(f"no blank behind {name}: {rest!r}")
        text = rest.strip()
    return fields


def messages_make(daemons, vpns, name, fields):
    text = json.dumps(fields, sort_keys=True)
    return [Message(daemon, vpn, name, text) for daemon in daemons.split(",")
            for vpn in (vpns_alive(daemon) if vpns == "all" else vpns.split(","))]


def messages_read(line):
    words = line.split(None, 3)
    if len(words) < 3:
        raise Unreadable(f"no message: {line!r}")
    return messages_make(*words[:3], fields_read(words[3] if len(words) > 3 else ""))


def vpns_alive(daemon):
    with open(STATUS_FILE, encoding="utf-8") as file:
        rows = json.load(file)["routing"]
    return [str(vpn) for vpn in sorted({row["vpn"] for row in rows}) if daemon == "zebra" or str(vpn) != ZEBRA_ONLY]


# --- the logs ---

class RoutingLog:
    """Reads on from where the mark is; all that was there before it was made counts as read."""

    def __init__(self):
        self.seen = {}
        self.mark()

    def mark(self):
        self.seen = {path: os.path.getsize(path) for path in log_paths()}

    def since(self):
        """Messages since the mark, in the order in which they came: each was answered before the next was sent."""
        rows = itertools.chain.from_iterable(map(self._rows, log_paths()))
        return [message_of(row) for row in sorted(rows, key=lambda row: row["time"])
                if row["type"] not in NO_CONFIGURATION]

    def take(self):
        messages = self.since()
        self.mark()
        return messages

    def settle(self):
        """Marks where nothing has come for a while."""
        before = None
        while before != self.seen:
            before = self.seen
            time.sleep(QUIET_S)
            self.mark()

    def _rows(self, path):
        with open(path, encoding="utf-8", errors="replace") as file:
            file.seek(self.seen.get(path, 0))
            return [json.loads(line) for line in file if line.endswith("\n")]


def log_paths():
    if not os.path.isdir(LOG_DIR):
        return []
    return sorted(os.path.join(LOG_DIR, name) for name in os.listdir(LOG_DIR)
                  if re.fullmatch(r"(zebra|ospfd|bgpd)\.log(\.\d+)?", name))


def message_of(row):
    mark = "?" if (row["daemon"], row["number"]) in VALIDATIONS else ""
    return Message(row["daemon"], str(row["vpn"]), row["type"] + mark, json.dumps(row["message"], sort_keys=True))


def without_validations(messages):
    return [message for message in messages if not message.is_validation()]


def difference(wanted, there):
    """For people: both lists, what is in but one of them marked; what a daemon is told in several VPNs is one line."""
    def lines(ones, others):
        if not ones:
            yield "        (nothing)"
        known = set(others)
        for (daemon, name, fields, both), same in itertools.groupby(
                ones, lambda one: (one.daemon, one.name, one.fields, one in known)):
            yield ("          " if both else "        ! ") + Message(
                daemon, ",".join(one.vpn for one in same), name, fields).line()
    return "\n".join(["messages to routing daemons", "      wanted:", *lines(wanted, there), "      there:",
                      *lines(there, wanted)])
