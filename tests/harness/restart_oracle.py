#!/usr/bin/env python3
"""Whether the daemon that has lived through commits and one that reads everything anew leave the device the same.

Runs inside a booted device. Each sequence starts from the least configuration, makes random commits, and takes down what
the device is like: kernel objects, files, what routing daemons were told, operational data. Then the daemon is restarted, and
must come to the same. What differs on purpose is in the table DIFFERENCES of oracle_state.py. Every device that is there
must also be one that the configuration has. A sequence that fails is made as short as it still fails, and printed as the
lines to type, with what differs.

    lab/device -- python3 tests/harness/restart_oracle.py --seed 1 --sequences 20
"""

import argparse
import dataclasses
import json
import os
import random
import re
import signal
import subprocess
import sys
import tempfile
import time

import oracle_config
import oracle_generate
import oracle_state
import oracle_told

PID_FILE = "/run/cfgmgr.0.pid"
DEVICE_LOG = "/var/log/device.log"
COMMIT_LIMIT_S = 120
RESTART_LIMIT_S = 60
PORT_UP_S = 2.3     # a port that is raised comes up two seconds later
SETTLE_LIMIT_S = 8  # for what the kernel and the routing daemons do behind that
POLL_S = 0.1


class Problem(Exception):
    """What makes a sequence fail; the text is for people."""


class Device:
    """The device that the program is in, and the configuration that it has."""

    def __init__(self, end_signal):
        self.end_signal = end_signal
        self.tree = {}
        self.raised_at = 0.0
        self.fixed = set()     # (VPN, device) of what is there whatever is configured
        self.bridged = set()   # ports that have been in a bridge without a VLAN since the daemon's start
        self.told = {}         # of oracle_told
        self.known_pid = 0     # of the daemon that these two are about

    # changes

    def commit(self, edits):
        new = oracle_config.commit_apply(self.tree, edits) if self.tree else oracle_config.tree_base()
        lines = [edit.line() for edit in edits] if self.tree else list(oracle_config.BASE_LINES)
        with tempfile.NamedTemporaryFile("w", suffix=".cfg") as file:
            file.write("\n".join(lines) + "\n")
            file.flush()
            done = subprocess.run(["cli", "--commit", file.name], stdin=subprocess.DEVNULL, capture_output=True, text=True,
                                  errors="replace", timeout=COMMIT_LIMIT_S, check=False)
        if done.returncode != 0:
            raise Problem(f"the commit was refused:\n{done.stdout}{done.stderr}")
        self.told = oracle_told.told_after(self.told, self.tree, new)
        self.tree = new
        self.bridged |= oracle_config.untagged_ports(new)
        self.raised_at = time.monotonic()

    def reset(self):
        """To the least configuration; the first time, the one that the device came with is taken to be empty."""
        if self.pid() != self.known_pid:
            self.started()
        for edits in list(oracle_config.edits_to_base(self.tree)) if self.tree else [[]]:
            if edits or not self.tree:
                self.commit(edits)

    # the daemon

    @staticmethod
    def pid():
        try:
            with open(PID_FILE, encoding="utf-8") as file:
                return int(file.read() or 0)
        except (FileNotFoundError, ValueError):
            return 0

    def restart(self):
        old = self.pid()
        os.kill(old, self.end_signal)
        wait_for(lambda: self.pid() not in (0, old) and has_read(self.pid()), "the daemon to be back")
        self.raised_at = time.monotonic()
        self.started()

    def started(self):
        """The daemon has read the configuration, and knows of nothing before it."""
        self.known_pid = self.pid()
        self.bridged = oracle_config.untagged_ports(self.tree)
        self.told = oracle_told.told_after({}, {}, self.tree)

    # what it is like

    def settled(self, configured, is_done):
        """The state once it holds still and is as wished, or has had the time to become so."""
        wait_s = PORT_UP_S if oracle_config.raised_ports(self.tree) else 0
        time.sleep(max(0.0, self.raised_at + wait_s - time.monotonic()))
        limit, before = time.monotonic() + SETTLE_LIMIT_S, None
        while True:
            state = oracle_state.comparable(oracle_state.capture(), configured)
            if state == before and is_done(state) or time.monotonic() > limit:
                return state
            before = state
            time.sleep(POLL_S)

    def configured(self):
        raised_or_lowered = {name for name, leaves in oracle_config.ports_of_vpn0(self.tree).items() if "shutdown" in leaves}
        return oracle_state.Configured(
            self.tree, frozenset(self.bridged - oracle_config.untagged_ports(self.tree) - raised_or_lowered),
            oracle_told.stale_rows(self.told, self.tree))

    def ports_down(self, state):
        """Ports that should be up, and are not yet."""
        ports = oracle_config.raised_ports(self.tree)
        return [f"  VPN {vpn}: {name} is down\n" for vpn, name in sorted(ports)
                if "UP" not in state.get(f"vpn {vpn} link {name} flags", "").split()]

    def check_devices(self, state):
        """Everything configured is there, and up, and nothing else is there."""
        there = {match.groups() for match in (re.match(r"vpn (\d+) link (\S+) kind$", key) for key in state) if match}
        if not self.fixed:
            self.fixed = {pair for pair in there if pair[0] in ("0", "512", "65530")}
        wanted = oracle_config.devices_of(self.tree)
        taps = {(vpn, tap) for vpn in oracle_config.vpns(self.tree) for tap in ("loop0.TAP", "loop0.FP") if vpn != "0"}
        tunnels = {pair for pair in there if pair[1].startswith("gre")}
        moved = {("0", name) for vpn, name in wanted if vpn != "0"}
        strange = there - (self.fixed - moved) - wanted - taps - tunnels
        missing = ((self.fixed - moved) | wanted | taps) - there
        down = self.ports_down(state)
        if strange or missing or down:
            raise Problem("devices that are not as configured:\n" + "".join(down)
                          + "".join(f"  VPN {vpn} has {name}\n" for vpn, name in sorted(strange))
                          + "".join(f"  VPN {vpn} has no {name}\n" for vpn, name in sorted(missing)))


