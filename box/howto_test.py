"""The page on additions, carried out."""
import os
import subprocess

from box import ROOT


def test_what_the_page_says_can_be_done():
    subprocess.run([os.path.join(ROOT, "tools", "howto.py"), "--check"], check=True)
