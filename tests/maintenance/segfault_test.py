"""The record of crashed processes."""
import json
import re
import time

import pytest

PREFIX = "Device.X_KELVANTO-COM_DeviceManagement.Debug.Segfault."
EMPTY = {"time": None, "processName": None}


def add(box, *args):
    return box.call("/debug/segfault", "com.kelvanto.nimbrel.debug.segfault", "AddDump", *args)


def get(box, name):
    (value,) = box.data_model("GetValue", PREFIX + name)
    return value


def record(box):
    return box.config()["segfault"]


def names(box):
    return [slot["processName"] for slot in record(box)["dumps"]]


def start(box, **members):
    box.edit_config(lambda config: config["segfault"].update(members))
    box.start_daemon()


@pytest.mark.sanitize
def test_crashes_are_recorded(box):
    box.edit_config(lambda config: config.update(segfault={
        "count": 7, "dumps": [{"time": "t", "processName": "old", "more": 1}, EMPTY, {"time": 5}]}))
    box.start_daemon()
    # Nothing says which firmware the record is of: it is reset, the slots stay, and now it is said.
    box.wait_log("Service [segfault] successfully started")
    assert record(box) == {"count": 0, "lastTimestamp": None, "firmwareVersion": "08.05.09",
                           "dumps": [{**EMPTY, "more": 1}, EMPTY, EMPTY]}
    assert get(box, "Count") == 0 and get(box, "LastTimeStamp") == "" and get(box, "DumpNumberOfEntries") == 3
    assert json.loads(box.data_model("GetObject", PREFIX + "Dump.1")[0]) == {"Time": "", "ProcessName": ""}

    before = time.strftime("%Y-%m-%dT%H:%M:%SZ")
    for name in ["a", "b", "", 'd" \\ $(x)\n%s']:
        assert add(box, name) == ()
    assert names(box) == ['d" \\ $(x)\n%s', "", "b"]
    stamp = record(box)["dumps"][0]["time"]
    assert stamp >= before and re.fullmatch(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ", stamp)
    assert get(box, "Count") == 4 and get(box, "LastTimeStamp") == stamp
    # One line, in this order of members.
    assert box.data_model("GetObject", PREFIX + "Dump.1") == (
        '{"Time":"' + stamp + '","ProcessName":"d\\" \\\\ $(x)\\n%s"}',)

    kept = record(box)
    for number in ["0", "4", "-1", "2147483649"]:
        assert box.data_model("GetObject", PREFIX + "Dump." + number) == ()
    box.wait_log("segfault_dump_getter: invalid index -1")
    assert record(box) == kept

    # The same firmware keeps the record, another one resets it.
    box.stop_daemon()
    start(box)
    assert record(box) == kept
    box.stop_daemon()
    box.write("/etc/version", "08.06.00\n", owner="root")
    start(box)
    box.wait_log("Services started successfully", count=3)
    assert record(box)["count"] == 0 and names(box) == [None] * 3
