"""Whether what daemons of policies were told is what they should have been, for replay_property.py.

The daemons of VPN 0 live as long as the cfgmgr and are told every change once: their log is the measure. A VPN that comes
later is told what there is at one moment, each object once, and from there on exactly what VPN 0 is told. So its log must
be, for some moment of VPN 0's log: the state at that moment as created, then the rest of VPN 0's log.
"""

import json
from collections import Counter
from dataclasses import dataclass

import routing_objects
from replay_interleavings import DAEMONS, object_of

MEMBER_FIELDS = ("regex", "community", "prefix", "sequence")


@dataclass
class Life:
    """One life of one daemon: the messages of policies that it was told, as lines."""
    vpn: str
    daemon: str
    lines: list
    is_over: bool = False # another one has begun, or the VPN is gone

    def name(self):
        return f"{self.daemon} of VPN {self.vpn}" + (" that is gone" if self.is_over else "")


def lives_of(vpn, daemon, text, is_alive):
    """Of a part of the daemon's log. What stands before the first start in it belongs to a life that began earlier."""
    lives = [Life(vpn, daemon, [])]
    for line in text.splitlines(keepends=True):
        row = json.loads(line)
        if row["type"] == "start":
            lives[-1].is_over = True
            lives.append(Life(vpn, daemon, []))
        elif row["type"] in DAEMONS and (row["type"], row["number"]) not in routing_objects.QUESTIONS:
            lives[-1].lines.append(line)
    lives[-1].is_over = lives[-1].is_over or not is_alive
    return lives


def message_of(line):
    row = json.loads(line)
    return row["type"], json.dumps(row["message"], sort_keys=True)


def object_told(line):
    """As replay_interleavings.object_of; a default action is the policy's own."""
    row = json.loads(line)
    message = row["message"]
    member = next((message[field] for field in MEMBER_FIELDS if field in message), None)
    if row["type"] != "m_route_map" and isinstance(member, dict):
        member = member["prefix"]
    if row["type"] == "m_route_map":
        member = message.get("sequence")
        member = None if member in (None, 0, 65535) else str(member)
    return row["type"], message["name"], member


def objects(lines):
    return {key: fields for key, fields in routing_objects.fold(lines).items() if key[0] in routing_objects.POLICIES}


def takes_away(line):
    message = json.loads(line)["message"]
    return any(message.get(f"{word}_is_deleted") for word in ("list", "entry", "prefix", "route_map"))


def is_replay(lines, state):
    """Whether the lines make the state of nothing, each object told once."""
    told = Counter(object_told(line) for line in lines)
    return max(told.values(), default=1) == 1 and not any(map(takes_away, lines)) and objects(lines) == state


class Measure:
    """A life of a daemon of VPN 0, whose policies were empty as it began."""

    def __init__(self, life):
        self.messages = [message_of(line) for line in life.lines]
        self.states = [objects(life.lines[:end]) for end in range(len(life.lines) + 1)]

    def fits(self, life):
        """Whether the other's life is a replay at some moment and what followed. One that is over may have ended early."""
        messages, end = [message_of(line) for line in life.lines], len(self.messages)
        for at in range(end + 1):
            for until in range(at, end + 1) if life.is_over else (end,):
                told = len(messages) - (until - at)
                if told >= 0 and messages[told:] == self.messages[at:until] and (
                        is_replay(life.lines[:told], self.states[at]) or life.is_over and not told):
                    return True
        return False


def out_of_step(measure, life):
    """Why a life does not fit, for people."""
    has, wanted = objects(life.lines), measure.states[-1]
    yield f"{life.name()} is not VPN 0's state at one moment and what followed"
    if not life.is_over:
        yield from (f"  it holds {key} {has.get(key, 'not')}, VPN 0's {wanted.get(key, 'not')}"
                    for key in sorted(set(has) | set(wanted), key=str) if has.get(key) != wanted.get(key))
    yield from (f"  {json.loads(line)['time']} {' '.join(message_of(line))}" for line in life.lines)


def measure_problems(life, changes):
    """What is wrong with what VPN 0 was told; the changes as a Counter of objects."""
    told = Counter(object_told(line) for line in life.lines)
    wanted = Counter({one: count for one, count in changes.items() if life.daemon in DAEMONS[one[0]]})
    for one in sorted(set(told) | set(wanted), key=str):
        if told[one] != wanted[one]:
            yield f"{life.name()} was told {told[one]} times of {' '.join(map(str, one))}, it has changed {wanted[one]} times"


def holding_problems(life, measure, states):
    """What VPN 0's daemon holds beyond what is configured, or not."""
    configured = {one for state in states for path in state for one in [object_of(path)]
                  if one and life.daemon in DAEMONS[one[0]] and (one[2] is not None or one[0] == "m_route_map")}
    held = {(message, name, member) for message, name, member in map(object_held, measure.states[-1])}
    # An empty list is none to a daemon, and a policy without a clause is known by nothing but its name.
    held |= {one for one in configured if one[2] is None}
    held = {one for one in held if one[2] is not None or one in configured}
    yield from (f"{life.name()} does not hold {' '.join(map(str, one))}" for one in sorted(configured - held, key=str))
    yield from (f"{life.name()} still holds {' '.join(map(str, one))}" for one in sorted(held - configured, key=str))


MESSAGE_OF_KEY = {"prefix-list": "m_prefix_list", "as-path-list": "m_bgp_as_path_list", "route-map": "m_route_map",
                  "community-list": "m_bgp_community_list", "ext-community-list": "m_bgp_ext_community_list"}


def object_held(key):
    member = None if key[0] == "route-map" and key[2:] in ((), ("65535",), ("0",), ("None",)) else " ".join(key[2:])
    return MESSAGE_OF_KEY[key[0]], key[1], member


def problems(lives, changes, states):
    """Lines about all that is wrong; lives of all daemons since the policies were empty. Without changes, the cfgmgr has
    been another one: what it said while it read everything is not in order, and what is held in the end counts."""
    for daemon in ("bgpd", "ospfd", "zebra"):
        own = [life for life in lives if life.daemon == daemon and (changes is not None or not life.is_over)]
        life = next(life for life in own if life.vpn == "0" and not life.is_over)
        measure = Measure(life)
        if changes is not None:
            yield from measure_problems(life, changes)
        yield from holding_problems(life, measure, states)
        for other in own:
            is_right = measure.fits(other) if changes is not None else objects(other.lines) == measure.states[-1]
            if not is_right:
                yield from out_of_step(measure, other)
