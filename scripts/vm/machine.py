"""A virtual machine: QEMU, its monitor (QMP), and a root shell on its second serial line."""
import datetime
import json
import pathlib
import shlex
import signal
import socket
import subprocess
import time

CONTROL, SET_BIT, ALARM_BIT = 0x0b, 0x80, 0x20  # of the real-time clock: to be set, alarm on
PATIENCE = 2  # on a busy host everything may take so many times as long as is said here


class Trouble(Exception):
    """The machine did not do what was asked within its time."""


class Line:
    """A socket of QEMU's that is read up to a mark."""

    def __init__(self, path, process):
        self.socket = socket.socket(socket.AF_UNIX)
        self.process = process
        deadline = time.monotonic() + 20
        while True:
            try:
                self.socket.connect(str(path))
                break
            except (FileNotFoundError, ConnectionRefusedError):
                if process.poll() is not None or time.monotonic() > deadline:
                    raise Trouble(f"QEMU does not open {path}") from None
                time.sleep(0.05)
        self.pending = b""

    def send(self, data):
        self.socket.sendall(data)

    def read_rest(self):
        """What arrived before QEMU ended."""
        while self.receive(1):
            pass
        return self.pending

    def receive(self, timeout):
        """False when QEMU has closed the socket."""
        self.socket.settimeout(timeout)
        try:
            data = self.socket.recv(65536)
        except TimeoutError:
            return True
        self.pending += data
        return bool(data)

    def read_until(self, mark, timeout):
        deadline = time.monotonic() + timeout * PATIENCE
        while mark not in self.pending:
            left = deadline - time.monotonic()
            if left <= 0:
                raise Trouble(f"no {mark!r} within {timeout} s; got {self.pending[-2000:]!r}")
            if not self.receive(left):
                raise Trouble(f"QEMU has ended; got {self.pending[-2000:]!r}")
        before, self.pending = self.pending.split(mark, 1)
        return before


