"""Encrypted backup of the settings and restoring it, with another tool at the other end of the file."""
import hashlib
import json
import os
import subprocess

import pytest

from box import wait_until

BOXES = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "boxes")
KEY = hashlib.sha1(b"7v!n5&s7").digest()[:16].hex()
FILE = "/tmp/settings.backup"


def openssl(data, *direction, key=KEY):
    return subprocess.run(["openssl", "enc", *direction, "-aes-128-ecb", "-K", key], input=data,
                          stdout=subprocess.PIPE, check=True).stdout


def backup(box, method, *args, **options):
    return box.call("/backup", "com.kelvanto.nimbrel.backup", method, *args, **options)


def read_backup(box, path=FILE):
    with open(box.path(path), "rb") as file:
        return json.loads(openssl(file.read(), "-d"))


def write_backup(box, text):
    box.write(FILE, openssl(text.encode() if isinstance(text, str) else json.dumps(text).encode()))


def wait_restart(box, ends=1):
    """Waits for the clean end of the daemon that a restore asks for, and for the next run to serve."""
    wait_until(lambda: [code for code, _ in box.exits()].count(0) == ends, "the daemon ends by itself")
    wait_until(box.serving, "the supervisor brings it back")


def document():
    with open(os.path.join(BOXES, "08.05.09.json"), encoding="utf-8") as file:
        return json.load(file)


def start(box, wanted):
    box.edit_config(lambda config: (config.clear(), config.update(wanted)))
    box.start_daemon()


@pytest.mark.sanitize
@pytest.mark.both_flavours
def test_settings_move_to_another_box(box):
    start(box, document())
    assert backup(box, "store", FILE) == ()
    stored = read_backup(box)
    old = document()
    assert stored["version"] == "08.05.09"
    assert list(stored["config"].items()) == [
        ("centralStorage.enabled", True), ("dlna.mediaStreamingEnabled", True), ("devices.usbMode", "host"),
        ("storage.enabled", True), ("storage.username", "family"),
        ("storage.password4", old["storage"]["password4"]),
        ("nas.fileServices.samba.enabled", True), ("nas.fileServices.afp.enabled", False),
        ("nas.fileServices.avahi.enabled", True), ("vpn.enable", False), ("vpn.username", "road"),
        ("vpn.password4", old["vpn"]["password4"]), ("vpn.presharedkey4", old["vpn"]["presharedkey4"]),
        ("storage.password", "photos2024"), ("vpn.password", "warrior77"), ("vpn.presharedkey", "shared-key-1")]

    # Another box: other settings, and no "devices" section at all.
    box.stop_daemon()
    other = document()
    other["storage"] = {"enabled": False, "username": "", "password4": ""}
    other["vpn"].update(username="", password4="", presharedkey4=None)
    other["nas"]["fileServices"]["samba"].update(enabled=False)
    del other["devices"]
    start(box, other)
    assert backup(box, "restore", FILE) == (True,)
    expected = dict(old)
    del expected["devices"]
    expected["ssh"] = box.config()["ssh"]  # a devel box dates every activation
    assert box.config() == expected
    box.wait_log("No field devices.usbMode in nimbrelc configuration")
    wait_restart(box)
    auth = box.call("/com/kelvanto/pam", "com.kelvanto.authentification", "AuthRequest",
                    "family", "photos2024", name="com.kelvanto.pamauth")
    assert auth == (1,)


def test_a_medium_without_owners(box):
    """As a FAT or NTFS medium is mounted: all files are the shares' user's, and everybody's."""
    box.run(["sh", "-ec", "mknod /dev/fuse c 10 229; bindfs --force-user=default --force-group=default "
             "--perms=a=rwX --chmod-ignore --chown-ignore /media /media"])
    box.start_daemon()
    for _ in range(2):
        backup(box, "store", "/media/backup")
        assert read_backup(box, "/media/backup")["version"] == "08.05.09"
    key = "Device.X_KELVANTO-COM_DeviceManagement.MinimumFWVersion"
    assert box.data_model("SetValue", key, "08.05.01") == (True,)
    box.run(["s6-svc", "-k", "/run/service/nimbrelc"])
    wait_until(box.exits, "the daemon is gone")
    wait_until(box.serving, "the supervisor brings it back")
    assert box.data_model("GetValue", key) == ("08.05.01",)


@pytest.mark.sanitize
def test_files_that_cannot_be_restored(box):
    start(box, document())
    pid = box.daemon_pid()
    before = box.read("/media/nimbrelc.json")
    assert backup(box, "store", FILE) == ()
    for bad in [b"", openssl(b"{}", key="00" * 16), openssl(b"no json")]:
        box.write(FILE, bad)
        assert backup(box, "restore", FILE) == (False,)
    box.run(["mkfifo", "-m", "666", "/tmp/pipe"])
    for path in ("/nowhere", "/tmp", "/dev/zero", "/tmp/pipe", ""):
        assert backup(box, "restore", path) == (False,)
        assert backup(box, "store", path) == ()
    assert box.read("/media/nimbrelc.json") == before and box.daemon_pid() == pid


def test_odd_and_older_backups(box):
    start(box, document())
    # Valid JSON that is no backup ends the loop at once; what is stored stays as it was.
    before = box.read("/media/nimbrelc.json")
    write_backup(box, {"config": [1]})
    box.run(["s6-svc", "-uwu", "/run/service/avahi"])
    assert backup(box, "restore", FILE) == (False,)
    wait_restart(box)
    box.wait_log("Bad backup file format")
    assert not box.is_up("avahi")  # the orderly end stops the file services
    assert box.config() == json.loads(before)

    # A backup of an older form has its secrets in plain text only.
    write_backup(box, {"version": "07.00.00", "config": {
        "storage.username": "grandma", "storage.password": "cookies-4-all", "vpn.password": ""}})
    assert backup(box, "restore", FILE) == (True,)
    wait_restart(box, ends=2)
    config = box.config()
    assert config["vpn"]["password4"] == ""
    (quoted,) = box.call("/ws/nas/fileservices", "com.kelvanto.nimbrel.nas.fileservices",
                         "getCredentialsForUserShares")
    assert json.loads(json.loads(quoted)) == {"enabled": True, "username": "grandma", "password": "cookies-4-all"}

    # kept: on a full medium the answer is true all the same; the daemon starts anew with the old document.
    box.fill_medium()
    write_backup(box, {"config": {"storage.username": "nobody", "storage.password4": ""}})
    assert backup(box, "restore", FILE) == (True,)
    box.wait_log("Failed to save nimbrelc's configuration")
    assert box.config()["storage"]["username"] == "grandma"
