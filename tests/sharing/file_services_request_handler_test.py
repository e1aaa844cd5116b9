"""Central storage and the protection of the shares: the switches, the credentials, PAM and NSS."""
import json

import pytest

from box import u

RELOAD = "Requesting reload of all file services"


def update(box, *credentials):
    assert box.ask("updateCredentialsForUserShares", *credentials) is None


def change_state(box, wanted):
    assert box.ask("changeStateCredentialsForUserShares", wanted) is None


def settings(box, method="getCredentialsForUserShares"):
    """The settings as the daemon tells them: an object's text, as one JSON string."""
    return json.loads(json.loads(box.ask(method)))


def pam(box, *credentials):
    return box.ask("AuthRequest", *credentials)


def nss(box, username):
    return box.ask("PwRequest", u(1), u(2), username)


def test_only_good_credentials_are_taken(box):
    box.start_daemon()
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
    box.restart_daemon()
    assert settings(box) == {"enabled": False, "username": "bob", "password": 'p4ss"\\word'}
    assert settings(box, "getRestrictedCredentialsForUserShares") == {"enabled": False}


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
    box.fill_medium()
    change_state(box, False)
    box.wait_log("Error saving storage configuration")
    assert box.log().count(RELOAD) == 3
    assert box.config()["storage"]["enabled"]


@pytest.mark.sanitize
def test_pam_and_nss_know_one_user(box):
    box.start_daemon()
    default = ("default", "x", 7001, 7001)
    assert pam(box, "", "") == 0 and nss(box, "") == (0, *default)
    update(box, False, "alice", "passw0rd")
    assert pam(box, "alice", "passw0rd") == 0 and nss(box, "alice") == (0, *default)
    change_state(box, True)
    assert nss(box, "alice") == (1, *default)
    assert nss(box, "Alice") == nss(box, "") == (0, *default)
    for name, secret, allowed in [("alice", "passw0rd", 1), ("alice", "Passw0rd", 0), ("alice", "", 0),
                                  ("alic", "passw0rd", 0), ("Alice", "passw0rd", 0), ("", "", 0)]:
        assert pam(box, name, secret) == allowed

    # Without a password, or with one that cannot be read, PAM denies and NSS still knows the user.
    for stored in None, "no cipher text":
        box.restart_daemon(storage={"password4": stored})
        assert settings(box) == {"enabled": True, "username": "alice", "password": ""}
        assert pam(box, "alice", "passw0rd") == pam(box, "alice", "") == 0
        assert nss(box, "alice") == (1, *default)
    update(box, False, "bob", "passw0rd")  # not over a password that cannot be read
    assert settings(box) == {"enabled": True, "username": "alice", "password": ""}


@pytest.mark.sanitize
def test_missing_sections_stay_missing(box):
    def strip(config):
        del config["centralStorage"], config["dlna"]
        config["storage"] = ["no object"]
    box.edit_config(strip)
    box.start_daemon()
    before = box.config()
    assert settings(box) == {"enabled": False, "username": "", "password": ""}
    update(box, True, "alice", "passw0rd")
    assert box.ask("SetState", True) is None
    assert box.ask("GetState") is False and pam(box, "alice", "passw0rd") == 0
    assert box.config() == before


def test_the_switch_of_central_storage(box):
    box.start_daemon()
    dlna = box.peer("dlna")
    dlna.wait_calls("DmsStreamingState")
    assert box.ask("GetState") is True and box.ask("SetState", True) is None
    box.wait_log("Central storage configuration has not been changed")
    assert box.ask("SetState", False) is None
    assert dlna.wait_calls("DmsStreamingState", 2)[-1] == ("DmsStreamingState", False)
    assert box.ask("GetState") is False
    box.fill_medium()
    assert box.ask("SetState", True) is None
    box.wait_log("Error saving central storage configuration")
    assert "Updating file services" not in box.log().split("Requesting stop of all file services")[1]
    assert len(dlna.calls("DmsStreamingState")) == 2
    assert box.config()["centralStorage"] == {"enabled": False}
