"""One emulated network and the programs that run in it.

The emulator makes the two network namespaces, one for servers and one for the client. They have no
name: they are gone when the emulator and all that was started in them are gone, and these are killed
by the kernel when this program ends, however it ends."""
import ctypes
import json
import os
import signal
import subprocess

CLIENT = "10.8.0.1"
ENTRY = "10.9.0.1"
CLONE_NEWNET = 0x40000000
PR_SET_PDEATHSIG = 1
MOST_LATE_MS = 20

libc = ctypes.CDLL(None, use_errno=True)


def server_address(index):
    return f"10.9.0.{10 + index}"


class Failed(Exception):
    """A program did not do what the laboratory needs."""


def start(words, space=None, **options):
    """Starts a program, in a network namespace if one is given, that does not outlive this one."""
    parent = os.getpid()

    def prepare():
        libc.prctl(PR_SET_PDEATHSIG, signal.SIGKILL, 0, 0, 0)
        if os.getppid() != parent:
            os._exit(1)
        if space is not None and libc.setns(space, CLONE_NEWNET) != 0:
            os._exit(1)

    return subprocess.Popen(words, preexec_fn=prepare, **options)


def stop(process, number=signal.SIGTERM, patience=10):
    """Ends a program and returns what it has written meanwhile."""
    if process.poll() is None:
        process.send_signal(number)
    try:
        return process.communicate(timeout=patience)[0]
    except subprocess.TimeoutExpired:
        process.kill()
        process.communicate()
        raise Failed(f"{process.args[0]} did not end")


class World:
    """with World(...) as world: world.servers and world.client are namespaces for start()."""

    def __init__(self, emulator, settings, congestion, folder):
        self.path = os.path.join(folder, "network.txt")
        with open(self.path, "w") as file:
            file.write(settings)
        self.emulator, self.congestion = emulator, congestion
        self.addresses = [line.split()[1] for line in settings.splitlines() if line.startswith("link ")]
        self.process = None
        self.spaces = []
        self.others = []

    def __enter__(self):
        try:
            self.process = start([self.emulator, self.path], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
            said = self.process.stdout.readline().split()
            if said[:1] != ["ready"]:
                raise Failed("the emulator did not start")
            self.spaces = [os.open(f"/proc/{self.process.pid}/fd/{fd}", os.O_RDONLY) for fd in said[1:]]
            self.servers, self.client = self.spaces
            self.set_up(self.servers, "servers", self.addresses, "10.8.0.0/16")
            self.set_up(self.client, "client", [CLIENT], "10.9.0.0/16")
        except BaseException:
            self.__exit__()
            raise
        return self

    def set_up(self, space, device, addresses, others):
        lines = ["link set lo up"]
        lines += [f"addr add {address}/32 dev {device}" for address in addresses]
        lines += [f"link set {device} txqueuelen 10000 mtu 1500 up"]
        lines += [f"route add {others} dev {device} src {addresses[0]} congctl {self.congestion}"]
        ip = start(["ip", "-batch", "-"], space, stdin=subprocess.PIPE, text=True)
        ip.communicate("\n".join(lines) + "\n")
        if ip.returncode != 0:
            raise Failed("ip could not set up a namespace")

    def run(self, words, space, **options):
        """Starts a program that ends with the world at the latest."""
        process = start(words, space, **options)
        self.others.append(process)
        return process

    def finish(self):
        """Stops the emulator; what it has counted."""
        counted, _ = self.process.communicate(timeout=10)
        return json.loads(counted)

    def __exit__(self, *_):
        for process in [*self.others, self.process]:
            if process is not None and process.poll() is None:
                process.kill()
                process.wait()
        for space in self.spaces:
            os.close(space)
        self.spaces = []


def on_time(counted):
    """Was the machine quick enough for this run to count?"""
    return counted["late_ms"]["p999"] <= MOST_LATE_MS and counted["refused"] == 0
