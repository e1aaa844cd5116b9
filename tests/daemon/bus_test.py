"""The reference of the bus is true: every method with right and with wrong arguments."""
import re

import pytest

from box import BusError, NoReply, i, tree, u

TYPES, VALUES = {"s": str, "b": bool, "u": int}, {"s": "x", "b": False, "u": u(0), "v": "x"}
NAMED = {"path": "/nowhere/none", "json": '{"service":"AFP","enabled":true}'}
KNOWN = {"no answer": None, "empty answer": (), "false": (False,)}


@pytest.mark.sanitize
def test_the_reference(box):
    box.start_daemon()
    before, right, reasons = box.config(), [], []
    for row in tree.methods():
        with pytest.raises(BusError, match="UnknownMethod"):
            box.call(*row[:2], "NoSuchMethod")
        types = [TYPES[kind] for kind, _ in row.gives if kind != "v"]
        args = [NAMED.get(name, VALUES[kind]) for kind, name in row.takes]
        right.append(((*row[:3], *args), types, "mpty" in row.meaning))
        for bad in [[*args, *[i(1)] * 17]] + [[("d", 1.0), *args[1:]]] * bool(args):  # sixteen are kept
            try:
                answer = box.call(*row[:3], *bad, timeout=0.3 if row.wrong == "no answer" else 30)
            except NoReply:
                answer = None
            assert answer == KNOWN[row.wrong] if row.wrong in KNOWN else list(map(type, answer)) == types, row.name
        if args and row.name not in ("SetValue", "AddDump"):  # these look for themselves
            reasons += [f"for {row.interface}.{row.name}: {reason} mismatch" for reason in ("count", "type")]
    assert box.config() == before
    refused = re.findall(r" WARN message_bus - Error validating dbus message params (.*)\n.*? WARN \w+ - (?:Bad|get)", box.log())
    assert refused == reasons
    for lines in ("INFO backup - Restoring backup requested\n.* WARN message_bus - .*restore: count mismatch\n"
                  ".* WARN backup - Bad params passed to restore_callback\n",
                  "INFO vpn - get_config_callback start\n.* WARN vpn - get_config_callback doesn't accept arguments\n"):
        assert re.search(lines, box.log())
    assert {member for member, *_ in box.peer("ddm").calls()} <= {"DeviceList", "PartitionList"}
    for call, types, may_be_empty in right:
        answer = box.call(*call)
        assert list(map(type, answer)) == types or may_be_empty and answer == (), call
