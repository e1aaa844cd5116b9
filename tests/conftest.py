"""Fixtures of the daemon tests: boxes, and what is told about one when its test fails."""
import os
import sys

import pytest

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
sys.path.insert(0, os.path.join(ROOT, "box"))

from box import Box  # noqa: E402


def pytest_addoption(parser):
    parser.addoption("--build", default=os.path.join(ROOT, "build", "dev"),
                     help="build directory of the daemon under test")


def pytest_configure(config):
    config.addinivalue_line("markers", "both_flavours: behaves by build flavour, run for each")
    config.addinivalue_line("markers", "sanitize: also run under the sanitizers")


def make_box(request):
    with Box(request.config.getoption("--build")) as box:
        request.node.box = box
        yield box
        request.node.box = None
        box.stop_daemon()
        faults = box.faults()
        assert not faults, "\n".join(faults)


@pytest.fixture
def box(request):
    """A fresh box; the daemon is not started yet."""
    yield from make_box(request)


@pytest.fixture(scope="module")
def shared_box(request):
    """One box for all tests of a module that leave it as they found it."""
    yield from make_box(request)


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item, call):
    report = (yield).get_result()
    for node in (item, item.parent):
        box = getattr(node, "box", None)
        if report.failed and box:
            report.sections.append(("log of the box", box.log()))
            report.sections.append(("commands run through sudo", "\n".join(box.sudo())))
