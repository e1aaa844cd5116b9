"""The reference of the bus is true: every method with right and with wrong arguments."""
import os
import re
import sys

import pytest
from box import ROOT, BusError, NoReply, i, u

sys.path.append(os.path.join(ROOT, "tools"))
from bus import TREE, methods  # noqa: E402

TYPES, VALUES = {"s": str, "b": bool, "u": int}, {"s": "x", "b": False, "u": u(0)}
NAMED = {"path": "/nowhere/none", "json": '{"service":"AFP","enabled":true}'}


@pytest.mark.sanitize
def test_the_reference(box):
    box.start_daemon()
    before, right, reasons = box.config(), [], []
    for file in sorted((TREE / "data" / "interfaces").glob("*.xml")):
        node = re.search('<node name="(.*?)"', file.read_text())[1]
        with pytest.raises(BusError, match="UnknownMethod"):
            box.call(node, file.stem, "NoSuchMethod")
        for name, takes, gives, wrong, meaning in methods(file):
            types = [TYPES[letter] for letter in re.findall(r"`(\w)`", gives)]
            args = [NAMED.get(word, VALUES[letter]) for letter, word in re.findall(r"`(\w)` (\w+)", takes)]
            right.append(((node, file.stem, name, *args), types, "mpty" in meaning))
            for bad in [[*args, i(1)]] + [[("d", 1.0), *args[1:]]] * bool(args):
                try:
                    answer = box.call(node, file.stem, name, *bad, timeout=0.3 if wrong == "no answer" else 30)
                except NoReply:
                    answer = None
                known = {"no answer": None, "empty answer": (), "false": (False,)}
                assert answer == known[wrong] if wrong in known else list(map(type, answer)) == types, name
            if args and name not in ("SetValue", "AddDump"):  # these look for themselves
                reasons += [f"for {file.stem}.{name}: {reason} mismatch" for reason in ("count", "type")]
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
