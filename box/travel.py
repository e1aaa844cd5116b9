"""What the daemon of one system writes, the daemon of each other one reads: the configuration document, which is
migrated on the way, and the backup, which is restored. Used by elsewhere.py."""
import concurrent.futures
import json
import os
import re
import shutil

from box import CONFIG, BoxError, BusError, NoReply, field_document, u, wait_until

BACKUP = "/tmp/settings.backup"
USER, PASSWORD = "traveller", "Sea & sun 2061"
WORD = 4294967295
SET = {"DeviceInfo.ProvisioningCode": "Köln, Жлобин, 東京, 🏠", "MinimumFWVersion": "08.00.00 \"\\\t",
       "Syslog.NumberOfFiles": u(99), "Syslog.MaxFileSize": u(WORD),
       "Syslog.PersistentLogActivationDuration": u(2147483647), "SSH.ExternalNPPort": u(65535),
       "SSH.AuthorizedKey": "ssh-ed25519 AAAAC3Nza Jürgen"}
NO_DATE = {"lastConnectTimestamp": "1900-01-01T00:00:00", "lastConnectionDuration": 0}


def facts(box):
    """What a caller is told."""
    return {**{key: box.get(key) for key in ("DeviceInfo.FirstUseDate", *SET)},
            "credentials": box.ask("AuthRequest", USER, PASSWORD),
            "VPN": json.loads(box.ask("vpn.getConfig")),
            "connection": json.loads(box.ask("getLastConnectionDetails"))}


def tell(box, user, password):
    box.ask("updateCredentialsForUserShares", True, user, password)
    box.ask("vpn.updateConfig", True, user, password, password)


def write(place):
    """The document and the backup of a box of that system, and what it says of itself, into the system's folder."""
    folder = os.path.join(place.dir, "written")
    os.makedirs(folder, exist_ok=True)
    with place.box() as box:
        box.write(CONFIG, field_document("08.04.99"))
        assert box.migrate().returncode == 0, box.log()
        box.start_daemon()
        tell(box, USER, PASSWORD)
        for key, value in SET.items():
            box.apply(key, value)
        box.ask("setLastConnectionDetails", "2061-02-03T04:05:06Z", u(WORD))
        box.ask("store", BACKUP)
        with open(os.path.join(folder, "facts"), "w") as file:
            json.dump(facts(box), file)
        shutil.copy(box.path(CONFIG), os.path.join(folder, "document"))
        shutil.copy(box.path(BACKUP), os.path.join(folder, "backup"))


def written(place):
    contents = []
    for name in "facts", "document", "backup":
        with open(os.path.join(place.dir, "written", name), "rb") as file:
            contents.append(file.read())
    return json.loads(contents[0]), contents[1].decode(), contents[2]


def read(place, writers):
    """What went wrong with each writer's: a text each, empty when all was read."""
    verdicts = []
    with place.box() as box:
        for writer in writers:
            expected, document, backup = written(writer)
            if place.system.narrow_times:  # the migration has no use for a date that it cannot tell
                expected["connection"] = NO_DATE
            try:
                box.stop_daemon()
                box.write(CONFIG, re.sub(r'("softwareVersion":\s*)"[^"]*"', r'\1"08.04.99"', document))
                box.write(BACKUP, backup)
                assert box.migrate().returncode == 0, "is not migrated"
                box.start_daemon()
                assert facts(box) == expected, f"document reads as {facts(box)}, not {expected}"
                tell(box, "nobody", "else at all 1")
                assert facts(box) != expected
                ends = box.exits().count((0, 0))
                assert box.ask("restore", BACKUP) is True, "backup is not restored"
                wait_until(lambda: box.exits().count((0, 0)) > ends, "the daemon ends")
                wait_until(box.serving, "the daemon serves again")
                assert facts(box) == expected, f"backup reads as {facts(box)}, not {expected}"
                verdicts.append("")
            except (AssertionError, BoxError, BusError, NoReply) as fault:
                verdicts.append(f"{place.name} reads what {writer.name} wrote: {fault}")
    return verdicts


def matrix(places):
    """Prints who read whose; what went wrong."""
    with concurrent.futures.ThreadPoolExecutor(4) as pool:
        list(pool.map(write, places))
        rows = list(pool.map(read, places, [places] * len(places)))
    print("\n| read by, written by | " + " | ".join(place.name for place in places) + " |")
    print("| --- " * (len(places) + 1) + "|")
    for place, verdicts in zip(places, rows):
        good = "yes, to 2038" if place.system.narrow_times else "yes"
        print(f"| {place.name} | " + " | ".join("no" if verdict else good for verdict in verdicts) + " |")
    faults = [verdict for verdicts in rows for verdict in verdicts if verdict]
    documents = {re.sub(r'("(?:password4|presharedkey4)":\s*)"[^"]*"', r"\1", written(place)[1]) for place in places}
    if len(documents) > 1:
        faults.append("the documents differ in more than their secrets")
    print("\n".join(faults))
    return faults
