#!/usr/bin/env python3
"""Which tests kill which mutants, and which tests no kill depends on.

Plants the same faults as the team's mutation tool (its operators and its
sampling, read from MUTATE, default ../shared/tools/mutate.py), but records
every CTest test that fails for each mutant instead of a verdict. Then, per
test: its lines, its kills, the kills no other test makes, and whether a
greedy cover (fewest lines that still kill every killed mutant) keeps it.
A test outside the cover with no kill of its own is a candidate to merge or
drop; check it by hand and against another seed before dropping it.

usage: scripts/kill-matrix.py WORKDIR N SEED GLOB...   (run from the top)
       scripts/kill-matrix.py --report MATRIX.json...
"""
import collections, glob, json, os, random, re, shutil, subprocess, sys, time


def load_mutate():
    path = os.environ.get('MUTATE', os.path.join('..', 'shared', 'tools', 'mutate.py'))
    source = open(path).read().replace('\nmain()\n', '\n')
    namespace = {}
    exec(compile(source, path, 'exec'), namespace)
    return namespace['candidates'], namespace['apply'], namespace['run']


def collect(work, n, seed, globs):
    candidates, apply, run = load_mutate()
    src, build = os.path.join(work, 'src'), os.path.join(work, 'build')
    if not os.path.isdir(src):
        shutil.copytree('.', src, ignore=shutil.ignore_patterns('.git', 'build'))
    if not os.path.isdir(build):
        rc, out = run(f'cmake -S {src} -B {build} -G Ninja -DCMAKE_BUILD_TYPE=Debug '
                      f'-DCMAKE_CXX_FLAGS=-O1 -DVIREO_WARNINGS_AS_ERRORS=OFF', work, 600)
        assert rc == 0, out[-2000:]
    rc, out = run(f'cmake --build {build} -j2', work, 3000)
    assert rc == 0, out[-2000:]
    files = sorted({f for g in globs for f in glob.glob(os.path.join(src, g))})
    sample = [c for f in files for c in candidates(f)]
    random.Random(seed).shuffle(sample)
    results, out_path = [], os.path.join(work, f'matrix-{seed}.json')
    for path, i, k in sample[:n]:
        original = open(path, encoding='utf-8').read()
        before, after = apply(path, i, k)
        start = time.time()
        rc, out = run(f'cmake --build {build} -j2', work, 900)
        failed = None  # did not compile
        if rc == 0:
            rc, out = run(f'ctest --test-dir {build} -j2 --timeout 30', work, 900)
            failed = ['<timeout>'] if rc == 'timeout' else (
                re.findall(r'^\s*\d+ - (\S+) \(', out, re.M) if rc != 0 else [])
        open(path, 'w', encoding='utf-8').write(original)
        os.utime(path, None)
        site = f'{os.path.relpath(path, src)}:{i + 1}'
        results.append({'site': site, 'before': before, 'after': after, 'failed': failed})
        shown = 'compile' if failed is None else len(failed)
        print(f'{shown:>7} {site} {before!r} -> {after!r} ({time.time() - start:.0f}s)', flush=True)
        json.dump(results, open(out_path, 'w'), indent=0)
    run(f'cmake --build {build} -j2', work, 900)
    print('matrix:', out_path)


def test_sizes():
    """Lines of each TEST, up to the next one: helpers between tests count to the one above."""
    size, where = {}, {}
    listed = subprocess.run(['git', 'ls-files', 'Tests'], capture_output=True, text=True).stdout
    for path in listed.split():
        if not path.endswith('.cpp'):
            continue
        lines = open(path, encoding='utf-8').read().split('\n')
        starts = [(i, m) for i, line in enumerate(lines)
                  for m in [re.match(r'TEST(?:_F|_P)?\((\w+),\s*(\w+)\)', line)] if m]
        for j, (i, m) in enumerate(starts):
            end = starts[j + 1][0] if j + 1 < len(starts) else len(lines)
            key = f'{m.group(1)}.{m.group(2)}'
            size[key] = size.get(key, 0) + end - i
            where[key] = f'{path}:{i + 1}'
    return size, where


def test_of(ctest_name):
    # Kinds/EventTest.X/Named -> EventTest.X; a PREFIX. in front goes.
    parts = ctest_name.split('/')
    name = parts[1] if len(parts) >= 2 and '.' in parts[1] else parts[0]
    pieces = name.split('.')
    return '.'.join(pieces[-2:])


def report(paths):
    size, where = test_sizes()
    killers = [set(test_of(t) for t in m['failed'])
               for p in paths for m in json.load(open(p)) if m['failed']]
    kills, own = collections.Counter(), collections.Counter()
    for tests in killers:
        kills.update(tests)
        if len(tests) == 1:
            own.update(tests)
    uncovered, cover = set(range(len(killers))), set()
    while uncovered:
        best = max(kills, key=lambda t: sum(t in killers[i] for i in uncovered) / max(size.get(t, 5), 5))
        got = {i for i in uncovered if best in killers[i]}
        if not got:
            break
        cover.add(best)
        uncovered -= got
    print(f'{len(killers)} killed mutants; the cover keeps {len(cover)} tests '
          f'({sum(size.get(t, 0) for t in cover)} lines)')
    print(f'{"test":72s} lines kills own cover')
    for t in sorted(size, key=lambda t: -size[t]):
        print(f'{t:72s} {size[t]:5d} {kills[t]:5d} {own[t]:3d} {"yes" if t in cover else "-":>5}  {where[t]}')


if __name__ == '__main__':
    if len(sys.argv) > 2 and sys.argv[1] == '--report':
        report(sys.argv[2:])
    elif len(sys.argv) >= 5:
        collect(sys.argv[1], int(sys.argv[2]), int(sys.argv[3]), sys.argv[4:])
    else:
        sys.exit(__doc__)
