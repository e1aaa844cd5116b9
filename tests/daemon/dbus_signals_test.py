"""Signals of other services: a new WAN address, a firmware upgrade; the start and what it says."""


def test_the_start(box):
    box.start_daemon()
    assert box.serving() == '{"status":"STARTED"}'
    # Whoever may not change its user, ends.
    unable = ["setpriv", "--reuid=7002", "--regid=7002", "--clear-groups", "env", "UID=7001", "nimbrelc", "-m"]
    assert box.run(unable, check=False).returncode == 1
    box.wait_log("Failed to set UID to 7001: Operation not permitted")
    assert "migration mode" not in box.log()
    # Words between the options and after them are passed over.
    box.run(box.daemon_command("-l", "enabled=true:syslog=yes:level=info", "word", "-m", "word"), timeout=10)
    box.wait_log("Migration succeeded")


def test_a_new_address_and_an_upgrade(box):
    box.start_daemon()
    box.script("updateConfig.sh", code=3)
    box.script("delete_port_forwarding.sh", code=1)
    box.new_commands()
    box.signal("com.kelvanto.systemcalls", "IPAddressChanged", "10.0.0.1")
    box.wait_log("ip_address_changed_callback doesn't accept arguments")
    assert box.new_commands() == []
    box.signal("com.kelvanto.systemcalls", "IPAddressChanged")
    box.wait_log("Failed to update ssh port forwarding")
    assert [name for name, *_ in box.new_commands()] == [
        "s6-rc", "s6-rc", "firewallctl", "updateConfig.sh", "delete_port_forwarding.sh"]

    lcd = box.peer("lcd")
    box.signal("com.kelvanto.nimbrel.upgrade", "ShowUpgradeMessage", "ignored")
    ((_, texts, *_),) = lcd.wait_calls("addEvent")
    assert "upgrade" in texts.lower()
    box.signal("com.kelvanto.nimbrel.upgrade", "HideUpgradeMessage")
    lcd.wait_calls("clearEvent")
