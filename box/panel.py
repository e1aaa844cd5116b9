"""./dev box --panel: a running box's front as a page in a browser, served on loopback by the process that
holds the box. What the page shows is read from the box; what it does goes through the peers and the bus."""
import argparse
import asyncio
import json
import os
import re
import secrets
import socket
import sys
import threading
import time

from aiohttp import web

import console
from box import HERE, BoxError, u
from console import Refusal

KEPT = 600  # lines that a page gets when it opens
LISTED = re.compile(r"  (.*?) +([A-Z]*) +(\d+)  \w{3} \w{3} [ \d]\d [\d:]{8} \d{4}")


def files(label, system, **texts):
    return {"label": label, "type": system,
            "files": {name.replace("_", " ") + ".txt": text + "\n" for name, text in texts.items()}}


# What there is to plug in: the arguments of box.plug().
THINGS = {
    "stick": {"model": "Stick", "partitions": [
        files("Holiday", "vfat", beach="Sand, sea and sun.", packing_list="Towel\nSun cream\nA long book")]},
    "disk": {"model": "Disk", "partitions": [
        files("Photos", "ntfs", album="Grandmother's garden, 1987"),
        files("Music", "ext4", playlist="A slow one\nA loud one\nA slow one again")]},
    "card": {"model": "Card", "kind": "SD", "partitions": [files("Camera", "vfat", picture="Click.")]},
    "foreign": {"model": "Disk", "partitions": [{"label": "Foreign", "type": "hfs", "mount_point": None}]},
    "phone": {"model": "Phone", "device_type": "UNRECOGNIZED"},
    "modem": {"model": "Internet stick", "device_type": "LTE"},
}


# What there is to see. Each returns what the page gets, in JSON.

def display(box):
    """The messages on the display, the last one first. The peer's identifiers count from 101."""
    shown, count = {}, 100
    for member, *values in box.peer("lcd").calls():
        if member == "addEvent":
            count += 1
            shown[count] = json.loads(values[0])
        elif member == "clearEvent":
            shown.pop(values[0], None)
    return list(shown.values())[::-1]


def sockets(box):
    return [{"name": name, **device, "partitions": records} for name, (device, records) in list(box.disks.items())]


def switches(box):
    streaming = json.loads(box.ask("getMediaStreamingState"))
    protection = credentials(box)
    return {"central": box.ask("GetState"), "streaming": streaming["data"]["mediaStreamingEnabled"],
            "protection": protection["enabled"], "username": protection["username"]}


def credentials(box):
    return json.loads(json.loads(box.ask("getCredentialsForUserShares")))


def ssh(box):
    """The switch, the minutes and the end of the activation that runs, if one does."""
    enabled, minutes, date = (box.get("SSH." + name) for name in ("Enable", "ActivationDuration", "ActivationDate"))
    start = time.mktime(time.strptime(date, "%Y-%m-%dT%H:%M:%SZ")) if date else None
    return {"enabled": enabled, "minutes": minutes, "flavour": box.flavour,
            "end": start and minutes and start + 60 * minutes, "running": start is not None}


def viewers(box):
    """Who looks into the shares, and how smbclient is told."""
    protection = credentials(box)
    user = protection["enabled"] and protection["username"]
    return {"guest": ["-N"], **({user: ["-U", user, "--password=" + protection["password"]]} if user else {})}


def smbclient(box, login, *words):
    """Its output, and in one word what went wrong or None."""
    done = box.run(["smbclient", *login, *words], check=False)
    fault = re.search(r"NT_STATUS_\w+", done.stdout + done.stderr)
    return done.stdout, (fault[0] if fault else f"code {done.returncode}") if fault or done.returncode else None


def shares(box):
    """What each viewer is shown: the shares, in each the files or why there are none."""
    return [[who, *look(box, login)] for who, login in viewers(box).items()]


def look(box, login):
    text, fault = smbclient(box, login, "-g", "-L", "//127.0.0.1")
    found = []
    for name in re.findall(r"^Disk\|(.*?)\|", text, re.M):
        text, refused = smbclient(box, login, f"//127.0.0.1/{name}", "-c", "recurse; ls")
        folder, entries = "", []
        for line in text.splitlines():
            if line[:1] == "\\":
                folder = line[1:] + "\\"
            elif (entry := LISTED.fullmatch(line)) and "D" not in entry[2]:
                entries.append([folder + entry[1], int(entry[3])])
        found.append([name, entries, refused])
    return found, fault


def parameters(box):
    """The agent's parameters: name, short name, value, what went wrong, whether it can be written."""
    def row(name):
        command = "get" if name in console.PARAMETERS["get"] else "object"
        reply, fault = console.attempt(box, lambda: console.parameter(command, box, name)[0])
        return [name, console.short(name), reply, fault, name in console.PARAMETERS["set"]]
    return [row(name) for name in sorted(console.NAMES, key=lambda name: console.short(name).lower())]


