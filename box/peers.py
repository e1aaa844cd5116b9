"""The bus peers of the box: disk daemon, display, management agent, media server, hardware service.
Each answers rightly by itself and can be told to answer otherwise, with an error, when it is told to, or not."""
import threading
import time

import jeepney
from jeepney import HeaderFields, MessageType
from jeepney.io.threading import ReceiveStopped


class BoxError(Exception):
    """The box itself, or something that a test relies on, did not come about."""


class BusError(Exception):
    """An error reply: its name and text."""

    def __init__(self, name, text):
        super().__init__(f"{name}: {text}")
        self.name = name
        self.text = text


class NoReply(Exception):
    """Nobody answered in time."""


class u(int):
    """An unsigned 32-bit argument."""


class i(int):
    """A signed 32-bit argument."""


def wait_until(condition, what, timeout=30, every=0.02):
    """The first true value of `condition`, asked every few milliseconds."""
    deadline = time.monotonic() + timeout
    while not (value := condition()):
        if time.monotonic() > deadline:
            raise BoxError(f"not within {timeout} s: {what}")
        time.sleep(every)
    return value


def signature_of(args):
    """The signature and the plain values of a list of arguments."""
    signature, values = "", []
    for arg in args:
        if isinstance(arg, tuple):
            code, arg = arg
        else:
            code = {bool: "b", str: "s", u: "u", i: "i"}[type(arg)]
        signature += code
        values.append(arg)
    return signature, tuple(values)


# Per connection: its bus name, and the peers on it as (peer, object path or None for any, answers).
# An answer is the list of the reply's values, or a function of the box and the call's count.
DEFAULT_PEERS = [
    ("com.kelvanto.ddm", [("ddm", None, {
        "DeviceList": lambda box, count: [box.device_list()],
        "PartitionList": lambda box, count: [box.partition_list()],
        "IsDiskSleepEnabled": [False],
        "SetDiskSleepEnabled": [True],
    })]),
    ("com.softathome.dm", [
        ("lcd", "/AP/LCD", {"addEvent": lambda box, count: [u(100 + count)]}),
        ("agent", "/AP", {}),
    ]),
    ("com.kelvanto.dlna", [("dlna", None, {"DmsStreamingState": [True]})]),
    ("com.kelvanto.hardware", [("hardware", None, {
        "HardwareInfoRequest": ["board 1", "revision 2", "bootloader 3.4"],
    })]),
]


class View:
    """One peer, as a test sees it."""

    def __init__(self, peer, path, answers):
        self.peer = peer
        self.path = path
        self.defaults = answers
        self.clear()

    def calls(self, member=None):
        """The calls received so far, each (member, argument, ...); of one member when it is given."""
        return [call for call in list(self.received) if member in (None, call[0])]

    def wait_calls(self, member, count=1, timeout=30):
        """Waits for that many calls of the member and returns them."""
        wait_until(lambda: len(self.calls(member)) >= count, f"{count} calls of {member}", timeout)
        return self.calls(member)

    def answer(self, member, *values):
        """Replies with these values from now on."""
        self.answers[member] = list(values)
        self.failing.discard(member)
        self.muted.discard(member)

    def fail(self, member):
        """Replies with an error."""
        self.failing.add(member)

    def hold(self, member):
        """Keeps the replies back until they are released."""
        self.held[member] = []

    def release(self, member, hold=False):
        """Sends the replies that were kept back; goes on to keep the next ones if told so."""
        with self.peer.lock:
            for reply in self.held.pop(member):
                self.peer.reply(reply)
            if hold:
                self.hold(member)

    def mute(self, member):
        """Never replies."""
        self.muted.add(member)

    def clear(self):
        """Forgets the calls and everything that the peer was told."""
        self.received = []
        self.answers = dict(self.defaults)
        self.failing, self.muted, self.held = set(), set(), {}

    def forget(self):
        """Forgets the calls alone."""
        self.received = []

    def leave(self):
        """Gives the bus name up (for all peers under that name)."""
        self.peer.name_call("ReleaseName", "s", (self.peer.name,))

    def join(self):
        """Takes the bus name back."""
        self.peer.name_call("RequestName", "su", (self.peer.name, 0))


class Peer:
    """A connection with a bus name and a thread that answers; one or more views on it."""

    def __init__(self, connection, names, box):
        self.connection = connection
        self.box = box
        self.lock = threading.Lock()  # a call that is seen is also answered, or held
        self.name, views = names
        self.views = {name: View(self, path, answers) for name, path, answers in views}
        self.name_call("RequestName", "su", (self.name, 0))
        self.thread = threading.Thread(target=self._serve, daemon=True)
        self.thread.start()

    def close(self):
        self.connection.interrupt()
        self.thread.join()
        self.connection.close()

    def name_call(self, method, signature, values):
        address = jeepney.DBusAddress("/org/freedesktop/DBus", bus_name="org.freedesktop.DBus",
                                      interface="org.freedesktop.DBus")
        self.connection.send(jeepney.new_method_call(address, method, signature, values))

    def signal(self, path, interface, member, *args):
        signature, values = signature_of(args)
        emitter = jeepney.DBusAddress(path, interface=interface)
        self.connection.send(jeepney.new_signal(emitter, member, signature or None, values))

    def _serve(self):
        while True:
            try:
                message = self.connection.receive()
            except (ReceiveStopped, OSError):
                return
            if message.header.message_type is MessageType.method_call:
                with self.lock:
                    self._handle(message)

    def _handle(self, message):
        fields = message.header.fields
        path, member = fields[HeaderFields.path], fields[HeaderFields.member]
        for view in self.views.values():
            if view.path in (None, path):
                break
        else:
            self.reply(jeepney.new_error(message, "org.freedesktop.DBus.Error.UnknownObject"))
            return
        view.received.append((member, *message.body))
        if member in view.muted:
            return
        if member in view.failing:
            reply = jeepney.new_error(message, "com.kelvanto.Error.Failed", "s", ("told to fail",))
        else:
            answer = view.answers.get(member, [])
            if callable(answer):
                answer = answer(self.box, len(view.calls(member)))
            signature, values = signature_of(answer)
            reply = jeepney.new_method_return(message, signature or None, values)
        if member in view.held:
            view.held[member].append(reply)
        else:
            self.reply(reply)

    def reply(self, message):
        try:
            self.connection.send(message)
        except OSError:
            pass  # the box went first
