"""Messages on the front display: their texts, and the keys by which they are cleared."""

import json
import time

from box import u

DDM = "com.kelvanto.ddm"


def start(box, locales):
    box.write("/opt/app/locales.json", locales)
    box.peer("lcd").answer("addEvent", u(1))
    box.start_daemon()
    box.wait_log("Partition list received")


def plug_stick(box, key, member="DeviceAttached"):
    box.signal(DDM, member, f"{{syspath: '{key}', device_type: 'LTE'}}")


def pull_stick(box, key):
    plug_stick(box, key, "DeviceDetached")


def calls(box, settle=0.3):
    time.sleep(settle)
    return [(member, int(args[0]) if member == "clearEvent" else str(args[0]))
            for member, *args in box.peer("lcd").calls() if member in ("addEvent", "clearEvent")]


STICK = json.dumps({"Internet backup stick in wrong port": {"en": "Stick"}})


def test_texts_go_out_in_the_order_of_the_file(box):
    start(box, json.dumps({
        "Internet backup stick in wrong port": {
            "fr": "Clé \"mal\"", "en": "Wrong port", "xx": None, "yy": 5},
        "Unsupported USB device attached": {},
        "Unsupported SD device attached": "no languages",
    }))
    plug_stick(box, "/s")
    for connection in ["USB", "SD"]:
        box.signal(DDM, "DeviceAttached", f"{{syspath: '/x', device_type: 'UNRECOGNIZED', "
                                          f"connection_type: '{connection}'}}")
    box.wait_log("Failed to find proper locale object for event id: ")
    assert calls(box) == [
        ("addEvent", '[{"Language":"fr","Description":"Clé \\"mal\\""},'
                     '{"Language":"en","Description":"Wrong port"},'
                     '{"Language":"xx","Description":""},{"Language":"yy","Description":""}]'),
        ("addEvent", "[]"),
    ]


def test_a_broken_locale_file_leaves_the_daemon_running(box):
    start(box, "{broken")
    box.wait_log("Cannot parse json LCD locale")
    plug_stick(box, "/s")
    box.wait_log("Locale not parsed or invalid, won't send message")
    pull_stick(box, "/s")
    box.wait_log('Attempt to remove non-existent message from list, key: "/s"')
    assert calls(box) == []


def test_messages_are_cleared_by_key_first_shown_first(box):
    start(box, STICK)
    for key, identifier in [("/a", 11), ("/b", 22), ("/a", 4000000000)]:
        box.peer("lcd").answer("addEvent", u(identifier))
        plug_stick(box, key)
        calls(box)
    assert 'Message with registration key: "/a" already exists in list' in box.log()
    box.peer("lcd").clear()
    for key in ["/a", "/a", "/b", "/a"]:
        pull_stick(box, key)
        calls(box)
    assert calls(box) == [("clearEvent", 11), ("clearEvent", 4000000000), ("clearEvent", 22)]


def test_a_message_without_identifier_is_stored_all_the_same(box):
    start(box, STICK)
    box.peer("lcd").answer("addEvent", "not a number")
    plug_stick(box, "/a")
    calls(box)
    box.peer("lcd").fail("addEvent")
    plug_stick(box, "/b")
    box.wait_log("DBus call to addEvent failed, we didn't get a valid ID in callback")
    calls(box)
    box.peer("lcd").clear()
    box.peer("lcd").fail("clearEvent")
    pull_stick(box, "/a")
    box.wait_log('Message with key: "/a" removed, dbus argc: -1')
    pull_stick(box, "/b")
    assert calls(box) == [("clearEvent", 0), ("clearEvent", 0)]


def test_dismissed_twice_before_the_first_answer(box):
    start(box, STICK)
    box.peer("lcd").answer("addEvent", u(5))
    plug_stick(box, "/a")
    calls(box)
    box.peer("lcd").clear()
    box.peer("lcd").delay("clearEvent", 0.5)
    pull_stick(box, "/a")
    pull_stick(box, "/a")
    box.wait_log('Requested to delete a non-existent message with key: "/a"')
    assert calls(box) == [("clearEvent", 5), ("clearEvent", 5)]
    assert box.log().count('Message with key: "/a" removed') == 1
