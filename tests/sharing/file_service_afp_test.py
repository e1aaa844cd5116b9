"""AFP: the configuration file, and which of the volumes' directories are kept."""
import os
import re

import pytest

CNID = "/var/netatalk/CNID"
CONFIG = "/tmp/nimbrel/configs/afp.config"


@pytest.fixture
def gateway(box):
    def change(config):
        for name, section in config["nas"]["fileServices"].items():
            section["enabled"] = name == "afp"
    box.edit_config(change)
    return box


def removed(box):
    return {argv[-1] for argv in box.commands() if argv[0].endswith("remove_afp_cnid_dir.sh")}


def test_directories_of_volumes_that_are_gone_are_removed(gateway):
    gone = {"Unmounted", "-rf", "a b; touch x", "$HOME", "data"}
    kept = {"Data", "a_b"}
    for name in gone | kept:
        gateway.run(["mkdir", f"{CNID}/{name}"])
    gateway.write(f"{CNID}/file", "")
    os.symlink("Data", gateway.path(f"{CNID}/link"))
    gateway.start_daemon()
    gateway.plug("sda", partitions=[
        {"label": "Data"}, {"label": "a]b"}, {"label": "Unmounted", "mount_point": None}])
    gateway.wait_log("Start of service [AFP] initiaded")
    assert gateway.is_up("netatalk")
    assert removed(gateway) == gone
    assert set(os.listdir(gateway.path(CNID))) == kept | {"file", "link"}
    assert re.findall(r"^\[.*\]", gateway.read(CONFIG), re.M) == ["[Global]", "[Data]", "[a_b]"]

    # A stop removes all of them; one that cannot be removed does not stop the walk or the stop.
    gateway.script("remove_afp_cnid_dir.sh", code=1)
    gateway.unplug("sda")
    gateway.wait_log("Stop of service [AFP] initiated")
    assert removed(gateway) == gone | kept
    for name in kept:
        assert f"Failed to remove dir {name}" in gateway.log()
    assert gateway.log().count("Successfully removed unnecessary CNID dirs") == 2
    assert not gateway.is_up("netatalk")

    # A directory that is missing fails nothing.
    gateway.run(["rm", "-r", CNID])
    gateway.plug("sda")
    gateway.wait_log("Start of service [AFP] initiaded", count=2)
    gateway.wait_log("Error occured while removing unecessary CNID dirs")
