"""What the tree says of the daemon, read in one place: the described bus, the agent's parameters and their page. And
how every tool of this folder is called: TOOL [--check [TREE]]."""
import collections
import functools
import pathlib
import re
import sys
import xml.etree.ElementTree as ElementTree

TREE = pathlib.Path(__file__).resolve().parent.parent
DEVICE, MAKER = "Device.", "Device.X_KELVANTO-COM_DeviceManagement."
PARAMETERS = "docs/parameters.md"

Interface = collections.namedtuple("Interface", "path name about methods")
# takes and gives: [(type, name)], "v" for one value of any plain type; wrong: the answer to wrong arguments.
Method = collections.namedtuple("Method", "path interface name takes gives wrong meaning")
# name: %u stands for an index; config_path: dotted, empty for what is not kept there; get, object, set: who takes it.
Parameter = collections.namedtuple("Parameter", "name config_path get object set")


def interfaces(tree=TREE):
    """The installed descriptions of the bus, with a Method for each of their methods."""
    for file in sorted((tree / "data" / "interfaces").glob("*.xml")):
        text, methods, said = file.read_text(), [], ""
        parser = ElementTree.XMLParser(target=ElementTree.TreeBuilder(insert_comments=True))
        node = ElementTree.fromstring(text, parser)
        path, name = node.get("name"), node.find("interface").get("name")
        for element in node.find("interface"):
            if element.tag is ElementTree.Comment:
                said = " ".join(element.text.split())
                continue
            method = element.get("name")
            takes, gives = ([(arg.get("type"), arg.get("name")) for arg in element.findall("arg")
                             if arg.get("direction") == way] for way in ("in", "out"))
            if name.endswith(".datamodel"):  # of any of four types: the description cannot say so
                takes += [("v", "value")] * (method == "SetValue")
                gives = gives or [("v", "value")]
            methods.append(Method(path, name, method, takes, gives, element.find("annotation").get("value"), said))
            said = ""
        about = re.search("<!-- (.*?) -->\n<node", text, re.S)[1]
        yield Interface(path, name, " ".join(about.split()), methods)


@functools.lru_cache(None)
def methods(tree=TREE):
    return [method for interface in interfaces(tree) for method in interface.methods]


@functools.lru_cache(None)
def parameters(tree=TREE):
    """The rows of the data model's table."""
    source = (tree / "src" / "datamodel" / "datamodel.cpp").read_text()
    texts = dict(re.findall(r'constexpr const char \*(\w+) = ("[^"]*");', source))
    rows = []
    for name, row in re.findall(r'\{\.name(?:_format)? = "([^"]+)"([^}]*)\}', source):
        key = re.search(r'\.config_key = ("[^"]*"|\w+)', row)
        path = ".".join(texts.get(key[1], key[1]).strip('"').split()) if key else ""
        rows.append(Parameter(name, path, bool(path or ".get =" in row), ".get" in row,
                              bool(re.search(r"\.set =|\.config_writable = true", row))))
    return rows


def told_parameters(tree=TREE):
    """(name, type, whether it can be set) of the rows of the parameters' page."""
    rows = re.findall(r"^\| `([\w.*-]+)` \| (\w) \| (\w+) \|", (tree / PARAMETERS).read_text(), re.M)
    return [((MAKER + name if not name.startswith(DEVICE) else name).replace("*", "%u"), kind, settable == "yes")
            for name, kind, settable in rows]


def full_key(text):
    """A parameter's name, which may lack "Device." and the maker's part."""
    if text.startswith(DEVICE):
        return text
    groups = {parameter.name.split(".")[1] for parameter in parameters()}
    return (DEVICE if text.split(".")[0] in groups else MAKER) + text


def run(faults, page=None, text=None):
    """A tool's command line. With --check a line for each of the tree's faults, else the page is written anew."""
    if sys.argv[1:2] == ["--check"] and len(sys.argv) < 4:
        tree = pathlib.Path(*sys.argv[2:]).resolve() if sys.argv[2:] else TREE
        sys.exit("\n".join(faults(tree)) or None)
    if sys.argv[1:] or not page:
        sys.exit(f"usage: {sys.argv[0]} --check [TREE]")
    (TREE / page).write_text(text(TREE))
