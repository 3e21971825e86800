"""An X display of its own for a test: looks at the windows on it and acts as the operator at it."""

import subprocess
import time
from dataclasses import dataclass

from Xlib import X, XK, Xatom
from Xlib.display import Display as Connection
from Xlib.ext import res, xtest
from Xlib.protocol import event

from harness import wait_for


class Display:
    def __init__(self):
        self.process = subprocess.Popen(
            ['Xvfb', '-displayfd', '1', '-screen', '0', '1100x700x24', '-dpi', '96', '-nolisten', 'tcp'],
            stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
        self.name = ':' + self.process.stdout.readline().strip()
        self.environment = {'DISPLAY': self.name, 'XAUTHORITY': '/dev/null'}
        self.connection = Connection(self.name)
        self.root = self.connection.screen().root

    def end(self):
        self.process.kill()
        self.process.wait()
        self.process.stdout.close()

    def clients(self):
        """How many programs are connected, this one not counted."""
        return len(res.query_clients(self.connection).clients) - 1

    def windows(self):
        """The windows that are seen, by caption."""
        found = {}
        for outer in self.root.query_tree().children:
            for window in (outer, *outer.query_tree().children):  # a window manager puts a frame around them
                if window.get_attributes().map_state == X.IsViewable and window.get_wm_name():
                    found[window.get_wm_name()] = window
        return found

    def window(self, caption):
        return wait_for(f'window {caption!r}', lambda: self.windows().get(caption))

    def close(self, window):
        """What a window manager does when the operator closes the window."""
        atom = self.connection.intern_atom
        window.send_event(event.ClientMessage(window=window, client_type=atom('WM_PROTOCOLS'),
                                              data=(32, [atom('WM_DELETE_WINDOW'), X.CurrentTime, 0, 0, 0])))
        self.connection.flush()

    def press(self, window, *keys):
        """Keys by their X names, held together."""
        window.set_input_focus(X.RevertToParent, X.CurrentTime)
        codes = [self.connection.keysym_to_keycode(XK.string_to_keysym(key)) for key in keys]
        for code in codes:
            xtest.fake_input(self.connection, X.KeyPress, code)
        for code in reversed(codes):
            xtest.fake_input(self.connection, X.KeyRelease, code)
        self.connection.sync()

    def click(self, window, x, y, button=1):
        place = window.translate_coords(self.root, 0, 0)
        xtest.fake_input(self.connection, X.MotionNotify, x=x - place.x, y=y - place.y)
        xtest.fake_input(self.connection, X.ButtonPress, button)
        xtest.fake_input(self.connection, X.ButtonRelease, button)
        self.connection.sync()

    def copied(self, window, all_lines=False):
        """What the window copies on the operator's Ctrl+C, all lines or those selected."""
        atom = self.connection.intern_atom
        asking = self.root.create_window(0, 0, 1, 1, 0, X.CopyFromParent)
        asking.set_selection_owner(atom('CLIPBOARD'), X.CurrentTime)

        def taken():
            # A window that has only just come up may miss keys, as an operator's would be missed.
            if all_lines:
                self.press(window, 'Control_L', 'a')
            self.press(window, 'Control_L', 'c')
            time.sleep(0.1)
            return self.connection.get_selection_owner(atom('CLIPBOARD')) != asking

        wait_for('copy', taken)
        asking.convert_selection(atom('CLIPBOARD'), atom('UTF8_STRING'), Xatom.STRING, X.CurrentTime)
        value = wait_for('copied text', lambda: asking.get_full_property(Xatom.STRING, X.AnyPropertyType))
        asking.destroy()
        return bytes(value.value).decode()

    def picture(self, window, x=0, y=0, width=None, height=None):
        """The pixels of a part of a window, rows of four bytes each."""
        size = window.get_geometry()
        width, height = width or size.width - x, height or size.height - y
        return Picture(width, height, window.get_image(x, y, width, height, X.ZPixmap, 0xFFFFFFFF).data)

    def settled(self, window, **part):
        """The picture once it stays as it is."""
        last = self.picture(window, **part)
        for _ in range(100):
            time.sleep(0.1)
            now = self.picture(window, **part)
            if now == last:
                return now
            last = now
        raise AssertionError('the window never settles')


@dataclass
class Picture:
    width: int
    height: int
    pixels: bytes
