#!/usr/bin/env python3
"""Whether every VPN's daemons hold the configured policies, whatever commits of policies and VPNs fall together.

Runs inside a booted device. Each interleaving starts without policies and VPNs of its own; operators' sessions commit at
once (replay_interleavings.py), daemons of new VPNs come late so that commits queue behind them, and now and then the
cfgmgr is killed. At the end one more VPN is made, which is told everything as new. Then the logs of all daemons are
judged (replay_judge.py). An interleaving that fails is printed as lines to type, made as short as it still fails.

    lab/device -- python3 tests/harness/replay_property.py --seed 1 --interleavings 10
"""

import argparse
import json
import os
import random
import re
import signal
import subprocess
import sys
import threading
import time

import oracle_state
import replay_judge
from replay_interleavings import Commit, Generator, Wave, changes_of, end_states, lines_between, smaller, typed
from restart_oracle import Device, Problem, has_read, log_tail, wait_for

SESSIONS = 3
CONTROL = "/var/run/quagga/{}.control.{}"
NOBODY = "is its daemon running?" # said of a rule while the daemon that judges it is away
RETRY_LIMIT_S = 20
SETTLE_LIMIT_S = 4
POLL_S = 0.1
LAST_VPN = {"vpn vpn-instance 40": None}


class Logs:
    """The logs of the routing daemons, from a moment on."""

    def __init__(self):
        self.starts = {name: os.path.getsize(self.path(name)) for name in self.names()}

    @staticmethod
    def path(name):
        return os.path.join(oracle_state.ROUTING_LOG_DIR, name)

    @staticmethod
    def names():
        return [name for name in os.listdir(oracle_state.ROUTING_LOG_DIR)
                if re.fullmatch(r"(zebra|ospfd|bgpd)\.log(\.\d+)?", name)]

    def lives(self):
        alive = oracle_state.vpns_alive()
        for name in self.names():
            daemon, _, vpn = name.partition(".log")
            with open(self.path(name), "rb") as file:
                file.seek(self.starts.get(name, 0))
                text = file.read().decode(errors="replace")
            vpn = vpn.removeprefix(".") or "0"
            yield from replay_judge.lives_of(vpn, daemon, text[:text.rfind("\n") + 1], vpn in alive)


# --- typing ---

class Session:
    """What one operator types in a wave; one who has patience types again what was refused for want of a daemon."""

    def __init__(self, state, commits, is_patient):
        self.state, self.commits, self.is_patient = state, commits, is_patient
        self.problem = None
        self.thread = threading.Thread(target=self.run)
        self.thread.start()

    def run(self):
        limit = time.monotonic() + RETRY_LIMIT_S
        for commit in self.commits:
            time.sleep(commit.pause_s)
            lines = lines_between(self.state, commit.state)
            for vpn in re.findall(r"^set vpn vpn-instance (\d+)$", "\n".join(lines), re.MULTILINE):
                late_set(vpn, commit.late_ms)
            while (said := type_lines(lines)) and self.is_patient and NOBODY in said and time.monotonic() < limit:
                time.sleep(POLL_S / 10)
            if said:
                self.problem = f"a session was refused something:\n{said}"
                return
            self.state = commit.state


def type_lines(lines):
    """What the CLI said of a commit of the lines when it was refused, else nothing."""
    if not lines:
        return ""
    done = subprocess.run(["cli"], input="\n".join(["configure", *lines, "commit\n"]), stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True, errors="replace", check=False)
    return (done.stdout or f"status {done.returncode}") if done.returncode != 0 else ""


def late_set(vpn, late_ms):
    with open(CONTROL.format("ospfd", vpn), "w", encoding="utf-8") as file:
        file.write(f"late {late_ms}\n" if late_ms else "")


def wave_type(device, states, wave):
    old = device.pid()
    sessions = [(number, Session(states.get(number, {}), commits, wave.with_restart))
                for number, commits in enumerate(wave.sessions) if commits]
    if wave.with_restart:
        os.kill(old, signal.SIGKILL)
    for number, session in sessions:
        session.thread.join()
        states[number] = session.state
        if session.problem:
            raise Problem(session.problem)
    if wave.with_restart:
        wait_for(lambda: device.pid() not in (0, old) and has_read(device.pid()), "the daemon to be back")


