"""The end of ./dev package: the Debian packages in a bare system. One is installed and serves, upgrades the one
before with its document, is removed and purged."""
import glob
import json
import os
import re
import shutil
import subprocess
import sys

from box import CONFIG, ROOT, document_faults, field_document, wait_until
from fresh import FreshRoot, readme_steps

DIRECTORY = os.path.join(ROOT, "build", "package")


def step(text):
    print("  " + text, flush=True)


def one_before(package):
    """The same package with a lower version: what an upgrade starts from."""
    tree, result = os.path.join(DIRECTORY, "before"), os.path.join(DIRECTORY, "before.deb")
    shutil.rmtree(tree, ignore_errors=True)
    subprocess.run(["dpkg-deb", "-R", package, tree], check=True)
    control = os.path.join(tree, "DEBIAN", "control")
    with open(control) as file:
        text = re.sub(r"^Version: .*", "Version: 0~before", file.read(), flags=re.M)
    with open(control, "w") as file:
        file.write(text)
    subprocess.run(["dpkg-deb", "--root-owner-group", "-b", tree, result], check=True, stdout=subprocess.DEVNULL)
    return result


def install(root, package):
    shutil.copy(package, root.path("/tmp/package.deb"))
    return root.sh("dpkg -i /tmp/package.deb 2>&1")


def pid_of(root):
    return root.sh("s6-svstat -o pid /run/service/nimbrelc").strip()


def main():
    package, = glob.glob(os.path.join(DIRECTORY, "nimbrelc-release_*.deb"))
    with FreshRoot() as root:
        before = root.files()
        root.start_system()
        log_service, = (each for each in readme_steps() if "syslogd-log" in each)
        root.sh(log_service + "echo 08.05.01 >/etc/version")
        root.write(CONFIG, field_document("08.05.01"), owner="root")
        install(root, one_before(package))
        wait_until(root.serving, "the daemon serves")
        old = root.config()
        step("installed on a box with a document: the daemon serves it")

        first = pid_of(root)
        root.sh("echo 08.05.09 >/etc/version")
        install(root, package)
        wait_until(root.serving, "the daemon serves again")
        new = root.config()
        assert pid_of(root) != first and new["cpeDevice"]["deviceInfo"]["softwareVersion"] == "08.05.09"
        assert new["ssh"]["authorizedKey"] == old["ssh"]["authorizedKey"] and new["storage"]["password4"]
        assert not document_faults(json.dumps(new)), document_faults(json.dumps(new))
        step("upgraded: a new daemon serves the document, migrated")

        install(root, package)
        wait_until(root.serving, "the daemon serves after the same version again")
        assert root.config() == new
        root.sh("dpkg --remove nimbrelc-release 2>&1")
        assert root.config() == new and not root.exists("/run/service/nimbrelc")
        step("removed: no service, the document is still there")

        install(root, package)
        wait_until(root.serving, "the daemon serves once more")
        assert root.config() == new
        root.sh("dpkg --purge nimbrelc-release 2>&1; s6-svc -xd -wD -T 5000 /run/service/syslogd-log;"
                "rm -rf /run/service/syslogd-log /var/log/syslog /tmp/package.deb")
        left = {name for name in root.files() - before if not name.startswith(("/run/", "/proc/"))}
        accounts = {"/etc/" + name for name in ("passwd-", "group-", "shadow-", "gshadow-", "gshadow")}
        left -= accounts | {"/etc/version", "/etc/.pwd.lock", "/var/log/dpkg.log"}
        assert not left, left
        step("purged: nothing is left but the accounts")


if __name__ == "__main__":
    sys.exit(main())
