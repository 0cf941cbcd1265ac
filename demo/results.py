"""What was expected, what was measured, and the words on the way."""

import sys
import time


class Results:
    def __init__(self, verbose=True):
        self.began = time.time()
        self.rows = []
        self.marks = []
        self.section = ""
        self.verbose = verbose

    def say(self, text):
        print(f"[{time.time() - self.began:6.1f} s] {text}", flush=True)

    def step(self, name):
        self.section = name
        self.mark(name)
        self.say(f"== {name}")

    def mark(self, text):
        """A point in time that the picture shows."""
        self.marks.append((time.time(), text))

    def check(self, what, expected, measured, good):
        self.rows.append((self.section, what, str(expected), str(measured), bool(good)))
        self.say(f"   {'ok ' if good else 'OFF'} {what}: {measured}" + ("" if good else f"  (expected {expected})"))
        return good

    def within(self, what, measured, low, high, unit):
        return self.check(what, f"{low:.4g} to {high:.4g} {unit}", f"{measured:.4g} {unit}", low <= measured <= high)

    @property
    def good(self):
        return bool(self.rows) and all(row[4] for row in self.rows)

    def table(self):
        head = ("step", "what", "expected", "measured", "")
        shown, last = [], ""
        for section, what, expected, measured, good in self.rows:
            shown.append((section if section != last else "", what, expected, measured, "ok" if good else "OFF"))
            last = section
        widths = [max(len(row[i]) for row in [head, *shown]) for i in range(5)]
        lines = ["  ".join(word.ljust(width) for word, width in zip(row, widths)).rstrip()
                 for row in [head, tuple("-" * width for width in widths), *shown]]
        off = sum(not row[4] for row in self.rows)
        lines.append(f"{len(self.rows)} checks, {'all as expected' if off == 0 else f'{off} OFF'}")
        return "\n".join(lines) + "\n"


def wait_for(condition, limit, interval=0.2):
    """Seconds until the condition held; None when it did not within the limit."""
    began = time.monotonic()
    while True:
        if condition():
            return time.monotonic() - began
        if time.monotonic() - began > limit:
            return None
        time.sleep(interval)


def eprint(text):
    print(text, file=sys.stderr, flush=True)
