#!/usr/bin/python3
"""dravelctl with a machine, which the simulated set lacks: what it would say of one is said here, all
else by the real one."""
import contextlib
import json
import os
import pwd
import subprocess
import sys

WAKE = {"last_wake": "2026-12-22T06:58:30+01:00", "last_wake_cause": "timer"}
MACHINE = {"screen": "on", "screen_by": "cec0, television 0", "alarm": "2026-12-23T06:58:30+01:00", "alarm_for": "timer",
           "alarm_problem": "", "sleeps_at": None, "postponed": "somebody is logged in", **WAKE}
ANSWERS = {
    "screen off": {"ordered": "off", "screen": "off", "screen_by": "cec0"},
    "screen on": {"error": {"kind": "refused", "what": "the adapter is gone", "advice": "plug it in"}},
    "test screen": {"screen_by": "cec0", "off": "unknown", "on": "on", "good": True},
    "test wake": {"asked": 60, "slept": 61, "cause": "test", "late": 1, "good": True},
    "history": [{"time": "2026-12-21T22:30:00+01:00", "event": "fired", "timer": 2, "reason": "", "text": "timer <b>2</b> fired"}],
}

if os.getuid() == pwd.getpwnam("nobody").pw_uid:
    ANSWERS["history"] = {"error": {"kind": "not-allowed", "what": "the journal cannot be read", "advice": "members may"}}
    MACHINE.update(alarm=None, alarm_for="none", alarm_problem="the clock refuses it")
command = " ".join(sys.argv[2:])
with contextlib.suppress(FileNotFoundError):
    os.unlink("/tmp/home-member/refuse")  # its end tells the test that the page has asked
    ANSWERS[command] = {"error": {"kind": "refused", "what": "the bus is full", "advice": ""}}
answer = ANSWERS.get(command)
if answer is None:
    done = subprocess.run(["/run/bench/dravelctl", *sys.argv[1:]], stdout=subprocess.PIPE, check=False)
    answer = json.loads(done.stdout)
if command == "overview" and "error" not in answer:
    answer["machine"] = MACHINE
    answer["problems"].append("The clock of this machine is not synchronised.")
    answer["may"].update(screen=True, test=True, history=True)
print(json.dumps(answer))
sys.exit("error" in answer)
