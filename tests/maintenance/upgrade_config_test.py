"""The upgrade policy, as the firmware-upgrade component asks for it."""


def policy(box):
    return [box.ask("upgrade." + method) for method in ("ValidationEnabled", "DevelopmentBuildsAllowed", "MinimumVersion")]


def test_the_policy_is_what_is_stored(box):
    box.start_daemon(upgradeConfig={"minimumFirmwareVersion": "08.05.01", "developmentBuildsAllowed": True})
    assert policy(box) == [True, True, "08.05.01"]
    # What is not there, or of another kind, is off.
    for section in [None, {"firmwareValidationEnabled": 1, "developmentBuildsAllowed": "true",
                           "minimumFirmwareVersion": 8}]:
        box.restart_daemon(upgradeConfig=section)
        assert policy(box) == [False, False, ""]
