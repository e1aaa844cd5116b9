"""Central storage and the protection of the shares: the switches, the credentials, PAM and NSS."""
import json

import pytest

from box import u

FILES = ("/ws/nas/fileservices", "com.kelvanto.nimbrel.nas.fileservices")
SWITCH = ("/ws/centralstorage", "com.kelvanto.nimbrel.centralstorage")

RELOAD = "Requesting reload of all file services"


def update(box, wanted, username, password):
    assert box.call(*FILES, "updateCredentialsForUserShares", wanted, username, password) == ()


def change_state(box, wanted):
    assert box.call(*FILES, "changeStateCredentialsForUserShares", wanted) == ()


def settings(box, method="getCredentialsForUserShares"):
    """The settings as the daemon tells them: an object's text, as one JSON string."""
    (text,) = box.call(*FILES, method)
    return json.loads(json.loads(text))


def pam(box, *args, **options):
    return box.call("/com/kelvanto/pam", "com.kelvanto.authentification", "AuthRequest", *args,
                    name="com.kelvanto.pamauth", **options)


def nss(box, username, group=u(2), **options):
    return box.call("/com/kelvanto/nss", "com.kelvanto.passwd", "PwRequest", u(1), group, username,
                    name="com.kelvanto.nssauth", **options)


def test_only_good_credentials_are_taken(box):
    box.start_daemon()
    before = box.config()
    for name, secret, complaint in [("Alice", "passw0rd", "Username does not meet required criteria"),
                                    ("ali", "ali", "Password must be different than username"),
                                    ("alice", "pässw0rd", "Password does not meet required criteria")]:
        update(box, True, name, secret)
        box.wait_log(complaint)
    assert box.config() == before
    assert RELOAD not in box.log()

    for count, (name, secret) in enumerate([
            ("a.b", "        a       "), ("_x-9" * 8, "Aa@[`{~1"), ("bob", 'p4ss"\\word')], 1):
        update(box, True, name, secret)
        assert settings(box) == {"enabled": True, "username": name, "password": secret}
        assert secret not in box.read("/media/nimbrelc.json")
        box.wait_log(RELOAD, count=count)

    # An empty value leaves the stored one, and is refused as long as the other is not empty too.
    update(box, False, "carol", "")
    update(box, False, "", "passw0rd")
    assert settings(box) == {"enabled": True, "username": "bob", "password": 'p4ss"\\word'}
    update(box, False, "", "")
    assert settings(box) == {"enabled": False, "username": "bob", "password": 'p4ss"\\word'}
    assert settings(box, "getRestrictedCredentialsForUserShares") == {"enabled": False}

    box.stop_daemon()
    box.start_daemon()
    assert settings(box) == {"enabled": False, "username": "bob", "password": 'p4ss"\\word'}


def test_a_request_reloads_when_it_saved(box):
    box.start_daemon()
    change_state(box, False)
    box.wait_log("Storage configuration hasn't changed")
    assert RELOAD not in box.log()
    change_state(box, True)
    assert settings(box) == {"enabled": True, "username": "", "password": ""}
    box.wait_log(RELOAD)
    update(box, True, "alice", "passw0rd")
    box.wait_log(RELOAD, count=2)
    update(box, True, "alice", "passw0rd")
    box.wait_log("Storage configuration hasn't changed", count=2)
    # With stored credentials the flag alone counts as a change even when it is the same.
    change_state(box, True)
    box.wait_log(RELOAD, count=3)
    assert settings(box) == {"enabled": True, "username": "alice", "password": "passw0rd"}
    box.fill_medium()
    change_state(box, False)
    box.wait_log("Error saving storage configuration")
    assert box.log().count(RELOAD) == 3
    assert box.config()["storage"]["enabled"]


@pytest.mark.sanitize
def test_pam_and_nss_know_one_user(box):
    box.start_daemon()
    default = ("default", "x", 7001, 7001)
    assert pam(box, "", "") == (0,)
    assert nss(box, "") == (0, *default)
    update(box, False, "alice", "passw0rd")
    assert pam(box, "alice", "passw0rd") == (0,)
    assert nss(box, "alice") == (0, *default)
    change_state(box, True)
    assert nss(box, "alice") == (1, *default)
    assert nss(box, "Alice") == nss(box, "") == (0, *default)
    box.wait_log("Denied, user Alice unrecognised")
    for name, secret, allowed in [("alice", "passw0rd", 1), ("alice", "Passw0rd", 0), ("alice", "", 0),
                                  ("alic", "passw0rd", 0), ("Alice", "passw0rd", 0), ("", "", 0)]:
        assert pam(box, name, secret) == (allowed,)

    # Without a password, or with one that cannot be read, PAM denies and NSS still knows the user.
    for stored in (None, "no cipher text"):
        box.stop_daemon()
        box.edit_config(lambda config: config["storage"].update(password4=stored))
        box.start_daemon()
        assert settings(box) == {"enabled": True, "username": "alice", "password": ""}
        assert pam(box, "alice", "passw0rd") == pam(box, "alice", "") == (0,)
        assert nss(box, "alice") == (1, *default)
    update(box, False, "bob", "passw0rd")  # not over a password that cannot be read
    assert settings(box) == {"enabled": True, "username": "alice", "password": ""}


@pytest.mark.sanitize
def test_missing_sections_stay_missing(box):
    def strip(config):
        del config["centralStorage"]
        del config["dlna"]
        config["storage"] = ["no object"]
    box.edit_config(strip)
    box.start_daemon()
    assert box.call(*SWITCH, "GetState") == (False,)
    assert settings(box) == {"enabled": False, "username": "", "password": ""}
    update(box, True, "alice", "passw0rd")
    assert box.call(*SWITCH, "SetState", True) == ()
    assert box.call(*SWITCH, "GetState") == (False,)
    assert pam(box, "alice", "passw0rd") == (0,)
    config = box.config()
    assert config["storage"] == ["no object"]
    assert "centralStorage" not in config and "dlna" not in config


def test_the_switch_of_central_storage(box):
    box.start_daemon()
    dlna = box.peer("dlna")
    dlna.wait_calls("DmsStreamingState")
    assert box.call(*SWITCH, "GetState") == (True,)
    assert box.call(*SWITCH, "SetState", True) == ()
    box.wait_log("Central storage configuration has not been changed")
    assert box.call(*SWITCH, "SetState", u(0)) == ()  # wrong arguments are answered too
    box.wait_log("Bad params passed to central_storage_set_state callback")

    assert box.call(*SWITCH, "SetState", False) == ()
    box.wait_log("Requesting stop of all file services")
    assert dlna.wait_calls("DmsStreamingState", 2)[-1] == ("DmsStreamingState", False)
    assert box.call(*SWITCH, "GetState") == (False,)
    box.fill_medium()
    assert box.call(*SWITCH, "SetState", True) == ()
    box.wait_log("Error saving central storage configuration")
    assert "Updating file services" not in box.log().split("Requesting stop of all file services")[1]
    assert len(dlna.calls("DmsStreamingState")) == 2
    assert box.config()["centralStorage"] == {"enabled": False}
