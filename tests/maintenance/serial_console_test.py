"""The serial console: kernel messages, the login prompt and its password."""
import pytest

from box import u

TRACES, LOGIN, PASSWORD = ("SerialConsole." + name for name in ("TracesEnabled", "LoginEnabled", "LoginPassword"))
TRACES_MARKER, LOGIN_MARKER = "/media/serial_traces_enabled", "/media/serial_login_disabled"
PASSWORD_FILE = "/media/serial_login_password"
GETTY = "s6-linux-init-early-getty"
DECRYPT = """
import base64, hashlib, subprocess, sys
blob = base64.b64decode(open(sys.argv[1]).read())
key = hashlib.pbkdf2_hmac("sha1", b"B8GBcnN13CrNBsDhuUs0ss6b3bREjn28", blob[:32], 1000, 32)
sys.stdout.buffer.write(subprocess.run(
    ["openssl", "enc", "-d", "-aes-256-cbc", "-K", key.hex(), "-iv", blob[32:48].hex()],
    input=blob[48:], check=True, capture_output=True).stdout)
"""


@pytest.mark.sanitize
def test_serial_console(box):
    box.start_daemon()
    assert [box.get(key) for key in (TRACES, LOGIN, PASSWORD)] == [False, True, ""]
    assert not any(box.set(key, wrong) for key, wrong in [(TRACES, "true"), (LOGIN, u(1)), (PASSWORD, True)])
    assert not any(map(box.exists, (TRACES_MARKER, LOGIN_MARKER, PASSWORD_FILE)))

    # The marker alone decides the answer; switching off what is off is a failure.
    assert box.set(TRACES, True) and box.set(TRACES, True)
    assert box.get(TRACES) is True and box.read(TRACES_MARKER) == ""
    assert box.set(TRACES, False) and not box.set(TRACES, False) and box.get(TRACES) is False
    assert [argv[1:] for argv in box.commands("dmesg")] == [["-E"], ["-E"], ["-D"], ["-D"]]
    box.script("dmesg", code=1)
    assert box.set(TRACES, True)

    box.wait_up(GETTY)
    assert box.set(LOGIN, False) and box.set(LOGIN, False)
    assert box.get(LOGIN) is False and box.exists(LOGIN_MARKER)
    box.wait_up(GETTY, False)
    assert box.set(LOGIN, True)
    box.wait_up(GETTY)
    box.run(["s6-svc", "-d", "/run/service/" + GETTY])
    box.wait_up(GETTY, False)
    assert not box.set(LOGIN, True)
    box.wait_up(GETTY)
    assert box.get(LOGIN) is True
    box.run(["mkdir", LOGIN_MARKER])
    assert not box.set(LOGIN, False)

    password = 'pass"word $(x)\n\u00fc' * 5
    assert box.set(PASSWORD, password)
    assert box.get(PASSWORD) == ""
    # What the console's login reads: salt, initialisation vector, ciphertext.
    assert box.run(["python3", "-c", DECRYPT, PASSWORD_FILE]).stdout == password
    box.fill_medium()
    before = box.read(PASSWORD_FILE)
    assert not box.set(PASSWORD, "other")
    assert box.read(PASSWORD_FILE) == before
