"""The VPN server: its methods on the bus, its credentials, the order of its daemons."""
import os

import pytest

from box import BusError, NoReply, u

PREFIX = "Device.X_KELVANTO-COM_DeviceManagement.VPN."
USER, PASSWORD, KEY = "alice", "abcdefg1", "hijklmn2"
PASSPHRASES = {"getPassword": "d9jrV2d9sU", "getPresharedKey": "GLdRwc9b93"}
STOP = ["s6-rc -d change ipsec", "s6-rc -d change openl2tpd"]
START = ["s6-rc -u change openl2tpd", "s6-rc -u change ipsec"]


def vpn(box, method, *args, **options):
    return box.call("/ws/vpn", "com.kelvanto.nimbrel.vpn", method, *args, **options)


def start(box, **members):
    box.edit_config(lambda config: config["vpn"].update(members))
    starts = box.log().count("Services started successfully")
    box.start_daemon()
    box.wait_log("Services started successfully", count=starts + 1)


def ran(box, first=0):
    """The commands of the VPN since the first one, each as one text."""
    texts = [" ".join([os.path.basename(argv[0])] + argv[1:]) for argv in box.commands()[first:]]
    return [text for text in texts if "dropbear" not in text and not text.startswith(
        ("set_auth_key.sh", "set_port_forwarding.sh", "delete_port_forwarding.sh"))]


def section(box):
    return box.config()["vpn"]


def firewall(box, mode):
    return f"firewallctl {mode} " + ("release" if box.flavour == "release" else "debug")


@pytest.mark.both_flavours
@pytest.mark.sanitize
def test_both_switches_run_the_daemons(box):
    start(box, globalEnable=True, enable=True, username="ab c", password4="cGFzcw==", presharedkey4=None)
    assert ran(box) == STOP + [firewall(box, "start"), "updateConfig.sh ab c 0vcGFzcw== 0v(null)",
                               firewall(box, "start")] + START
    for name, value, commands in [
            ("VoIPCallsBlockEnable", True, [firewall(box, "vpn")]),
            ("Enable", False, STOP + [firewall(box, "vpn")]),
            ("Enable", True, [firewall(box, "vpn")] + START),
            ("GlobalEnable", False, STOP + [firewall(box, "stop")])]:
        first = len(box.commands())
        assert box.data_model("SetValue", PREFIX + name, value) == (True,)
        vpn(box, "getGlobalStatus")  # served after the hook
        assert ran(box, first) == commands
    assert not box.is_up("ipsec") and not box.is_up("openl2tpd")
#One empty answer, then one that the bus holds back, as only one was asked for.
    assert vpn(box, "getGlobalStatus", "x") == ()
    box.wait_log("get_global_status_callback doesn't accept arguments")


def test_failing_daemons(box):
    box.script("s6-rc", code=1)
    start(box, globalEnable=True, enable=True)
    assert ran(box)[4:] == [firewall(box, "start"), START[0]]
    box.script("s6-rc")
    box.run(["rm", "-r", "/run/service/ipsec"])
    first = len(box.commands())
    assert vpn(box, "updateConfigRestricted", True) == ()
    assert ran(box, first) == [firewall(box, "start")] + START + [STOP[1]]
    box.wait_log("Failed to start ipsec, closing openl2tpd")
    assert not box.is_up("openl2tpd")
    box.script("firewallctl", code=2)
    assert vpn(box, "updateConfigRestricted", True) == ()
    assert ran(box, first)[4:] == [firewall(box, "start")]
    box.wait_log("firewallctl exited with status: 2")


@pytest.mark.sanitize
def test_credentials(box):
    start(box, globalEnable=False)
    untouched = section(box)
    vpn(box, "updateConfig", True, USER, PASSWORD, KEY)
    vpn(box, "updateConfigRestricted", True)
    assert section(box) == untouched
    box.data_model("SetValue", PREFIX + "GlobalEnable", True)
    assert vpn(box, "getGlobalStatus") == (True,)
    untouched = section(box)
    first = len(box.commands())
    for what, rows in {
            "username": [(name, PASSWORD, KEY) for name in ("ab", "a" * 33, "a\tb", "josé")],
            "password": [(USER, word, KEY) for word in ("abcdef1", "abcdefgh", "12345678", "a1" * 33)],
            "presharedkey": [(USER, PASSWORD, key) for key in ("short1", "line1234\n", PASSWORD)]
}.items():
        for count, credentials in enumerate(rows, 1):
            assert vpn(box, "updateConfig", True, *credentials) == ()
            box.wait_log("Invalid " + what, count=count)
    assert vpn(box, "updateConfig", "yes", USER, PASSWORD, KEY) == ()
    assert (section(box), ran(box, first)) == (untouched, [])

    assert vpn(box, "updateConfig", True, USER, PASSWORD, KEY) == ()
    stored = section(box)
    assert ran(box, first) == [
        f"updateConfig.sh {USER} 0v{stored['password4']} 0v{stored['presharedkey4']}",
        *STOP, firewall(box, "start"), firewall(box, "start"), *START]
    box.script("getPortForwardingStatus.sh", code=1)
    first = len(box.commands())
    (reply,) = vpn(box, "getConfig")
    assert reply == ('{"portForwardingStatus":{"500":"PORT_IN_USE","4500":"PORT_IN_USE"},"enabled":true,'
                     f'"username":"{USER}","password":"{PASSWORD}","presharedkey":"{KEY}"}}')
    assert ran(box, first) == ["getPortForwardingStatus.sh 500 internal_98",
                               "getPortForwardingStatus.sh 4500 internal_99"]
    box.script("getPortForwardingStatus.sh")
    vpn(box, "updateConfigRestricted", False)
    assert section(box)["enable"] is False
    assert vpn(box, "getConfigRestricted") == (
        '{"portForwardingStatus":{"500":"PORT_IS_FREE","4500":"PORT_IS_FREE"},"enabled":false}',)

    for method, member, secret in [("getPassword", "password4", PASSWORD), ("getPresharedKey", "presharedkey4", KEY)]:
        assert vpn(box, method, stored[member], PASSPHRASES[method]) == (secret,)
        assert vpn(box, method, "", PASSPHRASES[method] + "and more") == ("",)
        assert vpn(box, method, stored[member], PASSPHRASES[method] + "and more") == (secret,)
        for bad in [(stored[member], PASSPHRASES[method][:-1]), (stored[member], ""),
                    ("bm90aGluZw==", PASSPHRASES[method]), ("%%", PASSPHRASES[method])]:
            assert vpn(box, method, *bad) == ()
        with pytest.raises(NoReply):
            vpn(box, method, stored[member], timeout=0.5)
    box.wait_log("Bad params passed to get_preshared_key_callback", count=2)  # once by updateConfig
    for secret in [PASSWORD, KEY, *PASSPHRASES.values(), stored["password4"], stored["presharedkey4"]]:
        assert secret not in box.log()


