#!/usr/bin/env python3
"""Letter latency to the live view's pages, beside its floor: catra-terminal
with --http, PAGES pages reading /events, and RUNS times a controller letter
posted ({"controller": "l"}): the time from the post until each page has the
plug-in's "catra_event" for it. The floor is the same event printed on the
terminal's standard output, in the same runs. Also the terminal's peak
resident set. Nothing is asserted.

    live_view_bench.py TERMINAL CONFIG [PAGES] [RUNS]     defaults: 10 200
"""
import json
import os
import re
import socket
import statistics
import subprocess
import sys
import threading
import time
import urllib.request

terminal, config = sys.argv[1:3]
pages = int(sys.argv[3]) if len(sys.argv) > 3 else 10
runs = int(sys.argv[4]) if len(sys.argv) > 4 else 200
EVENT = '["event_name","EVENT_READY"]'

process = subprocess.Popen([terminal, '--config', config, '--http', '0', '--json'],
                           stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                           text=True)
url = None
while url is None:
    found = re.search(r'the live view is at (http://\S+/)', process.stderr.readline())
    url = found and found[1]
host, port = re.match(r'http://(.*):(\d+)/', url).groups()
seen = {}  # who -> times the event arrived
lock = threading.Condition()


def note(who, when):
    with lock:
        seen.setdefault(who, []).append(when)
        lock.notify_all()


def page(number):
    connection = socket.create_connection((host, int(port)))
    connection.sendall(b'GET /events HTTP/1.1\r\nHost: %s:%s\r\n\r\n' % (host.encode(), port.encode()))
    stream = connection.makefile('rb')
    for line in stream:
        if EVENT.encode() in line:
            note(number, time.monotonic())


def printed():
    for line in process.stdout:
        if EVENT in line:
            note('floor', time.monotonic())


def post(line):
    urllib.request.urlopen(urllib.request.Request(url + 'command', data=line.encode()), timeout=30)


threading.Thread(target=printed, daemon=True).start()
while True:  # posted lines run once the start-up is over
    try:
        post('{"note": "started"}')
        break
    except OSError:
        time.sleep(0.1)
for number in range(pages):
    threading.Thread(target=page, args=(number,), daemon=True).start()
latencies = {'pages': [], 'floor': []}
for run in range(runs):
    with lock:
        counts = {who: len(times) for who, times in seen.items()}
    started = time.monotonic()
    post('{"controller": "l"}')
    with lock:
        lock.wait_for(lambda: all(len(seen.get(who, [])) > counts.get(who, 0)
                                  for who in list(range(pages)) + ['floor']), timeout=30)
        for who in list(range(pages)) + ['floor']:
            arrived = seen.get(who, [])[counts.get(who, 0):]
            if arrived:
                latencies['floor' if who == 'floor' else 'pages'].append(arrived[0] - started)
status = open('/proc/%d/status' % process.pid).read()
peak = re.search(r'VmHWM:\s+(\d+) kB', status)[1]
process.terminate()
process.wait()


def figures(values):
    values = sorted(values)
    return '%7.2f ms median, %7.2f ms p99 (%d)' % (
        statistics.median(values) * 1000, values[int(len(values) * 0.99) - 1] * 1000, len(values))


print('letter to %d pages: %s' % (pages, figures(latencies['pages'])))
print('floor, printed:    %s' % figures(latencies['floor']))
print('peak resident set: %s KiB' % peak)
