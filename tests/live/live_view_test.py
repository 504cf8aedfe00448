#!/usr/bin/python3
# The live view end to end: catra-terminal --http on a free port (standard
# input a pseudo-terminal, as when a person runs it), its endpoints, its
# guards and refusals, then the page in headless Chromium: opening it prints
# nothing; a clockwise release and a right turn show TURN RIGHT and the
# right-turn counter at 1; Ctrl-C ends it.
# Arguments: the terminal program, its configuration, the folder for the
# screenshot and the terminal's output.
import json
import os
import pty
import re
import signal
import subprocess
import sys
import tempfile
import time
import urllib.error
import urllib.request

from selenium import webdriver
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By
from selenium.webdriver.support.ui import WebDriverWait

program, config, folder = sys.argv[1:4]
out_path = os.path.join(folder, 'live_view_test.out.jsonl')
err_path = os.path.join(folder, 'live_view_test.err.txt')
typist, keyboard = pty.openpty()
with open(out_path, 'w') as out, open(err_path, 'w') as err:
    terminal = subprocess.Popen([program, '--config', config, '--http', '0', '--json'],
                                stdin=keyboard, stdout=out, stderr=err)


def wait_until(check, what, seconds=20):
    deadline = time.monotonic() + seconds
    while time.monotonic() < deadline:
        value = check()
        if value:
            return value
        time.sleep(0.05)
    raise AssertionError('not seen within %d s: %s' % (seconds, what))


def request(path, body=None, headers=None, base=None, stream=False):
    req = urllib.request.Request((base or url) + path, data=body, headers=headers or {})
    try:
        if stream:  # the open response, to read from
            return urllib.request.urlopen(req, timeout=10)
        with urllib.request.urlopen(req, timeout=10) as response:
            return response.status, response.read().decode()
    except urllib.error.HTTPError as error:
        return None if stream else (error.code, error.read().decode())


def start_another(*arguments):
    other = subprocess.run([program, '--config', config, *arguments], timeout=30,
                           stdin=subprocess.DEVNULL, capture_output=True, text=True)
    return other.returncode, other.stderr


def expect(actual, wanted, what):
    if actual != wanted:
        raise AssertionError('%s: %r, wanted %r' % (what, actual, wanted))


