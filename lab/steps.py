"""Telling a person what goes on: numbered steps, each with its time, and signs of life from the long ones."""

import contextlib
import sys
import threading
import time

WIDTH = 74
SIGN_OF_LIFE_SECONDS = 15


class Failed(Exception):
    """A step did not find what it should have; the text says what it found."""


class CannotRun(Exception):
    """Something is missing on this machine or in this state of things; the text says what."""


class Teller:
    """Prints the steps of one run."""

    def __init__(self, out=sys.stdout):
        self._out = out
        self._number = 0

    def line(self, text=""):
        print(text, file=self._out, flush=True)

    def detail(self, text):
        for part in str(text).splitlines():
            self.line(f"       {part}")

    @contextlib.contextmanager
    def step(self, title):
        """One step: its title at once, its time when it is done."""
        self._number += 1
        began = time.monotonic()
        self.line(f"  [{self._number:2}] {title} ...")
        done = threading.Event()
        alive = threading.Thread(target=self._show_life, args=(title, began, done), daemon=True)
        alive.start()
        verdict = "FAILED"
        try:
            yield
            verdict = "ok"
        finally:
            done.set()
            alive.join()
            took = f"{verdict} after {time.monotonic() - began:.1f} s"
            self.line(f"       {'.' * max(3, WIDTH - 8 - len(took))} {took}")

    def _show_life(self, title, began, done):
        while not done.wait(SIGN_OF_LIFE_SECONDS):
            self.detail(f"still at it: {title} ({time.monotonic() - began:.0f} s)")


def expect(good, text):
    """Fails the step unless it is good."""
    if not good:
        raise Failed(text)


def expect_equal(found, wanted, what):
    expect(found == wanted, f"{what}: found {found!r}, not {wanted!r}")
