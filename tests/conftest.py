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
                     "test, a further one those that its flavour or its sanitizers ask for")


def pytest_configure(config):
    config.addinivalue_line("markers", "both_flavours: behaves by build flavour, run for each")
    config.addinivalue_line("markers", "sanitize: also run under the sanitizers")


def asks_for(build, markers):
    """Whether a further build runs a test with these markers."""
    with open(os.path.join(build, "CMakeCache.txt")) as cache:
        sanitized = "NIMBRELC_SANITIZE:BOOL=ON" in cache.read()
    return ("sanitize" if sanitized else "both_flavours") in markers


def pytest_generate_tests(metafunc):
    if "build" in metafunc.fixturenames:
        builds = metafunc.config.getoption("--build") or [os.path.join(ROOT, "build", "dev")]
        markers = {mark.name for mark in metafunc.definition.iter_markers()}
        builds = builds[:1] + [build for build in builds[1:] if asks_for(build, markers)]
        metafunc.parametrize("build", builds, ids=map(os.path.basename, builds), scope="module")


@pytest.fixture
def box(request, build):
    """A fresh box; the daemon is not started yet."""
    with Box(build) as box:
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
