"""The operator's window, on a display of its own: the message list, copying, scrolling, closing, losing the display."""

import os
import signal
import threading
import time
import unittest

from display import Display
from harness import SiteTest, wait_for

MAIN = 'Quelm 5 OPC Server'
BOX = 'Quelm 5 OPC DA Server'
WHEEL_UP = 4
# Where lines are drawn: neither the header nor the scroll bars.
LINES = {'x': 4, 'y': 40, 'width': 800, 'height': 400}
STATUS = {'x': 4, 'y': 478, 'width': 800, 'height': 20}
REFUSED = ['[OPC-0109] Attempting to unload OPC server...',
           '[OPC-0110] Server in use; cancelling OPC server unload attempt']


class Window(SiteTest):
    def setUp(self):
        super().setUp()
        self.display = Display()
        self.addCleanup(self.display.end)

    def start(self, *arguments):
        return self.site.start(*arguments, environment=self.display.environment)

    def listed(self, window):
        """The lines of the list, as the operator copies them."""
        text = self.display.copied(window, all_lines=True)
        self.assertTrue(text.endswith('\n'))
        return text[:-1].split('\n')

    def test_a_hidden_server_touches_no_display(self):
        before = self.display.clients()
        self.start().started()
        self.assertEqual((self.display.clients(), self.display.windows()), (before, {}))

    def test_the_view_follows_its_end_until_the_operator_scrolls_up_and_no_client_is_left_alone(self):
        self.start('visible').started()
        window = self.display.window(MAIN)
        nobody = self.display.settled(window, **STATUS)
        client = self.client()
        wait_for('the client below the list', lambda: self.display.picture(window, **STATUS) != nobody)
        end = self.display.settled(window, **LINES)
        self.display.press(window, 'Escape')
        self.display.close(window)
        at = self.site.wait_log('[OPC-0110]')
        wait_for('new lines', lambda: self.display.picture(window, **LINES) != end)
        self.assertEqual(self.listed(window)[-2:], REFUSED)
        for _ in range(3):
            self.display.click(window, 100, 100, WHEEL_UP)
        above = self.display.settled(window, **LINES)
        self.display.close(window)
        self.site.wait_log('[OPC-0110]', at)
        self.assertEqual(self.display.settled(window, **LINES), above)
        self.display.press(window, 'End')
        wait_for('the end again', lambda: self.display.picture(window, **LINES) != above)
        self.assertEqual(self.display.copied(window), REFUSED[1] + '\n')

        self.assertEqual(client('status')['state'], 1)
        client('close')
        self.site.wait_log('[OPC-0114]')
        self.display.close(window)
        self.assertEqual(self.site.exit_code(4), 0, 'sooner than the shutdown timer')
        self.assertEqual(self.site.log()[-1], 'Information [OPC-0134] Stopping log...')

    def test_help_is_a_box_whose_ok_ends_the_program(self):
        for leave in (lambda box: self.display.press(box, 'Return'), lambda box: self.display.press(box, 'Escape'),
                      self.display.close):
            self.start('?')
            box = self.display.window(BOX)
            self.assertEqual(list(self.display.windows()), [BOX])
            leave(box)
            self.assertEqual(self.site.exit_code(5), 0)
            self.assertEqual((self.site.output(), self.site.errors()), ('', ''))
        self.start('?')
        self.display.window(BOX)
        self.display.process.kill()
        self.assertEqual(self.site.exit_code(5), 0, 'nobody is left to press its button')
        self.assertFalse(os.path.exists(self.site.path('logs')))

    def test_a_failed_start_shows_why_and_waits_to_be_closed(self):
        os.remove(self.site.path('Quelm.ini'))
        self.start()
        window = self.display.window(MAIN)
        self.assertEqual(self.listed(window), ['[OPC-0129] Cannot read INI file',
                                               '[OPC-0130] Cannot select DAHS entry in INI file'])
        self.display.close(window)
        self.assertEqual(self.site.exit_code(5), 1)

    def test_a_display_that_hangs_or_goes_costs_nothing_but_the_window(self):
        self.start('visible').started()
        client = self.client(items=['North.Stack1.NOx'])
        window = self.display.window(MAIN)
        self.display.process.send_signal(signal.SIGSTOP)
        rescue = threading.Timer(20, self.display.process.send_signal, [signal.SIGCONT])
        rescue.start()
        began = time.monotonic()
        for _ in range(500):  # each writes a line into the list
            client('read', source='device')
        self.assertLess(time.monotonic() - began, 15)
        rescue.cancel()
        self.display.process.send_signal(signal.SIGCONT)
        lines = self.listed(window)
        self.assertRegex(lines[0], r"^\[OPC-0133\] Starting log '.*'\.\.\.$")
        logged = [line.split(' ', 1)[1] for line in self.site.log()]
        self.assertGreater(len(logged), 500)
        self.assertEqual(lines[1:], logged[:499] + ['Max messages displayed. See log file.'])
        self.assertNotIn('[OPC-', self.site.errors())

        self.display.process.kill()
        self.site.wait_log('Error [Window] The display is gone')
        self.assertEqual(client('status')['state'], 1)
        self.assertIn('startup complete', self.site.errors())
        client('close')
        self.assertEqual(self.site.exit_code(), 0)


if __name__ == '__main__':
    unittest.main()
