"""Messages on the front display: their texts, and the keys by which they are cleared."""
import json

from box import u


def show(box, key, device_type="LTE", connection_type="USB"):
    box.disk_signal("DeviceAttached", {"syspath": key, "device_type": device_type,
                                       "connection_type": connection_type})


def dismiss(box, key):
    box.disk_signal("DeviceDetached", {"syspath": key, "device_type": "LTE"})


def test_messages_are_shown_and_cleared_by_key(box):
    box.write("/opt/app/locales.json", json.dumps({
        "Internet backup stick in wrong port": {"fr": "Clé \"mal\"", "en": "Wrong port", "xx": None, "yy": 5},
        "Unsupported USB device attached": {}, "Unsupported SD device attached": "no languages"}))
    box.start_daemon()
    box.wait_log("Partition list received")
    lcd = box.peer("lcd")
    show(box, "/s", "UNRECOGNIZED", "SD")
    for count, (key, identifier) in enumerate([("/a", 11), ("/b", 22), ("/a", 4000000000)], 1):
        lcd.answer("addEvent", u(identifier))
        show(box, key)
        lcd.wait_calls("addEvent", count)
    show(box, "/u", "UNRECOGNIZED")
    assert [call[1] for call in lcd.wait_calls("addEvent", 4)] == [
        '[{"Language":"fr","Description":"Clé \\"mal\\""},{"Language":"en","Description":"Wrong port"},'
        '{"Language":"xx","Description":""},{"Language":"yy","Description":""}]'] * 3 + ["[]"]
    # The first that was shown under a key goes first.
    for key, count in [("/a", 1), ("/a", 2), ("/b", 1)]:
        dismiss(box, key)
        box.wait_log(f'Message with key: "{key}" removed, dbus argc: 0', count=count)
    assert lcd.calls("clearEvent") == [("clearEvent", number) for number in (11, 4000000000, 22)]

    # A message without an identifier is stored all the same.
    lcd.clear()
    lcd.answer("addEvent", "not a number")
    show(box, "/a")
    lcd.wait_calls("addEvent")
    lcd.fail("addEvent")
    show(box, "/c")
    box.wait_log("DBus call to addEvent failed, we didn't get a valid ID in callback", count=2)
    lcd.fail("clearEvent")
    dismiss(box, "/a")
    box.wait_log('Message with key: "/a" removed, dbus argc: -1')

    # Dismissed twice before the display answers: the first answer finds the message.
    lcd.hold("clearEvent")
    dismiss(box, "/c")
    dismiss(box, "/c")
    lcd.wait_calls("clearEvent", 3)
    lcd.release("clearEvent")
    box.wait_log('Requested to delete a non-existent message with key: "/c"')
    assert lcd.calls("clearEvent") == [("clearEvent", 0)] * 3
    assert box.log().count('Message with key: "/c" removed') == 1
