"""The data model as the management agent sees it: values of the configuration, from the box and from peers."""
import pytest

from box import i, tree, u, wait_until

STATE = "ProvisioningState"
STORAGE = "StorageService.1."


@pytest.fixture
def gateway(box):
    box.start_daemon()
    return box


def get(box, key):
    """The value with its type, as dbus-send prints it; "" for an empty reply."""
    return box.run(["dbus-send", "--system", "--print-reply=literal", "--dest=com.kelvanto.nimbrel",
                    "/com/kelvanto/nimbrel", "com.kelvanto.nimbrel.datamodel.GetValue",
                    "string:" + tree.full_key(key)]).stdout.strip()


def uptime(box):
    return float(box.read("/proc/uptime").split()[0])


# Per parameter: its value as dbus-send prints it, a value that it takes, a trace of its being applied.
TABLE = [
    ("DeviceInfo.SoftwareVersion", "08.05.09", None, ""),
    ("DeviceInfo.ProvisioningCode", "", "NORTH", ""),
    ("DeviceInfo.UpTime", "uint32", None, ""),
    ("DeviceInfo.FirstUseDate", "", None, ""),
    ("LAN.IPAddress", "192.168.1.1", None, ""),
    ("LAN.MACAddress", "02:00:5e:10:00:01", None, ""),
    (STORAGE + "PhysicalMediumNumberOfEntries", "uint32 0", None, ""),
    (STORAGE + "PhysicalMedium.1", "", None, ""),
    (STORAGE + "LogicalVolumeNumberOfEntries", "uint32 0", None, ""),
    (STORAGE + "LogicalVolume.1", "", None, ""),
    (STATE, "UNPROVISIONED", "PROVISIONED", ""),
    ("FWUpgradeValidation", "boolean true", False, ""),
    ("DevelopmentBuildsAllowed", "boolean false", True, ""),
    ("MinimumFWVersion", "", "08.05.01", ""),
    ("BootloaderVersion", "bootloader 3.4", None, ""),
    ("Storage.USBStorageDevicesCount", "int32 0", None, ""),
    ("Storage.SDCardPresent", "boolean false", None, ""),
    ("Storage.PasswordProtectionEnabled", "boolean false", None, ""),
    ("Storage.DiskSleepEnabled", "boolean false", True, ""),
    ("Storage.CentralStorageEnabled", "boolean true", None, ""),
    ("Syslog.NumberOfFiles", "uint32 5", u(6), "/syslogd-log"),
    ("Syslog.MaxFileSize", "uint32 512", u(500), "/syslogd-log"),
    ("Syslog.Persistent", "boolean false", True, "/syslogd-log"),
    ("Syslog.PersistentLogActivationDuration", "uint32 1440", u(30), "Continuing persistent logging"),
    ("Syslog.PersistentLogActivationDate", "", None, ""),
    ("SerialConsole.TracesEnabled", "boolean false", True, "dmesg"),
    ("SerialConsole.LoginEnabled", "boolean true", False, "early-getty"),
    ("SerialConsole.LoginPassword", "", "secret", ""),
    ("SSH.AuthorizedKey", "", "key", "set_auth_key.sh key"),
    ("SSH.Enable", "boolean false", True, "Applying ssh configuration"),
    ("SSH.ExternalNPPort", "uint32 2222", u(2200), " 2200 22 "),
    ("SSH.ActivationDuration", "uint32 1440", u(20), "Continuing ssh session"),
    ("SSH.ActivationDate", "20", None, ""),
    ("VPN.Enable", "boolean false", True, "change ipsec"),
    ("VPN.GlobalEnable", "boolean false", True, "change ipsec"),
    ("VPN.VoIPCallsBlockEnable", "boolean false", True, "firewallctl"),
    ("Debug.Segfault.Count", "uint32 0", None, ""),
    ("Debug.Segfault.LastTimeStamp", "", None, ""),
    ("Debug.Segfault.DumpNumberOfEntries", "uint32 5", None, ""),
    ("Debug.Segfault.Dump.1", "", None, ""),
]


