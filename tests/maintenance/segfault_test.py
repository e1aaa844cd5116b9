"""The record of crashed processes."""
import re
import time

import pytest

EMPTY = {"time": None, "processName": None}


def record(box):
    return box.config()["segfault"]


def names(box):
    return [slot["processName"] for slot in record(box)["dumps"]]


def told(box):
    return [box.get("Debug.Segfault." + name) for name in ("Count", "LastTimeStamp", "DumpNumberOfEntries")]


@pytest.mark.sanitize
def test_crashes_are_recorded(box):
    box.edit_config(lambda config: config.update(segfault={
        "count": 7, "dumps": [{"time": "t", "processName": "old", "more": 1}, EMPTY, {"time": 5}]}))
    box.start_daemon()
    # Nothing says which firmware the record is of: it is reset, the slots stay, and now it is said.
    assert record(box) == {"count": 0, "lastTimestamp": None, "firmwareVersion": "08.05.09",
                           "dumps": [{**EMPTY, "more": 1}, EMPTY, EMPTY]}
    assert told(box) == [0, "", 3]
    assert box.object("Debug.Segfault.Dump.1") == '{"Time":"","ProcessName":""}'

    before = time.strftime("%Y-%m-%dT%H:%M:%SZ")
    for name in ["a", "b", "", 'd" \\ $(x)\n%s']:
        assert box.ask("AddDump", name) is None
    assert names(box) == ['d" \\ $(x)\n%s', "", "b"]
    stamp = record(box)["dumps"][0]["time"]
    assert stamp >= before and re.fullmatch(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ", stamp)
    assert told(box) == [4, stamp, 3]
    # One line, in this order of members.
    assert box.object("Debug.Segfault.Dump.1") == '{"Time":"' + stamp + '","ProcessName":"d\\" \\\\ $(x)\\n%s"}'
    for number in ["0", "4", "-1", "2147483649"]:
        assert box.object("Debug.Segfault.Dump." + number) is None

    # The same firmware keeps the record, another one resets it.
    kept = record(box)
    box.restart_daemon()
    assert record(box) == kept
    box.write("/etc/version", "08.06.00\n", owner="root")
    box.restart_daemon()
    assert record(box)["count"] == 0 and names(box) == [None] * 3
