"""The management agent's parameters: values from the configuration, from the box and from peers."""
import os
import re

import pytest

from box import ROOT, i, u, wait_until

DEVICE = "Device.X_KELVANTO-COM_DeviceManagement."
SYSLOG = DEVICE + "Syslog."
STATE = DEVICE + "ProvisioningState"
STORAGE = "Device.StorageService.1."
BUS = ("/com/kelvanto/nimbrel", "com.kelvanto.nimbrel.datamodel")


@pytest.fixture
def gateway(box):
    box.start_daemon()
    return box


def get(box, key):
    """The value with its type, as dbus-send prints it; "" for an empty reply."""
    return box.run(["dbus-send", "--system", "--print-reply=literal", "--dest=com.kelvanto.nimbrel", BUS[0],
                    BUS[1] + ".GetValue", "string:" + key]).stdout.strip()


def uptime(box):
    return float(box.read("/proc/uptime").split()[0])


def set_value(box, key, value):
    return box.data_model("SetValue", key, value) == (True,)


# Per parameter: its value as dbus-send prints it, a value that it takes, a trace of its being applied.
TABLE = [
    ("Device.DeviceInfo.SoftwareVersion", "08.05.09", None, ""),
    ("Device.DeviceInfo.ProvisioningCode", "", "NORTH", ""),
    ("Device.DeviceInfo.UpTime", "uint32", None, ""),
    ("Device.DeviceInfo.FirstUseDate", "", None, ""),
    ("Device.LAN.IPAddress", "192.168.1.1", None, ""),
    ("Device.LAN.MACAddress", "02:00:5e:10:00:01", None, ""),
    (STORAGE + "PhysicalMediumNumberOfEntries", "uint32 0", None, ""),
    (STORAGE + "PhysicalMedium.1", "", None, ""),
    (STORAGE + "LogicalVolumeNumberOfEntries", "uint32 0", None, ""),
    (STORAGE + "LogicalVolume.1", "", None, ""),
    (STATE, "UNPROVISIONED", "PROVISIONED", ""),
    (DEVICE + "FWUpgradeValidation", "boolean true", False, ""),
    (DEVICE + "DevelopmentBuildsAllowed", "boolean false", True, ""),
    (DEVICE + "MinimumFWVersion", "", "08.05.01", ""),
    (DEVICE + "BootloaderVersion", "bootloader 3.4", None, ""),
    (DEVICE + "Storage.USBStorageDevicesCount", "int32 0", None, ""),
    (DEVICE + "Storage.SDCardPresent", "boolean false", None, ""),
    (DEVICE + "Storage.PasswordProtectionEnabled", "boolean false", None, ""),
    (DEVICE + "Storage.DiskSleepEnabled", "boolean false", None, ""),
    (DEVICE + "Storage.CentralStorageEnabled", "boolean true", None, ""),
    (SYSLOG + "NumberOfFiles", "uint32 5", u(6), "/syslogd-log"),
    (SYSLOG + "MaxFileSize", "uint32 512", u(500), "/syslogd-log"),
    (SYSLOG + "Persistent", "boolean false", True, "/syslogd-log"),
    (SYSLOG + "PersistentLogActivationDuration", "uint32 1440", u(30), "Continuing persistent logging"),
    (SYSLOG + "PersistentLogActivationDate", "", None, ""),
    (DEVICE + "SerialConsole.TracesEnabled", "boolean false", True, "dmesg"),
    (DEVICE + "SerialConsole.LoginEnabled", "boolean true", False, "early-getty"),
    (DEVICE + "SerialConsole.LoginPassword", "", None, ""),
    (DEVICE + "SSH.AuthorizedKey", "", "key", "set_auth_key.sh key"),
    (DEVICE + "SSH.Enable", "boolean false", True, "Applying ssh configuration"),
    (DEVICE + "SSH.ExternalNPPort", "uint32 2222", u(2200), " 2200 22 "),
    (DEVICE + "SSH.ActivationDuration", "uint32 1440", u(20), "Continuing ssh session"),
    (DEVICE + "SSH.ActivationDate", "20", None, ""),
    (DEVICE + "VPN.Enable", "boolean false", True, "change ipsec"),
    (DEVICE + "VPN.GlobalEnable", "boolean false", True, "change ipsec"),
    (DEVICE + "VPN.VoIPCallsBlockEnable", "boolean false", True, "firewallctl"),
    (DEVICE + "Debug.Segfault.Count", "uint32 0", None, ""),
    (DEVICE + "Debug.Segfault.LastTimeStamp", "", None, ""),
    (DEVICE + "Debug.Segfault.DumpNumberOfEntries", "uint32 5", None, ""),
    (DEVICE + "Debug.Segfault.Dump.1", "", None, ""),
]


