"""Remote access by SSH: activations, their end, and what undoes a failed one, in both flavours."""
import os
import re
import time

import pytest

from box import u, wait_until

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

    # The daemon comes back 15 seconds before the end.
    continued = restart(box, activationDate=ago(45))
    assert continued == [["set_auth_key.sh", key], SET, START]
    wait_until(lambda: re.search(r"Continuing ssh session for next (\d|1[0-5]) sec", box.log()),
               "the time that is left")
    assert section(box)["enable"] is True
    box.wait_log("SSH stopped")
    assert (section(box)["enable"], section(box)["activationDate"]) == (False, None)
    assert ran(box)[6:] == [DELETE] + [STOP] * (box.flavour == "release")
    assert login(box) == ("" if box.flavour == "release" else "in\n")


def test_a_passed_deadline(box):
    start(box, enable=True, activationDuration=10, activationDate=ago(601))
    wait_until(lambda: section(box)["activationDate"] is None, "the end of the activation")
    assert section(box)["enable"] is False
    if box.flavour == "release":
        assert ran(box)[1:] == [DELETE]
    else:
        box.wait_log("SSH stopped")
        assert ran(box)[1:] == [SET, START, DELETE]
        # Seconds beyond 31 bits count as negative: the timer fires at once here too.
        assert restart(box, enable=True, activationDuration=4294967295)[1:3] == [SET, START]
        wait_until(lambda: section(box)["activationDate"] is None, "the end of the activation")


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


@pytest.mark.sanitize
def test_a_bad_section_changes_nothing(box):
    start(box)
    good = {"authorizedKey": "", "enable": True, "externalNPPort": 0, "activationDuration": 1,
            "activationDate": None}
    for change in [{"externalNPPort": 65535}, {"externalNPPort": -1}, {"externalNPPort": "22"},
                   {"activationDuration": -1},
                   {"activationDate": 5}, {"authorizedKey": None}, {"enable": 1}]:
        assert restart(box, **good | change) == [], change
        assert section(box) == good | change
    box.wait_log("Bad configuration. Some fields have bad values.", count=7)
    box.edit_config(lambda config: config["ssh"].pop("enable"))
    assert restart(box, **{"externalNPPort": 1}) == []
    box.wait_log("Bad configuration. One of the fields is not present")
    assert [*SET[:3], "65534", *SET[4:]] in restart(box, **good | {"externalNPPort": 65534})
    for count, date in enumerate(["yesterday", "9999-01-01T00:00:00Z"], 1):
        assert restart(box, **good | {"activationDate": date}) == [["set_auth_key.sh", ""]]
        box.wait_log("get_activation_date() failed", count=count)


def test_a_failing_step_undoes_the_earlier_ones(box):
    start(box)
    key = ["set_auth_key.sh", ""]
    for date in [None, ago(0)]:
        wanted = {"enable": True, "activationDate": date}
        for script, text, commands in [
                ("set_auth_key.sh", "Failed to save the authorized key - set_auth_key exited with status: 3",
                 [key]),
                ("set_port_forwarding.sh", "set_port_forwarding.sh exited with status: 3", [key, SET]),
                ("s6-rc", "Failed to start SSH", [key, SET, START, DELETE])]:
            before = box.log().count(text)
            box.script(script, code=3)
            assert restart(box, **wanted) == commands
            box.script(script)
            box.wait_log(text, count=before + 1)
    box.stop_daemon()

    # A release build that cannot stop the server keeps the session for the next try.
    box.script("s6-rc", code=3)
    date = ago(0)
    restart(box, enable=False, activationDate=date, activationDuration=1440)
    assert section(box)["activationDate"] == date
    assert (DELETE in ran(box)[-2:]) == (box.flavour == "devel")


def test_the_duration_re_times_the_activation(box):
    start(box, enable=True, activationDuration=10)
    date = section(box)["activationDate"]
    for value in ["20", True, ("i", 20)]:
        assert set_value(box, "ActivationDuration", value) is False
    assert section(box)["activationDuration"] == 10
    assert set_value(box, "ActivationDuration", u(20000)) is True
    release = box.flavour == "release"
    assert section(box)["activationDuration"] == (14400 if release else 20000)
    assert section(box)["activationDate"] == date
    full = 864000 if release else 1200000
    wait_until(lambda: any(f"Continuing ssh session for next {full - late} sec" in box.log()
                           for late in range(30)), "the new length")
    if not release:
        assert set_value(box, "ActivationDuration", u(0)) is True
        box.wait_log("activationDuration=0 means infinite ssh activation. No timer set up.")
        assert section(box)["activationDate"] == date
        # So many minutes wrap: the deadline is in the past, the session ends at once.
        assert set_value(box, "ActivationDuration", u(4294967295)) is True
        wait_until(lambda: section(box)["activationDate"] is None, "the end of the activation")
