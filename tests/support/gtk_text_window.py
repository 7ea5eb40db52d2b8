# A GTK 3 window showing known text, for tests of the accessibility bus: a label, a text view, and a
# password field whose content must never be read. Prints "ready <pid>" once the window is shown.
import os
import sys

import gi

gi.require_version("Gtk", "3.0")
from gi.repository import Gtk  # noqa: E402

title, label, body = sys.argv[1], sys.argv[2], sys.argv[3]
window = Gtk.Window(title=title)
box = Gtk.Box(orientation=Gtk.Orientation.VERTICAL)
box.pack_start(Gtk.Label(label=label), False, False, 0)
view = Gtk.TextView()
view.get_buffer().set_text(body)
box.pack_start(view, True, True, 0)
secret = Gtk.Entry()
secret.set_visibility(False)
secret.set_text("hunter2-never-read")
box.pack_start(secret, False, False, 0)
window.add(box)
window.set_default_size(640, 300)
window.move(100, 100)
window.connect("destroy", Gtk.main_quit)
window.show_all()
window.present()
print("ready", os.getpid(), flush=True)
Gtk.main()
