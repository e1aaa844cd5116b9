"""The shell of a box, as a script and a person meet it."""
import os
import pty
import signal
import subprocess
import sys

from box import HERE

CONSOLE = [sys.executable, os.path.join(HERE, "console.py")]
REFUSED = """plug|plug sda|plug sdb usb two|unplug sdb|get LAN.IPAdress|set LAN.IPAddress x|object Foo.1
calls foo|call here nas.devices list|call /ws/nas/devices nas.devices none|set Syslog.NumberOfFiles u:-1
log x|services x""".replace("\n", "|").split("|")


def test_a_script():
    script = ["plug sda", *(f"{line} && echo taken" for line in REFUSED), "get LAN.IPAddress",
              "set -o pipefail", "set SSH.AuthorizedKey 'a b'", "/run/box/bin/complete get Device.LAN",
              "exit 7"]
    run = subprocess.run(CONSOLE, input="\n".join(script), text=True, capture_output=True, timeout=120)
    assert run.stdout.split("\n") == ["sda1 on /media/sda1", "192.168.1.1", "true", "Device.LAN.IPAddress",
                                      "Device.LAN.MACAddress", ""]
    assert [line.split(":")[0] for line in run.stderr.splitlines()] == [line.split()[0] for line in REFUSED]
    assert "did you mean LAN.IPAddress?" in run.stderr
    assert run.returncode == 7


def test_a_person():
    child, terminal = pty.fork()
    if child == 0:
        signal.alarm(120)
        os.execv(CONSOLE[0], CONSOLE)
    for keys, awaited in ((b"", b"box / # "), (b"get LAN.IPA\t\n", b"192.168.1.1"),
                          (b"log -f\n", b"Services started"), (b"\x03", b"box / # "), (b"\x04", b"exit")):
        os.write(terminal, keys)
        seen = b""
        while awaited not in seen:
            seen += os.read(terminal, 4096)
    assert os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]) == 130
