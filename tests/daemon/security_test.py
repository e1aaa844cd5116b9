"""Attacks of an unprivileged user of the box on the installed daemon, and the same acts by their
rightful senders."""
import os
import re
import stat
from pathlib import Path

import pytest

from box import ROOT, wait_until

INTRUDER = ["setpriv", "--reuid=nobody", "--regid=nogroup", "--clear-groups", "--"]
OWN = "/tmp/nimbrel"


def as_intruder(box, *argv, **options):
    return box.run([*INTRUDER, *argv], check=False, **options)


def send_signal(box, interface, member, *args, user=INTRUDER):
    box.run([*user, "dbus-send", "--system", "/status", f"{interface}.{member}", *args], check=False)


def facts(box, path):
    info = os.lstat(box.path(path))
    return stat.filemode(info.st_mode), info.st_uid


@pytest.mark.parametrize("plant", [
    f"mkdir -m 777 {OWN}; mkdir -m 777 {OWN}/configs; ln -s /etc/passwd {OWN}/configs/samba.config.tmp",
    f"mkdir -m 700 {OWN}; ln -s /media {OWN}/configs",
    f"ln -s /media {OWN}",
    f"mkdir -m 755 {OWN} {OWN}/configs",
])
def test_nothing_planted_in_the_place_of_the_working_directory_survives(box, plant):
    as_intruder(box, "sh", "-c", plant)
    users = box.read("/etc/passwd")
    # Without the service's preparation the daemon does not start on it.
    box.run(["env", "-i", "PATH=/usr/bin:/bin", "UID=7001", "GID=7001", "nimbrelc"], check=False)
    box.wait_log("Cannot create all working dirs")
    assert not box.exists("/media/configs")
    box.start_daemon()
    assert facts(box, OWN) == ("drwxr-xr-x", 7001)
    assert facts(box, OWN + "/configs") == ("drwxr-xr-x", 7001)
    (aside,) = [name for name in os.listdir(box.path("/tmp")) if name.startswith("nimbrel.")]
    assert facts(box, "/tmp/" + aside) == ("drwx------", 0)
    box.plug("sda")
    box.wait_up("smbd")
    assert facts(box, OWN + "/configs/samba.config") == ("-rw-r--r--", 7001)
    assert box.read("/etc/passwd") == users
    # What is the daemon's own stays, and loses a mode with which others could write.
    os.chmod(box.path(OWN + "/configs"), 0o777)
    box.stop_daemon()
    box.start_daemon()
    assert facts(box, OWN + "/configs") == ("drwxr-xr-x", 7001)
    assert box.exists(OWN + "/configs/samba.config")


def test_root_may_put_the_working_directory_elsewhere(box):
    box.run(["sh", "-ec", f"install -d -o nimbrelc /run/own; ln -s /run/own {OWN}"])
    box.start_daemon()
    assert box.exists("/run/own/configs")


def test_secrets_are_for_the_daemon_alone(box):
    box.run(["sh", "-c", "umask 0; cp /opt/app/default_config/nimbrelc.json /media/nimbrelc.json"])
    box.chown("/media/nimbrelc.json", "nimbrelc")
    box.start_daemon()
    assert facts(box, "/media/nimbrelc.json") == ("-rw-------", 7001)
    box.ask("updateCredentialsForUserShares", True, "alice", "passw0rd")
    box.set("SerialConsole.LoginPassword", "x")
    box.plug("sda")
    box.wait_up("smbd")
    for path in "/media/nimbrelc.json", "/media/serial_login_password", OWN + "/configs/sambausers.map":
        assert facts(box, path) == ("-rw-------", 7001)
    document, console = box.read("/media/nimbrelc.json"), box.read("/media/serial_login_password")
    as_intruder(box, "sh", "-c", "ln -s /media/nimbrelc.json /tmp/link; umask 0; echo mine >/tmp/open")
    box.ask("store", "/tmp/open")
    assert box.read("/tmp/open") == "mine\n"
    os.chmod(box.path("/tmp"), 0o777)  # the kernel protects what is planted in sticky directories only
    os.link(box.path("/media/serial_login_password"), box.path("/media/second"))
    box.ask("store", "/tmp/link")
    box.wait_log("Failed to save the backup", count=2)
    box.write("/tmp/lax", "older", 0o666)
    for path in ("/tmp/new", "/tmp/lax", "/tmp/open", "/media/second"):
        box.ask("store", path)
        assert facts(box, path) == ("-rw-------", 7001)
        assert as_intruder(box, "cat", path).returncode == 1
    assert box.read("/media/nimbrelc.json") == document
    assert box.read("/media/serial_login_password") == console


