# Corvane's entries in the Files context menu: `corvane menu` says which entries a selection
# offers, and `corvane open-url` hands the chosen one to the Corvane application.
import json
import subprocess
from urllib.parse import unquote_to_bytes

import gi

try:
    gi.require_version("Nautilus", "4.0")
except ValueError:
    gi.require_version("Nautilus", "3.0")
from gi.repository import GObject, Nautilus

CORVANE = b"/usr/bin/corvane"
# Files waits for the menu while it opens it.
TIME_LIMIT = 2


def local_paths(files):
    """The selection's paths as bytes; none when any item is not a local file."""
    paths = []
    for file in files:
        uri = file.get_uri()
        if not uri.startswith("file:///"):
            return []
        paths.append(unquote_to_bytes(uri[len("file://"):]))
    return paths


def menu_entries(paths):
    """The (title, URL) pairs `corvane menu` offers; none when it fails in any way."""
    if not paths:
        return []
    try:
        done = subprocess.run([CORVANE, b"menu", b"--json", *paths], stdin=subprocess.DEVNULL,
                              capture_output=True, timeout=TIME_LIMIT)
        if done.returncode != 0:
            return []
        return [(entry["title"], entry["url"]) for entry in json.loads(done.stdout)
                if isinstance(entry["title"], str) and isinstance(entry["url"], str)]
    except Exception:
        return []


def open_url(_item, url):
    try:
        subprocess.Popen([CORVANE, b"open-url", url.encode()], stdin=subprocess.DEVNULL,
                         stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                         start_new_session=True)
    except Exception:
        pass


class CorvaneMenu(GObject.GObject, Nautilus.MenuProvider):
    # Files 43 passes (files); earlier versions (window, files).
    def get_file_items(self, *args):
        try:
            items = []
            for index, (title, url) in enumerate(menu_entries(local_paths(args[-1]))):
                item = Nautilus.MenuItem(name="CorvaneMenu::%d" % index, label=title)
                item.connect("activate", open_url, url)
                items.append(item)
            return items
        except Exception:
            return []
