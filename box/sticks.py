"""Images of USB sticks, made without mounting anything: partitions with file systems, labels and files on them."""
import os
import subprocess
import tempfile

MEGABYTE = 1 << 20
FIRST = 1 * MEGABYTE  # where partitions begin
ROOM = 32 * MEGABYTE  # that a partition has besides large files
KINDS = {"fat": "c", "ext4": "83", "ntfs": "7", None: "83"}  # in a partition table


def run(*command, **more):
    return subprocess.run(command, check=True, capture_output=True, **more).stdout


def make_partition(path, size, kind, label, files):
    with open(path, "wb") as file:
        file.truncate(size)
    with tempfile.TemporaryDirectory() as folder:
        for name, text in files.items():
            with open(os.path.join(folder, name), "w") as file:
                file.write(text)
        sources = [os.path.join(folder, name) for name in files]
        if kind == "fat":
            run("mkfs.vfat", "-n", label, path)
            run("mcopy", "-i", path, *sources, "::")
        elif kind == "ext4":
            run("mke2fs", "-q", "-t", "ext4", "-L", label, "-d", folder, path)
        elif kind == "ntfs":
            run("mkntfs", "--quick", "--force", "--quiet", "--label", label, path, env={**os.environ, "LC_ALL": "C.UTF-8"})
            for name, source in zip(files, sources):
                run("ntfscp", "--force", path, source, name)


def make_stick(path, *partitions):
    """`partitions`: (kind, label, {name: text}) each, of a file system in KINDS; the kind None leaves it empty."""
    table, start = "", FIRST
    with open(path, "wb") as stick:
        for kind, label, files in partitions:
            size = ROOM + sum(map(len, files.values())) // MEGABYTE * MEGABYTE
            table += f"start={start // 512}, size={size // 512}, type={KINDS[kind]}\n"
            make_partition(path + ".part", size, kind, label, files)
            with open(path + ".part", "rb") as part:
                stick.seek(start)
                stick.write(part.read())
            start += size
        stick.truncate(start)
    os.remove(path + ".part")
    run("sfdisk", "--quiet", path, input=table.encode())
    return path


def file_on(path, kind, name):
    """What a file on the stick's first partition says."""
    if kind == "fat":
        return run("mtype", "-i", f"{path}@@{FIRST}", "::" + name).decode()
    with tempfile.NamedTemporaryFile() as part, open(path, "rb") as stick:
        stick.seek(FIRST)
        part.write(stick.read())
        part.flush()
        if kind == "ext4":
            subprocess.run(["e2fsck", "-fy", part.name], capture_output=True)  # a journal that nobody replayed yet
            return run("debugfs", "-R", f"cat {name}", part.name).decode()
        return run("ntfscat", part.name, name).decode()