@pytest.mark.sanitize
def test_every_parameter(box):
    box.edit_config(lambda config: config["segfault"].update(firmwareVersion="08.05.09"))
    box.start_daemon()
    # Nothing but the activation itself saved its date.
    assert get(box, DEVICE + "SSH.ActivationDate") == box.config()["ssh"]["activationDate"]
    for key, value, _, _ in TABLE:
        told = get(box, key)
        assert told == value or value in ("20", "uint32") and told.startswith(value), key
    with open(os.path.join(ROOT, "docs", "parameters.md")) as page:  # in the same order
        rows = re.findall(r"^\| `(.*?)(?:\*)?` \| (\w) \| (\w+) \|", page.read(), re.M)
    for (name, kind, settable), (key, value, wanted, _) in zip(rows, TABLE, strict=True):
        assert name in key and (settable == "yes") == (wanted is not None) or wanted is None and name in (
            "Storage.DiskSleepEnabled", "SerialConsole.LoginPassword"), key
        assert kind == {"uint32": "u", "int32": "i", "boolean": "b"}.get(value.split()[0] if value else "", "s"), key
    for key, value, wanted, trace in TABLE:
        log, commands = len(box.log()), len(box.sudo())
        assert not set_value(box, key, ("x", 5)), key
        if wanted is None:
            assert key.endswith(("DiskSleepEnabled", "LoginPassword")) or not any(
                set_value(box, key, other) for other in ("x", True, u(1))), key
            continue
        assert set_value(box, key, wanted), key
        text = {bool: f"boolean {wanted}".lower(), u: f"uint32 {wanted}"}.get(type(wanted), wanted)
        assert get(box, key) == text, key
        wait_until(lambda: trace in box.log()[log:] + "\n".join(box.sudo()[commands:]), f"{key} applied")
    (dump,) = box.data_model("GetObject", DEVICE + "Debug.Segfault.Dump.5")
    assert dump == '{"Time":"","ProcessName":""}'


@pytest.mark.sanitize
def test_values_of_the_configuration_and_the_box(box):
    def change(config):
        config["cpeDevice"]["deviceInfo"]["provisioningCode"] = 'a "code" % ü'
        config["segfault"]["firmwareVersion"] = "08.05.09"
        config["segfault"]["count"] = 5000000000
        config["upgradeConfig"]["minimumFirmwareVersion"] = -7
        config["upgradeConfig"]["developmentBuildsAllowed"] = ["a list"]
        del config["upgradeConfig"]["firmwareValidationEnabled"]
        config["deviceManagement"] = 5
    box.edit_config(change)
    box.start_daemon()
    box.wait_log("Cannot start service [datamodel]")

    for key, value in [("Device.DeviceInfo.ProvisioningCode", 'a "code" % ü'),
                       (DEVICE + "MinimumFWVersion", "int32 -7"),
                       (DEVICE + "Debug.Segfault.Count", "uint32 2147483647")]:
        assert get(box, key) == value, key
    before, (kind, seconds), after = uptime(box), get(box, "Device.DeviceInfo.UpTime").split(), uptime(box)
    assert kind == "uint32" and before - 1 < int(seconds) < after + 2
    assert box.data_model("GetObject", "Device.LAN.IPAddress") == ("192.168.1.1",)
    box.run(["ip", "link", "del", "eth1"])
    assert get(box, "Device.LAN.IPAddress") == "0.0.0.0"
    assert box.data_model("GetValue", "Device.LAN.MACAddress") == ("",)

    for key in [DEVICE + "DevelopmentBuildsAllowed", DEVICE + "FWUpgradeValidation", STATE,
                STORAGE + "PhysicalMedium.1", "", "%s%n", "Device.LAN.IPAddress ", "x" * 100000]:
        assert box.data_model("GetValue", key) == ()
    for line in ["Cannot handle config type 5 in request for config value at key "
                 " upgradeConfig developmentBuildsAllowed",
                 "Cannot find object for key  upgradeConfig firmwareValidationEnabled",
                 f"Failed to get value for key {STORAGE}PhysicalMedium.1: handler not found"]:
        box.wait_log(line)

    assert box.call(*BUS, "GetValue", u(1)) == box.call(*BUS, "GetObject", u(1)) == ()
    assert box.call(*BUS, "SetValue", SYSLOG + "MaxFileSize") == (False,)
    assert box.data_model("GetObject", SYSLOG + "MaxFileSize") == ()  # no object
    assert box.config()["syslog"]["maxFileSize"] == 512


