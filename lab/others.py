"""Other programs beside the library: an HTTP server at the same addresses, and what downloads from it."""
import filecmp
import os
import shutil
import subprocess
import sys
import time

import world

CONFIGURATION = """daemon off; master_process off; pid nginx.pid; error_log stderr;
events {{ worker_connections 256; }}
http {{ access_log off; sendfile on; tcp_nopush on; keepalive_requests 100000000;
client_body_temp_path t; proxy_temp_path t; fastcgi_temp_path t; uwsgi_temp_path t; scgi_temp_path t;
server {{ {listen} root {root}; }} }}
"""


def start_nginx(here, folder, addresses):
    """Serves a folder at port 80 of all addresses; it is one process, so that nothing outlives it."""
    with open(os.path.join(folder, "nginx.conf"), "w") as file:
        file.write(CONFIGURATION.format(listen=" ".join(f"listen {address}:80;" for address in addresses), root=folder))
    here.run(["nginx", "-p", folder, "-c", os.path.join(folder, "nginx.conf")], here.servers,
             stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    if here.run([sys.executable, "-c", WAIT, addresses[0]], here.servers).wait() != 0:
        raise world.Failed("nginx did not start")


WAIT = """
import socket, sys, time
for _ in range(100):
    try:
        socket.create_connection((sys.argv[1], 80)).close()
        sys.exit(0)
    except OSError:
        time.sleep(0.02)
sys.exit(1)
"""


class Other:
    """A program that downloads."""

    def __init__(self, name, words):
        self.name, self.words = name, words

    def fetch(self, lab, here, plan, film):
        folder = os.path.abspath(lab.folder)
        target = os.path.join(folder, "fetched")
        for leftover in (target, target + ".aria2"):
            if os.path.exists(leftover):
                os.remove(leftover)
        start_nginx(here, folder, plan.net.addresses)
        began = time.monotonic()
        process = here.run(self.words(plan, folder), here.client, stdout=subprocess.DEVNULL)
        cut = False
        try:
            process.wait(timeout=plan.limit)
        except subprocess.TimeoutExpired:
            cut = True
            process.kill()
            process.wait()
        seconds = time.monotonic() - began
        if not cut and (process.returncode != 0 or not filecmp.cmp(target, film, shallow=False)):
            raise world.Failed(f"{plan.scenario['name']}: {self.name} ended with {process.returncode} or a wrong film")
        taken = os.stat(target).st_blocks * 512 if cut else plan.size
        os.remove(target)
        return {"share": plan.share(min(taken, plan.size), seconds), "finished_s": seconds, "taken": taken, "cut": cut,
                "twice": None}


def aria2c(splits, connections):
    def words(plan, folder):
        urls = [f"http://{address}/film.bin" for address in plan.net.addresses]
        return ["aria2c", "-q", f"-s{splits}", f"-x{connections}", "-k1M", "--no-conf", "--file-allocation=none",
                "--disable-ipv6", "-d", folder, "-o", "fetched", *urls]

    return Other(f"aria2c -s{splits} -x{connections}", words)


def curl():
    def words(plan, folder):
        return ["curl", "-q", "-s", "-o", os.path.join(folder, "fetched"), f"http://{plan.net.best}/film.bin"]

    return Other("curl, best link", words)


def all_others():
    """Those that are installed; nothing without an HTTP server."""
    if shutil.which("nginx") is None:
        return []
    found = []
    if shutil.which("aria2c"):
        found += [aria2c(16, 4), aria2c(4, 1)]
    if shutil.which("curl"):
        found.append(curl())
    return found