# What there is to do. Each takes what the page sent, and returns a text to show or None.

def plug(box, thing, label=""):
    one = {"partitions": None, **THINGS[thing]}
    if not re.fullmatch(r"[^\x00-\x1f]{0,60}", label):
        raise Refusal("a label has up to 60 characters")
    if one["partitions"] and label:
        one["partitions"] = [{**one["partitions"][0], "label": label}, *one["partitions"][1:]]
    with console.LOCK:
        names = [thing] if thing in ("phone", "modem", "card") else [f"sd{letter}" for letter in "abcdefgh"]
        free = [name for name in names if name not in box.disks]
        if not free:
            raise Refusal(f"the socket for a {thing} is taken")
        box.plug(free[0], **one)


def pull(box, name):
    console.unplug(box, name)


def switch(box, name, on, username="", password=""):
    if name == "central":
        box.ask("SetState", bool(on))
    elif name == "streaming":
        box.ask("setMediaStreamingState", bool(on))
    elif name == "ssh":
        console.parameter("set", box, "SSH.Enable", "true" if on else "false")
    elif name == "protection" and on:
        box.ask("updateCredentialsForUserShares", True, username, password)
        if credentials(box) != {"enabled": True, "username": username, "password": password}:
            raise Refusal("the daemon did not take that name and password; its log says why")
    elif name == "protection":
        box.ask("changeStateCredentialsForUserShares", False)


def write(box, key, value):
    if key not in console.PARAMETERS["set"] or type(value) is int and not 0 <= value < 2**32:
        raise Refusal(f"{key} does not take {value!r}")
    if not box.set(key, u(value) if type(value) is int else value):
        raise Refusal(f"{console.short(key)} did not take that; the log may say why")


def read(box, who, share, name):
    if re.search(r'["/;\x00-\x1f]', name) or "/" in share or who not in viewers(box):
        raise Refusal("smbclient cannot be told such a name")
    text, fault = smbclient(box, viewers(box)[who], f"//127.0.0.1/{share}", "-c", f'get "{name}" -')
    if fault:
        raise Refusal(f"{who} cannot read {name}: {fault}")
    return text[:65536]


ACTIONS = {"plug": plug, "pull": pull, "switch": switch, "write": write, "read": read,
           "parameters": parameters}


