"""Fixtures of the daemon tests: boxes, and what is told about one when its test fails."""
import os
import sys

import pytest

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
sys.path.insert(0, os.path.join(ROOT, "box"))

from box import CONFIG, Box, document_faults  # noqa: E402


def pytest_addoption(parser):
    parser.addoption("--build", action="append", default=[],
                     help="build directory of a daemon under test (build/dev). The first one passes every "
                     "test, some in both flavours, a further one those that its sanitizers ask for")


def pytest_configure(config):
    config.addinivalue_line("markers", "both_flavours: behaves by build flavour, run for each")
    config.addinivalue_line("markers", "sanitize: also run under the sanitizers")


def pytest_generate_tests(metafunc):
    if "daemon" in metafunc.fixturenames:
        first, *sanitized = metafunc.config.getoption("--build") or [os.path.join(ROOT, "build", "dev")]
        markers = {mark.name for mark in metafunc.definition.iter_markers()}
        daemons = [(first, None)] + [(first, "release")] * ("both_flavours" in markers)
        daemons += [(build, None) for build in sanitized if "sanitize" in markers]
        metafunc.parametrize("daemon", daemons, ids=lambda daemon: daemon[1] or os.path.basename(daemon[0]))


@pytest.fixture
def box(request, daemon):
    """A fresh box; the daemon is not started yet."""
    with Box(*daemon) as box:
        request.node.box = box
        yield box
        request.node.box = None
        box.end_daemon()
        faults = box.faults()
        if (text := box.read(CONFIG)) != box.given:  # what was wrong from the start is the test's own
            faults += sorted(document_faults(text) - document_faults(box.given))
        assert not faults, "\n".join(faults)


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item, call):
    report = (yield).get_result()
    box = getattr(item, "box", None)
    if report.failed and box:
        report.sections.append(("log of the box", box.log()))
        report.sections.append(("commands run through sudo", "\n".join(box.sudo())))
