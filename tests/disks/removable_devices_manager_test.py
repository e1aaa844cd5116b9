"""The disk daemon's lists and signals, as the front display shows them."""
import json

import pytest

from box import u

LOCALES = {
    "SD card attached": {"en": "sd"},
    "USB device attached": {"en": "usb"},
    "Unsupported USB device attached": {"en": "bad usb"},
    "Unsupported SD device attached": {"en": "bad sd"},
    "Internet backup stick in wrong port": {"en": "stick"},
}
USB, BAD_USB, SD, BAD_SD = ("usb", False), ("bad usb", False), ("sd", False), ("bad sd", False)
STICK = ("stick", True)


@pytest.fixture
def gateway(box):
    box.write("/opt/app/locales.json", json.dumps(LOCALES))
    return box


def start(box):
    box.start_daemon()
    box.wait_log("Partition list received")


def device(syspath, connection="USB", kind="STORAGE", partitions=1):
    return {"syspath": syspath, "device_type": kind, "connection_type": connection, "partitions_count": partitions}


def partition(syspath, disk, mounted=True):
    return {"syspath": syspath, "disk_syspath": disk, "mount_point": "/mnt" + syspath if mounted else ""}


def attach(box):
    box.disk_signal("DeviceAttached", device("/d"))
    box.disk_signal("PartitionConnected", partition("/d/1", "/d"))


def shown(box, count):
    """What the display shows once it shows `count` messages: each (text, flag)."""
    calls = box.peer("lcd").wait_calls("addEvent", count)
    assert all(call[2:4] == (1, True) for call in calls)
    return [(json.loads(call[1])[0]["Description"], call[4]) for call in calls]


def test_a_disk_is_shown_with_its_last_partition(gateway):
    gateway.peer("ddm").answer("DeviceList", "[{syspath: '/d', connection_type: 'SD', partitions_count: 1}]")
    start(gateway)
    expected = []
    for number, (connection, mounted, message) in enumerate([
            ("USB", [False, True], USB),
            ("SATA", [True], None),
            ("SD", [False, False], BAD_SD),
            ("SD", [True, False, False], SD)]):
        disk = f"/disk{number}"
        gateway.disk_signal("DeviceAttached", device(disk, connection, partitions=len(mounted)))
        for index, usable in enumerate(mounted):
            # None of them is the disk's last one.
            gateway.disk_signal("PartitionConnected", partition("/other", "/unknown"))
            gateway.disk_signal("PartitionConnected", partition(f"{disk}/{index}", disk, usable))
        expected += [message] if message else []
    # What went does not count, and the same partition again is a second entry.
    for member, record in [
            ("DeviceDetached", device("/d")),
            ("DeviceAttached", device("/d", partitions=2)),
            ("PartitionConnected", partition("/d/1", "/d")),
            ("PartitionDisconnected", partition("/d/1", "/d")),
            ("PartitionDisconnected", partition("/elsewhere", "/d")),
            ("PartitionConnected", partition("/d/2", "/d", mounted=False)),
            ("PartitionConnected", partition("/d/2", "/d", mounted=False))]:
        gateway.disk_signal(member, record)
    assert shown(gateway, 4) == expected + [BAD_USB]


def test_other_devices_are_shown_at_once_and_cleared(gateway):
    start(gateway)
    attach(gateway)
    cases = [device("/a", "USB", "UNRECOGNIZED"), device("/b", "", "UNRECOGNIZED"),
             device("/c", "SD", "UNRECOGNIZED"), device("/p", "USB", "PRINTER"), device("/e", "USB", "LTE")]
    for case in [*cases, cases[-1]]:
        gateway.disk_signal("DeviceAttached", case)
    # The last reply is announced: its key is stored already.
    assert shown(gateway, 5) == [USB, BAD_USB, BAD_SD, STICK, STICK]
    gateway.wait_log('registration key: "/e" already exists')
    for gone in [device("/d"), *cases]:
        gateway.disk_signal("DeviceDetached", gone)
    cleared = gateway.peer("lcd").wait_calls("clearEvent", 3)
    # In the order of showing the identifiers follow each other: the disk's own stays.
    first = cleared[0][1]
    assert [call[1] for call in cleared] == [first, first + 1, first + 2]


def test_a_late_list_replaces_what_signals_brought(gateway):
    gateway.peer("ddm").hold("PartitionList")
    gateway.start_daemon()
    gateway.wait_log("Device list received")
    gateway.peer("ddm").wait_calls("PartitionList")
    assert [call[0] for call in gateway.peer("ddm").calls()][:2] == ["DeviceList", "PartitionList"]
    attach(gateway)
    gateway.peer("ddm").release("PartitionList")
    gateway.wait_log("Partition list received")
    gateway.disk_signal("PartitionConnected", partition("/d/2", "/d", mounted=False))
    assert shown(gateway, 2) == [USB, BAD_USB]


def test_bad_messages_change_nothing(gateway):
    odd = "[null,true,3,'text',[],[{a: 'b'}],{x: null},{syspath: 4, disk_syspath: ['/d']},"
    ddm = gateway.peer("ddm")
    ddm.answer("DeviceList", odd + "{syspath: '/d', connection_type: 'USB', partitions_count: 1}]")
    ddm.answer("PartitionList", odd + "{disk_syspath: null, mount_point: 1}]")
    start(gateway)
    for member in "PartitionConnected", "PartitionDisconnected", "DeviceAttached", "DeviceDetached":
        gateway.signal("com.kelvanto.ddm", member, "{syspath: '/d'}", "second")
        for record in ["", "{syspath: 5}", "[" * 2000]:
            gateway.disk_signal(member, record)
    gateway.disk_signal("PartitionConnected", partition("/d/1", "/d"))
    assert shown(gateway, 1) == [USB]
    # The text of the latest failure is kept for support.
    assert gateway.read("/tmp/nimbrel/ddm_data.err") == "[" * 2000

    # A list's reply that is no list leaves what the signals bring.
    for number, answer in enumerate(["{syspath: '/d'}", "null", u(4), None], 2):
        for member in "DeviceList", "PartitionList":
            ddm.fail(member) if answer is None else ddm.answer(member, answer)
        gateway.restart_daemon()
        for kind in "device", "partition":
            if isinstance(answer, str):
                gateway.wait_log(f"Cannot parse {kind} list", count=number - 1)
            else:
                gateway.wait_log(f"Bad params passed to {kind}_list_callback", count=number - 3)
        attach(gateway)
        assert shown(gateway, number) == [USB] * number
