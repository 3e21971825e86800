"""A headless browser of a test, driven through its DevTools over a pipe."""

import base64
import contextlib
import json
import os
import shutil
import subprocess
import tempfile

from harness import wait_for

PROGRAM = shutil.which('chromium')


class Browser:
    def __init__(self, width=1200, height=900, dark=False, mobile=False):
        """mobile: a telephone's screen, with two of its pixels to one of the page's."""
        self.folder = tempfile.mkdtemp(prefix='quelm-browser-')
        to_browser, self.out = os.pipe()
        self.input, from_browser = os.pipe()
        shell = f'exec 3<&{to_browser} 4>&{from_browser} && exec "$@"'
        self.process = subprocess.Popen(
            ['bash', '-c', shell, 'browser', PROGRAM, '--headless=new', '--no-sandbox', '--disable-gpu', '--no-first-run',
             '--disable-dev-shm-usage', '--disable-background-networking', '--disable-component-update', '--hide-scrollbars',
             '--remote-debugging-pipe', f'--user-data-dir={self.folder}', 'about:blank'],
            pass_fds=(to_browser, from_browser), stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
            stderr=subprocess.DEVNULL, env={**os.environ, 'HOME': self.folder, 'LANG': 'en_GB.UTF-8', 'TZ': 'UTC'})
        os.close(to_browser)
        os.close(from_browser)
        self.rest, self.number, self.session, self.problems = b'', 0, None, []
        target = next(each for each in self('Target.getTargets')['targetInfos'] if each['type'] == 'page')
        self.session = self('Target.attachToTarget', targetId=target['targetId'], flatten=True)['sessionId']
        for domain in ('Page', 'Runtime', 'Log'):
            self(f'{domain}.enable')
        self('Emulation.setDeviceMetricsOverride', width=width, height=height, deviceScaleFactor=2 if mobile else 1,
             mobile=mobile)
        self('Emulation.setEmulatedMedia', features=[
            {'name': 'prefers-color-scheme', 'value': 'dark' if dark else 'light'}])

    def __call__(self, method, **parameters):
        self.number += 1
        message = {'id': self.number, 'method': method, 'params': parameters}
        if self.session:
            message['sessionId'] = self.session
        os.write(self.out, json.dumps(message).encode() + b'\0')
        while True:
            answer = self.receive()
            if answer.get('id') == self.number:
                if 'error' in answer:
                    raise AssertionError(f"{method}: {answer['error']}")
                return answer['result']
            if answer.get('method') == 'Runtime.exceptionThrown':
                self.problems.append(answer['params']['exceptionDetails'])
            if answer.get('method') == 'Log.entryAdded' and answer['params']['entry']['level'] == 'error':
                self.problems.append(answer['params']['entry']['text'])

    def receive(self):
        while b'\0' not in self.rest:
            more = os.read(self.input, 1 << 20)
            if not more:
                raise AssertionError('the browser has ended')
            self.rest += more
        message, self.rest = self.rest.split(b'\0', 1)
        return json.loads(message)

    def go(self, address):
        self('Page.navigate', url=address)

    def run(self, script):
        """What a JavaScript expression gives."""
        answer = self('Runtime.evaluate', expression=script, returnByValue=True, awaitPromise=True)
        if 'exceptionDetails' in answer:
            raise AssertionError(f"{script}: {answer['exceptionDetails']}")
        return answer['result'].get('value')

    def wait(self, script, seconds=30):
        return wait_for(script, lambda: self.run(script), seconds)

    def press(self, key, text=''):
        codes = {'Tab': 9, 'Enter': 13, ' ': 32, 'PageDown': 34, 'End': 35}
        for kind in ('keyDown', 'keyUp'):
            self('Input.dispatchKeyEvent', type=kind, key=key, text=text if kind == 'keyDown' else '',
                 windowsVirtualKeyCode=codes.get(key, 0))

    def type(self, text):
        self('Input.insertText', text=text)

    def picture(self, whole=False):
        """The page as PNG, as far as it is seen or whole."""
        return base64.b64decode(self('Page.captureScreenshot', format='png', captureBeyondViewport=whole)['data'])

    def end(self):
        self.process.kill()
        self.process.wait()
        for descriptor in (self.out, self.input):
            with contextlib.suppress(OSError):
                os.close(descriptor)
        shutil.rmtree(self.folder, ignore_errors=True)
