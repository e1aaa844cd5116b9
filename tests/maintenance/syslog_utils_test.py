"""The options of the log service, and persistent logging that ends by itself."""
import os

import pytest

from box import i, u, wait_until

OPTIONS = "/media/s6log.opts"
PLAIN = "s524288 n5 /var/log/syslog"
BAD_VALUES = "Bad configuration. Some fields have bad values."


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


@pytest.mark.sanitize
def test_the_options_follow_the_configuration(box):
    box.start_daemon()
    assert (box.read(OPTIONS), box.ask("GetCurrentLogPath"), restarts(box)) == (PLAIN, "/var/log/syslog", 1)
    written = os.stat(box.path(OPTIONS)).st_ino
    box.restart_daemon()
    assert os.stat(box.path(OPTIONS)).st_ino == written  # a write is a new file
    assert restarts(box) == 1

    box.apply("Syslog.NumberOfFiles", u(99))
    box.apply("Syslog.MaxFileSize", u(4000000))  # more bytes than 32 bits can tell
    assert box.read(OPTIONS) == "s4096000000 n99 /var/log/syslog"
    # A bad value is stored, and not applied.
    for value in [i(-1), u(100), u(0)]:
        box.apply("Syslog.NumberOfFiles", value)
    box.wait_log(BAD_VALUES, count=3)
    assert box.read(OPTIONS) == "s4096000000 n99 /var/log/syslog"
    box.apply("Syslog.NumberOfFiles", u(1))
    assert box.read(OPTIONS) == "s4096000000 n1 /var/log/syslog"
    box.apply("Syslog.Persistent", True)
    assert (box.read(OPTIONS), box.ask("GetCurrentLogPath")) == ("s4096000000 n1 /media/syslog", "/media/syslog")


def test_what_cannot_be_used_ends_the_start(box):
    good = box.config()["syslog"]
    no_date = ["strptime failed to parse the date: ", "Failed to set persistent logs timer",
               "Failed to setup persistent logging"]
    missing = ["Bad configuration. One of the fields is not present"]
    for section, texts in [
            (good | {"numberOfFiles": "5"}, [BAD_VALUES]), (good | {"maxFileSize": 0}, [BAD_VALUES]),
            (good | {"activationDuration": True}, [BAD_VALUES]),
            (good | {"persistent": True, "activationDate": "yesterday"}, no_date),
            (good | {"persistent": True, "activationDate": 7}, no_date), ([], missing)]:
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


def test_a_start_that_has_to_save_needs_a_medium_that_takes_it(box):
    """What FAULTS.md says of it, and the way out."""
    box.configure(syslog={"persistent": True, "activationDate": "2001-02-03T04:05:06Z"})
    box.fill_medium()
    start_fails(box, "Error writing config file", "Failed to setup persistent logging")
    box.run(["mount", "-o", "remount,ro", "/media"])
    box.write("/etc/version", "08.06.00\n", owner="root")
    box.start_daemon(wait=False)
    box.wait_log("Cannot set software version", count=2)  # the supervisor tries again
    box.run(["sh", "-c", "mount -o remount,rw /media; rm /media/full"])
    wait_until(box.serving, "the daemon serves")
    assert box.ask("GetCurrentLogPath") == "/var/log/syslog"
    assert box.config()["cpeDevice"]["deviceInfo"]["softwareVersion"] == "08.06.00"
