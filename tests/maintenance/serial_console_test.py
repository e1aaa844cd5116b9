"""The serial console: kernel messages, the login prompt and its password."""
import pytest

from box import u

PREFIX = "Device.X_KELVANTO-COM_DeviceManagement.SerialConsole."
TRACES, LOGIN, PASSWORD = PREFIX + "TracesEnabled", PREFIX + "LoginEnabled", PREFIX + "LoginPassword"
TRACES_MARKER, LOGIN_MARKER = "/media/serial_traces_enabled", "/media/serial_login_disabled"
PASSWORD_FILE = "/media/serial_login_password"
GETTY = "s6-linux-init-early-getty"


@pytest.mark.sanitize
def test_serial_console(box):
    box.start_daemon()

    def get(key):
        (value,) = box.data_model("GetValue", key)
        return value

    def set_value(key, value):
        (done,) = box.data_model("SetValue", key, value)
        return done

    assert get(TRACES) is False and get(LOGIN) is True and get(PASSWORD) == ""
    for key, wrong in [(TRACES, "true"), (LOGIN, u(1)), (PASSWORD, True)]:
        assert not set_value(key, wrong)
    assert not any(map(box.exists, (TRACES_MARKER, LOGIN_MARKER, PASSWORD_FILE)))

    # The marker alone decides the answer; switching off what is off is a failure.
    assert set_value(TRACES, True) and set_value(TRACES, True)
    assert get(TRACES) is True and box.read(TRACES_MARKER) == ""
    assert set_value(TRACES, False) and not set_value(TRACES, False) and get(TRACES) is False
    commands = [argv for argv in box.commands() if argv[0].endswith("dmesg")]
    assert [argv[1:] for argv in commands] == [["-E"], ["-E"], ["-D"], ["-D"]]
    box.script("dmesg", code=1)
    assert set_value(TRACES, True)
    box.wait_log("Failed to set console logging level")

    box.wait_up(GETTY)
    assert set_value(LOGIN, False) and set_value(LOGIN, False)
    assert get(LOGIN) is False and box.exists(LOGIN_MARKER)
    box.wait_up(GETTY, False)
    assert set_value(LOGIN, True)
    box.wait_up(GETTY)
    box.run(["s6-svc", "-d", "/run/service/" + GETTY])
    box.wait_up(GETTY, False)
    assert not set_value(LOGIN, True)
    box.wait_up(GETTY)
    assert get(LOGIN) is True
    box.run(["mkdir", LOGIN_MARKER])
    assert not set_value(LOGIN, False)
    box.wait_log(f"Failed to create file {LOGIN_MARKER}: Is a directory")

    password = 'pass"word $(x)\n\u00fc' * 5
    assert set_value(PASSWORD, password)
    assert get(PASSWORD) == ""
    # What the console's login reads: salt, initialisation vector, ciphertext.
    assert box.run(["python3", "-c", DECRYPT, PASSWORD_FILE]).stdout == password
    box.fill_medium()
    before = box.read(PASSWORD_FILE)
    assert not set_value(PASSWORD, "other")
    assert box.read(PASSWORD_FILE) == before
    box.wait_log("Failed to save the serial console login password")


DECRYPT = """
import base64, hashlib, subprocess, sys
blob = base64.b64decode(open(sys.argv[1]).read())
key = hashlib.pbkdf2_hmac("sha1", b"B8GBcnN13CrNBsDhuUs0ss6b3bREjn28", blob[:32], 1000, 32)
sys.stdout.buffer.write(subprocess.run(
    ["openssl", "enc", "-d", "-aes-256-cbc", "-K", key.hex(), "-iv", blob[32:48].hex()],
    input=blob[48:], check=True, capture_output=True).stdout)
"""