# --- one interleaving ---

def is_idle(pid):
    """Nobody delivers or waits for a delivery."""
    done = subprocess.run(["agent_cmd", "status", "--json"], capture_output=True, text=True, check=True)
    return json.loads(done.stdout)["transactions"]["queued"] == 0 and has_read(pid)


def interleaving_run(device, interleaving):
    """Raises Problem."""
    states, logs, old = {}, Logs(), device.pid()
    try:
        for wave in interleaving:
            wave_type(device, states, wave)
        wave_type(device, {}, Wave([[Commit(LAST_VPN)]]))
        if device.pid() != old and not any(wave.with_restart for wave in interleaving):
            raise Problem("the daemon has ended:\n" + "\n".join(log_tail()))
        lines = settled_problems(device, logs, interleaving)
        if lines:
            raise Problem("\n".join(lines))
    finally:
        reset()


def settled_problems(device, logs, interleaving):
    """A replay may still be on its way, so what is wrong must stay so."""
    has_restart = any(wave.with_restart for wave in interleaving)
    changes = None if has_restart else changes_of(interleaving)
    limit = time.monotonic() + SETTLE_LIMIT_S
    while True:
        wait_for(lambda: is_idle(device.pid()), "the queue of commits to be empty")
        lines = list(replay_judge.problems(list(logs.lives()), changes, end_states(interleaving).values()))
        if not lines or time.monotonic() > limit:
            return lines
        time.sleep(POLL_S)


def reset():
    """No VPNs and policies but those that the device came with."""
    for name in os.listdir("/var/run/quagga"):
        if ".control." in name:
            os.unlink(f"/var/run/quagga/{name}")
    wait_for(lambda: (pid := Device.pid()) != 0 and has_read(pid), "the daemon")
    done = subprocess.run(["cli", "-c", "show configuration | display set"], capture_output=True, text=True, check=True)
    tops = {match.group(1) for match in re.finditer(
        r"^set (policy route-policy|policy lists \S+ \S+|vpn vpn-instance [1-4][01])\b", done.stdout, re.MULTILINE)}
    if tops:
        lines = "".join(f"delete {top}\n" for top in sorted(tops))
        subprocess.run(["cli"], input=f"configure\n{lines}commit\n", capture_output=True, text=True, check=True)


def problem_of(device, interleaving):
    """The text of what is wrong with it, None when it passes."""
    try:
        interleaving_run(device, interleaving)
        return None
    except Problem as problem:
        return str(problem)


def shrink(device, interleaving, problem, limit_s):
    """The shortest one found in that time that fails too, and how it fails."""
    end, is_shorter = time.monotonic() + limit_s, True
    while is_shorter:
        is_shorter = False
        for candidate in smaller(interleaving):
            if time.monotonic() > end:
                return interleaving, problem
            found = problem_of(device, candidate)
            if found:
                interleaving, problem, is_shorter = candidate, found, True
                break
    return interleaving, problem


# --- the program ---

def arguments_parse():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--interleavings", type=int, default=10)
    parser.add_argument("--only", type=int, help="the one interleaving of this number")
    parser.add_argument("--most-failures", type=int, default=2, help="stop after so many")
    parser.add_argument("--shrink-s", type=float, default=120, help="seconds to spend on making a failing one shorter")
    return parser.parse_args()


def main():
    arguments = arguments_parse()
    device = Device(signal.SIGKILL)
    passed = failed = 0
    for number in range(arguments.interleavings) if arguments.only is None else [arguments.only]:
        interleaving = Generator(random.Random(f"{arguments.seed}.{number}"), SESSIONS).interleaving()
        start = time.monotonic()
        problem = problem_of(device, interleaving)
        print(f"{'ok  ' if problem is None else 'FAIL'} interleaving {number}, {time.monotonic() - start:.1f} s", flush=True)
        if problem is None:
            passed += 1
            continue
        failed += 1
        print("\n".join(f"    {line}" for line in problem.splitlines()), flush=True)
        interleaving, problem = shrink(device, interleaving, problem, arguments.shrink_s)
        print("\n".join(f"    {line}" for line in [*typed(interleaving), *problem.splitlines()]), flush=True)
        if failed >= arguments.most_failures:
            break
    print(f"{passed} passed, {failed} failed")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
