"""The upgrade policy, as the firmware-upgrade component asks for it."""


def policy(box):
    return [box.call("/signature", "com.kelvanto.firmware.upgrade", method, name="com.kelvanto.firmware")
            for method in ("ValidationEnabled", "DevelopmentBuildsAllowed", "MinimumVersion")]


def test_the_policy_is_what_is_stored(box):
    box.edit_config(lambda config: config["upgradeConfig"].update(minimumFirmwareVersion="08.05.01"))
    box.start_daemon()
    assert policy(box) == [(True,), (False,), ("08.05.01",)]
    box.data_model("SetValue", "Device.X_KELVANTO-COM_DeviceManagement.DevelopmentBuildsAllowed", True)
    assert policy(box) == [(True,), (True,), ("08.05.01",)]
    # What is not there, or of another kind, is off.
    for section in [None, {}, {"firmwareValidationEnabled": 1, "developmentBuildsAllowed": "true",
                               "minimumFirmwareVersion": 8}]:
        box.stop_daemon()
        box.edit_config(lambda config: config.update(upgradeConfig=section))
        box.start_daemon()
        assert policy(box) == [(False,), (False,), ("",)]
