"""Remote access by SSH: activations, their end, and what undoes a failed one, in both flavours."""
import os
import re
import time

import pytest

from box import wait_until

pytestmark = pytest.mark.both_flavours

PREFIX = "Device.X_KELVANTO-COM_DeviceManagement.SSH."
SET = ["set_port_forwarding.sh", "internal", "100", "2222", "22", "Remote SSH Access"]
DELETE = ["delete_port_forwarding.sh", "internal", "100"]
START = ["s6-rc", "-u", "change", "dropbear"]
STOP = ["s6-rc", "-d", "change", "dropbear"]
DATE = "%Y-%m-%dT%H:%M:%SZ"


def ago(seconds):
    return time.strftime(DATE, time.localtime(time.time() - seconds))


def start(box, **members):
    """Starts the daemon with these members of the section; waits until all services are up."""
    box.edit_config(lambda config: config["ssh"].update(members))
    starts = box.log().count("Services started successfully")
    box.start_daemon()
    box.wait_log("Services started successfully", count=starts + 1)


def restart(box, **members):
    box.stop_daemon()
    first = len(box.commands())
    start(box, **members)
    return ran(box, first)


def ran(box, first=0):
    """The commands of SSH since the first one, each with its name alone."""
    commands = [[os.path.basename(argv[0])] + argv[1:] for argv in box.commands()[first:]]
    return [argv for argv in commands
            if argv[-1] == "dropbear" or argv[0] in (SET[0], DELETE[0], "set_auth_key.sh")]


def section(box):
    return box.config()["ssh"]


def set_value(box, name, value):
    (done,) = box.data_model("SetValue", PREFIX + name, value)
    return done


def login(box):
    return box.run(["dbclient", "-y", "-y", "-i", "/root/key", "root@127.0.0.1", "echo in"],
                   check=False).stdout


@pytest.mark.sanitize
def test_the_key_logs_in_until_the_activation_ends(box):
    box.run(["dropbearkey", "-t", "ed25519", "-f", "/root/key"])
    key = re.search("^ssh-.*$", box.run(["dropbearkey", "-y", "-f", "/root/key"]).stdout, re.M)[0]
    start(box, authorizedKey=key, enable=True, activationDuration=1)
    assert ran(box) == [["set_auth_key.sh", key], SET, START]
    begun = time.mktime(time.strptime(section(box)["activationDate"], DATE))
    assert abs(begun - time.time()) < 60
    box.wait_log("Starting timer to stop ssh session in 60 sec.")
    wait_until(lambda: login(box) == "in\n", "the login")

#The daemon comes back 15 seconds before the end.
    continued = restart(box, activationDate=ago(45))
    assert continued == [["set_auth_key.sh", key], SET, START]
    wait_until(lambda: re.search(r"Continuing ssh session for next (\d|1[0-5]) sec", box.log()),
               "the time that is left")
    assert section(box)["enable"] is True
    box.wait_log("SSH stopped")
    assert (section(box)["enable"], section(box)["activationDate"]) == (False, None)
    assert ran(box)[6:] == [DELETE] + [STOP] * (box.flavour == "release")
    assert login(box) == ("" if box.flavour == "release" else "in\n")


def test_a_restore_restarts_the_daemon_but_not_the_activation(box):
    start(box, enable=True)
    date = section(box)["activationDate"]
    box.call("/backup", "com.kelvanto.nimbrel.backup", "store", "/tmp/backup")
    first = len(box.commands())
    assert box.call("/backup", "com.kelvanto.nimbrel.backup", "restore", "/tmp/backup") == (True,)
    box.wait_log("Services started successfully", count=2)
    assert ran(box, first) == [STOP] * (box.flavour == "release") + [
        DELETE, ["set_auth_key.sh", ""], SET, START]
    assert (section(box)["enable"], section(box)["activationDate"]) == (True, date)
    vpn = [argv[-2:] for argv in box.commands()[first:] if "ipsec" in argv or argv[0].endswith("ctl")]
    word = "release" if box.flavour == "release" else "debug"
    assert vpn[:3] == [["change", "ipsec"], ["stop", word], ["stop", word]]


@pytest.mark.sanitize
def test_a_disabled_box_still_stores_any_key_as_it_is(box):
    keys = ['two words "quoted" \'single\' back\\slash\\', "$(touch /tmp/ran) `touch /tmp/ran` $HOME",
            "first\nsecond\\\n; touch /tmp/ran & | > /tmp/ran #", "é%s%n%", "\\\"; touch /tmp/ran; \\"]
    start(box)
    release = box.flavour == "release"
    assert ran(box) == [["set_auth_key.sh", ""]] + ([STOP, DELETE] if release else [DELETE, START])
    assert (section(box)["activationDate"] is None) == release
    for key in keys:
        assert restart(box, authorizedKey=key)[0] == ["set_auth_key.sh", key]
    assert not box.exists("/tmp/ran")
