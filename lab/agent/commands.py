"""Runs the Linux programs that the agent stands on: ip, wg."""

import asyncio
from dataclasses import dataclass


@dataclass(frozen=True)
class Outcome:
    exit_code: int
    stdout: str
    stderr: str


async def run(*arguments, stdin=None):
    """Runs a program to its end."""
    process = await asyncio.create_subprocess_exec(
        *arguments,
        stdin=asyncio.subprocess.PIPE if stdin is not None else asyncio.subprocess.DEVNULL,
        stdout=asyncio.subprocess.PIPE,
        stderr=asyncio.subprocess.PIPE,
    )
    stdout, stderr = await process.communicate(stdin.encode() if stdin is not None else None)
    return Outcome(process.returncode, *(text.decode("utf-8", "replace") for text in (stdout, stderr)))