@pytest.mark.sanitize
def test_writing_the_configuration(gateway):
    box = gateway
    # A signed number is read as unsigned; the integer copy, which everybody reads, saturates.
    assert set_value(box, SYSLOG + "NumberOfFiles", i(-1))
    assert box.config()["syslog"]["numberOfFiles"] == 4294967295
    assert get(box, SYSLOG + "NumberOfFiles") == "uint32 2147483647"
    box.wait_log(f"Failed to apply value for key {SYSLOG}NumberOfFiles")
    assert set_value(box, SYSLOG + "NumberOfFiles", i(9))

    texts = ['', 'x', 'a"b\\c\n[x]\x01ü', '{"a": 1}', "%s", "y" * 50000]
    for text in texts:
        assert set_value(box, "Device.DeviceInfo.ProvisioningCode", text)
        assert box.data_model("GetValue", "Device.DeviceInfo.ProvisioningCode") == (text,)
    # Six bytes each in the document: it would be too large to be loaded again.
    assert not set_value(box, "Device.DeviceInfo.ProvisioningCode", "\x01" * (11 << 20))
    assert set_value(box, SYSLOG + "NumberOfFiles", i(8)) and set_value(box, SYSLOG + "NumberOfFiles", i(9))
    expected = box.config()
    assert expected["cpeDevice"]["deviceInfo"]["provisioningCode"] == texts[-1]

    applied = box.log().count("syslogd-log already run with the right options")
    for key, value in [(SYSLOG + "NumberOfFiles", "7"), (SYSLOG + "Persistent", u(1))]:
        assert not set_value(box, key, value)
    # kept: the hook runs after a refused value too.
    box.wait_log("syslogd-log already run with the right options", count=applied + 2)
    for key in ["Device.DeviceInfo.SoftwareVersion", DEVICE + "Storage.CentralStorageEnabled",
                STORAGE + "PhysicalMedium.1", "Device.LAN.IPAddress"]:
        assert not set_value(box, key, "x")
        box.wait_log(f"Failed to get value for key {key}: handler callback not found")
    assert not set_value(box, "Device.Nothing", "x")
    assert box.config() == expected

    # A change that a full medium cannot take is answered false; memory keeps it.
    box.fill_medium()
    assert not set_value(box, DEVICE + "MinimumFWVersion", "08")
    assert get(box, DEVICE + "MinimumFWVersion") == "08"
    assert box.config() == expected


@pytest.mark.sanitize
def test_values_of_peers(gateway):
    box = gateway
    hardware, disks = box.peer("hardware"), box.peer("ddm")
    bootloader, sleep = DEVICE + "BootloaderVersion", DEVICE + "Storage.DiskSleepEnabled"
    assert get(box, bootloader) == "bootloader 3.4"
    hardware.answer("HardwareInfoRequest", "a", "b", u(3))
    assert box.data_model("GetValue", bootloader) == ()
    hardware.leave()
    assert box.data_model("GetValue", bootloader) == ()

    assert get(box, sleep) == "boolean false"
    disks.answer("SetDiskSleepEnabled", False)
    assert box.data_model("SetValue", sleep, True) == (False,)
    assert disks.calls("SetDiskSleepEnabled") == [("SetDiskSleepEnabled", True)]
    assert box.data_model("SetValue", sleep, u(1)) == (False,)
    assert len(disks.calls("SetDiskSleepEnabled")) == 1
    disks.answer("SetDiskSleepEnabled", u(1))
    assert box.data_model("SetValue", sleep, False) == ()


