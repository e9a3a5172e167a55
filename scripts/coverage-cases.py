#!/usr/bin/env python3
"""What each test case alone reaches of src/, to tell cases that pin code no
other case reaches from cases whose code the rest of the suite reaches too.

Runs every CTest case of the coverage tree on its own, with its counters in a
folder of their own (GCOV_PREFIX), reads them with gcov and writes:
  cases.tsv   file, line, case, body lines, lines and branches of src/ that
              only this case reaches (a parameterised case counts as one);
  summary.txt the cases whose lines and branches the remaining cases still
              reach, removed largest first while that holds.
A case in the summary may still be the only one to check a result (bytes, a
message, an order under threads): coverage says what runs, not what is
asserted, so the list is where to look, not what to delete.

Usage: coverage-cases.py BUILD_DIR OUT_DIR [JOBS]
"""
import collections
import glob
import json
import os
import queue
import re
import shutil
import subprocess
import sys
import threading

BUILD, OUT = os.path.abspath(sys.argv[1]), os.path.abspath(sys.argv[2])
JOBS = int(sys.argv[3]) if len(sys.argv) > 3 else 2
ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
SRC = os.path.join(ROOT, 'src') + '/'

listing = subprocess.run(['ctest', '-N', '--test-dir', BUILD], capture_output=True, text=True,
                         check=True).stdout
names = [m.group(1) for m in re.finditer(r'^\s*Test\s+#\d+: (\S+)$', listing, re.M)]
notes = [g for g in glob.glob(BUILD + '/**/*.gcno', recursive=True) if '/src/' in g]


def counters_folder(worker):
    """A folder that mirrors the tree's notes files; each case's counters land beside them."""
    root = f'{OUT}/counters/{worker}'
    shutil.rmtree(root, ignore_errors=True)
    for g in notes:
        os.makedirs(os.path.dirname(root + g), exist_ok=True)
        os.symlink(g, root + g)
    return root


def reached(root):
    """Lines and taken branches of src/ recorded under root."""
    counts = [g for g in glob.glob(root + '/**/*.gcda', recursive=True) if '/src/' in g]
    lines, branches = set(), set()
    if not counts:
        return lines, branches
    out = subprocess.run(['gcov', '--json-format', '--stdout', '--branch-probabilities'] + counts,
                         capture_output=True, text=True, cwd=root).stdout
    for doc in out.splitlines():
        if not doc.startswith('{'):
            continue
        for f in json.loads(doc)['files']:
            path = os.path.normpath(os.path.join(BUILD, f['file']))
            if not path.startswith(SRC):
                continue
            path = os.path.relpath(path, ROOT)
            for line in f['lines']:
                if line['count'] > 0:
                    lines.add((path, line['line_number']))
                for k, b in enumerate(line.get('branches', [])):
                    if b['count'] > 0 and not b.get('throw'):
                        branches.add((path, line['line_number'], k))
    return lines, branches


todo = queue.Queue()
for n in names:
    todo.put(n)
results, failed = {}, []


def work(worker):
    root = counters_folder(worker)
    env = dict(os.environ, GCOV_PREFIX=root, GCOV_PREFIX_STRIP='0')
    while True:
        try:
            name = todo.get_nowait()
        except queue.Empty:
            return
        for g in glob.glob(root + '/**/*.gcda', recursive=True):
            os.remove(g)
        run = subprocess.run(['ctest', '--test-dir', BUILD, '-R', '^' + re.escape(name) + '$'],
                             env=env, capture_output=True, text=True)
        if run.returncode != 0:
            failed.append(name)
        results[name] = reached(root)


os.makedirs(OUT, exist_ok=True)
threads = [threading.Thread(target=work, args=(w,)) for w in range(JOBS)]
for t in threads:
    t.start()
for t in threads:
    t.join()
shutil.rmtree(f'{OUT}/counters', ignore_errors=True)

# Where each TEST/TEST_F/TEST_P body stands and how many lines it has.
bodies = {}
for path in sorted(glob.glob(ROOT + '/tests/*.cpp')):
    text = open(path, encoding='utf-8', errors='replace').read().split('\n')
    for i, line in enumerate(text):
        m = re.match(r'^(?:TEST|TEST_F|TEST_P)\((\w+),\s*(\w+)\)', line)
        if not m:
            continue
        j = i
        while j < len(text) and text[j] != '}':
            j += 1
        size = sum(1 for l in text[i:j + 1] if l.strip() and not l.strip().startswith('//'))
        bodies[f'{m.group(1)}.{m.group(2)}'] = (os.path.basename(path), i + 1, size)


def case_of(name):
    """Suite.Case of a CTest name, with a parameterised case's prefix and index dropped."""
    for part in name.split('/'):
        if '.' in part and part in bodies:
            return part
    return None


cases = collections.defaultdict(lambda: (set(), set()))
others = []
for name, (lines, branches) in results.items():
    c = case_of(name)
    if c is None:
        others.append(name)
        continue
    cases[c][0].update(lines)
    cases[c][1].update(branches)
by_line, by_branch = collections.Counter(), collections.Counter()
for lines, branches in list(cases.values()) + [results[n] for n in others]:
    by_line.update(lines)
    by_branch.update(branches)

rows = []
for c, (lines, branches) in cases.items():
    f, at, size = bodies[c]
    rows.append((f, at, c, size, sum(by_line[x] == 1 for x in lines),
                 sum(by_branch[x] == 1 for x in branches)))
rows.sort()
with open(f'{OUT}/cases.tsv', 'w') as o:
    o.write('file\tline\tcase\tbody lines\tonly lines\tonly branches\n')
    for r in rows:
        o.write('\t'.join(map(str, r)) + '\n')

removable = []
for c in sorted(cases, key=lambda c: -bodies[c][2]):
    lines, branches = cases[c]
    if all(by_line[x] > 1 for x in lines) and all(by_branch[x] > 1 for x in branches):
        by_line.subtract(lines)
        by_branch.subtract(branches)
        removable.append(c)
total = sum(bodies[c][2] for c in cases)
with open(f'{OUT}/summary.txt', 'w') as o:
    o.write(f'{len(names)} CTest cases run alone, {len(failed)} failed {failed}\n')
    o.write(f'{len(cases)} test cases with {total} body lines\n')
    o.write(f'{len(removable)} cases ({sum(bodies[c][2] for c in removable)} body lines) reach '
            'nothing that the remaining cases do not:\n')
    for c in sorted(removable, key=lambda c: bodies[c][:2]):
        f, at, size = bodies[c]
        o.write(f'  {f}:{at}\t{size}\t{c}\n')
print(open(f'{OUT}/summary.txt').read().split('\n', 3)[:3])
sys.exit(1 if failed else 0)
