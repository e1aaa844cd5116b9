"""The shares as a real Samba serves them."""
from box import wait_until

CONFIG = "/tmp/nimbrel/configs/samba.config"
USERS = "/tmp/nimbrel/configs/sambausers.map"
GUEST = ("-N",)
OWNER = ("-U", "alice%secret99")
INTRUDER = ("-U", "alice%secret98")


def smb(box, login, share, command):
    result = box.run(["smbclient", *login, f"//127.0.0.1/{share}", "-c", command], check=False)
    return result.stdout if result.returncode == 0 else None


def wait_served(box, login, share):
    return wait_until(lambda: smb(box, login, share, "get hello.txt -"), f"{share} served")


def write(box, login, share):
    return smb(box, login, share, f"put /etc/hostname {login[0].strip('-')}.txt") is not None


def test_protection_turns_guests_away(box):
    box.hurry()
    box.enable_services("samba")
    box.start_daemon()
    box.plug("sda", partitions=[
        {"label": "Photos 2024", "mount_point": "/media/Photos 2024"},
        {"label": "Films", "read_only": True},
        {"label": "FILMS"}, {"label": "IPC$"}, {"label": "\u00c9"}, {"label": "\u00e9"},
        {"label": "No share", "mount_point": "/media/%S"}, {"label": "None", "mount_point": "/media/a  b"}])
    for number, share in enumerate(["Films", "FILMS_", "_IPC$", "\u00c9", "\u00e9_"], 2):
        assert wait_served(box, GUEST, share) == f"Hello from sda{number}\n"
    assert wait_served(box, GUEST, "Photos 2024") == "Hello from sda1\n"
    assert write(box, GUEST, "Photos 2024") and not write(box, GUEST, "Films")
    assert not box.exists(USERS)
    for point, reason in ("/media/%S", "a variable in it"), ("/media/a  b", "one blank for two"):
        box.wait_log(f"Cannot share {point}: the server would read {reason}")

    box.ask("updateCredentialsForUserShares", True, "alice", "secret99")
    box.wait_log("Start of service [Samba] successfully initiated")
    assert wait_served(box, OWNER, "Photos 2024") == "Hello from sda1\n"
    assert write(box, OWNER, "Photos 2024") and not write(box, OWNER, "Films")
    for login in GUEST, INTRUDER, ("-U", "default%wrong"):
        assert smb(box, login, "Photos 2024", "ls") is None
    assert box.read(USERS) == "default=alice"

    # Without them again, and with a user map that is gone already.
    box.run(["rm", USERS])
    box.ask("changeStateCredentialsForUserShares", False)
    box.wait_log("Start of service [Samba] successfully initiated", count=2)
    assert wait_served(box, GUEST, "Films") == "Hello from sda2\n"


def test_nothing_starts_without_its_files(box):
    def start(location, count):
        box.start_daemon(nas={"fileServices": {"samba": {"daemonConfig": {"configFileLocation": location}}}})
        box.wait_log("Cannot start file service [Samba]", count=count)
        assert not box.is_up("nmbd") and not box.is_up("smbd")
        box.stop_daemon()
    box.hurry()
    box.enable_services("samba")
    box.plug("sda")
    start("/tmp/nimbrel/nowhere/samba.config", 1)
    # Protection without a password that can be read.
    box.configure(storage={"enabled": True, "username": "alice", "password4": "bm90IGEgc2VjcmV0"})
    start(CONFIG, 2)
    texts = ["Error saving samba config", "Username and password are required to enable samba shares protection",
             "Failed to enable samba shares protection", "Error updating samba auxiliary config files",
             "Failed to save samba config"]
    assert sorted(texts, key=box.log().rindex) == texts
    assert "guest ok = no" in box.read(CONFIG)  # the new file stays
