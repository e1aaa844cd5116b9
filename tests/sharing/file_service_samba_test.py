"""The shares as a real Samba serves them."""
import pytest

from box import wait_until

SHARES = ("/ws/nas/fileservices", "com.kelvanto.nimbrel.nas.fileservices")
CONFIG = "/tmp/nimbrel/configs/samba.config"
USERS = "/tmp/nimbrel/configs/sambausers.map"
GUEST = ("-N",)
OWNER = ("-U", "alice%secret99")
INTRUDER = ("-U", "alice%secret98")


@pytest.fixture
def gateway(box):
    def change(config):
        for name, section in config["nas"]["fileServices"].items():
            section["enabled"] = name == "samba"
    box.edit_config(change)
    return box


def smb(box, login, share, command):
    result = box.run(["smbclient", *login, f"//127.0.0.1/{share}", "-c", command], check=False)
    return result.stdout if result.returncode == 0 else None


def wait_served(box, login, share):
    return wait_until(lambda: smb(box, login, share, "get hello.txt -"), f"{share} served")


def write(box, login, share):
    return smb(box, login, share, f"put /etc/hostname {login[0].strip('-')}.txt") is not None


def test_protection_turns_guests_away(gateway):
    gateway.start_daemon()
    gateway.plug("sda", partitions=[
        {"label": "Photos 2024", "mount_point": "/media/Photos 2024"},
        {"label": "Films", "read_only": True},
        {"label": "FILMS"}, {"label": "IPC$"}, {"label": "\u00c9"}, {"label": "\u00e9"},
        {"label": "No share", "mount_point": "/media/%S"}, {"label": "None", "mount_point": "/media/a  b"}])
    for number, share in enumerate(["Films", "FILMS_", "_IPC$", "\u00c9", "\u00e9_"], 2):
        assert wait_served(gateway, GUEST, share) == f"Hello from sda{number}\n"
    assert wait_served(gateway, GUEST, "Photos 2024") == "Hello from sda1\n"
    assert write(gateway, GUEST, "Photos 2024") and not write(gateway, GUEST, "Films")
    assert not gateway.exists(USERS)
    for point, reason in ("/media/%S", "a variable in it"), ("/media/a  b", "one blank for two"):
        assert f"Cannot share {point}: the server would read {reason}" in gateway.log()

    gateway.call(*SHARES, "updateCredentialsForUserShares", True, "alice", "secret99")
    gateway.wait_log("Start of service [Samba] successfully initiated")
    assert wait_served(gateway, OWNER, "Photos 2024") == "Hello from sda1\n"
    assert write(gateway, OWNER, "Photos 2024") and not write(gateway, OWNER, "Films")
    for login in GUEST, INTRUDER, ("-U", "default%wrong"):
        assert smb(gateway, login, "Photos 2024", "ls") is None
    assert gateway.read(USERS) == "default=alice"

    # Without them again, and with a user map that is gone already.
    gateway.run(["rm", USERS])
    gateway.call(*SHARES, "changeStateCredentialsForUserShares", False)
    gateway.wait_log("Start of service [Samba] successfully initiated", count=2)
    assert wait_served(gateway, GUEST, "Films") == "Hello from sda2\n"
    assert gateway.log().count("Failed to remove sambausers.map: No such file or directory") == 2


def test_nothing_starts_without_its_files(gateway):
    gateway.edit_config(lambda config: config["nas"]["fileServices"]["samba"]["daemonConfig"].update(
        configFileLocation="/tmp/nimbrel/nowhere/samba.config"))
    gateway.start_daemon()
    gateway.plug("sda")
    gateway.wait_log("Cannot start file service [Samba]")
    assert "Error saving samba config" in gateway.log()
    gateway.stop_daemon()
    # Protection without a password that can be read.

    def change(config):
        config["nas"]["fileServices"]["samba"]["daemonConfig"].update(configFileLocation=CONFIG)
        config["storage"].update(enabled=True, username="alice", password4="bm90IGEgc2VjcmV0")
    gateway.edit_config(change)
    gateway.start_daemon()
    gateway.wait_log("Cannot start file service [Samba]", count=2)
    texts = ["Username and password are required to enable samba shares protection",
             "Failed to enable samba shares protection",
             "Error updating samba auxiliary config files", "Failed to save samba config"]
    assert sorted(texts, key=gateway.log().rindex) == texts
    assert "guest ok = no" in gateway.read(CONFIG)  # the new file stays
    assert not gateway.is_up("nmbd") and not gateway.is_up("smbd")