def test_provisioning_state(gateway):
    box, agent = gateway, gateway.peer("agent")
    assert agent.wait_calls("set") == [("set", {"ProvisioningState": "UNPROVISIONED"})]
    box.wait_log("Service [datamodel] successfully started")
    agent.clear()
    states = ["PROVISIONED", 'a"b', "$(touch /tmp/a)`touch /tmp/b`$HOME", "a\\", "%s%n %d", "two\nlines;",
              "it's > /tmp/c & 'x"]
    for number, state in enumerate(states, 1):
        assert set_value(box, STATE, state)
        assert agent.wait_calls("set", number)[-1] == ("set", {"ProvisioningState": state})
        assert box.config()["deviceManagement"]["provisioningState"] == state
    assert not any(box.exists("/tmp/" + name) for name in "abc")
    for bad in ["", "a,Other,b", u(1), True]:
        assert not set_value(box, STATE, bad)
    box.wait_log("Invalid ProvisioningState, ignoring", count=4)
    # The agent's own failure changes nothing about the value.
    agent.fail("set")
    assert set_value(box, STATE, "last")
    assert get(box, STATE) == "last"
    box.fill_medium()
    calls = len(agent.calls("set"))
    assert not set_value(box, STATE, "unsaved")
    assert get(box, STATE) == "unsaved" and len(agent.calls("set")) == calls
    box.stop_daemon()
    box.run(["rm", "/media/full"])
    box.edit_config(lambda config: config["deviceManagement"].update(provisioningState="a,Other,b"))
    box.start_daemon()
    box.wait_log("Invalid ProvisioningState, ignoring", count=5)
    assert len(agent.calls("set")) == calls


@pytest.mark.sanitize
def test_storage(gateway):
    box, disks = gateway, gateway.peer("ddm")
    counts = {STORAGE + "PhysicalMediumNumberOfEntries": "uint32",
              STORAGE + "LogicalVolumeNumberOfEntries": "uint32",
              DEVICE + "Storage.USBStorageDevicesCount": "int32",
              DEVICE + "Storage.SDCardPresent": "boolean"}

    def summary():
        return [get(box, key) for key in counts]
    box.plug("sda", partitions=[{"label": "Photos", "type": "ntfs"}, {"mount_point": None}, {}])
    box.plug("printer", device_type="PRINTER")
    assert summary() == ["uint32 2", "uint32 2", "int32 1", "boolean false"]
    box.plug("mmc", kind="SD")
    assert summary() == ["uint32 3", "uint32 3", "int32 1", "boolean true"]
    for key, part in [("PhysicalMedium.3.Vendor", '"SerialNumber":"serial-mmc"'),
                      ("LogicalVolume.3", '"PhysicalReference":"' + STORAGE + 'PhysicalMedium.3."')]:
        assert part in box.data_model("GetObject", STORAGE + key)[0]
    indexed = [STORAGE + "PhysicalMedium.1", STORAGE + "LogicalVolume.1"]
    for key in ["PhysicalMedium.-1", "LogicalVolume.4", "PhysicalMedium.Vendor"]:
        assert box.data_model("GetObject", STORAGE + key) == ()
    for line in ["logical_volume_getter: invalid index 3", "physical_medium_getter: invalid index -2",
                 "read_devices_and_partitions: callback error"]:
        box.wait_log(line)

    for key, value in [(indexed[1] + ".Name", "Photos"), (indexed[1] + ".Name", ""), (indexed[1], "x"),
                       (indexed[1] + ".Name", u(1))]:
        assert not set_value(box, key, value)
    box.wait_log(f"logical_volume_name_setter: failed to set value of parameter {indexed[1]}.Name", count=2)
    assert box.log().count("logical_volume_name_setter: not supported") == 1

    # Whatever the disk daemon answers, the caller gets an empty reply.
    def all_empty():
        return (all(box.data_model("GetValue", key) == () for key in counts) and
                all(box.data_model("GetObject", key) == () for key in indexed))
    for wrong in [(), ("[]", "[]"), ("{a: 'b'}",)]:
        disks.answer("DeviceList", *wrong)
        disks.answer("PartitionList", *wrong)
        assert all_empty()
    disks.clear()
    disks.fail("PartitionList")
    assert [box.data_model("GetObject", key) for key in indexed] == [(), ()]
    disks.clear()
    disks.answer("DeviceList", "[null,7,'x',{device_type: 5}]")
    disks.answer("PartitionList", "[[],{mount_point: true},{mount_point: '/m'}]")
    assert summary() == ["uint32 4", "uint32 1", "int32 0", "boolean false"]
    assert box.data_model("GetObject", indexed[1]) == ()
