"""What the media server is told, and when."""
import json

import pytest

STREAMING = ("/ws/dlna", "com.kelvanto.nimbrel.dlna")
SWITCH = ("/ws/centralstorage", "com.kelvanto.nimbrel.centralstorage")

DONE = {"status": 200}
FAILED = {"status": 500, "error": "Error saving configuration"}
DELIVERED = "DMS manager configuration delivered successfully"


def set_streaming(box, wanted):
    return json.loads(box.call(*STREAMING, "setMediaStreamingState", wanted)[0])


def told(box, count):
    """What the media server was told, once that is `count` states."""
    return [call[1] for call in box.peer("dlna").wait_calls("DmsStreamingState", count)]


@pytest.mark.sanitize
def test_streaming_follows_both_switches(box):
    box.start_daemon()
    assert told(box, 1) == [True]
    assert set_streaming(box, True) == FAILED  # it is on already
    box.wait_log("Media streaming configuration has not been changed")
    box.wait_log(DELIVERED)
    assert set_streaming(box, False) == DONE
    assert told(box, 2) == [True, False]
    box.call(*SWITCH, "SetState", False)
    assert set_streaming(box, True) == DONE
    box.wait_log("Media streaming state changed but central storage is off, no need to notify DMS")
    assert box.call(*STREAMING, "getMediaStreamingState") == (
        '{"status":200,"data":{"mediaStreamingEnabled":true}}',)
    assert box.config()["dlna"] == {"mediaStreamingEnabled": True}
    box.call(*SWITCH, "SetState", True)
    assert told(box, 3) == [True, False, True]
    box.wait_log(DELIVERED, count=3)

    box.fill_medium()
    assert set_streaming(box, False) == FAILED
    box.wait_log("Error saving media streaming configuration")
    assert len(told(box, 3)) == 3
    # Nothing is told at the start or by the other switch where streaming is not wanted.
    box.stop_daemon()
    box.run(["rm", "/media/full"])
    box.edit_config(lambda config: config["dlna"].update(mediaStreamingEnabled=False))
    box.start_daemon()
    for wanted in (False, True):
        box.call(*SWITCH, "SetState", wanted)
    assert len(told(box, 3)) == 3


def test_changes_wait_for_the_reply(box):
    dlna = box.peer("dlna")
    dlna.hold("DmsStreamingState")
    box.start_daemon()
    assert told(box, 1) == [True]
    for wanted in (False, True, False):
        assert set_streaming(box, wanted) == DONE
    assert told(box, 1) == [True]
    dlna.release("DmsStreamingState", hold=True)
    assert told(box, 2) == [True, False]
    for wanted in (True, False):  # the last wish is what is on its way
        set_streaming(box, wanted)
    dlna.release("DmsStreamingState")
    box.wait_log(DELIVERED, count=2)
    assert told(box, 2) == [True, False]
    # An answer that is none is asked for again.
    dlna.answer("DmsStreamingState", "true")
    set_streaming(box, True)
    box.wait_log("DMS manager not ready, scheduling reconfiguration")
    dlna.answer("DmsStreamingState", True)
    assert told(box, 4)[2:] == [True, True]
