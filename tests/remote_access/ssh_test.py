"""Remote access by SSH: an activation and its end, a restart, keys of any text, in both flavours."""
import re
import time

import pytest

from box import wait_until

pytestmark = pytest.mark.both_flavours

SET = ["set_port_forwarding.sh", "internal", "100", "2222", "22", "Remote SSH Access"]
DELETE = ["delete_port_forwarding.sh", "internal", "100"]
START = ["s6-rc", "-u", "change", "dropbear"]
STOP = ["s6-rc", "-d", "change", "dropbear"]
DATE = "%Y-%m-%dT%H:%M:%SZ"


def ran(box):
    """The commands of SSH since this was asked the last time."""
    return [argv for argv in box.new_commands()
            if argv[-1] == "dropbear" or argv[0] in (SET[0], DELETE[0], "set_auth_key.sh")]


def state(box):
    section = box.config()["ssh"]
    return section["enable"], section["activationDate"]


def login(box):
    return box.run(["dbclient", "-y", "-y", "-i", "/root/key", "root@127.0.0.1", "echo in"], check=False).stdout


@pytest.mark.sanitize
def test_the_key_logs_in_until_the_activation_ends(box):
    box.run(["dropbearkey", "-t", "ed25519", "-f", "/root/key"])
    key = re.search("^ssh-.*$", box.run(["dropbearkey", "-y", "-f", "/root/key"]).stdout, re.M)[0]
    box.start_daemon(ssh={"authorizedKey": key, "enable": True, "activationDuration": 1})
    assert ran(box) == [["set_auth_key.sh", key], SET, START]
    assert abs(time.mktime(time.strptime(state(box)[1], DATE)) - time.time()) < 60
    wait_until(lambda: login(box) == "in\n", "the login")

    # The daemon comes back some seconds before the end.
    box.restart_daemon(ssh={"activationDate": time.strftime(DATE, time.localtime(time.time() - 45))})
    assert state(box)[0] is True
    box.wait_log("SSH stopped")
    assert state(box) == (False, None)
    assert ran(box) == [["set_auth_key.sh", key], SET, START, DELETE] + [STOP] * (box.flavour == "release")
    assert login(box) == ("" if box.flavour == "release" else "in\n")


def test_a_restore_restarts_the_daemon_but_not_the_activation(box):
    box.hurry()
    box.start_daemon(ssh={"enable": True})
    before = state(box)
    box.ask("store", "/tmp/backup")
    first = len(box.commands())
    ran(box)
    assert box.ask("restore", "/tmp/backup")
    box.wait_log("Services started successfully", count=2)
    assert ran(box) == [STOP] * (box.flavour == "release") + [DELETE, ["set_auth_key.sh", ""], SET, START]
    assert state(box) == before
    vpn = [argv[-2:] for argv in box.commands()[first:] if "ipsec" in argv or argv[0] == "firewallctl"]
    word = "release" if box.flavour == "release" else "debug"
    assert vpn[:3] == [["change", "ipsec"], ["stop", word], ["stop", word]]


@pytest.mark.sanitize
def test_a_disabled_box_still_stores_any_key_as_it_is(box):
    box.start_daemon()
    release = box.flavour == "release"
    assert ran(box) == [["set_auth_key.sh", ""]] + ([STOP, DELETE] if release else [DELETE, START])
    assert (state(box)[1] is None) == release
    key = 'two words "é%s%n%" \'x\' $(touch /tmp/ran) `touch /tmp/ran` $HOME\n"; touch /tmp/ran; \\'
    box.apply("SSH.AuthorizedKey", key)
    assert ran(box)[0] == ["set_auth_key.sh", key]
    assert not box.exists("/tmp/ran")