class Machine:
    """QEMU on `disk`, its real-time clock at `rtc` ("2026-12-21T06:00:00") or the state `snapshot`.

    The guest reads `payload` as its second disk. QEMU's q35 machine sleeps a first time only, and
    clock=rt alone goes on while the machine sleeps and continues with a snapshot.
    """

    def __init__(self, directory, disk, payload, rtc=None, snapshot=None):
        self.directory = pathlib.Path(directory)
        self.payload = payload
        self.commands = 0
        self.events = []
        sockets = {name: self.directory / f"{name}.socket" for name in ("monitor", "shell")}
        for path in sockets.values():
            path.unlink(missing_ok=True)
        boot = self.directory.parent / "boot"
        kernel = "root=/dev/vda rw console=ttyS0 loglevel=4 quiet systemd.show_status=no"
        command = [
            "qemu-system-x86_64", "-accel", "tcg", "-cpu", "max", "-machine", "pc,hpet=off",
            "-m", "512", "-smp", "1", "-display", "none", "-vga", "none", "-no-reboot",
            "-nodefaults",
            "-drive", f"file={disk},format=qcow2,if=virtio,cache=unsafe",
            "-drive", f"file={payload},format=raw,if=virtio,readonly=on",
            "-kernel", boot / "vmlinuz", "-initrd", boot / "initrd.img", "-append", kernel,
            "-rtc", f"base={rtc or '2026-12-21T06:00:00'},clock=rt",
            "-serial", f"file:{self.directory / 'console.log'}",
            "-serial", f"unix:{sockets['shell']},server=on,wait=off",
            "-qmp", f"unix:{sockets['monitor']},server=on,wait=off"]
        if snapshot:
            command += ["-loadvm", snapshot]
        log = open(self.directory / "qemu.log", "ab")
        self.process = subprocess.Popen([str(word) for word in command], stdin=subprocess.DEVNULL,
                                        stdout=log, stderr=log)
        self.monitor = Line(sockets["monitor"], self.process)
        self.shell = Line(sockets["shell"], self.process)
        self.qmp("qmp_capabilities")

    # --- the monitor ---

    def next_message(self, timeout):
        return json.loads(self.monitor.read_until(b"\r\n", timeout))

    def qmp(self, command, timeout=60, **arguments):
        self.monitor.send(json.dumps({"execute": command, "arguments": arguments}).encode())
        while True:
            message = self.next_message(timeout)
            if "event" in message:
                self.events.append(message["event"])
            elif "error" in message:
                raise Trouble(f"{command}: {message['error']['desc']}")
            elif "return" in message:
                return message["return"]

    def human(self, command, timeout=120):
        answer = self.qmp("human-monitor-command", timeout, **{"command-line": command})
        if answer.strip():
            raise Trouble(f"{command}: {answer}")

    def await_event(self, name, timeout):
        """Waits for an event of QEMU's that nobody has waited for yet: SUSPEND, WAKEUP."""
        deadline = time.monotonic() + timeout * PATIENCE
        while name not in self.events:
            left = deadline - time.monotonic()
            if left <= 0:
                raise Trouble(f"no {name} within {timeout} s; events: {self.events}")
            message = self.next_message(left / PATIENCE)
            if "event" in message:
                self.events.append(message["event"])
        del self.events[:self.events.index(name) + 1]

    # --- the real-time clock's chip, also while the machine sleeps ---

    def chip(self, register):
        """A register of it; all count in BCD."""
        self.human(f"o/b 0x70 {register}")
        answer = self.qmp("human-monitor-command", **{"command-line": "i/b 0x71"})
        return int(answer.split("= 0x")[1], 16)

    def set_chip(self, register, value):
        self.human(f"o/b 0x70 {register}")
        self.human(f"o/b 0x71 {value}")

    def chip_number(self, register):
        return int(f"{self.chip(register):x}")

    def skip_sleep(self, early):
        """The clock of the sleeping machine jumps to `early` seconds before its alarm, which knows
        no date."""
        control = self.chip(CONTROL)
        if not control & ALARM_BIT:
            return
        second, minute, hour, day, month, year = map(self.chip_number, (0, 2, 4, 7, 8, 9))
        now = datetime.datetime(2000 + year, month, day, hour, minute, second)
        then = now.replace(**dict(zip(("second", "minute", "hour"),
                                      map(self.chip_number, (1, 3, 5)))))
        if then <= now:
            then += datetime.timedelta(days=1)
        then = max(now, then - datetime.timedelta(seconds=early))
        self.set_chip(CONTROL, control | SET_BIT)
        for register, form in ((0, "%S"), (2, "%M"), (4, "%H"), (7, "%d"), (8, "%m"), (9, "%y")):
            self.set_chip(register, int(f"{then:{form}}", 16))
        self.set_chip(CONTROL, control)

    # --- the guest's shell ---

    def cast(self, command):
        """Gives the guest's shell a command whose end nobody waits for."""
        self.shell.send(f"{command}\n".encode())

    def run(self, command, timeout=60, check=True):
        """What the command printed."""
        self.commands += 1
        end = f"=={self.commands}=="
        self.shell.send(f"echo; echo '=='{self.commands}'+='; eval {shlex.quote(command)} "
                        f"</dev/null 2>&1; echo '=='{self.commands}'==' $?\n".encode())
        self.shell.read_until(f"=={self.commands}+=\n".encode(), timeout)
        output = self.shell.read_until(end.encode(), timeout).decode(errors="replace")
        status = int(self.shell.read_until(b"\n", timeout))
        if check and status != 0:
            raise Trouble(f"status {status} from: {command}\n{output}")
        return output.strip("\n")

    def await_shell(self, timeout=240):
        """Waits until the guest has booted."""
        self.shell.read_until(b"==ready==\n", timeout)

    def await_shell_again(self):
        """The serial line may lose what is sent to it while the guest wakes up."""
        for _ in range(10):
            self.commands += 1
            self.cast(f"\necho; echo awake{self.commands}")
            try:
                self.shell.read_until(f"\nawake{self.commands}\n".encode(), 3)
                return
            except Trouble:
                continue
        raise Trouble("the shell does not answer after the wake-up")

    # --- its end ---

    def await_end(self, timeout):
        try:
            self.process.wait(timeout * PATIENCE)
        except subprocess.TimeoutExpired:
            raise Trouble(f"not powered off within {timeout} s") from None

    def kill(self):
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGKILL)
        self.process.wait()
