"""The disk daemon's lists and signals, as the front display shows them."""

import json
import time

import pytest

from box import u

DDM = "com.kelvanto.ddm"

LOCALES = {
    "SD card attached": {"en": "sd"},
    "USB device attached": {"en": "usb"},
    "Unsupported USB device attached": {"en": "bad usb"},
    "Unsupported SD device attached": {"en": "bad sd"},
    "Internet backup stick in wrong port": {"en": "stick"},
}


@pytest.fixture
def gateway(box):
    box.write("/opt/app/locales.json", json.dumps(LOCALES))
    box.peer("ddm").answer("DeviceList", "[]")
    box.peer("ddm").answer("PartitionList", "[]")
    box.peer("lcd").answer("addEvent", u(77))
    return box


def start(box):
    box.start_daemon()
    box.wait_log("Partition list received")


def device(syspath, connection="USB", kind="STORAGE", partitions=1):
    return (f"{{syspath: '{syspath}', device_type: '{kind}', connection_type: '{connection}', "
            f"partitions_count: {partitions}}}")


def partition(syspath, disk, mounted=True):
    mount_point = f"/mnt{syspath}" if mounted else ""
    return f"{{syspath: '{syspath}', disk_syspath: '{disk}', mount_point: '{mount_point}'}}"


def shown(box, settle=0.3):
    """(text, flag) of every message shown so far, and the identifiers cleared."""
    time.sleep(settle)
    texts, cleared = [], []
    for member, *args in box.peer("lcd").calls():
        if member == "addEvent":
            text, number, first, flag = args
            assert (number, bool(first)) == (1, True)
            texts.append((json.loads(text)[0]["Description"], bool(flag)))
        elif member == "clearEvent":
            cleared.append(int(args[0]))
    return texts, cleared


@pytest.mark.parametrize("connection, mounted, message", [
    ("USB", [False, True], [("usb", False)]),
    ("USB", [False], [("bad usb", False)]),
    ("SD", [True], [("sd", False)]),
    ("SD", [False, False], [("bad sd", False)]),
    ("SATA", [True], []),
])
def test_a_disk_is_shown_with_its_last_partition(gateway, connection, mounted, message):
    start(gateway)
    gateway.signal(DDM, "DeviceAttached", device("/d", connection, partitions=len(mounted)))
    for number, is_mounted in enumerate(mounted):
        assert shown(gateway, 0.1) == ([], [])
        gateway.signal(DDM, "PartitionConnected", partition(f"/d/{number}", "/d", is_mounted))
    assert shown(gateway) == (message, [])
    # A storage disk's message stays when the disk goes.
    gateway.signal(DDM, "DeviceDetached", device("/d", connection))
    assert shown(gateway) == (message, [])


def test_partitions_that_went_do_not_count(gateway):
    gateway.peer("ddm").answer("DeviceList", "[" + device("/d", partitions=2) + "]")
    start(gateway)
    gateway.signal(DDM, "PartitionConnected", partition("/d/1", "/d"))
    gateway.signal(DDM, "PartitionDisconnected", partition("/d/1", "/d"))
    gateway.signal(DDM, "PartitionDisconnected", partition("/elsewhere", "/d"))
    gateway.signal(DDM, "PartitionConnected", partition("/d/2", "/d"))
    assert shown(gateway) == ([], [])
    # The same partition again is a second entry.
    gateway.signal(DDM, "PartitionConnected", partition("/d/2", "/d", mounted=False))
    assert shown(gateway) == ([("usb", False)], [])


@pytest.mark.parametrize("kind, connection, message", [
    ("LTE", "USB", [("stick", True)]),
    ("UNRECOGNIZED", "USB", [("bad usb", False)]),
    ("UNRECOGNIZED", "SD", [("bad sd", False)]),
    ("UNRECOGNIZED", "", []),
    ("PRINTER", "USB", []),
])
def test_other_devices_are_shown_at_once_and_cleared(gateway, kind, connection, message):
    start(gateway)
    gateway.signal(DDM, "DeviceAttached", device("/x", connection, kind))
    assert shown(gateway) == (message, [])
    gateway.signal(DDM, "DeviceDetached", device("/x", connection, kind))
    assert shown(gateway) == (message, [77] if message else [])


