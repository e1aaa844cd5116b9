"""The README's way from an installed tree to a daemon that serves, done in a bare system."""
from box import staged, wait_until
from fresh import FreshRoot, readme_steps


def test_the_steps_of_the_readme(daemon):
    with FreshRoot() as root:
        root.copy(staged(daemon[0]))
        root.start_system()
        for step in readme_steps():
            root.sh(step)
        wait_until(root.serving, "the daemon serves")
        assert not root.exists("/media/nimbrelc.json.refused")
        for name in ("com.kelvanto.nimbrel", "com.kelvanto.pamauth", "com.kelvanto.nssauth", "com.kelvanto.firmware"):
            assert root.ask("getApplicationStatus", name=name)
        assert root.sh("s6-svdt /run/service/nimbrelc") == ""  # at the first attempt
        # What was given to the logger, and an end that nobody asked for.
        root.sh("echo enabled=true:file=yes:file.name=/tmp/nimbrel/log:level=debug >/run/service/nimbrelc/logging")
        root.sh("s6-svc -k /run/service/nimbrelc")
        wait_until(lambda: root.exists("/tmp/nimbrel/log") and root.serving(), "the daemon logs to a file")
        assert root.sh("s6-svdt /run/service/nimbrelc").split()[1:] == ["signal", "SIGKILL"]
        # A new firmware waits for room on a full medium, with the document as it was.
        migration = readme_steps()[-2]
        root.sh(f"""s6-svc -wD -d /run/service/nimbrelc; echo 08.05.10 >/etc/version; cp -p /media/nimbrelc.json /tmp
            mount -t tmpfs -o size=1m media /media; chown nimbrelc: /media; cp -p /tmp/nimbrelc.json /media
            cat /dev/zero >/media/fill || true; {{ {migration} }} &
            sleep 2; cmp /tmp/nimbrelc.json /media/nimbrelc.json; rm /media/fill; wait
            grep -q 08.05.10 /media/nimbrelc.json; ! ls /media | grep -v 'nimbrelc.json$'""")
