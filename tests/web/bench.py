"""Where the page runs in the tests: a bus with the shipped policy, the daemon on a simulated set,
Cockpit's own server for each kind of user, and a browser whose zone is not the set's."""
import contextlib
import json
import os
import pathlib
import shutil
import socket
import subprocess
import time

from selenium import webdriver
from selenium.webdriver.chrome.service import Service

HERE = pathlib.Path(__file__).resolve().parent
ROOT = HERE.parents[1]
BUILD = pathlib.Path(os.environ.get("BUILD", ROOT / "build" / "debug"))
BUS = "unix:path=/run/bench/policy-bus"
NAME = "org.olvara.tv.system.dravel"
SET = """[set]
TimeZone=Europe/Berlin
ClockMode=0
PowerState=0
TvClock=1797940800
Rtc=1797937200
"""  # Tue 2026-12-22 12:00 in Berlin

# Users by what they may do; the group's number is that of the bus's own list of groups.
USERS = {
    "root": "",
    "member": "setpriv --reuid=daemon --regid=nogroup --groups=65003",
    "guest": "setpriv --reuid=nobody --regid=nogroup --clear-groups",
}
IN_BERLIN = ("bwrap --dev-bind / / --ro-bind /usr/share/zoneinfo/Europe/Berlin "
             f"{os.path.realpath('/etc/localtime')}")


def wait(what, condition, seconds=20):
    """Waits until condition() is true, and returns what it returns."""
    end = time.monotonic() + seconds
    while True:
        with contextlib.suppress(Exception):
            if found := condition():
                return found
        if time.monotonic() > end:
            raise AssertionError(f"did not come within {seconds} s: {what}")
        time.sleep(0.03)


def end(process):
    process.kill()
    process.wait()


class Bench:
    """All processes of the page, and its files, which are the sandbox's."""

    def __init__(self):
        self.environment = dict(os.environ, TZ="Europe/Berlin", LC_ALL="C.UTF-8", DRAVEL_STANDIN="/tmp/set.ini",
                                XDG_DATA_HOME="/tmp/data", DBUS_SYSTEM_BUS_ADDRESS=BUS)
        os.chmod("/tmp", 0o1777)  # each session has a bus of its own there
        pathlib.Path("/tmp/set.ini").write_text(SET, "ascii")
        self.install()
        self.start_bus()
        self.start_daemon()
        self.servers = {}
        self.ports = {user: self.serve(user) for user in USERS}
        self.browser = self.open_browser()

    def close(self):
        self.browser.quit()
        for process in [*self.servers.values(), self.daemon]:
            end(process)

    def install(self):
        """Puts the page where Cockpit finds it, and the tool where every user may run it."""
        self.tool = pathlib.Path("/run/bench/dravelctl")
        shutil.copy(BUILD / "dravelctl", self.tool)
        self.install_page("dravel", self.tool)
        self.install_page("machine", shutil.copy(HERE / "machine_tool.py", "/run/bench"))

    @staticmethod
    def install_page(name, tool):
        page = pathlib.Path("/tmp/data/cockpit") / name
        shutil.copytree(ROOT / "web", page)
        source = page / "tool.js"
        text = source.read_text("utf-8")
        changed = text.replace('"/usr/bin/dravelctl"', f'"{tool}"')
        assert changed != text
        source.write_text(changed, "utf-8")

    def start_bus(self):
        groups = pathlib.Path("/etc/group").read_text("ascii")
        pathlib.Path("/run/bench/group").write_text("dravel:x:65003:\n" + groups, "ascii")
        subprocess.run(["bwrap", "--dev-bind", "/", "/", "--ro-bind", "/run/bench/group", "/etc/group",
                        "--tmpfs", "/etc/dbus-1", "--tmpfs", "/usr/share/dbus-1/system.d", "--ro-bind",
                        ROOT / "data" / f"{NAME}.conf", "/etc/dbus-1/system.d/dravel.conf",
                        "dbus-daemon", "--system", "--fork", "--nopidfile", f"--address={BUS}"], check=True)

    def start_daemon(self):
        self.daemon = subprocess.Popen([BUILD / "dravel-manager"], env=self.environment)
        subprocess.run(["gdbus", "wait", "--system", "--timeout", "20", NAME], env=self.environment, check=True)

    def kill_daemon(self):
        end(self.daemon)

    def restart_daemon(self):
        """With the clock back at noon and an empty list, whose first timer gets the number 1."""
        self.kill_daemon()
        for file in pathlib.Path("/opt/dbspace").glob(".*"):
            file.unlink()
        self.start_daemon()

    def serve(self, user):
        wrapper = pathlib.Path(f"/tmp/session-{user}")
        home = pathlib.Path(f"/tmp/home-{user}")
        home.mkdir(exist_ok=True)
        home.chmod(0o777)
        wrapper.write_text(f"#!/bin/sh\nexport HOME={home} XDG_RUNTIME_DIR={home}\n"
                           f"exec {IN_BERLIN} {USERS[user]} cockpit-bridge\n", "ascii")
        wrapper.chmod(0o755)
        with socket.socket() as probe:
            probe.bind(("127.0.0.1", 0))
            port = probe.getsockname()[1]
        self.servers[user] = subprocess.Popen(
            ["/usr/lib/cockpit/cockpit-ws", "--no-tls", f"--port={port}", "--address=127.0.0.1",
             f"--local-session={wrapper}"], env=self.environment)
        wait("cockpit-ws", lambda: socket.create_connection(("127.0.0.1", port)).close() is None)
        return port

    def open_browser(self):
        options = webdriver.ChromeOptions()
        for word in ("--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage",
                     "--window-size=1280,1000", "--user-data-dir=/tmp/chromium", "--hide-scrollbars", "--no-first-run"):
            options.add_argument(word)
        options.add_experimental_option("prefs", {"download.default_directory": "/tmp/downloads"})
        options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
        service = Service("/usr/bin/chromedriver", env=dict(os.environ, TZ="America/New_York", HOME="/tmp"))
        return webdriver.Chrome(options=options, service=service)

    def run(self, *words, text=None):
        """What dravelctl prints; the bus is the test's."""
        return subprocess.run([self.tool, "--json", *words], env=self.environment, input=text,
                              capture_output=True, text=True, check=False).stdout

    def ctl(self, *words, text=None):
        return json.loads(self.run(*words, text=text) or "null")

    def lose_clock(self):
        """The set's clock reads nothing any more, and the set says so."""
        there = [NAME, "/org/olvara/tv/standin", "org.olvara.tv.standin"]
        for words in ["set-property", *there, "TvClock", "u", "0"], ["call", *there, "TimeSet"]:
            subprocess.run(["busctl", f"--address={BUS}", *words], check=True)

    def cut(self, user):
        """Ends the user's connection for good; a new server takes the place of the old one."""
        end(self.servers[user])
        self.ports[user] = self.serve(user)

    def url(self, user, page="dravel"):
        return f"http://127.0.0.1:{self.ports[user]}/cockpit/@localhost/{page}/index.html"
