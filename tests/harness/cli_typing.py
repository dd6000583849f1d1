#!/usr/bin/env python3
"""Types at the operator's CLI, on a terminal of its own in configuration mode, and prints what it shows.

    cli_typing.py LINE...

A LINE may hold \\t for a tab, and "?" works as on a keyboard. One that ends in \\n is run, and nothing is printed of it.
Of the others the words below the line are printed, one a line, and behind "> " the line as it then stands; it is given up
after that. The session's changes are as well.
"""

import fcntl
import os
import pty
import select
import struct
import sys
import termios
import time

LIMIT_S = 20
WINDOW = struct.pack("HHHH", 1000, 400, 0, 0)   # so high and wide that nothing is paged or wrapped
PROMPT = "(config)# "
GIVE_UP = "\x15"


def screen_of(data):
    """The lines that a terminal shows after these bytes."""
    lines, column = [[]], 0
    for character in data.decode(errors="replace"):
        if character == "\n":
            lines.append([])
        elif character == "\r":
            column = 0
        elif character == "\b":
            column = max(column - 1, 0)
        elif character >= " ":
            line = lines[-1]
            line.extend(" " * (column + 1 - len(line)))
            line[column] = character
            column += 1
    return ["".join(line) for line in lines]


class Terminal:
    def __init__(self):
        pid, self.fd = pty.fork()
        if pid == 0:
            os.environ.update(TERM="dumb", HOME="/tmp")
            os.execvp("cli", ["cli"])
        fcntl.ioctl(self.fd, termios.TIOCSWINSZ, WINDOW)
        self.marks = 0
        self.type("configure\n", PROMPT)

    def type(self, keys, expected):
        """The screen from these keys on, once its last line ends as expected."""
        os.write(self.fd, keys.encode())
        seen, end = b"", time.monotonic() + LIMIT_S
        while time.monotonic() < end:
            if select.select([self.fd], [], [], 0.1)[0]:
                seen += os.read(self.fd, 65536)
                lines = screen_of(seen)
                if lines[-1].endswith(expected):
                    return lines
        sys.exit(f"the command line has not shown {expected!r} behind {keys!r}: {seen!r}")

    def show(self, line):
        self.marks += 1
        mark = f"@{self.marks}@"
        *above, last = self.type(GIVE_UP + line + mark, mark)
        for shown in above:
            if shown.strip() and PROMPT not in shown:
                print(shown.strip())
        print("> " + last.split(PROMPT)[-1].removesuffix(mark).rstrip())


def main(lines):
    terminal = Terminal()
    for line in (text.replace("\\t", "\t").replace("\\n", "\n") for text in lines):
        if line.endswith("\n"):
            terminal.type(GIVE_UP + line, PROMPT)
        else:
            terminal.show(line)


if __name__ == "__main__":
    main(sys.argv[1:])
