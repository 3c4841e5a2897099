#!/usr/bin/env python3
"""plistlib as a peer of the codec. Manifest lines: `check <plist> <expr>` compares the loaded plist with the
expression's value; `write <binary|xml> <plist> <expr>` dumps it. Prints failed jobs; exits 1 if any."""
import datetime
import plistlib
import struct
import sys

EPOCH = datetime.datetime(1970, 1, 1)
HELPERS = {
    'R': lambda bits: struct.unpack('>d', struct.pack('>Q', bits))[0],
    'S': lambda utf8: bytes.fromhex(utf8).decode('utf-8'),
    'D': lambda micro: EPOCH + datetime.timedelta(microseconds=micro),
    'B': bytes.fromhex,
}


def difference(a, b, path='$'):
    """None when a and b are the same in kind, order and bits; else where they differ."""
    if type(a) is not type(b):
        return f'{path}: {type(a).__name__} != {type(b).__name__}'
    if isinstance(a, (list, dict)):
        if len(a) != len(b) or (isinstance(a, dict) and list(a) != list(b)):
            return f'{path}: {a!r} != {b!r}'
        keys = list(a) if isinstance(a, dict) else range(len(a))
        return next((d for k in keys if (d := difference(a[k], b[k], f'{path}[{k!r}]'))), None)
    same = struct.pack('>d', a) == struct.pack('>d', b) if isinstance(a, float) else a == b
    return None if same else f'{path}: {a!r} != {b!r}'


def run(job):
    expected = eval(job[-1], dict(HELPERS))  # expressions written by the test itself
    if job[0] == 'check':
        with open(job[1], 'rb') as f:
            return difference(expected, plistlib.load(f))
    with open(job[2], 'wb') as f:
        plistlib.dump(expected, f, fmt=plistlib.FMT_BINARY if job[1] == 'binary' else plistlib.FMT_XML, sort_keys=False)


failures = 0
with open(sys.argv[1], encoding='utf-8') as manifest:
    for job in filter(None, (line.rstrip().split(maxsplit=2 if line.startswith('check') else 3) for line in manifest)):
        try:
            problem = run(job)
        except Exception as error:  # report every kind of failure of the peer
            problem = f'{type(error).__name__}: {error}'
        if problem:
            failures += 1
            print(' '.join(job)[:200], '->', problem)
sys.exit(1 if failures else 0)
