#!/usr/bin/env python3
"""Does what the page about a new card type says: applies its change to a copy of the sources, builds the daemon and the
agent, and types the page's session with them. Without the change the session has to fail: else it would show nothing.
"""
import argparse
import os
import re
import shutil
import subprocess
import sys
import tempfile
from pathlib import Path

SOURCE_FOLDERS = ("agent", "chassis", "cmake", "common", "drivers", "include", "platform", "services", "sup")
# Named by their sources: that leaves out all but the daemon and the agent.
CARD_DRIVERS = ("drivers/card_flash_driver_nor_file.cpp", "drivers/card_datagram_driver_unix_sockets.cpp")
CHECKED_HEADER = "chassis/launcher/card_families.cpp"


def patch_of(page):
    """The indented block that is a change of files."""
    block = re.search(r"^(    --- a/.*?)(?=^\S)", page.read_text(), re.MULTILINE | re.DOTALL)
    if block is None:
        sys.exit(f"{page}: has no change of files")
    return "".join(line[4:] + "\n" for line in block[1].rstrip().splitlines())


def run(words, **more):
    done = subprocess.run(words, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False, **more)
    if done.returncode != 0:
        sys.exit(f"{' '.join(map(str, words))} failed:\n{done.stdout}")


def type_session(page, programs, daemon):
    runner = Path(__file__).with_name("run_sessions.py")
    environment = {**os.environ, "BIOS_DAEMON": str(daemon)}
    return subprocess.run([sys.executable, runner, programs, page], env=environment, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True, check=False)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("sources", type=Path)
    parser.add_argument("programs", type=Path, help="folder with the built programs")
    given = parser.parse_args()
    page = given.sources / "doc/adding-a-card-type.md"

    with tempfile.TemporaryDirectory(prefix="card-type.") as folder:
        copy = Path(folder) / "sources"
        for name in SOURCE_FOLDERS:
            shutil.copytree(given.sources / name, copy / name)
        shutil.copy(given.sources / "CMakeLists.txt", copy)
        run(["patch", "-p1", "--fuzz=0"], cwd=copy, input=patch_of(page))
        run(["cmake", "-G", "Ninja", "-S", copy, "-B", copy / "build", "-DCMAKE_BUILD_TYPE=Debug",
             f"-DBIOS_DAEMON_SODIUM={given.sources / 'build/libsodium'}",
             "-DBIOS_DAEMON_DRIVERS=" + ";".join(str(copy / driver) for driver in CARD_DRIVERS)])
        run(["cmake", "--build", copy / "build", "--target", "bios_daemon", "bios_agent"])
        run(["g++", "-std=c++20", "-fsyntax-only", copy / CHECKED_HEADER])

        followed = type_session(page, given.programs, copy / "build/bin/bios_daemon")
        print(followed.stdout, end="")
        if followed.returncode != 0:
            sys.exit(1)
        if type_session(page, given.programs, given.programs / "bios_daemon").returncode == 0:
            sys.exit("The session succeeds without the change, too.")


main()
