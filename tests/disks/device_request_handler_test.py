"""The web interface's storage object: list, unmount, rename."""
import pytest

from box import NoReply, u

SD = "{syspath: '/sd', device_type: 'STORAGE', connection_type: 'SD'}"
USB = "{syspath: '/usb', device_type: 'STORAGE', connection_type: 'USB'}"


def serve(box, devices, partitions):
    box.peer("ddm").answer("DeviceList", devices)
    box.peer("ddm").answer("PartitionList", partitions)


@pytest.fixture
def gateway(box):
    box.start_daemon()
    box.wait_log("Partition list received")
    box.peer("ddm").forget()
    return box


def test_list_shows_each_kind_of_entry_text_and_number(gateway):
    assert gateway.ask("devices.list") == '{"status":200,"data":[]}'
    serve(gateway, "[" + ",".join([
        "{device_type: 'STORAGE'}", "null", SD,
        "{syspath: '/stick', device_type: 'LTE', connection_type: 'USB', vendor: 'Acme', model: 'M 1'}", USB,
        "{syspath: '/odd', device_type: 'STORAGE', connection_type: 'eSATA'}",
        "{syspath: '/empty', device_type: 'STORAGE', connection_type: 'USB'}",
        "{syspath: '', device_type: 'STORAGE'}",
    ]) + "]", "[7," + ",".join([
        "{disk_syspath: '/usb', syspath: '/usb/1', uuid: 'U1', label: 'Raw', type: 'ext9', "
        "mount_point: '', capacity: 9, free: 9}",
        "{disk_syspath: '/sd', syspath: '/sd/1', uuid: 'S1', label: 'a\\\"b\\\\c\\u0001\\n', type: 'vfat', "
        "mount_point: '/mnt/1', capacity: 12345678901234, free: 1.5}",
        "{disk_syspath: '/odd', uuid: 'O1', label: 'ü/\\u0001', capacity: 1e20, free: '12', mount_point: '/mnt/2'}",
        "{disk_syspath: '/gone', syspath: '/gone/1', uuid: 'G1', mount_point: '/mnt/3'}",
        "{syspath: '/lost', mount_point: '/mnt/4'}",
    ]) + "]")
    assert gateway.ask("devices.list") == '{"status":200,"data":[' + ",".join([
        '{"label":" ","id":"","type":"undefined-storage","fsType":null,'
        '"capacity":null,"freeSpace":null,"supported":false}',
        '{"id":"S1","type":"sd-card","label":"a\\"b\\\\c\\u0001\\n","fsType":"vfat",'
        '"capacity":12345678901234,"freeSpace":1.5,"supported":true}',
        '{"label":"Acme M 1","id":"/stick","type":"usb-disk","fsType":null,'
        '"capacity":null,"freeSpace":null,"supported":false}',
        '{"id":"/usb/1","type":"usb-disk","label":"Raw","fsType":"ext9",'
        '"capacity":null,"freeSpace":null,"supported":false}',
        '{"id":"O1","type":"undefined-storage","label":"ü/\\u0001","fsType":"",'
        '"capacity":1e+20,"freeSpace":0,"supported":true}',
    ]) + "]}"
    # One line for each partition of no disk, at each storage disk that is looked up.
    gateway.wait_log("Unidentified syspath for device", count=2)
    assert gateway.log().count("Unidentified disk syspath for partition") == 8


def test_what_the_disk_daemon_refuses_or_ignores(gateway):
    serve(gateway, "{syspath: '/d'}", "[]")
    assert gateway.ask("devices.list") == '{"status":500,"error":"Error handling DeviceList"}'
    # Everything else leaves the caller to its time-out.
    for devices, partitions in (u(1), "[]"), (f"[{SD}]", "{sizeMB: 1}"), (f"[{SD}]", u(1)):
        serve(gateway, devices, partitions)
        with pytest.raises(NoReply):
            gateway.ask("devices.list", timeout=0.5)
    # Forwarded without waiting.
    ddm = gateway.peer("ddm")
    ddm.forget()
    ddm.mute("UnmountDevice")
    ddm.fail("ChangeLabel")
    assert gateway.ask("unmount", "AAAA-1") == gateway.ask("rename", "AAAA-1", "New; 'label' %s") == '{"status":204}'
    ddm.wait_calls("ChangeLabel")
    assert ddm.calls() == [("UnmountDevice", "AAAA-1"), ("ChangeLabel", "AAAA-1", "New; 'label' %s")]