def test_a_late_list_replaces_what_signals_brought(gateway):
    gateway.peer("ddm").delay("PartitionList", 1)
    gateway.start_daemon()
    gateway.wait_log("Device list received")
    assert [call[0] for call in gateway.peer("ddm").calls()][:2] == ["DeviceList", "PartitionList"]
    gateway.signal(DDM, "DeviceAttached", device("/d", partitions=1))
    gateway.signal(DDM, "PartitionConnected", partition("/d/1", "/d"))
    gateway.wait_log("Partition list received")
    gateway.signal(DDM, "PartitionConnected", partition("/d/2", "/d", mounted=False))
    assert shown(gateway) == ([("usb", False), ("bad usb", False)], [])


def test_bad_messages_change_nothing(gateway):
    odd = "[null,true,3,'text',[],[{a: 'b'}],{x: null},{syspath: 4, disk_syspath: ['/d']},"
    gateway.peer("ddm").answer("DeviceList", odd + device("/d", partitions=1) + "]")
    gateway.peer("ddm").answer("PartitionList", odd + "{disk_syspath: null, mount_point: 1}]")
    start(gateway)
    for member, handler in [("PartitionConnected", "partition_connected_callback"),
                            ("PartitionDisconnected", "partition_disconnected_callback"),
                            ("DeviceAttached", "device_attached_callback"),
                            ("DeviceDetached", "device_detached_callback")]:
        gateway.signal(DDM, member)
        gateway.signal(DDM, member, u(1))
        gateway.signal(DDM, member, ("as", ["x"]))
        gateway.signal(DDM, member, device("/d"), "second")
        for text in ["", "%s%n", "{sizeMB: 3}", "[]", "null", "'text'", "{syspath: null}",
                     "{syspath: 5}", "{syspath: ['/d']}", "[" * 2000, "{device_type: 'LTE'}"]:
            gateway.signal(DDM, member, text)
        gateway.signal(DDM, member, "{syspath: ''}")
        gateway.wait_log(f"Bad params passed to {handler}")
    gateway.signal(DDM, "PartitionConnected", partition("/d/1", "/d"))
    assert shown(gateway) == ([("usb", False)], [])
    log = gateway.log()
    for text in ["Cannot parse partition connected", "Cannot parse partition disconnected",
                 "Cannot parse device attached", "Cannot parse device detached",
                 "Device syspath is empty", "removable_devices_manager - Syspath is empty"]:
        assert text in log
    # The text of the latest failure is kept for support.
    assert gateway.read("/tmp/nimbrel/ddm_data.err") == "[" * 2000


@pytest.mark.parametrize("answer, complaint", [
    ("{syspath: '/d'}", "Cannot parse {} list"),
    ("null", "Cannot parse {} list"),
    ("[{sizeMB: 1}]", "Cannot parse {} list"),
    (u(4), "Bad params passed to {}_list_callback"),
    (None, "Bad params passed to {}_list_callback"),
])
def test_a_list_reply_that_is_no_list_is_refused(gateway, answer, complaint):
    for member in ["DeviceList", "PartitionList"]:
        if answer is None:
            gateway.peer("ddm").fail(member)
        else:
            gateway.peer("ddm").answer(member, answer)
    gateway.start_daemon()
    gateway.wait_log(complaint.format("device"))
    gateway.wait_log(complaint.format("partition"))
    gateway.signal(DDM, "DeviceAttached", device("/d"))
    gateway.signal(DDM, "PartitionConnected", partition("/d/1", "/d"))
    assert shown(gateway) == ([("usb", False)], [])
