"""quelm-monitor: metrics that Prometheus takes, and a status page in a real browser."""

import json
import os
import re
import shutil
import socket
import subprocess
import tempfile
import threading
import time
import unittest
import urllib.error
import urllib.request

from browser import PROGRAM, Browser
from fake_control import FakeControl
from harness import ROOT, SiteTest, program, wait_for

PROMTOOL = os.path.join(ROOT, 'build', 'tools', 'promtool')


class Monitor:
    """The monitor's process, at a port of its own."""

    def __init__(self, control):
        self.process = subprocess.Popen([program('quelm-monitor'), '--port', '0', '--control', control, '--conf', '/none'],
                                        stderr=subprocess.PIPE, text=True)
        self.address = re.search(r'http://\S+?(?=/ )', self.process.stderr.readline())[0]

    def end(self):
        self.process.terminate()
        code = self.process.wait(30)
        self.process.stderr.close()
        return code

    def ask(self, path, method='GET', host=None):
        """Status and body."""
        request = urllib.request.Request(self.address + path, method=method, headers={'Host': host} if host else {})
        try:
            with urllib.request.urlopen(request, timeout=30) as answer:
                return answer.status, answer.read().decode()
        except urllib.error.HTTPError as error:
            with error:
                return error.code, error.read().decode()

    def json(self, path):
        return json.loads(self.ask(path)[1])


def checked_metrics(test, monitor):
    """The samples by name and labels, once promtool has nothing to say against them."""
    text = monitor.ask('/metrics')[1]
    checked = subprocess.run([PROMTOOL, 'check', 'metrics'], input=text, capture_output=True, text=True)
    test.assertEqual((checked.returncode, checked.stdout, checked.stderr), (0, '', ''))
    return dict(line.rsplit(' ', 1) for line in text.splitlines() if not line.startswith('#'))


