"""The VPN server: its methods on the bus, its credentials, the order of its daemons."""
import pytest

from box import BusError, NoReply, u

USER, PASSWORD, KEY = "alice", "abcdefg1", "hijklmn2"
STOP = ["s6-rc -d change ipsec", "s6-rc -d change openl2tpd"]
START = ["s6-rc -u change openl2tpd", "s6-rc -u change ipsec"]


def ran(box):
    """The commands of the VPN since this was asked the last time, each as one text."""
    return [" ".join(argv) for argv in box.new_commands() if argv[-1] != "dropbear" and argv[0] not in (
        "set_auth_key.sh", "set_port_forwarding.sh", "delete_port_forwarding.sh")]


def section(box):
    return box.config()["vpn"]


def firewall(box, mode):
    return f"firewallctl {mode} " + ("release" if box.flavour == "release" else "debug")


@pytest.mark.both_flavours
@pytest.mark.sanitize
def test_both_switches_run_the_daemons(box):
    box.start_daemon(vpn={"globalEnable": True, "enable": True, "username": "ab c", "password4": "cGFzcw==",
                          "presharedkey4": None})
    assert ran(box) == STOP + [firewall(box, "start"), "updateConfig.sh ab c 0vcGFzcw== 0v(null)",
                               firewall(box, "start")] + START
    for name, value, commands in [
            ("VoIPCallsBlockEnable", True, [firewall(box, "vpn")]),
            ("Enable", False, STOP + [firewall(box, "vpn")]),
            ("Enable", True, [firewall(box, "vpn")] + START),
            ("GlobalEnable", False, STOP + [firewall(box, "stop")])]:
        box.apply("VPN." + name, value)
        assert ran(box) == commands
    assert not box.is_up("ipsec") and not box.is_up("openl2tpd")


def test_failing_daemons(box):
    box.script("s6-rc", code=1)
    box.start_daemon(vpn={"globalEnable": True, "enable": True})
    assert ran(box)[4:] == [firewall(box, "start"), START[0]]
    box.script("s6-rc")
    box.run(["rm", "-r", "/run/service/ipsec"])
    assert box.ask("updateConfigRestricted", True) is None
    assert ran(box) == [firewall(box, "start")] + START + [STOP[1]]
    assert not box.is_up("openl2tpd")
    box.script("firewallctl", code=2)
    assert box.ask("updateConfigRestricted", True) is None
    assert ran(box) == [firewall(box, "start")]


@pytest.mark.sanitize
def test_credentials(box):
    box.start_daemon(vpn={"globalEnable": False})
    untouched = section(box)
    box.ask("updateConfig", True, USER, PASSWORD, KEY)
    box.ask("updateConfigRestricted", True)
    assert section(box) == untouched
    box.apply("VPN.GlobalEnable", True)
    assert box.ask("getGlobalStatus") is True
    untouched = section(box)
    ran(box)
    for credentials in [
            *((name, PASSWORD, KEY) for name in ("ab", "a" * 33, "a\tb", "josé")),
            *((USER, word, KEY) for word in ("abcdef1", "abcdefgh", "12345678", "a1" * 33)),
            *((USER, PASSWORD, key) for key in ("short1", "line1234\n", PASSWORD))]:
        assert box.ask("updateConfig", True, *credentials) is None
    assert (section(box), ran(box)) == (untouched, [])

    assert box.ask("updateConfig", True, USER, PASSWORD, KEY) is None
    stored = section(box)
    assert ran(box) == [
        f"updateConfig.sh {USER} 0v{stored['password4']} 0v{stored['presharedkey4']}",
        *STOP, firewall(box, "start"), firewall(box, "start"), *START]
    box.script("getPortForwardingStatus.sh", code=1)
    assert box.ask("getConfig") == (
        '{"portForwardingStatus":{"500":"PORT_IN_USE","4500":"PORT_IN_USE"},"enabled":true,'
        f'"username":"{USER}","password":"{PASSWORD}","presharedkey":"{KEY}"}}')
    assert ran(box) == ["getPortForwardingStatus.sh 500 internal_98", "getPortForwardingStatus.sh 4500 internal_99"]
    box.script("getPortForwardingStatus.sh")
    box.ask("updateConfigRestricted", False)
    assert section(box)["enable"] is False
    assert box.ask("getConfigRestricted") == (
        '{"portForwardingStatus":{"500":"PORT_IS_FREE","4500":"PORT_IS_FREE"},"enabled":false}')

    for method, member, secret, passphrase in [("getPassword", "password4", PASSWORD, "d9jrV2d9sU"),
                                               ("getPresharedKey", "presharedkey4", KEY, "GLdRwc9b93")]:
        assert box.ask(method, stored[member], passphrase) == secret
        assert box.ask(method, "", passphrase + "and more") == ""
        assert box.ask(method, stored[member], passphrase + "and more") == secret
        for bad in [(stored[member], passphrase[:-1]), (stored[member], ""), ("bm90aGluZw==", passphrase),
                    ("%%", passphrase)]:
            assert box.ask(method, *bad) is None
        assert passphrase not in box.log() and secret not in box.log() and stored[member] not in box.log()


@pytest.mark.sanitize
def test_last_connection_and_devices(box):
    box.start_daemon()
    for bad in "yesterday", "":
        assert box.ask("setLastConnectionDetails", bad, u(60)) is None
    assert box.ask("getLastConnectionDetails") == (
        '{"lastConnectTimestamp":"1900-01-01T00:00:00","lastConnectionDuration":0}')
    assert box.ask("setLastConnectionDetails", "2026-11-15T10:06:29Z", u(119)) is None
    assert box.ask("getLastConnectionDetails") == (
        '{"lastConnectTimestamp":"2026-11-15T10:06:29Z","lastConnectionDuration":1}')
    assert box.ask("setLastConnectionDetails", "2026-11-15T10:06:29Z", u(4294967295)) is None
    assert section(box)["lastConnectionDuration"] == 71582788

    script = "getConnectedDevices.sh"
    assert box.ask("getDevices") is None
    box.script(script, code=4, out="5;min;10.0.0.2")
    assert box.ask("getDevices") is None
    # Three tokens a device, none of them empty; what is left over is dropped.
    box.script(script, out=";5;;min;10.0.0.2;;;1;h;10.0.0.3;2;\n")
    assert box.ask("getDevices") == (
        '[{"ipAddress":"10.0.0.2","connectionTime":{"count":"5","format":"min"}},'
        '{"ipAddress":"10.0.0.3","connectionTime":{"count":"1","format":"h"}}]')
    box.script(script, out="1;\"h\xe9\udcff;10.0.0.3;" + "5;min;10.0.0.2;" * 80000)
    assert '"format":"\\"hé\ufffd"' in box.ask("getDevices")


@pytest.mark.sanitize
def test_a_bad_section_serves_nothing(box):
    good = section(box)
    for change in [{"enable": 1}, {"username": None}, {"password4": None}, {"presharedkey4": 5},
                   {"lastConnectTimestamp": "yesterday"}, {"lastConnectionDuration": "1"}]:
        box.restart_daemon(vpn=good | change)
        assert ran(box) == [], change
        with pytest.raises((BusError, NoReply)):
            box.ask("getGlobalStatus", timeout=0.3)
    # A new address restarts the VPN all the same; without a user name there is nothing to write.
    box.restart_daemon(vpn=good | {"username": None})
    box.signal("com.kelvanto.systemcalls", "IPAddressChanged")
    box.wait_log("Failed to restart VPN")
    assert ran(box) == STOP + [firewall(box, "stop")]