@pytest.mark.sanitize
def test_every_parameter(box):
    box.start_daemon(segfault={"firmwareVersion": "08.05.09"})
    # Nothing but the activation itself saved its date.
    assert box.get("SSH.ActivationDate") == box.config()["ssh"]["activationDate"]
    for (name, kind, settable), (key, value, wanted, _) in zip(tree.told_parameters(), TABLE, strict=True):
        assert (name.replace("%u", "1"), settable) == (tree.full_key(key), wanted is not None)
        assert kind == {"uint32": "u", "int32": "i", "boolean": "b"}.get(value.split()[0] if value else "", "s"), key
        told = get(box, key)
        assert told == value or value in ("20", "uint32") and told.startswith(value), key
    for key, value, wanted, trace in TABLE:
        log, commands = len(box.log()), len(box.sudo())
        assert not box.set(key, ("x", 5)), key
        if wanted is None:
            assert not any(box.set(key, other) for other in ("x", True, u(1))), key
            continue
        assert box.set(key, wanted), key
        text = {bool: f"boolean {wanted}".lower(), u: f"uint32 {wanted}"}.get(type(wanted), wanted)
        assert get(box, key) == text or key.endswith(("SleepEnabled", "Password")), key
        wait_until(lambda: trace in box.log()[log:] + "\n".join(box.sudo()[commands:]), f"{key} applied")
    assert [box.ask("upgrade." + method) for method in (
        "ValidationEnabled", "DevelopmentBuildsAllowed", "MinimumVersion")] == [False, True, "08.05.01"]


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
    for key, value in [("DeviceInfo.ProvisioningCode", 'a "code" % ü'), ("MinimumFWVersion", "int32 -7"),
                       ("Debug.Segfault.Count", "uint32 2147483647")]:
        assert get(box, key) == value, key
    before, seconds, after = uptime(box), box.get("DeviceInfo.UpTime"), uptime(box)
    assert before - 1 < seconds < after + 2
    assert box.object("LAN.IPAddress") == "192.168.1.1"
    box.run(["ip", "link", "del", "eth1"])
    assert box.get("LAN.IPAddress") == "0.0.0.0" and box.get("LAN.MACAddress") == ""

    for key in ["DevelopmentBuildsAllowed", "FWUpgradeValidation", STATE, STORAGE + "PhysicalMedium.1", "%s%n",
                "LAN.IPAddress ", "x" * 100000]:
        assert box.get(key) is None
    # Where the upgrade policy is of another kind, or not there, it is off.
    assert [box.ask("upgrade." + method) for method in (
        "ValidationEnabled", "DevelopmentBuildsAllowed", "MinimumVersion")] == [False, False, ""]
    assert box.ask("GetValue", "") is None
    assert box.object("Syslog.MaxFileSize") is None  # no object


@pytest.mark.sanitize
def test_writing_the_configuration(gateway):
    box = gateway
    # A signed number is read as unsigned; the integer copy, which everybody reads, saturates.
    assert box.set("Syslog.NumberOfFiles", i(-1))
    assert box.config()["syslog"]["numberOfFiles"] == 4294967295
    assert box.get("Syslog.NumberOfFiles") == 2147483647
    assert box.set("Syslog.NumberOfFiles", i(9))

    texts = ['', 'x', 'a"b\\c\n[x]\x01ü', '{"a": 1}', "%s", "y" * 50000]
    for text in texts:
        assert box.set("DeviceInfo.ProvisioningCode", text)
        assert box.get("DeviceInfo.ProvisioningCode") == text
    # Six bytes each in the document: it would be too large to be loaded again.
    assert not box.set("DeviceInfo.ProvisioningCode", "\x01" * (11 << 20))
    assert box.set("Syslog.NumberOfFiles", i(8)) and box.set("Syslog.NumberOfFiles", i(9))
    expected = box.config()
    assert expected["cpeDevice"]["deviceInfo"]["provisioningCode"] == texts[-1]

    applied = box.log().count("syslogd-log already run with the right options")
    for key, value in [("NumberOfFiles", "7"), ("Persistent", u(1))]:
        assert not box.set("Syslog." + key, value)
    # kept: the hook runs after a refused value too.
    box.wait_log("syslogd-log already run with the right options", count=applied + 2)
    assert not box.set("Nothing", "x")
    assert box.config() == expected

    # A change that a full medium cannot take is answered false; memory keeps it.
    box.fill_medium()
    assert not box.set("MinimumFWVersion", "08")
    assert box.get("MinimumFWVersion") == "08"
    assert box.config() == expected


