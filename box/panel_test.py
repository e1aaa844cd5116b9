"""The box's front in a browser: what a person clicks and sees, and who may not click."""
import http.client
import os

import pytest

webdriver = pytest.importorskip("selenium.webdriver")
pytest.importorskip("aiohttp")
import panel  # noqa: E402
from box import DEFAULT_BUILD, Box, wait_until  # noqa: E402

FLAGS = """--headless --no-sandbox --disable-gpu --disable-quic --no-first-run --disable-background-networking
--disable-component-update --disable-sync --hide-scrollbars --window-size=1064,949 --user-data-dir=""".split()


def status(address, headers):
    connection = http.client.HTTPConnection(address.split("/")[2])
    connection.request("POST", "/act", '["pull", {"name": "none"}]', headers)
    return connection.getresponse().status


def test_a_person_clicks(tmp_path):
    options = webdriver.ChromeOptions()
    for flag in FLAGS:
        options.add_argument(flag + str(tmp_path) * flag.endswith("dir="))
    with Box() as box, webdriver.Chrome(options=options) as browser:
        box.start_daemon()
        address = panel.serve(box)

        def click(query):
            browser.find_element("css selector", query).click()

        def wait(query, text):
            ask = "return document.querySelector(arguments[0]).innerText"
            wait_until(lambda: text in browser.execute_script(ask, query), f"{text} in {query}")

        for _ in range(2):
            browser.switch_to.new_window("tab")
            browser.get(address)
            wait("#sockets", "Nothing is plugged in")
        click("[data-plug=disk]")
        wait("#display", "USB-Gerät eingesteckt")
        wait("#shares", "album.txt")
        click("#shares button")
        wait("#file", "Grandmother")
        browser.save_screenshot(os.path.join(DEFAULT_BUILD, "panel.png"))
        browser.find_element("css selector", "#label").send_keys("<b>Bold")
        click("[data-plug=stick]")
        wait("#shares", "<b>Bold")
        click("#protection")
        wait_until(lambda: "Grandmother" not in browser.page_source, "what the guest has read goes")
        browser.switch_to.window(browser.window_handles[1])
        wait("#shares", "What alice sees")
        wait("#shares", "refused: NT_STATUS_ACCESS_DENIED")
        for name in ("sda", "sdb"):
            click("#pull-" + name)
            wait_until(lambda: not browser.find_elements("css selector", "#pull-" + name), name + " is out")
        wait("#shares", "no file server runs")
        assert [status(address, headers) for headers in (
            {"X-Panel": "1"}, {}, {"X-Panel": "1", "Origin": "http://a.test"}, {"X-Panel": "1", "Host": "a.test"})
        ] == [200, 403, 403, 403]
        assert not box.faults()
