"""The options of the log service, and persistent logging that ends by itself."""
import os
from datetime import datetime, timedelta

import pytest

from box import i, u, wait_until

OPTIONS = "/media/s6log.opts"
PLAIN = "s524288 n5 /var/log/syslog"
PERSISTENT = "s524288 n5 /media/syslog"
KEY = "Device.X_KELVANTO-COM_DeviceManagement.Syslog."

BAD_VALUES = "Bad configuration. Some fields have bad values."
STOPPED = "Persistent logging stopped"


def configure(box, **members):
    box.edit_config(lambda config: config["syslog"].update(members))


def activated(seconds_ago):
    return (datetime.now() - timedelta(seconds=seconds_ago)).strftime("%FT%TZ")


def log_path(box):
    (path,) = box.call("/com/kelvanto/nimbrel", "com.kelvanto.nimbrel.syslog", "GetCurrentLogPath")
    return path


def set_value(box, member, value):
    """Sets a parameter; back when it was applied too, which comes after the answer."""
    assert box.data_model("SetValue", KEY + member, value) == (True,)
    log_path(box)


def restarts(box):
    return sum("syslogd-log" in command and "-d" in command for command in box.sudo())


def start_fails(box, *texts):
    """Starts the daemon, which gives up with these lines in the log."""
    known = len(box.log())
    box.start_daemon(wait=False)
    wait_until(lambda: "Failed to configure syslogd" in box.log()[known:], "the start fails")
    box.stop_daemon()
    for text in texts:
        assert text in box.log()[known:]


def test_the_options_follow_the_configuration(box):
    box.start_daemon()
    assert (box.read(OPTIONS), log_path(box), restarts(box)) == (PLAIN, "/var/log/syslog", 1)
    written = os.stat(box.path(OPTIONS)).st_ino
    box.stop_daemon()
    box.start_daemon()
    box.wait_log("syslogd-log already run with the right options")
    assert os.stat(box.path(OPTIONS)).st_ino == written  # a write is a new file
    assert restarts(box) == 1

    set_value(box, "NumberOfFiles", u(99))
    set_value(box, "MaxFileSize", u(4000000))  # more bytes than 32 bits can tell
    assert box.read(OPTIONS) == "s4096000000 n99 /var/log/syslog"
    # A bad value is stored, and not applied.
    for value in [i(-1), u(100), u(0)]:
        set_value(box, "NumberOfFiles", value)
    box.wait_log(BAD_VALUES, count=3)
    assert box.read(OPTIONS) == "s4096000000 n99 /var/log/syslog"
    set_value(box, "NumberOfFiles", u(1))
    assert box.read(OPTIONS) == "s4096000000 n1 /var/log/syslog"


def test_what_cannot_be_used_ends_the_start(box):
    good = box.config()["syslog"]
    no_date = ["strptime failed to parse the date: ", "Failed to set persistent logs timer",
               "Failed to setup persistent logging"]
    missing = ["Bad configuration. One of the fields is not present"]
    for section, texts in [
            (good | {"numberOfFiles": "5"}, [BAD_VALUES]), (good | {"maxFileSize": 0}, [BAD_VALUES]),
            (good | {"activationDuration": True}, [BAD_VALUES]),
            (good | {"persistent": True, "activationDate": "yesterday"}, no_date),
            (good | {"persistent": True, "activationDate": 7}, no_date), ({}, missing), ([], missing)]:
        box.edit_config(lambda config: config.update(syslog=section))
        start_fails(box, *texts)
    assert not box.exists(OPTIONS)
    box.edit_config(lambda config: config.update(syslog=good))
    box.write(OPTIONS, PLAIN, mode=0o600, owner="root")
    start_fails(box, "Failed to compare the files", "Failed to reconfigure syslogd-log")
    assert restarts(box) == 0
    box.write(OPTIONS, "other")
    box.fill_medium()
    start_fails(box, "Failed to write syslog opts file")
    assert box.read(OPTIONS) == "other"


@pytest.mark.sanitize
def test_persistent_logging_ends_by_itself(box):
    configure(box, activationDuration=1)
    box.start_daemon()
    set_value(box, "Persistent", True)
    box.wait_log("Starting timer to stop persistent logging in 60 sec.")
    assert (box.read(OPTIONS), log_path(box)) == (PERSISTENT, "/media/syslog")

    # A restart within the period goes on with what is left of it.
    box.stop_daemon()
    configure(box, activationDate=activated(55))
    box.start_daemon()
    box.wait_log(STOPPED)
    stored = box.config()["syslog"]
    assert (stored["persistent"], stored["activationDate"]) == (False, None)
    assert (box.read(OPTIONS), log_path(box)) == (PLAIN, "/var/log/syslog")


def test_a_start_that_has_to_save_needs_a_medium_that_takes_it(box):
    """What FAULTS.md says of it, and the way out."""
    configure(box, persistent=True, activationDuration=1, activationDate=activated(120))
    box.fill_medium()
    start_fails(box, "Error writing config file", "Failed to setup persistent logging")
    box.run(["mount", "-o", "remount,ro", "/media"])
    box.write("/etc/version", "08.06.00\n", owner="root")
    box.start_daemon(wait=False)
    box.wait_log("Cannot set software version", count=2)  # the supervisor tries again
    box.run(["sh", "-c", "mount -o remount,rw /media; rm /media/full"])
    wait_until(box.serving, "the daemon serves")
    assert log_path(box) == "/var/log/syslog"
    assert box.config()["cpeDevice"]["deviceInfo"]["softwareVersion"] == "08.06.00"
