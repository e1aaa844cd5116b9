"""When the file services are started, stopped, reloaded and restarted, seen from outside."""
import json
import os
import re

import pytest

from box import CONFIG, NoReply, wait_until

DONE = {"success": True}
REFUSED = {"success": False, "failure": "INTERNAL_ERROR"}
ALL_UP = [("Samba", True, True), ("AFP", True, True), ("Avahi", True, True)]


def start(box, *names, times=5):
    box.hurry(times)
    box.enable_services(*names)
    box.start_daemon()
    box.wait_log("Update file services on startup")


def set_state(box, service, enabled):
    return json.loads(box.ask("setState", json.dumps({"service": service, "enabled": enabled})))


def status(box):
    reply = json.loads(box.ask("fileservices.list"))
    assert reply.pop("success") is True
    return [(row["service"], row["enabled"], row["running"]) for row in reply["fileServices"]]


def changes(box):
    """What s6 was told to do with the daemons, in order: "+smbd", "-nmbd", "~smbd" for a reload."""
    signs = {"s6-rc -u change": "+", "s6-rc -d change": "-", "s6-svc -h": "~"}
    order = r"/usr/bin/(s6-rc -[ud] change|s6-svc -h) (?:/run/service/)?(smbd|nmbd|netatalk|avahi)$"
    return [signs[match[1]] + match[2] for match in map(re.compile(order).match, box.sudo()) if match]


def test_a_disk_becomes_shares(box):
    start(box, "samba", "afp", "avahi")
    box.plug("sda")
    box.plug("sdb", partitions=[{}, {}])
    wait_until(lambda: len(changes(box)) == 4, "all started")
    box.plug("sdc")
    assert status(box) == ALL_UP
    box.wait_log("Service [AFP] should be reloaded now")
    assert sorted(changes(box)[:4]) == ["+avahi", "+netatalk", "+nmbd", "+smbd"]
    assert sorted(changes(box)[4:]) == ["~avahi", "~netatalk", "~nmbd", "~smbd"]
    assert "[sdc1]" in box.read("/tmp/nimbrel/configs/afp.config")

    # Off and on, then protection, which concerns them all: each comes up again.
    assert set_state(box, "Samba", False) == DONE
    assert box.config()["nas"]["fileServices"]["samba"]["enabled"] is False
    assert set_state(box, "Samba", True) == DONE
    box.wait_log("Start of service [Samba] successfully initiated")
    box.ask("updateCredentialsForUserShares", True, "alice", "secret99")
    for service in "AFP", "Avahi", "Samba":
        box.wait_log(f"Start of service [{service}] successfully initiated", 1 + (service == "Samba"))
    assert status(box) == ALL_UP
    # Services do not wait for each other, but Samba's two daemons keep their order.
    assert [name for name in changes(box) if name[1:] in ("nmbd", "smbd")] == [
        "+nmbd", "+smbd", "~nmbd", "~smbd"] + ["-smbd", "-nmbd", "+nmbd", "+smbd"] * 2


def test_a_burst_asks_s6_once_and_timers_run_in_full(box):
    box.script("s6-rc", sleep=3)
    start(box, "afp", times=3)
    box.plug("sda", partitions=[{"files": {}}] * 60)
    box.wait_log("Schedule start verification of [AFP]")
    assert 60 < box.log().count("Updating file services") <= 61
    assert len([command for command in box.sudo() if "s6-svstat" in command]) < 20
    box.wait_log("Service [AFP] is running - as expected")
    (begin,), (end,) = map(box.logged, ["Monitor event for [AFP]", "[AFP] is running - as expected"])
    assert end - begin >= 2  # a third of ten seconds, cut off


@pytest.mark.sanitize
def test_switches(box):
    start(box, "avahi")
    written = os.stat(box.path(CONFIG)).st_ino
    assert {str(set_state(box, name, True)) for name in ("samba", "", 5)} == {str(REFUSED)}
    with pytest.raises(NoReply):
        box.ask("setState", "[" * 2000, timeout=0.3)
    assert set_state(box, "AFP", False) == set_state(box, "AFP", "yes") == DONE
    assert os.stat(box.path(CONFIG)).st_ino == written  # nothing to change
    assert set_state(box, "Samba", True) == DONE  # no disk: nothing to start
    box.plug("sda", partitions=[{"mount_point": None}])

    # Central storage is asked before a start.
    box.ask("SetState", False)
    box.plug("sdb")
    box.wait_log("Central storage is off - START request cannot be generated", count=2)
    assert set_state(box, "AFP", True) == DONE
    assert changes(box) == [] and "Requested event START" not in box.log()
    box.ask("SetState", True)
    box.wait_up("smbd")
    box.wait_up("avahi")
    box.ask("SetState", False)
    box.wait_up("smbd", up=False)
    box.wait_up("avahi", up=False)