class MonitorTest(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        self.folder = tempfile.mkdtemp(prefix='quelm-monitor-')
        self.addCleanup(shutil.rmtree, self.folder)
        self.control = os.path.join(self.folder, 'control')
        self.monitor = Monitor(self.control)
        self.addCleanup(lambda: self.assertEqual(self.monitor.end(), 0))

    def fake(self, **arguments):
        fake = FakeControl(self.control, **arguments)
        self.addCleanup(lambda: os.path.exists(self.control) and fake.end())
        return fake

    def browser(self, **arguments):
        if not PROGRAM:
            self.skipTest('Chromium is not installed')
        browser = Browser(**arguments)
        self.addCleanup(browser.end)
        browser.go(self.monitor.address)
        return browser

    def metrics(self):
        return checked_metrics(self, self.monitor)


class Http(MonitorTest):
    def test_metrics_pass_promtools_check_and_say_when_the_server_is_gone(self):
        self.assertEqual(self.metrics()['quelm_up'], '0')
        fake = self.fake(items=10)
        metrics = self.metrics()
        for name, value in (('quelm_up', '1'), ('quelm_calls_total', '1234'), ('quelm_site_database_up{site="Site2"}', '0'),
                            ('quelm_items{site="Site1",quality="good"}', '48000'),
                            ('quelm_site_last_pass_duration_seconds{site="Site1"}', '0.0125')):
            self.assertEqual(metrics[name], value, name)
        with open(os.path.join(ROOT, 'docs', 'operators-guide.md')) as guide:
            described = set(re.findall(r'^\| `(quelm_\w+)', guide.read(), re.MULTILINE))
        self.assertEqual({name.split('{')[0] for name in metrics}, described, 'the guide names each metric')
        fake.end()
        self.assertEqual(self.metrics()['quelm_up'], '0')

    def test_example_of_alerts(self):
        rules = os.path.join(ROOT, 'packaging', 'prometheus-alerts.yml')
        checked = subprocess.run([PROMTOOL, 'check', 'rules', rules], capture_output=True, text=True)
        self.assertEqual(checked.returncode, 0, checked.stderr)
        metrics = self.fake(items=1) and self.metrics()
        with open(rules) as file:
            for name in re.findall(r'\bquelm_\w+', re.sub(r'(?m)^.*(alert|summary|description):.*$', '', file.read())):
                self.assertTrue([metric for metric in metrics if metric.split('{')[0] == name], name)

    def test_only_shows_and_only_to_those_who_name_this_machine(self):
        self.fake(items=10)
        port = self.monitor.address.rsplit(':', 1)[1]
        for arguments, status in ((('/',), 200), (('/api/status',), 200), (('/api/reload',), 404), (('/none',), 404),
                                  (('/api/items?count=501',), 400), (('/', 'POST'), 405), (('/api/status', 'DELETE'), 405),
                                  (('/', 'GET', 'evil.example'), 421), (('/metrics', 'GET', f'evil.example:{port}'), 421),
                                  (('/', 'GET', f'localhost:{port}'), 200)):
            self.assertEqual(self.monitor.ask(*arguments)[0], status, arguments)

    def test_answers_that_no_server_should_give_and_clients_that_hang(self):
        fake = self.fake(items=10)
        for answer in (b'[]\n', b'{"sites":7}\n', b'x' * 5_000_000, b'\xff\n', b'', b'[' * 1_000_000 + b'\n'):
            with self.subTest(answer[:9]):
                fake.instead = answer
                self.assertIn(self.monitor.ask('/api/status')[0], (200, 503))
                self.assertEqual(self.monitor.ask('/metrics')[0], 200)
                time.sleep(1.1)  # until it asks again
        fake.instead = None
        wait_for('an answer', lambda: self.metrics()['quelm_up'] == '1')
        host, port = self.monitor.address[7:].split(':')
        silent = [socket.create_connection((host, int(port))) for _ in range(40)]
        for connection in silent[::2]:
            connection.sendall(b'GET / HTTP/1.1\r\nHost: ')
        began = time.monotonic()
        self.assertEqual(self.monitor.ask('/api/status')[0], 200)
        self.assertLess(time.monotonic() - began, 15)
        for connection in silent:
            connection.close()

    def test_a_stop_waits_for_nobody_long(self):
        fake = self.fake(items=10)
        fake.instead = b''  # the server takes questions and says nothing
        asking = threading.Thread(target=lambda: self.monitor.ask('/api/status'))
        asking.start()
        wait_for('the question', lambda: fake.asked)
        began = time.monotonic()
        self.monitor.process.terminate()
        self.assertEqual(self.monitor.process.wait(20), 0)
        self.assertLess(time.monotonic() - began, 10)
        asking.join()


class Page(MonitorTest):
    ROWS = "[...document.querySelectorAll('#space .row')].map(row => row.firstChild.textContent)"

    def test_a_hundred_thousand_items_are_browsed_by_keyboard(self):
        fake = self.fake()
        browser = self.browser()
        browser.wait(f"{self.ROWS}.includes('Site1.Unit000.Value000003')")
        self.assertEqual(browser.run("document.getElementById('items-count').textContent"), '100,000 in all')
        self.assertLess(browser.run(f'{self.ROWS}.length'), 40, 'only what is seen stands in the page')
        browser.run("document.getElementById('view').focus()")
        browser.press('End')
        browser.wait(f"{self.ROWS}.includes('Site2.Unit499.Value099999')")
        asked = [request for request in fake.asked if request['ask'] == 'items']
        self.assertLess(len(asked), 25)
        self.assertLessEqual(max(request['count'] for request in asked), 100)
        browser.run("document.getElementById('filter-name').focus()")
        browser.type('value00004')
        browser.wait("document.getElementById('items-count').textContent == '10 match'")
        browser.run("document.querySelector('#space button').focus()")
        browser.press('Enter', '\r')
        browser.wait("document.querySelector('#trends h3')?.textContent == 'Site1.Unit000.Value000040'")
        self.assertEqual(browser.run("document.querySelector('#space button').getAttribute('aria-pressed')"), 'true')
        # What the server says is text, whatever it looks like.
        self.assertEqual(browser.run("document.querySelectorAll('main b, main u, main [role=alert] i').length"), 0)
        self.assertIn('<b>no route</b>', browser.run("document.getElementById('sites').textContent"))
        self.assertIn('<i>Historian</i>', browser.run("document.getElementById('clients').textContent"))
        self.assertEqual(browser.problems, [])

    def test_says_plainly_that_the_server_is_not_running_and_that_it_is_back(self):
        browser = self.browser(width=360, height=740, mobile=True)
        browser.wait("document.getElementById('notice')?.textContent.includes('The server is not running')")
        fake = self.fake(items=30)
        browser.wait("document.getElementById('state').textContent == 'Running' && document.querySelector('#space .row')")
        self.assertTrue(browser.run("document.getElementById('notice').hidden"))
        self.assertLessEqual(browser.run('document.documentElement.scrollWidth'), 360, 'nothing stands out to the side')
        fake.end()
        browser.wait("document.getElementById('state').textContent == 'Server is not running'")


class Together(SiteTest):
    def test_shows_what_the_real_server_does(self):
        self.site.start().started()
        monitor = Monitor(self.site.path('control'))
        self.addCleanup(monitor.end)
        client = self.client(items=['North.Stack1.NOx', 'South.Boiler.Steam'])
        self.site.wait_pass()
        client('read')
        status = monitor.json('/api/status')
        self.assertEqual({site['site']: (site['database'], site['items'], site['good'] + site['uncertain'] + site['bad'])
                          for site in status['sites']}, {'NORTH': ('up', 20, 20), 'SOUTH': ('up', 7, 7)})
        self.assertEqual(monitor.json('/api/clients')['clients'][0]['account'], 'DEMO\\operator')
        item, = monitor.json('/api/items?name=stack1.nox&count=1')['items']
        self.assertEqual((item['id'], item['site'], item['quality']), ('North.Stack1.NOx', 'NORTH', 192))
        self.assertEqual(len(monitor.json('/api/trend?item=North.Stack1.NOx')['samples']), 1)
        metrics = checked_metrics(self, monitor)
        self.assertGreater(int(metrics['quelm_calls_total']), 3)
        self.assertLess(float(metrics['quelm_site_last_pass_age_seconds{site="NORTH"}']), 26)
        if PROGRAM:
            browser = Browser()
            self.addCleanup(browser.end)
            browser.go(monitor.address)
            for words in ('North.Stack1.NOx', 'DEMO\\\\operator', 'startup complete', 'Database answers'):
                browser.wait(f"document.querySelector('main')?.textContent.includes('{words}')")
            self.assertEqual(browser.problems, [])
        self.site.terminate()
        self.site.exit_code()
        self.assertEqual(checked_metrics(self, monitor)['quelm_up'], '0')
        self.assertEqual(monitor.json('/api/status')['state'], 'stopped')
