"""AFP: the configuration file, and which of the volumes' directories are kept."""
import os
import re

CNID = "/var/netatalk/CNID"


def removed(box):
    return {argv[-1] for argv in box.commands("remove_afp_cnid_dir.sh")}


def test_directories_of_volumes_that_are_gone_are_removed(box):
    gone = {"Unmounted", "-rf", "a b; touch x", "$HOME", "data"}
    kept = {"Data", "a_b"}
    for name in gone | kept:
        box.run(["mkdir", f"{CNID}/{name}"])
    box.write(f"{CNID}/file", "")
    os.symlink("Data", box.path(f"{CNID}/link"))
    box.hurry()
    box.enable_services("afp")
    box.start_daemon()
    box.plug("sda", partitions=[{"label": "Data"}, {"label": "a]b"}, {"label": "Unmounted", "mount_point": None}])
    box.wait_log("Start of service [AFP] initiaded")
    assert box.is_up("netatalk")
    assert removed(box) == gone
    assert set(os.listdir(box.path(CNID))) == kept | {"file", "link"}
    config = box.read("/tmp/nimbrel/configs/afp.config")
    assert re.findall(r"^\[.*\]", config, re.M) == ["[Global]", "[Data]", "[a_b]"]

    # A stop removes all of them; one that cannot be removed does not stop the walk or the stop.
    box.script("remove_afp_cnid_dir.sh", code=1)
    box.unplug("sda")
    box.wait_log("Stop of service [AFP] initiated")
    assert removed(box) == gone | kept
    assert not box.is_up("netatalk")
    # A directory that is missing fails nothing.
    box.run(["rm", "-r", CNID])
    box.plug("sda")
    box.wait_log("Start of service [AFP] initiaded", count=2)