@pytest.mark.sanitize
def test_any_credentials_reach_the_script_as_they_are(box):
    words = ["a;touch", "/tmp/ran", "$(touch>/tmp/ran)`id`", "it's\\\"me\\\\", "~root*?[a-z]{a,b}",
             "x>/tmp/ran<&|#y", "new\nline\\\n", "é%s%n"]
    name = "\t".join(words)
    start(box, globalEnable=True, username=name, password4=name, presharedkey4=name)
    (argv,) = [argv for argv in box.commands() if argv[0].endswith("updateConfig.sh")]
    secret = ["0v" + words[0], *words[1:]]
    assert argv[1:] == [*words, *secret, *secret]
    assert not box.exists("/tmp/ran")


@pytest.mark.sanitize
def test_last_connection_and_devices(box):
    start(box)
    never = '{"lastConnectTimestamp":"1900-01-01T00:00:00","lastConnectionDuration":0}'
    for bad in [("yesterday", u(60)), ("", u(60)), ("2026-11-15T10:06:29Z",), ("2026-11-15T10:06:29Z", "60")]:
        assert vpn(box, "setLastConnectionDetails", *bad) == ()
    assert vpn(box, "getLastConnectionDetails") == (never,)
    assert vpn(box, "setLastConnectionDetails", "2026-11-15T10:06:29Z", u(119)) == ()
    assert vpn(box, "getLastConnectionDetails") == (
        '{"lastConnectTimestamp":"2026-11-15T10:06:29Z","lastConnectionDuration":1}',)
    assert vpn(box, "setLastConnectionDetails", "2026-11-15T10:06:29Z", u(4294967295)) == ()
    assert section(box)["lastConnectionDuration"] == 71582788

    script = "getConnectedDevices.sh"
    assert vpn(box, "getDevices") == ()
    box.script(script, code=4, out="5;min;10.0.0.2")
    assert vpn(box, "getDevices") == ()
    box.wait_log("getConnectedDevices.sh failed with status: 4")
    box.wait_log("get_devices() failed", count=2)
#Three tokens a device, none of them empty; what is left over is dropped.
    box.script(script, out=";5;;min;10.0.0.2;;;1;h;10.0.0.3;\n")
    assert vpn(box, "getDevices") == (
        '[{"ipAddress":"10.0.0.2","connectionTime":{"count":"5","format":"min"}},'
        '{"ipAddress":"10.0.0.3","connectionTime":{"count":"1","format":"h"}}]',)
    box.script(script, out="1;\"h\xe9\udcff;10.0.0.3;" + "5;min;10.0.0.2;" * 80000)
    assert '"format":"\\"hé\ufffd"' in vpn(box, "getDevices")[0]


@pytest.mark.sanitize
def test_a_bad_section_serves_nothing(box):
    start(box)
    good = section(box)
    bad = [{"enable": 1}, {"username": None}, {"password4": None}, {"presharedkey4": 5},
           {"lastConnectTimestamp": "yesterday"}, {"lastConnectionDuration": "1"}]
    for change in bad:
        box.stop_daemon()
        first = len(box.commands())
        start(box, **good | change)
        assert ran(box, first) == [], change
        with pytest.raises((BusError, NoReply)):
            vpn(box, "getGlobalStatus", timeout=0.3)
    box.wait_log("Bad configuration. Some fields have bad values.", count=len(bad))
#A new address restarts the VPN all the same; without a user name there is nothing to write.
    box.stop_daemon()
    start(box, **good | {"username": None})
    first = len(box.commands())
    box.signal("com.kelvanto.systemcalls", "IPAddressChanged")
    box.wait_log("Failed to restart VPN")
    assert ran(box, first) == STOP + [firewall(box, "stop")]
