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


class Stopped(BaseException):
    """The user or the system wants this run to end; the text says by what."""


class Teller:
    """Prints the steps of one run. It may have begun in another process, by the machine's monotonic clock."""

    def __init__(self, out=None, began=None):
        self._out = out or sys.stdout
        self.began = time.monotonic() if began is None else began
        self._number = 0
        self._doing = ""

    def line(self, text=""):
        print(text, file=self._out, flush=True)

    def detail(self, text):
        for part in str(text).splitlines():
            self.line(f"       {part}")

    def doing(self, text):
        """What the step is at, for its next sign of life."""
        self._doing = text

    def seconds(self):
        """How long the whole run has taken so far."""
        return time.monotonic() - self.began

    @contextlib.contextmanager
    def step(self, title):
        """One step: its title at once, its time when it is done."""
        self._number += 1
        self._doing = title
        began = time.monotonic()
        self.line(f"  [{self._number:2}] {title} ...")
        done = threading.Event()
        alive = threading.Thread(target=self._show_life, args=(began, done), daemon=True)
        alive.start()
        verdict = "FAILED"
        try:
            yield
            verdict = "ok"
        except Stopped:
            verdict = "interrupted"
            raise
        finally:
            done.set()
            alive.join()
            took = f"{verdict} after {time.monotonic() - began:.1f} s"
            self.line(f"       {'.' * max(3, WIDTH - 8 - len(took))} {took}")

    def _show_life(self, began, done):
        while not done.wait(SIGN_OF_LIFE_SECONDS):
            self.detail(f"still at it: {self._doing} ({time.monotonic() - began:.0f} s)")


def expect(good, text):
    """Fails the step unless it is good."""
    if not good:
        raise Failed(text)


def expect_equal(found, wanted, what):
    expect(found == wanted, f"{what}: found {found!r}, not {wanted!r}")
