"""What is built, installed and packed here."""

import pathlib
import re

ROOT = pathlib.Path(__file__).resolve().parent.parent


def version():
    """The version that CMakeLists.txt states."""
    text = (ROOT / "CMakeLists.txt").read_text(encoding="utf-8")
    return re.search(r"^project\(telvor VERSION (\d+\.\d+\.\d+)", text, re.MULTILINE).group(1)
