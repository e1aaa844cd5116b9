"""./dev box [COMMANDS]: a shell in a running box, or the given commands in one. Short commands in it
reach this process, which holds the box and its peers, through a socket of the box."""
import json
import socketserver
import subprocess
import sys
import threading

from box import Box, BoxError, BusError, NoReply, i, u

HELP = """\
A running box; everything in it is gone when you leave. The daemon runs under s6 (s6-svstat
/run/service/*), its configuration is /media/nimbrelc.json. Besides everything that a shell knows:
  plug NAME [USB|SD] [PARTITIONS]       plug a disk in                plug sda
  unplug NAME                           pull it out
  get KEY, set KEY VALUE, object KEY    the data model                get LAN.IPAddress
  call PATH INTERFACE METHOD [ARG...]   any method                    call /ws/nas/devices nas.devices list
  calls PEER                            calls received by ddm, lcd, agent, dlna or hardware
  log [-f]                              the system log
Values: true, false, u:5, i:-1, anything else is text. Keys without "Device." are looked for below it
and below the maker's own part; interfaces without "com." below com.kelvanto.nimbrel."""

RC = r"""
PS1='box \w # '
shopt -s expand_aliases
ask() { /usr/bin/python3 -IS /run/box/ask.py "$@"; }
for name in plug unplug call get set object calls; do alias $name="ask $name"; done
log() { tail "${@:--n40}" /var/log/messages; }
"""

ASK = r"""
import json, socket, sys
ask = socket.socket(socket.AF_UNIX)
ask.connect("/run/box/console")
ask.sendall(json.dumps(sys.argv[1:]).encode() + b"\n")
sys.stdout.write(ask.makefile().read())
"""


def value(text):
    if text in ("true", "false"):
        return text == "true"
    if text[:2] in ("u:", "i:"):
        return (u if text[0] == "u" else i)(text[2:])
    return text


def key(text):
    if text.startswith("Device."):
        return text
    known = text.split(".")[0] in ("DeviceInfo", "LAN", "StorageService")
    return "Device." + ("" if known else "X_KELVANTO-COM_DeviceManagement.") + text


def interface(text):
    return text if text.startswith("com.") else "com.kelvanto.nimbrel." + text


def perform(box, name, *words):
    """One command; what it returns is printed."""
    if name == "plug":
        disk, kind, count = (*words, *("sda", "USB", "1")[len(words):])
        return box.plug(disk, kind=kind.upper(), partitions=[{}] * int(count))
    if name == "unplug":
        return box.unplug(*words)
    if name == "call":
        path, where, method, *args = words
        return box.call(path, interface(where), method, *map(value, args))
    if name == "calls":
        return box.peer(*words).calls()
    method = {"get": "GetValue", "set": "SetValue", "object": "GetObject"}[name]
    return box.data_model(method, key(words[0]), *map(value, words[1:]))


def serve(box):
    class Handler(socketserver.StreamRequestHandler):
        def handle(self):
            try:
                result = perform(box, *json.loads(self.rfile.readline()))
                lines = result if isinstance(result, (list, tuple)) else [] if result is None else [result]
            except (BusError, NoReply, BoxError) as error:
                lines = [error]
            except (ValueError, TypeError, KeyError, IndexError) as error:
                lines = [f"not understood: {error!r}"]
            self.wfile.write("".join(f"{line}\n" for line in lines).encode())

    server = socketserver.ThreadingUnixStreamServer(box.path("/run/box/console"), Handler)
    threading.Thread(target=server.serve_forever, daemon=True).start()


def main():
    with Box() as box:
        box.write("/run/box/ask.py", ASK, owner="root")
        box.write("/run/box/rc", RC, owner="root")
        serve(box)
        try:
            box.start_daemon()
        except BoxError as error:
            print(f"The daemon does not serve ({error}); its log:\n{box.log()}", file=sys.stderr)
        if sys.argv[1:]:
            shell = ["bash", "-c", '. /run/box/rc; eval "$*"', "box", *sys.argv[1:]]
        else:
            print(HELP)
            shell = ["script", "-qec", "bash --rcfile /run/box/rc", "/dev/null"]
        return subprocess.run(box.command(shell)).returncode


if __name__ == "__main__":
    sys.exit(main())
