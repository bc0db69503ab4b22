"""The notices that are installed: every component's, each text once, and the licences that they point to."""

import collections
import re

import components
import notices
import pytest
from conftest import BUILD

COMMON = "/usr/share/common-licenses"
RULE = "=" * 78 + "\n"


@pytest.fixture(scope="module")
def installed(files):
    """As it is on a Windows machine, but for the ends of its lines."""
    text = (files / "NOTICES.txt").read_bytes().decode("utf-8")
    assert text.count("\n") == text.count("\r\n")
    return text.replace("\r\n", "\n")


@pytest.fixture(scope="module")
def found():
    return components.collect(BUILD)


def sections(text):
    """{text: its headings}."""
    _, *parts = re.split(f"^{RULE}", text, flags=re.MULTILINE)
    bodies = collections.Counter(part.strip("\n") for part in parts[1::2])
    assert set(bodies.values()) == {1}, "a text stands twice"
    return {body.strip("\n"): headings.splitlines() for headings, body in zip(parts[::2], parts[1::2])}


def read(path):
    with open(path, encoding="utf-8") as file:
        return file.read().strip("\n")


def pointers(text):
    """What follows the folder in each mention of it, up to a blank or quote, without a sentence's end."""
    return {name.rstrip(".,;") for name in re.findall(rf"{COMMON}(/[^\s'`\":)]+)", text)}


def test_every_component_stands_over_its_own_text(found, installed):
    by_text = sections(installed)
    for each in found:
        heading = f"{each.kind.name} {each.version}: {each.kind.license}"
        for path in each.notices:
            assert heading in by_text[read(path)]
    assert "GCC RUNTIME LIBRARY EXCEPTION" in installed and "Loup Vaillant" in installed


def test_no_text_stands_twice(found, installed):
    paths = {path for each in found for path in each.notices}
    paths |= {COMMON + name for name in pointers(installed)}
    assert all(installed.count(read(path)) == 1 for path in paths)
    assert set(sections(installed)) == {read(path) for path in paths}


def test_what_is_pointed_to_stands_whole_with_the_components_that_it_is_for(found, installed):
    by_text = sections(installed)
    assert {"/GPL", "/GPL-3", "/LGPL"} <= pointers(installed)
    for name in pointers(installed):
        names = {each.kind.name for each in found for path in each.notices if name in pointers(read(path))}
        assert f"{COMMON}{name}: for {', '.join(sorted(names))}" in by_text[read(COMMON + name)]
    assert installed.count("GNU GENERAL PUBLIC LICENSE\n                       Version 3, 29 June 2007") == 1


def made_up(name, path):
    return components.Component(components.Kind(name, "MIT", "", ""), "1", "", "", (), (), (str(path),))


@pytest.fixture
def told(tmp_path, monkeypatch):
    """The notices of components by name, of which each has this text."""
    def tell(**texts):
        for name, text in texts.items():
            (tmp_path / name).write_text(text, encoding="utf-8")
        made = [made_up(name, tmp_path / name) for name in texts]
        monkeypatch.setattr(components, "collect", lambda build: made)
        return notices.text(BUILD)

    return tell


def test_the_same_text_in_two_packages_stands_once_under_both_names(told):
    by_text = sections(told(one="Do as you like.\n", two="Do nothing.\n", three="\nDo as you like.\n\n"))
    assert by_text == {"Do as you like.": ["one 1: MIT", "three 1: MIT"], "Do nothing.": ["two 1: MIT"]}


def test_two_names_of_one_licence_give_its_text_once(told):
    latest = f"It is in `{COMMON}/LGPL'."
    by_text = sections(told(one=latest, two=f"See {COMMON}/LGPL-3."))
    assert by_text[read(f"{COMMON}/LGPL-3")] == [f"{COMMON}/LGPL: for one", f"{COMMON}/LGPL-3: for two"]
    assert len(by_text) == 3


def test_a_licence_that_is_not_there_is_an_error(told):
    with pytest.raises(FileNotFoundError, match="Nobodys-1.0"):
        told(one=f"See {COMMON}/Nobodys-1.0.")
