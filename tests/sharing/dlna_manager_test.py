"""What the media server is told, and when."""
import json

import pytest

DELIVERED = "DMS manager configuration delivered successfully"


def set_streaming(box, wanted):
    return json.loads(box.ask("setMediaStreamingState", wanted))["status"]


def told(box, count):
    """What the media server was told, once that is `count` states."""
    return [call[1] for call in box.peer("dlna").wait_calls("DmsStreamingState", count)]


@pytest.mark.sanitize
def test_streaming_follows_both_switches(box):
    box.start_daemon()
    assert told(box, 1) == [True]
    assert box.ask("setMediaStreamingState", True) == (  # it is on already
        '{"status":500,"error":"Error saving configuration"}')
    box.wait_log(DELIVERED)
    assert set_streaming(box, False) == 200
    assert told(box, 2) == [True, False]
    box.ask("SetState", False)
    assert set_streaming(box, True) == 200
    assert box.ask("getMediaStreamingState") == '{"status":200,"data":{"mediaStreamingEnabled":true}}'
    assert box.config()["dlna"] == {"mediaStreamingEnabled": True}
    box.ask("SetState", True)
    assert told(box, 3) == [True, False, True]
    box.wait_log(DELIVERED, count=3)

    box.fill_medium()
    assert set_streaming(box, False) == 500
    # Nothing is told at the start or by the other switch where streaming is not wanted.
    box.run(["rm", "/media/full"])
    box.restart_daemon(dlna={"mediaStreamingEnabled": False})
    for wanted in (False, True):
        box.ask("SetState", wanted)
    assert len(told(box, 3)) == 3


def test_changes_wait_for_the_reply(box):
    dlna = box.peer("dlna")
    dlna.hold("DmsStreamingState")
    box.start_daemon()
    assert told(box, 1) == [True]
    for wanted in (False, True, False):
        assert set_streaming(box, wanted) == 200
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
    dlna.wait_calls("DmsStreamingState", 3)
    dlna.answer("DmsStreamingState", True)
    assert told(box, 4)[2:] == [True, True]