class Panel:
    """The server of one box: threads that look, and what they saw last."""

    def __init__(self, box, port):
        self.box = box
        self.socket = socket.create_server(("127.0.0.1", port))
        self.port = self.socket.getsockname()[1]
        self.address = f"http://127.0.0.1:{self.port}/"
        self.hosts = [f"{name}:{self.port}" for name in ("127.0.0.1", "localhost")]
        self.seen = {"box": f"{box.pid} {time.time()}",
                     "about": f"Firmware {box.read('/etc/version').strip()}, {box.flavour} build."}
        self.pages = set()  # a queue each
        self.rows, self.since = [], {}  # of the services
        self.signs, self.looks, self.found = None, 0, []  # of the shares
        self.loop = asyncio.new_event_loop()
        threading.Thread(target=self.run, daemon=True).start()
        for name, work, pause in (("display", display, 0.2), ("sockets", sockets, 0.2), ("ssh", ssh, 0.5),
                                  ("services", self.services, 0.7), ("switches", switches, 0.5),
                                  ("shares", self.settled_shares, 1)):
            threading.Thread(target=self.watch, args=(name, work, pause), daemon=True).start()
        for name, path in (("log", "/var/log/messages"), ("sudo", "/run/box/sudo")):
            threading.Thread(target=self.follow, args=(name, path), daemon=True).start()

    def run(self):
        asyncio.set_event_loop(self.loop)
        application = web.Application(middlewares=[self.guard], client_max_size=65536)
        application.add_routes([web.get("/", self.page), web.get("/events", self.events), web.post("/act", self.act)])
        runner = web.AppRunner(application)
        self.loop.run_until_complete(runner.setup())
        self.loop.run_until_complete(web.SockSite(runner, self.socket).start())
        self.loop.run_forever()

    # Looking ------------------------------------------------------------------------------------

    def publish(self, name, value, lasting):
        self.seen[name] = lasting
        for queue in self.pages:
            queue.put_nowait({name: value})

    def watch(self, name, work, pause):
        while True:
            if self.pages:
                try:
                    value, fault = console.attempt(self.box, lambda: work(self.box))
                except Exception as error:  # a tester may have made anything of the box
                    fault = repr(error)
                value = {"fault": fault} if fault else value
                if value != self.seen.get(name):
                    self.loop.call_soon_threadsafe(self.publish, name, value, value)
            time.sleep(pause)

    def services(self, box):
        """Each service: its name, whether it is up and should be, since when."""
        now = time.time()
        states = console.STATES.replace("updownfor", "updownsince,updownfor")
        lines = map(str.split, box.run(["sh", "-c", states], check=False).stdout.splitlines())
        self.rows = [[name, *(word == "true" for word in state[:2]),
                      self.since.setdefault((name, state[2]), round(now - int(state[3])))]
                     for name, *state in lines if len(state) == 4]
        return self.rows

    def settled_shares(self, box):
        """Looks for some seconds after anything changed that a viewer may see, then keeps what was seen."""
        signs = [self.rows, credentials(box), [
            [(entry.name, entry.stat().st_size) for entry in os.scandir(box.path(record["mount_point"]))]
            for _, records in list(box.disks.values()) for record in records if record["mount_point"]]]
        if signs != self.signs:
            self.signs, self.looks = signs, 6
        if self.looks > 0:
            self.looks -= 1
            self.found = shares(box)
        return self.found

    def follow(self, name, path):
        """Hands on the lines of a file, with the number of the first of them."""
        kept, count, place = [], 0, 0
        while True:
            if self.pages and self.box.exists(path):
                with open(self.box.path(path), "rb") as file:
                    file.seek(place)
                    text = file.read()
                text = text[:text.rfind(b"\n") + 1]
                lines = text.decode(errors="replace").splitlines()
                if lines:
                    place += len(text)
                    kept = (kept + lines)[-KEPT:]
                    count += len(lines)
                    self.loop.call_soon_threadsafe(self.publish, name, [count - len(lines), lines],
                                                   [count - len(kept), kept])
            time.sleep(0.2)

    # Serving ------------------------------------------------------------------------------------

    @web.middleware
    async def guard(self, request, handler):
        """What a page from elsewhere in the same browser asks for, under whatever name, is refused."""
        host = request.headers.get("Host")
        if host not in self.hosts:
            raise web.HTTPForbidden(text="This page is for this machine alone.")
        if request.method != "GET" and ("X-Panel" not in request.headers
                                        or request.headers.get("Origin", f"http://{host}") != f"http://{host}"):
            raise web.HTTPForbidden(text="Only the page itself may do that.")
        return await handler(request)

    async def page(self, request):
        with open(os.path.join(HERE, "panel.html"), encoding="utf-8") as file:
            text = file.read()
        nonce = secrets.token_urlsafe(16)
        policy = (f"default-src 'none'; script-src 'nonce-{nonce}'; style-src 'nonce-{nonce}'; connect-src 'self'; "
                  "img-src data:; base-uri 'none'; form-action 'none'; frame-ancestors 'none'")
        return web.Response(text=text.replace("NONCE", nonce), content_type="text/html", headers={
            "Content-Security-Policy": policy, "X-Content-Type-Options": "nosniff", "Cache-Control": "no-store",
            "Referrer-Policy": "no-referrer", "Cross-Origin-Resource-Policy": "same-origin"})

    async def events(self, request):
        response = web.StreamResponse(headers={"Content-Type": "text/event-stream", "Cache-Control": "no-store",
                                               "Cross-Origin-Resource-Policy": "same-origin"})
        await response.prepare(request)
        queue = asyncio.Queue()
        queue.put_nowait(dict(self.seen))
        self.pages.add(queue)
        try:
            while True:
                try:
                    text = "data: " + json.dumps(await asyncio.wait_for(queue.get(), 5))
                except asyncio.TimeoutError:
                    text = ":"
                await response.write(f"{text}\n\n".encode())
        except ConnectionResetError:
            return response
        finally:
            self.pages.discard(queue)

    async def act(self, request):
        try:
            action, values = await request.json()
            work, texts = ACTIONS[action], [value for value in values.values() if isinstance(value, str)]
            if any("\0" in value or value != value.encode(errors="replace").decode() for value in texts):
                raise ValueError("no text for the bus")  # which would end the connection
        except (AttributeError, KeyError, TypeError, ValueError):
            raise web.HTTPBadRequest(text="An action and its values, in JSON.") from None

        def do():
            try:
                return console.attempt(self.box, lambda: work(self.box, **values))
            except (KeyError, TypeError) as error:
                return None, f"{action} cannot be done so: {error}"
        done, fault = await self.loop.run_in_executor(None, do)
        return web.json_response({"done": done, "fault": fault})


def serve(box, port=0):
    """Serves the box's page as long as this process lives; returns its address."""
    return Panel(box, port).address


def main():
    parser = argparse.ArgumentParser(prog="./dev box --panel", description="a running box's front in a browser")
    parser.add_argument("--port", type=int, default=0, help="of the page, on loopback (any)")
    parser.add_argument("commands", nargs="*", help="for the box's shell, after which all ends")
    options = parser.parse_args()
    return console.main(options.commands, lambda box: print(
        f"The box's front: {serve(box, options.port)}", flush=True))


if __name__ == "__main__":
    try:
        sys.exit(main())
    except BoxError as error:
        sys.exit(str(error))
    except (OSError, OverflowError) as error:
        sys.exit(f"the page cannot be served: {error}")
    except KeyboardInterrupt:
        sys.exit(130)
