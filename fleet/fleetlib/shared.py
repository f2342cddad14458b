"""What every device of the fleet shares instead of having its own copy.

- /usr/bin and /usr/sbin: one link tree (simdevice.make_usr_links), bound
  read-only into every sandbox, instead of a tmpfs with about 1,600 links
  per device (kernel memory: an inode and a dentry per link);
- the tools' front end: built once, in that tree, instead of once per
  device at its first tool call (a compiler run each); the tree's tool
  names lead to it directly (named tools), so a call runs no shell to read
  the tool script's header;
- the host's /etc/ssl and /etc/alternatives: bound read-only instead of
  copied into each run directory (about 1 MB and 800 files a device);
- the tools themselves (device/sim) were already bound read-only.

Run directories live on the fleet's tmpfs (isolate.TMPFS_AT): their
journals, logs and UCI files are written to memory, not to the disk.
"""
import os
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
DEVICE_DIR = os.path.join(os.path.dirname(os.path.dirname(HERE)), "device")
if DEVICE_DIR not in sys.path:
    sys.path.insert(0, DEVICE_DIR)
import simdevice  # noqa: E402


class Shared:
    def __init__(self, root, share=True, named_tools=True):
        """root: a directory of the fleet's own (tmpfs) for the shared
        tree.  share=False: every device gets its own copies, as a
        single simulated device does (for comparisons)."""
        self.root = root
        self.share_etc = share
        self.usr_links = None
        self.front = False
        self.named_tools = False
        if share:
            self.usr_links = simdevice.make_usr_links(
                os.path.join(root, "usr"), front=True, named_tools=named_tools)
            self.front = os.path.exists(os.path.join(
                self.usr_links, "bin", simdevice.SHARED_FRONT))
            self.named_tools = simdevice.read_usr_links(self.usr_links)["named_tools"]

    def device_kw(self):
        return {"shared_etc": self.share_etc, "usr_links": self.usr_links}

    def start_kw(self):
        return {}

    def prepare_run(self, run):
        if self.front:
            simdevice.use_shared_front(run, self.usr_links)

    def describe(self):
        return {"shared_etc": self.share_etc,
                "shared_usr_links": self.usr_links is not None,
                "shared_front": self.front, "named_tools": self.named_tools}