def test_signals_count_only_from_their_real_senders(box):
    box.start_daemon(vpn={"globalEnable": True})
    box.wait_log("is not running - fine", count=3)
    box.wait_log("DMS manager configuration delivered successfully")
    before = len(box.sudo()), len(box.log())
    record = "string:{syspath: 'x', disk_syspath: 'y', label: 'all', mount_point: '/'}"
    acts = [("com.kelvanto.ddm", "PartitionConnected", record),
            ("com.kelvanto.systemcalls", "IPAddressChanged"),
            ("com.kelvanto.nimbrel.upgrade", "ShowUpgradeMessage")]
    for act in acts:
        send_signal(box, *act)
        as_intruder(box, "dbus-send", "--system", "--dest=com.kelvanto.nimbrel", "/status",
                    ".".join(act[:2]), *act[2:])
    send_signal(box, *acts[0], user=[])  # root is not the disk daemon either
    for name in ("com.kelvanto.ddm", "com.kelvanto.nimbrel"):
        refused = as_intruder(box, "dbus-send", "--system", "--print-reply",
                              "--dest=org.freedesktop.DBus", "/", "org.freedesktop.DBus.RequestName",
                              "string:" + name, "uint32:2")
        assert "AccessDenied" in refused.stderr
    assert box.serving()  # later than all of them
    assert (len(box.sudo()), len(box.log())) == before
    box.signal(*acts[0][:2], record.removeprefix("string:"), path="/status")
    box.wait_log("Update file services on partition connected")
    for act in acts[1:]:
        send_signal(box, *act, user=[])
    box.wait_log("LCD show event")
    wait_until(lambda: any("updateConfig.sh" in command for command in box.sudo()[before[0]:]),
               "the VPN's restart")


def test_foreign_texts_are_no_lines_of_their_own_in_the_log(box):
    box.run(["mkdir", "/var/netatalk/CNID/x\nforged"])
    box.enable_services("samba", "afp")
    box.start_daemon()
    text = "x\nforged"

    def ask(name, path, method, *args):
        return as_intruder(box, "dbus-send", "--system", "--print-reply=literal", "--dest=com.kelvanto." + name, path,
                           "com.kelvanto." + method, *args).stdout.strip()
    # The questions that anybody may ask; everything else is for root and the group.
    assert ask("pamauth", "/com/kelvanto/pam", "authentification.AuthRequest", "string:" + text, "string:") == "uint32 0"
    assert "default" in ask("nssauth", "/com/kelvanto/nss", "passwd.PwRequest", "uint32:1", "uint32:1", "string:" + text)
    assert ask("firmware", "/signature", "firmware.upgrade.DevelopmentBuildsAllowed") == "boolean false"
    assert ask("nimbrel", "/com/kelvanto/nimbrel", "nimbrel.datamodel.GetValue", "string:Device.LAN.IPAddress") == ""
    for key in (text, "Device.StorageService.1.LogicalVolume.1" + text):
        box.ask("SetValue", key, text)
        box.ask("GetObject", key)
    for method, *args in ("AddDump", text), ("store", text), ("unmount", text), ("rename", text, text):
        box.ask(method, *args)
    box.disk_signal("PartitionConnected", text)
    box.plug(text, "SD", partitions=[{"label": text, "mount_point": "/media/a  " + text}])
    box.wait_log("Cannot share ")
    box.wait_log("CNID dir x_forged successfully removed")
    assert not re.findall("^(?!.*x_forged).*forged.*", box.log(), re.M)


@pytest.mark.sanitize
def test_whatever_the_process_inherits(box):
    box.write("/usr/bin/scripts/ssh/set_auth_key.sh",
              "#!/bin/sh\ngrep Sig /proc/self/status >/run/box/signals; readlink /proc/self/fd/[012]\n",
              0o755, "root")
    box.write("/run/service/nimbrelc/run", """#!/bin/bash
trap '' HUP INT TERM CHLD PIPE
umask 0050
exec setpriv --groups 0,7002 /etc/s6/sv/nimbrelc/run <&- >&- 2>&-
""", 0o755, "root")
    box.run(["s6-svc", "-u", "/run/service/nimbrelc"])
    wait_until(box.serving, "the daemon serves")
    status = Path(f"/proc/{box.daemon_pid()}/status").read_text()
    assert re.search(r"^Groups:\s*$", status, re.M)
    assert re.search(r"^Uid:\s+7001\s+7001\s+7001", status, re.M)
    assert re.search(r"^Umask:\s+0072$", status, re.M)
    assert int(re.search(r"^SigIgn:\s+(\w+)", status, re.M)[1], 16) & 0x7fffffff == 1 << 12  # SIGPIPE
    ignored = re.search(r"^SigIgn:\s+(\w+)", box.read("/run/box/signals"), re.M)[1]
    assert int(ignored, 16) & 0x7fffffff == 0
    assert [os.readlink(f"/proc/{box.daemon_pid()}/fd/{number}") for number in range(3)] == ["/dev/null"] * 3