def has_read(pid):
    """Whether the daemon has done its initial read, and read the policies for new VPNs: then the threads that read have
    closed their connections to the agent."""
    done = subprocess.run(["agent_cmd", "status", "--json"], capture_output=True, text=True, check=False,
                          timeout=RESTART_LIMIT_S)
    if done.returncode != 0:
        return False
    kinds = [kind for client in json.loads(done.stdout)["clients"] if client["pid"] == pid for kind in client["kinds"]]
    return "subscription" in kinds and kinds.count("data") == 1


def wait_for(condition, what):
    """The condition must hold twice in a row."""
    end, held = time.monotonic() + RESTART_LIMIT_S, 0
    while held < 2:
        if time.monotonic() > end:
            raise Problem(f"waited {RESTART_LIMIT_S} s for {what}")
        held = held + 1 if condition() else 0
        time.sleep(POLL_S)


def log_tail(count=25):
    with open(DEVICE_LOG, encoding="utf-8", errors="replace") as file:
        return "".join(line for line in file.readlines()[-400:] if "CFGMGR" in line or "sysmgrd" in line).splitlines()[-count:]


# --- one sequence ---

def sequence_run(device, commits):
    """Raises Problem."""
    device.reset()
    pid = device.pid()
    for commit in commits:
        device.commit(commit.edits())
        if device.pid() != pid:
            raise Problem("the daemon has ended in a commit:\n" + "\n".join(log_tail()))
    wait_for(lambda: has_read(pid), "new VPNs to be told the policies")
    configured = device.configured()
    before = device.settled(configured, lambda state: not device.ports_down(state))
    device.check_devices(before)
    device.restart()
    after = device.settled(dataclasses.replace(configured, stale={}), lambda state: state == before)
    lines = oracle_state.differences(before, after)
    if lines:
        raise Problem("\n".join(lines))


