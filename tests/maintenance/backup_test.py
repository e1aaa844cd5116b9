"""Encrypted backup of the settings and restoring it, with another tool at the other end of the file."""
import hashlib
import json
import subprocess

import pytest

from box import CONFIG, field_document, wait_until

KEY = hashlib.sha1(b"7v!n5&s7").digest()[:16].hex()
FILE = "/tmp/settings.backup"


def openssl(data, *direction, key=KEY):
    return subprocess.run(["openssl", "enc", *direction, "-aes-128-ecb", "-K", key], input=data,
                          stdout=subprocess.PIPE, check=True).stdout


def read_backup(box, path=FILE):
    with open(box.path(path), "rb") as file:
        return json.loads(openssl(file.read(), "-d"))


def write_backup(box, content):
    box.write(FILE, openssl(json.dumps(content).encode()))


def wait_restart(box, ends=1):
    """Waits for the clean end of the daemon that a restore asks for, and for the next run to serve."""
    wait_until(lambda: [code for code, _ in box.exits()].count(0) == ends, "the daemon ends by itself")
    wait_until(box.serving, "the supervisor brings it back")


@pytest.fixture
def family(box):
    box.write(CONFIG, field_document("08.05.09"))
    box.hurry()
    box.start_daemon()
    return box


@pytest.mark.sanitize
@pytest.mark.both_flavours
def test_settings_move_to_another_box(family):
    box, old = family, field_document("08.05.09")
    assert box.ask("store", FILE) is None
    stored = read_backup(box)
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
    box.edit_config(lambda config: config.pop("devices"))
    box.start_daemon(storage={"enabled": False, "username": "", "password4": ""},
                     vpn={"username": "", "password4": "", "presharedkey4": None},
                     nas={"fileServices": {"samba": {"enabled": False}}})
    assert box.ask("restore", FILE) is True
    del old["devices"]
    old["ssh"] = box.config()["ssh"]  # a devel box dates every activation
    assert box.config() == old
    box.wait_log("No field devices.usbMode in nimbrelc configuration")
    wait_restart(box)
    assert box.ask("AuthRequest", "family", "photos2024") == 1


def test_a_medium_without_owners(box):
    """As a FAT or NTFS medium is mounted: all files are the shares' user's, and everybody's."""
    box.run(["sh", "-ec", "mknod /dev/fuse c 10 229; bindfs --force-user=default --force-group=default "
             "--perms=a=rwX --chmod-ignore --chown-ignore /media /media"])
    box.start_daemon()
    for _ in range(2):
        box.ask("store", "/media/backup")
        assert read_backup(box, "/media/backup")["version"] == "08.05.09"
    assert box.set("MinimumFWVersion", "08.05.01")
    box.run(["s6-svc", "-k", "/run/service/nimbrelc"])
    wait_until(box.exits, "the daemon is gone")
    wait_until(box.serving, "the supervisor brings it back")
    assert box.get("MinimumFWVersion") == "08.05.01"


@pytest.mark.sanitize
def test_files_that_cannot_be_restored(family):
    box, pid = family, family.daemon_pid()
    before = box.read(CONFIG)
    for bad in [b"", openssl(b"{}", key="00" * 16), openssl(b"no json")]:
        box.write(FILE, bad)
        assert box.ask("restore", FILE) is False
    box.run(["mkfifo", "-m", "666", "/tmp/pipe"])
    for path in ("/nowhere", "/tmp", "/dev/zero", "/tmp/pipe", ""):
        assert box.ask("restore", path) is False
        assert box.ask("store", path) is None
    assert box.read(CONFIG) == before and box.daemon_pid() == pid


def test_odd_and_older_backups(family):
    # Valid JSON that is no backup ends the loop at once; what is stored stays as it was.
    box, before = family, family.config()
    write_backup(box, {"config": [1]})
    box.run(["s6-svc", "-uwu", "/run/service/avahi"])
    assert box.ask("restore", FILE) is False
    wait_restart(box)
    assert not box.is_up("avahi")  # the orderly end stops the file services
    assert box.config() == before

    # A backup of an older form has its secrets in plain text only.
    write_backup(box, {"version": "07.00.00", "config": {
        "storage.username": "grandma", "storage.password": "cookies-4-all", "vpn.password": ""}})
    assert box.ask("restore", FILE) is True
    wait_restart(box, ends=2)
    assert box.config()["vpn"]["password4"] == ""
    assert json.loads(json.loads(box.ask("getCredentialsForUserShares"))) == {
        "enabled": True, "username": "grandma", "password": "cookies-4-all"}

    # kept: on a full medium the answer is true all the same; the daemon starts anew with the old document.
    box.fill_medium()
    write_backup(box, {"config": {"storage.username": "nobody", "storage.password4": ""}})
    assert box.ask("restore", FILE) is True
    box.wait_log("Failed to save nimbrelc's configuration")
    assert box.config()["storage"]["username"] == "grandma"
