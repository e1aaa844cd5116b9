"""The end of ./dev arm: the daemon built for 32-bit ARM serves in a box under emulation. Its children (sudo,
s6, Samba) are the host's own."""
import os
import sys

from box import Box, ROOT, wait_until

BUILD = os.path.join(ROOT, "build", "arm")
WRAPPER = """#!/bin/sh
exec qemu-arm -L /run/shared /usr/bin/nimbrelc.arm "$@"
"""


def main():
    with Box(BUILD, shared=os.path.join(BUILD, "sysroot", "root")) as box:
        box.run(["mv", "/usr/bin/nimbrelc", "/usr/bin/nimbrelc.arm"])
        box.write("/usr/bin/nimbrelc", WRAPPER, 0o755, "root")
        assert box.migrate().returncode == 0, box.log()
        box.start_daemon()
        for key in "DeviceInfo.UpTime", "LAN.IPAddress", "LAN.MACAddress":
            print(f"  Device.{key} = {box.get(key)}")
        box.plug("sda")
        box.wait_up("smbd")
        guest = ["smbclient", "-N", "//127.0.0.1/sda1", "-c", "get hello.txt -"]
        wait_until(lambda: "Hello from sda1" in box.run(guest, check=False).stdout, "a guest reads the share")
        print("  a file was read from a share")
        box.stop_daemon()
        assert not box.faults(), box.faults()
        print("  the daemon stopped in good order")


if __name__ == "__main__":
    sys.exit(main())
