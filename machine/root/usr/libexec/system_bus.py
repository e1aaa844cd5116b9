"""What the box's own services on the system bus share: a name, answers to calls, signals."""
import select

import jeepney
from jeepney.io.blocking import open_dbus_connection


class Service:
    """Owns bus names. `names`: for each its answers, by (path, member) a function of the call's arguments; it
    returns the reply's signature and values."""

    def __init__(self, names):
        self.answers = {known: answer for answers in names.values() for known, answer in answers.items()}
        self.connection = open_dbus_connection("SYSTEM")
        bus = jeepney.DBusAddress("/org/freedesktop/DBus", "org.freedesktop.DBus", "org.freedesktop.DBus")
        for name in names:  # without waiting for the reply: a call that comes before it would get lost
            self.connection.send(jeepney.new_method_call(bus, "RequestName", "su", (name, 4)))

    def signal(self, path, interface, member, text):
        emitter = jeepney.DBusAddress(path, interface=interface)
        self.connection.send(jeepney.new_signal(emitter, member, "s", (text,)))

    def serve(self, source=None, event=None):
        """Answers calls for ever, and calls `event` when `source` can be read."""
        sources = [self.connection.sock] + ([source] if source else [])
        while True:
            self.answer_calls()
            if source in select.select(sources, [], [])[0]:
                event()

    def answer_calls(self):
        """Answers what has arrived."""
        while True:
            try:
                call = self.connection.receive(timeout=0)
            except TimeoutError:
                return
            if call.header.message_type is jeepney.MessageType.error:
                raise RuntimeError(call.body)  # a name was refused
            if call.header.message_type is not jeepney.MessageType.method_call:
                continue
            fields = call.header.fields
            known = fields[jeepney.HeaderFields.path], fields[jeepney.HeaderFields.member]
            try:
                signature, *values = self.answers[known](*call.body)
                reply = jeepney.new_method_return(call, signature, tuple(values))
            except (KeyError, TypeError, ValueError, OSError) as error:
                reply = jeepney.new_error(call, "org.freedesktop.DBus.Error.Failed", "s", (repr(error),))
            self.connection.send(reply)