try:
    url = wait_until(lambda: re.search(r'the live view is at (http://\S+/)',
                                       open(err_path).read()), 'the live view\'s address')[1]
    same_origin = {'Origin': url.rstrip('/')}
    host, port = re.match(r'http://(.*):(\d+)/', url).groups()
    port = int(port)
    # Posted lines run once the plug-in's start-up is over; before it, 503.
    wait_until(lambda: request('command', b'{"note": "started"}')[0] == 200, 'the start-up over')
    # A posted body at its bound, printed as a line of the longest event the stream sends whole.
    longest = 'x' * (64 * 1024 - len('{"note":""}'))
    for path, body, headers, status, text in [
            ('command', b'{"note": "one\\ntwo"}\n', same_origin, 200, ''),
            ('command', b'{"note": "a"}\0{"note": "b"}', {}, 400,
             'a command is text: it holds no NUL byte\n'),
            ('appXjs', None, {}, 404, 'no such page\n'),
            ('command', b'{"note":"%s"}' % longest.encode(), {}, 200, ''),
            # The plug-in's own key of the host's exception mode's name: the page shows no change.
            ('command', b'{"config": {"module": "catra", "key": "exception_mode", "value": "1"}}', {},
             200, ''),
            # A person's expectation is answered, never counted in the session's result.
            ('command', b'{"expect": {"note": "never"}, "timeout_ms": 0}', {}, 422,
             'expect {"note":"never"}: no such line within 0 ms; the nearest...'),
            ('info', None, {'Host': 'evil.example'}, 403, None),
            ('command', b'{"note": "x"}', {'Origin': 'http://evil.example'}, 403, None),
            ('info', None, {}, 200,
             '{"simulated":true,"device_path":"%s","buttonholes":[40,41,42],'
             '"operation_mode":"blocked","exception_mode":"0","gateway":"clockwise","event_names":'
             '{"a":"ALWAYS BLOCKED","b":"ALWAYS FREE LEFT","c":"ALWAYS FREE RIGHT","d":"ALWAYS FREE BOTH",'
             '"e":"FREE LEFT","f":"FREE RIGHT","g":"FREE BOTH","h":"TURN LEFT","i":"TURN RIGHT",'
             '"j":"GIVE UP","k":"BLOCKED","l":"EVENT_READY","m":"EVENT_NOT_READY"},"kinds":'
             '["note","init_failed","sent","bus","controller","turnstile","person","log","reply",'
             '"dump","other"],"turns":{"left":"{\\"person\\":\\"turn_left\\"}",'
             '"right":"{\\"person\\":\\"turn_right\\"}"},"most_events":1000,'
             '"newest_records":10}'),
    ]:
        got_status, got_text = request(path, body, headers)
        if text and '%s' in text:
            text = text % re.search(r'"device_path":"(/dev/pts/\d+)"', got_text)[1]
        if text and text.endswith('...'):
            got_text = got_text[:len(text) - 3] + '...'
        expect((got_status, got_text if text is not None else None), (status, text),
               '%s %r %r' % (path, body and body[:30], headers))

    # The page, and every answer forbids framing.
    with urllib.request.urlopen(url, timeout=10) as page:
        expect((page.status, page.headers['X-Frame-Options'], page.headers['Content-Security-Policy'],
                page.headers['X-Content-Type-Options']),
               (200, 'DENY', "default-src 'self'; frame-ancestors 'none'; base-uri 'none'; "
                             "form-action 'none'", 'nosniff'), 'the page and its framing headers')
    # A second terminal on the same port is refused; off loopback the
    # secret is needed.
    expect(start_another('--http', str(port)),
           (1, 'catra-terminal: --http: cannot listen on %d: the port is in use (another '
               'catra-terminal, or another program, listens there)\n' % port), 'same port')
    with open(os.path.join(folder, 'live_view_test.token.txt'), 'w') as token_err:
        secret = 'a-secret-of-the-bench'
        other = subprocess.Popen([program, '--config', config, '--http', '0.0.0.0:0',
                                  '--http-token', secret], stdin=subprocess.DEVNULL,
                                 stdout=subprocess.DEVNULL, stderr=token_err)
        try:
            other_url = wait_until(lambda: re.search(r'the live view is at (http://\S+)',
                                                     open(token_err.name).read()), 'URL')[1]
            expect(other_url.endswith('/?token=' + secret), True, 'the URL carries the secret')
            base = other_url.replace('0.0.0.0', '127.0.0.1').split('?')[0]
            expect(request('info', None, {}, base), (401, 'this live view needs its secret: open the '
                                                     'address that catra-terminal printed\n'), 'no secret')
            expect(request('info', None, {'Cookie': 'catra_live_token=' + secret}, base)[0], 200, 'cookie')
            # The printed address gives the page its cookie.
            with urllib.request.urlopen(base + '?token=' + secret, timeout=10) as page:
                expect(page.headers['Set-Cookie'], 'catra_live_token=%s; Path=/; HttpOnly; '
                       'SameSite=Strict' % secret, 'the cookie of the printed address')
        finally:
            other.kill()

    # The stream starts with the history: the terminal's output from its first
    # line on, each line told as the terminal tells it. (The controller may
    # print the set-up's first command after the plug-in's own later lines.)
    expect(request('command', b'{"config": {"module": "catra", "key": "operation_mode", '
                              b'"value": "blocked"}}')[0], 200, 'a mode posted')
    events = wait_until(lambda: request('events', stream=True), 'a stream free again')
    with events:
        expect(events.headers.get_content_type(), 'text/event-stream', 'events type')
        streamed = []
        configs = lambda: [event for event in streamed if (event['line'] or {}).get('sent') == 'config_param_set']
        while len(configs()) < 2:
            data = events.readline().decode()
            if data.startswith('data: '):
                streamed.append(json.loads(data[len('data: '):]))
        expect(streamed[0]['line'], json.loads(open(out_path).readline()), 'history')
        expect([event.get('shows') for event in configs()], [None, {'operation_mode': 'blocked'}],
               'what a line shows')
        expect({'note': longest} in [event['line'] for event in streamed], True, 'the longest event')
        expect({'kind': 'controller', 'label': 'controller', 'text': '< d', 'line': {'controller': 'd'}}
               in streamed, True, 'a line told')

    options = webdriver.ChromeOptions()
    options.binary_location = '/usr/bin/chromium'
    for argument in ['--headless', '--no-sandbox', '--disable-gpu', '--disable-quic',
                     '--no-first-run', '--disable-background-networking',
                     '--disable-component-update', '--disable-sync', '--window-size=1400,1150',
                     '--user-data-dir=' + tempfile.mkdtemp(prefix='live-view-chromium-')]:
        options.add_argument(argument)
    driver = webdriver.Chrome(service=Service('/usr/bin/chromedriver'), options=options)
    try:
        driver.get(url)
        text = lambda id: driver.find_element(By.ID, id).text
        page = WebDriverWait(driver, 20)
        printed = open(out_path).read()
        page.until(lambda _: text('connection') == 'connected' and text('state') == 'blocked' and
                   text('counter-right_turns') == '0')
        expect(open(out_path).read(), printed, 'the output after a page opened and read the state')
        driver.find_element(By.ID, 'release-clockwise').click()
        page.until(lambda _: text('state') == 'free clockwise')
        driver.find_element(By.ID, 'turn-right').click()
        page.until(lambda _: 'TURN RIGHT' in text('events') and text('counter-right_turns') == '1')
        page.until(lambda _: 'TURN RIGHT' in text('access-events'))
        driver.save_screenshot(os.path.join(folder, 'live-view.png'))
        driver.find_element(By.ID, 'filter-bus').click()
        bus_lines = driver.find_elements(By.CSS_SELECTOR, '#events li.bus')
        expect(any(line.is_displayed() for line in bus_lines), False, 'bus lines filtered out')
    finally:
        driver.quit()

    # Ctrl-C ends the terminal, though it reads its terminal and a release
    # is pending for as long as a configuration can make it: it says what it
    # cut short, its output complete, and its status says it was stopped.
    for line in [b'{"config": {"module": "", "key": "catra_timeout", "value": 2147483647}}',
                 b'{"send": "liberate_catra", "fields": {"catra_direction": "clockwise"}}',
                 b'{"wait_for": {"bus": "catra_state_changed", "fields": [["state", 2]]}}']:
        expect(request('command', line)[0], 200, line)
    stopping = time.monotonic()
    terminal.send_signal(signal.SIGINT)
    expect(terminal.wait(timeout=30), 128 + signal.SIGINT, 'exit code')
    print('Ctrl-C with a release pending: ended in %.2f s' % (time.monotonic() - stopping))
    said = open(err_path).read()
    expect('catra-terminal: stopped by SIGINT, cutting short a release still pending' in said,
           True, 'what was cut short: ' + said)
    expect('expectations met' in said, False, 'posted lines counted: ' + said)
    expect('["event_name","TURN RIGHT"]' in open(out_path).read(), True, 'TURN RIGHT printed')
finally:
    if terminal.poll() is None:
        terminal.kill()
print('live view: 1 passed, 0 failed')
