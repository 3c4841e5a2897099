#!/usr/bin/env python3
"""Python's plistlib as a peer of the property-list codec.

Reads a manifest of jobs, one a line:
  check <plist file> <expression file>   load the plist, compare it with the expression's value
  write <binary|xml> <plist file> <expression file>   write the expression's value with plistlib
An expression file holds a Python expression over the helpers below. Prints one
line per failed job and exits with 1 when any failed.
"""
import datetime
import plistlib
import struct
import sys

EPOCH = datetime.datetime(1970, 1, 1)
HELPERS = {
    'R': lambda bits: struct.unpack('>d', bytes.fromhex(bits))[0],
    'S': lambda utf8: bytes.fromhex(utf8).decode('utf-8'),
    'D': lambda micro: EPOCH + datetime.timedelta(microseconds=micro),
    'B': bytes.fromhex,
}


def difference(a, b, path='$'):
    """None when a and b are the same in kind, order and bits; else where they differ."""
    if type(a) is not type(b):
        return f'{path}: {type(a).__name__} != {type(b).__name__}'
    if isinstance(a, list):
        if len(a) != len(b):
            return f'{path}: {len(a)} elements != {len(b)}'
        for i, (x, y) in enumerate(zip(a, b)):
            found = difference(x, y, f'{path}[{i}]')
            if found:
                return found
        return None
    if isinstance(a, dict):
        if list(a) != list(b):
            return f'{path}: keys {list(a)!r} != {list(b)!r}'
        for key in a:
            found = difference(a[key], b[key], f'{path}[{key!r}]')
            if found:
                return found
        return None
    if isinstance(a, float):
        same = struct.pack('>d', a) == struct.pack('>d', b)
    else:
        same = a == b
    return None if same else f'{path}: {a!r} != {b!r}'


def run(job):
    with open(job[-1], encoding='utf-8') as f:
        expected = eval(f.read(), dict(HELPERS))  # expressions written by the test itself
    if job[0] == 'check':
        with open(job[1], 'rb') as f:
            return difference(expected, plistlib.load(f))
    fmt = plistlib.FMT_BINARY if job[1] == 'binary' else plistlib.FMT_XML
    with open(job[2], 'wb') as f:
        plistlib.dump(expected, f, fmt=fmt, sort_keys=False)
    return None


def main():
    failures = 0
    with open(sys.argv[1], encoding='utf-8') as manifest:
        for line in manifest:
            job = line.split()
            if not job:
                continue
            try:
                problem = run(job)
            except Exception as error:  # report every kind of failure of the peer
                problem = f'{type(error).__name__}: {error}'
            if problem:
                failures += 1
                print(' '.join(job), '->', problem)
    return 1 if failures else 0


if __name__ == '__main__':
    sys.exit(main())
