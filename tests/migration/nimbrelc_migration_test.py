"""The start-up migration: one run of the daemon with -m on documents of boxes in the field."""
import json

import pytest

from box import CONFIG, document_faults, field_document

DEFAULT = "/opt/app/default_config/nimbrelc.json"


def version_of(config):
    return config["cpeDevice"]["deviceInfo"]["softwareVersion"]


def migrate(box, installed, config, code=0):
    """One run; whether it changed the document."""
    box.write("/etc/version", installed + "\n")
    box.write(CONFIG, config)
    before = box.read(CONFIG)
    assert box.migrate().returncode == code
    assert not box.exists(CONFIG + ".tmp")
    assert not code or box.read(CONFIG) == before  # a refusal leaves the file alone
    return box.read(CONFIG) != before


@pytest.mark.sanitize
@pytest.mark.both_flavours
def test_upgrades(box):
    old = field_document("08.04.99")
    for recorded in ("08.04.99", "08.05.01", "08.05.08"):
        assert migrate(box, "08.05.09", field_document(recorded))
        config = box.config()
        assert version_of(config) == "08.05.09" and not document_faults(box.read(CONFIG))
        # The secrets moved as they were, under their current names alone.
        assert config["storage"] == {"enabled": True, "username": "family",
                                     "password4": old["storage"]["password_legacy"]}
        assert config["vpn"]["password4"] == old["vpn"]["password_legacy"]
        assert config["vpn"]["presharedkey4"] == old["vpn"]["presharedkey_legacy"]
        assert not {"password_legacy", "password3", "presharedkey_legacy", "presharedkey3"} & set(config["vpn"])
        assert config["nas"] == old["nas"]
        if recorded == "08.04.99":
            assert config["cpeDevice"]["deviceInfo"]["firstUseDate"] == "2019-05-03T10:20:30Z"
            assert config["ssh"]["activationDate"] is None
            assert config["vpn"]["lastConnectTimestamp"] == "2021-11-30T18:00:00Z"
            assert config["segfault"]["count"] == 0 and config["segfault"]["firmwareVersion"] is None
    # The daemon serves with it, and the share's user gets in.
    box.start_daemon()
    assert box.ask("AuthRequest", "family", "photos2024") == 1
    log = box.log()
    assert log.count("Upgrade from 08.04.99 to 08.05.01 succeeded") == 1
    assert log.count("Upgrade from 08.05.08 to 08.05.09 succeeded") == 3
    assert log.count("NimbrelC launched in migration mode") == 3 and "Migration succeeded" in log


def test_versions_that_need_nothing(box):
    config = field_document("08.05.09")
    # A null version counts as the installed one, in memory only.
    for installed, recorded in [("08.05.09", "08.05.09"), ("08.05.09", "08.05.09a"), ("08.05.09b", "08.05.09"),
                                ("08.05.09", None)]:
        config["cpeDevice"]["deviceInfo"]["softwareVersion"] = recorded
        assert not migrate(box, installed, config)
    # A newer firmware without a step of its own is only recorded, in full.
    assert migrate(box, "08.06.00r", field_document("08.05.09"))
    assert version_of(box.config()) == "08.06.00r"
    # A missing version is older than every step.
    del config["cpeDevice"]["deviceInfo"]["softwareVersion"]
    assert migrate(box, "08.05.09", config)
    box.wait_log("Configuration file does not contain version, assigning 07.70.13")


@pytest.mark.sanitize
def test_legacy_take_over(box):
    legacy, first = field_document("legacy-config"), field_document("legacy-first-start")
    box.write("/media/config.json", legacy)
    assert migrate(box, "08.05.09", first)
    config = box.config()
    assert not document_faults(box.read(CONFIG))
    assert config["storage"] == {"enabled": True, "username": "grandma", "password4": legacy["storage"]["password"]}
    assert config["vpn"]["presharedkey4"] == legacy["vpn"]["presharedkey"]
    assert config["vpn"]["username"] == "tunnel" and config["vpn"]["enable"] is True
    assert config["nas"]["fileServices"]["samba"]["daemonConfig"]["serverName"] == "Cellar"
    assert config["centralStorage"]["enabled"] is False
    assert config["cpeDevice"]["deviceInfo"]["firstUseDate"] == "2016-02-29T08:00:00Z"
    assert "speedTest" not in config and "xmpp" not in config["cpeDevice"]
    assert json.loads(box.read("/media/config.json")) == legacy  # never touched

    box.write("/media/config.json", "{")
    assert not migrate(box, "08.05.09", first, code=1)
    # A recorded version means that the legacy file is history.
    assert not migrate(box, "08.05.09", field_document("08.05.09"))


def test_downgrade(box):
    default, config = field_document("default-of-08.05.01"), field_document("08.05.09")
    box.write(DEFAULT, default)
    config["ssh"].update(enable=True)
    config["cpeDevice"]["deviceInfo"]["firstUseDate"] = None
    assert migrate(box, "08.05.01", config)
    default["cpeDevice"]["deviceInfo"].update(provisioningCode="NORTH-7")
    default["nas"]["fileServices"]["samba"]["daemonConfig"].update(
        serverName="Attic", workgroup="HOME", maxConnections=16)  # a list is not taken
    default["storage"].update(enabled=True, username="family", password4=config["storage"]["password4"])
    default["ssh"].update(enable=True)  # a number does not replace a text
    assert box.config() == default
    box.write(DEFAULT, "[")
    assert not migrate(box, "08.05.00", config, code=1)


@pytest.mark.sanitize
def test_damaged_documents_are_refused_untouched(box):
    good = json.dumps(field_document("08.04.99"))
    for config in ["", '{"cpeDevice":{"deviceInfo":[]}}', good.replace("08.04.99", "8.4.99")]:
        migrate(box, "08.05.09", config, code=1)
    for installed in ("", "latest"):
        migrate(box, installed, good, code=1)
    for text in ("Migration failed", "Version in /etc/version has wrong format: latest",
                 "Version in /media/nimbrelc.json has wrong format: 8.4.99"):
        box.wait_log(text)
    # A full medium: the old document stays whole.
    box.write("/etc/version", "08.05.09\n")
    box.fill_medium()
    assert box.migrate().returncode == 1
    assert box.read(CONFIG) == good
