#!/usr/bin/env python3
"""tutorial.py SOURCE [PREFIX] - runs the commands of docs/tutorial.md and compares their output with the tutorial.

PREFIX is where libtsmail is installed. Without it, it is where the compiler and the loader look by
themselves. Runs inside the sandbox.
"""

import glob
import os
import pathlib
import re
import subprocess
import sys

source, prefix = pathlib.Path(sys.argv[1]), (sys.argv[2:] or [None])[0]
text = (source / "docs/tutorial.md").read_text(encoding="utf-8")
programs = {"cpp": source / "examples/agent.cpp", "python": source / "examples/python/deliver.py"}


def environment():
    # The system's Python is the one that the package is for.
    env = {**os.environ, "LC_ALL": "C.UTF-8", "TERM": "dumb", "PATH": f"/usr/bin:{os.environ['PATH']}"}
    if prefix:
        (configuration,) = glob.glob(f"{prefix}/**/pkgconfig", recursive=True)
        env.update(PATH=f"{prefix}/bin:{env['PATH']}", PKG_CONFIG_PATH=configuration,
                   LD_LIBRARY_PATH=os.path.dirname(configuration),
                   PYTHONPATH=f"{prefix}/lib/python3/dist-packages")
    return env


def shown(block):
    """A console block as (command, what it shows)."""
    parts = re.split(r"^\$ (.*)\n", block, flags=re.M)
    return list(zip(parts[1::2], parts[2::2]))


def main():
    blocks = re.findall(r"^```(\w+)\n(.*?)^```$", text, re.M | re.S)
    os.makedirs("/tmp/tutorial")
    os.chdir("/tmp/tutorial")
    for language, path in programs.items():
        program = path.read_text(encoding="utf-8")
        if [block for kind, block in blocks if kind == language] != [program]:
            sys.exit(f"the program in the tutorial is not {path.name}")
        if len(program.splitlines()) > 60:
            sys.exit(f"{path.name} has grown")
        pathlib.Path(path.name).write_text(program, encoding="utf-8")
    if prefix and not os.path.isdir(f"{prefix}/lib/python3"):
        print("this build has no Python package: its chapter is left out")
        blocks = blocks[:[language for language, _ in blocks].index("python")]
    bad, commands = 0, [row for language, block in blocks if language == "console" for row in shown(block)]
    for command, expected in commands:
        done = subprocess.run(["bash", "-c", command], env=environment(), stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, text=True, check=False)
        if done.stdout != expected:
            bad += 1
            print(f"$ {command}\n--- the tutorial shows\n{expected}--- it is\n{done.stdout}", end="")
    print(f"{len(commands)} commands, {bad} not as shown")
    return 1 if bad or len(commands) < 10 else 0


sys.exit(main())