def test_objects_describe_themselves(box):
    box.start_daemon()

    def names(path):
        text = as_intruder(box, "dbus-send", "--system", "--print-reply=literal", "--dest=com.kelvanto.nimbrel",
                           path, "org.freedesktop.DBus.Introspectable.Introspect").stdout
        return re.findall('<(?:interface|method|node) name="((?!org|Intro)[^"]+)"', text)
    assert names("/com/kelvanto/nimbrel") == [
        "com.kelvanto.nimbrel.syslog", "GetCurrentLogPath",
        "com.kelvanto.nimbrel.datamodel", "GetValue", "SetValue", "GetObject"]
    assert {"ws", "com", "backup", "debug", "signature"} == set(names("/"))


SCRIPTS = "/usr/bin/scripts/"
NEEDED = re.findall("`(?:/usr/bin/)?sudo ([^`\n]+)`", (Path(ROOT) / "docs" / "platform.md").read_text()) + [
    SCRIPTS + "vpn/updateConfig.sh 0v 0v",
    SCRIPTS + """vpn/updateConfig.sh "$(printf 'a\\nb')" '(c,:=#*\\' ^d$ 0ve f '0v(null)'""",
    SCRIPTS + "vpn/updateConfig.sh " + 9000 * "a" + " 0v 0v",
    f"/bin/sh {SCRIPTS}remove_afp_cnid_dir.sh ..a",
]
NEIGHBOURS = [
    SCRIPTS + "vpn/updateConfig.sh", SCRIPTS + "vpn/updateConfig.sh --reset", SCRIPTS + "vpn/updateConfig.sh a 0vb",
    "s6-svstat /run/service/dbus", "s6-svc -d /run/service/smbd", "s6-rc -u change smbd avahi", "dmesg",
    "smbpasswd -c /tmp/other -an default", SCRIPTS + "firewallctl", SCRIPTS + "firewallctl start debug x",
    SCRIPTS + "firewallctl flush debug", SCRIPTS + "vpn/getPortForwardingStatus.sh 500 internal_99",
    SCRIPTS + "firewall/set_port_forwarding.sh internal 100 1 23 'Remote SSH Access'",
    SCRIPTS + "firewall/set_port_forwarding.sh internal 100 '1 22 x' 22 'Remote SSH Access'",
    SCRIPTS + "firewall/delete_port_forwarding.sh internal 101", SCRIPTS + "vpn/getConnectedDevices.sh x",
    f"/bin/sh {SCRIPTS}remove_afp_cnid_dir.sh ..", f"/bin/sh {SCRIPTS}remove_afp_cnid_dir.sh a/b",
    f"/bin/sh {SCRIPTS}remove_afp_cnid_dir.sh", "/bin/sh", "/usr/bin/id",
]


def test_root_commands(box):
    box.write("/root/ask", """while read -r line; do
        eval "sudo -n -l -U nimbrelc -- $line" </dev/null >/dev/null 2>&1 && echo yes || echo no
    done""")
    answers = box.run(["sh", "/root/ask"], input="\n".join([*NEEDED, *NEIGHBOURS, ""])).stdout.split()
    rows = dict(zip(NEEDED + NEIGHBOURS, answers, strict=True))
    assert [line for line in NEEDED if rows[line] != "yes"] == []
    assert [line for line in NEIGHBOURS if rows[line] != "no"] == []
    # What is refused is in the system log, what is allowed is not.
    box.run(["rm", "/etc/sudoers.d/zz-box"])
    for command in ("/usr/bin/id", "/usr/bin/dmesg -E"):
        box.run(["setpriv", "--reuid=7001", "--regid=7001", "--clear-groups", "sudo", "-n", *command.split()],
                check=False)
    box.wait_log("COMMAND=/usr/bin/id")
    assert "dmesg" not in box.log()
