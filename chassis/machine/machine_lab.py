"""Cards that are machines, for programs that start some of them and look at what they do: machines with their chips,
the network between them, and a report with a line for each finding. Every wait has an end, and no emulator outlives
the program that started it.
"""
import re
import subprocess
import time
from pathlib import Path

MACHINE_TOOLS = Path(__file__).resolve().parent
FIRMWARE = "/usr/share/seabios/bios-256k.bin"
ENDS_WITH_US = ("setpriv", "--pdeathsig", "KILL")
BOOT_LIMIT_S = 10  # until the kernel speaks; 0.4 s on an idle machine
UP_LIMIT_S = 120
COMMAND_LIMIT_S = 60
POWER_OFF_LIMIT_S = 30
IMAGE_DATE = "09/17/12"


class Failure(Exception):
    pass


class Report:
    def __init__(self):
        self.wrong = 0

    def line(self, began, text, good=True):
        """A finding and how long it took since it began."""
        self.wrong += not good
        print(f"{time.monotonic() - began:7.1f} s  {'ok   ' if good else 'WRONG'}  {text}", flush=True)


def firmware_version():
    """The text by which Debian's firmware names itself."""
    package = subprocess.run(["dpkg-query", "-W", "-f", "${Version}", "seabios"], check=True, capture_output=True,
                             text=True).stdout
    return f"{package.rpartition('-')[0]}-debian-{package}"


def bios_text(version):
    return f"v{version}.0({IMAGE_DATE})"


class Machine:
    def __init__(self, lab, slot):
        self.lab, self.slot, self.process = lab, slot, None
        self.place = lab.folder / f"slot{slot}"
        self.place.mkdir()

    def chip(self, name):
        return self.place / f"{name}.flash"

    def start(self, *chips):
        """The first chip is the one that it is started from."""
        self.console_begin = self.console_bytes()
        self.began = time.monotonic()
        command = [*ENDS_WITH_US, MACHINE_TOOLS / "run_machine", "--parts", self.lab.parts, "--place", self.place,
                   "--slot", str(self.slot), "--network", self.lab.network]
        for chip in chips:
            command += ["--chip", f"{chip}={self.chip(chip)}"]
        self.process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                        stderr=open(self.place / "emulator.log", "a"))

    def cut_power(self):
        if self.process:
            self.process.kill()
            self.process.wait()

    def power_off(self):
        """As its administrator does. The answer of the last command may be lost."""
        try:
            self.run("systemctl --no-block poweroff")
        except Failure:
            pass
        try:
            self.process.wait(POWER_OFF_LIMIT_S)
        except subprocess.TimeoutExpired:
            raise Failure(f"machine {self.slot} does not power itself off") from None

    def console_bytes(self):
        log = self.place / "console.log"
        return log.stat().st_size if log.exists() else 0

    def wait_for_console(self, text, limit_s):
        """The line with the text, since the start. None when the machine ends or the time is up before."""
        while time.monotonic() - self.began < limit_s:
            ended = self.process.poll() is not None
            log = self.place / "console.log"
            said = log.read_bytes()[self.console_begin:].decode(errors="replace") if log.exists() else ""
            for line in said.splitlines():
                if text in line:
                    return line
            if ended:
                return None
            time.sleep(0.05)
        return None

    def boots(self):
        """Whether its BIOS comes as far as the kernel. A broken BIOS may end the machine, or never end."""
        return self.wait_for_console("Linux version", BOOT_LIMIT_S) is not None

    def wait_until_up(self):
        line = self.wait_for_console("card: up", UP_LIMIT_S)
        if line is None:
            raise Failure(f"machine {self.slot} does not come up; see {self.place}/console.log")
        self.lab.command(self, "wait")
        return line

    def run(self, script):
        return self.lab.command(self, "run", "bash", "-c", script)

    def put(self, path, contents):
        self.lab.command(self, "put", path, contents=contents)

    def bios_version(self):
        return self.run("cat /sys/class/dmi/id/bios_version").strip()

    def nodes(self):
        """The names of those who are in the cluster, itself included."""
        return set(re.findall(r"^0 .* (slot\d+)$", self.run("tipc nametable show"), re.M))

    def mtd_names(self):
        return re.findall(r'"(.*)"', self.run("cat /proc/mtd"))


class Lab:
    """Some machines on one network. Its folder's name has to be short: sockets lie in it."""

    def __init__(self, programs, folder):
        self.programs, self.folder, self.report = programs, folder, Report()
        self.network = folder / "network"
        self.machines, self.switch, self.payload_version = [], None, firmware_version()

    def make_image(self, path, version, firmware=FIRMWARE):
        """An image from which a machine boots; the text of its version is bios_text(version)."""
        subprocess.run([self.programs / "bios_image", "build", "--output", path, "--size", "8", "--version", version,
                        "--date", IMAGE_DATE, "--payload", firmware, "--payload-version", self.payload_version],
                       check=True)

    def command(self, machine, *words, contents=None):
        done = subprocess.run([self.programs / "machine_command", "--limit", str(COMMAND_LIMIT_S),
                               machine.place / "agent.sock", *words], input=contents, capture_output=True, check=False)
        if done.returncode != 0:
            raise Failure(f"machine {machine.slot}: {' '.join(map(str, words))}: {done.stderr.decode()}")
        return done.stdout.decode(errors="replace")

    def prepare(self, *packages):
        """Makes what all machines start from, with these packages installed, and their network."""
        began = time.monotonic()
        self.parts = subprocess.run([MACHINE_TOOLS / "prepare_machines", *packages], check=True, stdout=subprocess.PIPE,
                                    text=True).stdout.strip()
        self.report.line(began, f"parts of machines: {self.parts}")
        # It ends with its standard input, and so with this program however this program ends.
        self.switch = subprocess.Popen(["vde_switch", "--sock", self.network, "--mode", "600"],
                                       stdin=subprocess.PIPE, stdout=subprocess.DEVNULL,
                                       stderr=open(self.folder / "network.log", "a"))
        deadline = time.monotonic() + 5
        while not (self.network / "ctl").exists() and time.monotonic() < deadline:
            time.sleep(0.02)

    def end(self):
        for machine in self.machines:
            machine.cut_power()
        if self.switch:
            self.switch.stdin.close()
            self.switch.wait(10)
