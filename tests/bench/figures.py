"""What a benchmark hands to the report: figures beside their floors, pictures, and lines of text."""

import dataclasses
import statistics
import typing


@dataclasses.dataclass(frozen=True)
class Figure:
    """One row of the table. The ratio is figure / floor, or the figure itself where there is no floor."""

    what: str
    figure: float
    unit: str
    goal: float
    beside: str = ""
    floor: typing.Optional[float] = None  # in the unit of the figure
    at_least: bool = False  # the goal is the least that is good, not the most

    @property
    def ratio(self):
        return self.figure if self.floor is None else self.figure / self.floor

    @property
    def reached(self):
        return self.ratio >= self.goal if self.at_least else self.ratio <= self.goal


@dataclasses.dataclass(frozen=True)
class Picture:
    name: str  # of the file, without ending
    caption: str
    draw: typing.Callable  # takes an empty matplotlib Figure


@dataclasses.dataclass
class Measurement:
    figures: list = dataclasses.field(default_factory=list)
    pictures: list = dataclasses.field(default_factory=list)
    text: list = dataclasses.field(default_factory=list)  # paragraphs or tables in Markdown


@dataclasses.dataclass(frozen=True)
class Run:
    """What the benchmarks are run with."""

    native: object  # the build folder of the preset native-release
    windows: object  # the build folder of the preset windows
    folder: object  # for what is written on the way
    short: bool  # only see that it runs and answers rightly
    tell: typing.Callable  # takes a line of progress

    def repetitions(self, at_length):
        return 2 if self.short else at_length


class WrongAnswer(Exception):
    """What was measured did not do what it should."""


def require(condition, complaint):
    if not condition:
        raise WrongAnswer(complaint)


def percentile(samples, percent):
    return sorted(samples)[min(len(samples) - 1, len(samples) * percent // 100)]


def alternately(works, repetitions):
    """Calls each of the works in turn, over and over, so that what disturbs the machine meets all alike.
    `works` are functions by name that return a sample; returns the lists of samples by name."""
    samples = {name: [] for name in works}
    for _ in range(repetitions):
        for name, work in works.items():
            samples[name].append(work())
    return samples


def medians(samples):
    return {name: statistics.median(values) for name, values in samples.items()}
