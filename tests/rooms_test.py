"""The check of the rooms sees a fault of each kind that is planted in a copy of the tree."""
import os
import shutil
import subprocess

import pytest
from conftest import ROOT


@pytest.mark.parametrize("file, planted, fault", [
    ("config/config.h", '#include "platform/lcd.h"', "points up"),
    ("common/logger.h", '#  include "common/files.h"', "goes round in a circle"),
    ("daemon/nimbrelc.cpp", '#include "migration/migration_utils.h"', "reaches past a door"),
    ("datamodel/datamodel.h", 60 * "//\n" + "//", "is a door of more than 60 lines"),
])
def test_a_fault_is_reported(tmp_path, file, planted, fault):
    shutil.copytree(os.path.join(ROOT, "src"), tmp_path / "src")
    with open(tmp_path / "src" / file, "a+") as source:
        source.write(planted + "\n")
        source.seek(0)
        line = len(source.readlines())
    check = subprocess.run([os.path.join(ROOT, "tools", "rooms.py"), tmp_path],
                           capture_output=True, text=True)
    assert f"src/{file}:{line}: {fault}" in check.stdout
    assert check.returncode == 1