@pytest.mark.sanitize
def test_values_of_peers(gateway):
    box, hardware, disks, agent = gateway, *map(gateway.peer, ("hardware", "ddm", "agent"))
    assert box.get("BootloaderVersion") == "bootloader 3.4"
    hardware.answer("HardwareInfoRequest", "a", "b", u(3))
    assert box.get("BootloaderVersion") is None
    hardware.leave()
    assert box.get("BootloaderVersion") is None

    sleep = "Storage.DiskSleepEnabled"
    disks.answer("SetDiskSleepEnabled", False)
    assert box.set(sleep, True) is False and box.set(sleep, u(1)) is False
    assert disks.calls("SetDiskSleepEnabled") == [("SetDiskSleepEnabled", True)]
    disks.answer("SetDiskSleepEnabled", u(1))
    assert box.set(sleep, False) is None

    assert agent.wait_calls("set") == [("set", {STATE: "UNPROVISIONED"})]
    states = ["PROVISIONED", 'a"b', "$(touch /tmp/a)`touch /tmp/b`$HOME", "a\\", "%s%n %d", "two\nlines;",
              "it's > /tmp/c & 'x"]
    for number, state in enumerate(states, 2):
        assert box.set(STATE, state)
        assert agent.wait_calls("set", number)[-1] == ("set", {STATE: state})
        assert box.config()["deviceManagement"]["provisioningState"] == state
    assert not any(box.exists("/tmp/" + name) for name in "abc")
    for bad in ["", "a,Other,b", u(1), True]:
        assert not box.set(STATE, bad)
    # The agent's own failure changes nothing about the value.
    agent.fail("set")
    assert box.set(STATE, "last") and box.get(STATE) == "last"
    box.fill_medium()
    calls = len(agent.calls("set"))
    assert not box.set(STATE, "unsaved")
    assert box.get(STATE) == "unsaved"
    box.run(["rm", "/media/full"])
    box.restart_daemon(deviceManagement={"provisioningState": "a,Other,b"})
    assert len(agent.calls("set")) == calls


@pytest.mark.sanitize
def test_storage(gateway):
    box, disks = gateway, gateway.peer("ddm")
    counts = [STORAGE + "PhysicalMediumNumberOfEntries", STORAGE + "LogicalVolumeNumberOfEntries",
              "Storage.USBStorageDevicesCount", "Storage.SDCardPresent"]
    volume, medium = STORAGE + "LogicalVolume.", STORAGE + "PhysicalMedium."
    box.plug("sda", partitions=[{"label": "Photos", "type": "ntfs"}, {"mount_point": None}, {}])
    box.plug("printer", device_type="PRINTER")
    assert [box.get(key) for key in counts] == [2, 2, 1, False]
    box.plug("mmc", kind="SD")
    assert [box.get(key) for key in counts] == [3, 3, 1, True]
    assert '"SerialNumber":"serial-mmc"' in box.object(medium + "3.Vendor")
    assert f'"PhysicalReference":"Device.{medium}3."' in box.object(volume + "3")
    for key in [medium + "-1", volume + "4", medium + "Vendor"]:
        assert box.object(key) is None
    for key, value in [("1.Name", "Photos"), ("1.Name", ""), ("1", "x"), ("1.Name", u(1))]:
        assert not box.set(volume + key, value)
    box.wait_log(f"logical_volume_name_setter: failed to set value of parameter Device.{volume}1.Name", count=2)
    assert box.log().count("logical_volume_name_setter: not supported") == 1

    # Whatever the disk daemon answers, the caller gets an empty reply.
    def all_empty():
        return {box.get(key) for key in counts} | {box.object(volume + "1"), box.object(medium + "1")} == {None}
    for wrong in [(), ("[]", "[]"), ("{a: 'b'}",)]:
        disks.answer("DeviceList", *wrong)
        disks.answer("PartitionList", *wrong)
        assert all_empty()
    disks.clear()
    disks.fail("PartitionList")
    assert box.object(volume + "1") is box.object(medium + "1") is None
    disks.clear()
    disks.answer("DeviceList", "[null,7,'x',{device_type: 5}]")
    disks.answer("PartitionList", "[[],{mount_point: true},{mount_point: '/m'}]")
    assert [box.get(key) for key in counts] == [4, 1, 0, False]
    assert box.object(volume + "1") is None
