"""The box's front in a browser: what a person clicks and sees."""
import http.client
import json
import os

import pytest

from conftest import ROOT

webdriver = pytest.importorskip("selenium.webdriver")
pytest.importorskip("aiohttp")
from box import wait_until  # noqa: E402

FLAGS = """--headless --no-sandbox --disable-gpu --disable-quic --no-first-run --disable-background-networking
--disable-component-update --disable-sync --window-size=1280,1400""".split()
LABEL = "<b>Fotos"


@pytest.fixture
def browser(tmp_path):
    options = webdriver.ChromeOptions()
    for flag in (*FLAGS, f"--user-data-dir={tmp_path}"):
        options.add_argument(flag)
    with webdriver.Chrome(options=options) as browser:
        yield browser


def status(port, **headers):
    connection = http.client.HTTPConnection("127.0.0.1", port)
    connection.request("POST", "/act", json.dumps(["pull", {"name": "none"}]), headers)
    return connection.getresponse().status


def test_a_person_clicks(box, browser):
    import panel
    box.start_daemon()
    address = panel.serve(box)

    def find(query):
        return browser.find_element("css selector", query)

    def wait(query, text, there=True):
        wait_until(lambda: (text in find(query).text) == there, f"{text} in {query}")

    for _ in range(2):  # two pages, the first one in front
        browser.switch_to.new_window("tab")
        browser.get(address)
        wait("#sockets", "Nothing is plugged in")
    first, second = browser.window_handles[1:]
    browser.switch_to.window(first)
    find("#label").send_keys(LABEL)
    find("[data-plug=disk]").click()
    wait("#display", "USB-Gerät eingesteckt")
    wait("#shares", "album.txt")
    find("#shares button").click()
    wait("#file", "Grandmother")
    assert not browser.find_elements("css selector", "main b")
    browser.save_screenshot(os.path.join(ROOT, "build", "panel.png"))
    find("#protection").click()
    wait("#shares", "What alice sees")
    wait("#shares", "refused")
    browser.switch_to.window(second)
    wait("#shares", "refused")
    find("#pull-sda").click()
    wait("#shares", "No server answers")

    port = int(address.split(":")[2].strip("/"))
    assert [status(port, **headers) for headers in ({"X-Panel": "1"}, {}, {"X-Panel": "1", "Origin": "http://a.test"},
                                                    {"X-Panel": "1", "Host": "a.test"})] == [200, 403, 403, 403]