def problem_of(device, commits):
    """The text of what is wrong with it, None when it passes. Leaves a daemon that has read everything."""
    try:
        sequence_run(device, commits)
        return None
    except Problem as problem:
        text = str(problem)
    except subprocess.TimeoutExpired as error:
        text = f"not done after {error.timeout} s: {error.cmd}"
    wait_for(lambda: device.pid() != 0 and has_read(device.pid()), "the daemon after a failure")
    return text


# --- shrinking ---

def smaller(commits):
    """Sequences with less in them, those that drop most first."""
    for index in reversed(range(len(commits))):
        yield commits[:index] + commits[index + 1:]
    for index, commit in enumerate(commits[1:], 1):
        joined = oracle_config.Commit(commits[index - 1].groups + commit.groups)
        yield commits[:index - 1] + [joined] + commits[index + 1:]
    for index, commit in enumerate(commits):
        for group in reversed(range(len(commit.groups))):
            rest = oracle_config.Commit(commit.groups[:group] + commit.groups[group + 1:])
            yield commits[:index] + [rest] + commits[index + 1:]
    for index, commit in enumerate(commits):
        for at, group in enumerate(commit.groups):
            for line in reversed(range(len(group) if len(group) > 1 else 0)):
                rest = oracle_config.Commit(commit.groups[:at] + [group[:line] + group[line + 1:]] + commit.groups[at + 1:])
                yield commits[:index] + [rest] + commits[index + 1:]


def same_kind(problem, other):
    """Whether two failures are likely of one cause: their first lines tell of the same thing."""
    def first(text):
        return re.sub(r"\d+|0x[0-9a-f]+", "N", text.splitlines()[0])
    return first(problem) == first(other)


def shrink(problem_found, commits, problem, tries):
    """The shortest sequence found that fails in the same way, and how it fails; the function gives a sequence's problem."""
    is_shorter = True
    while is_shorter and tries > 0:
        is_shorter = False
        for candidate in smaller(commits):
            candidate = [commit for commit in candidate if commit.groups]
            if oracle_config.sequence_end(candidate) is None:
                continue
            tries -= 1
            found = problem_found(candidate)
            if found and same_kind(found, problem):
                commits, problem, is_shorter = candidate, found, True
                break
            if tries <= 0:
                break
    return commits, problem


# --- the program ---

def failure_print(commits, problem):
    for commit in commits:
        for edit in commit.edits():
            print(f"    {edit.line()}")
        print("    commit")
    print("\n".join("    " + line for line in problem.splitlines()), flush=True)


def arguments_parse():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--sequences", type=int, default=8)
    parser.add_argument("--commits", type=int, default=6, help="most commits behind the first of a sequence")
    parser.add_argument("--only", type=int, help="the one sequence of this number")
    parser.add_argument("--most-failures", type=int, default=3, help="stop after so many")
    parser.add_argument("--shrink-tries", type=int, default=60, help="sequences to run to make a failing one shorter")
    parser.add_argument("--kill", action="store_true", help="the daemon does not end in order, it is killed")
    return parser.parse_args()


def main():
    arguments = arguments_parse()
    device = Device(signal.SIGKILL if arguments.kill else signal.SIGUSR2)
    device.reset()
    device.check_devices(device.settled(device.configured(), lambda state: True))
    passed = failed = 0
    for number in range(arguments.sequences) if arguments.only is None else [arguments.only]:
        commits = oracle_generate.Generator(random.Random(f"{arguments.seed}.{number}")).sequence(arguments.commits)
        start = time.monotonic()
        problem = problem_of(device, commits)
        size = f"{len(commits)} commits, {sum(len(commit.edits()) for commit in commits)} lines"
        print(f"{'FAIL' if problem else 'ok  '} sequence {number} ({size}, {time.monotonic() - start:.1f} s)", flush=True)
        passed, failed = passed + (not problem), failed + bool(problem)
        if problem:
            print(f"{problem}\nmade shorter ({arguments.shrink_tries} tries at most):", flush=True)
            failure_print(*shrink(lambda shorter: problem_of(device, shorter), commits, problem, arguments.shrink_tries))
        if failed >= arguments.most_failures:
            break
    print(f"{passed} passed, {failed} failed")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
