"""Turns the driver's results into bench/results.md (tables, ratios, aims) and bench/relay.svg.

Every table cell is the median over the rounds with its spread (min-max); every ratio is taken
within a round (the two programs ran back to back) and then summarised the same way. The part of
results.md below MARKER is written by hand (the profile and its reading) and is kept as it is.
Standard library only.
"""
import datetime
import os
import platform
import statistics
import subprocess
from dataclasses import dataclass
from pathlib import Path

import relay_plot

MARKER = '<!-- Written by hand below this line: scripts/bench keeps it as it is. -->'
PROGRAMS = ('host', 'floor', 'typical', 'plain')
BASELINES = ('floor', 'typical', 'plain')
REGIMES = ('streamed', 'paced')
SIZE_NAMES = {64: '64 B', 1024: '1 KiB', 65536: '64 KiB', 1048576: '1 MiB'}


@dataclass
class Context:
    repository: Path
    build: Path
    python: str
    quick: bool
    load_before: tuple
    load_after: tuple
    seconds: float
    before: Path = None


def number(value, digits=3):
    """A value with `digits` significant digits, thousands separated."""
    if value is None:
        return 'n/a'
    if value == 0:
        return '0'
    magnitude = len(str(int(abs(value)))) if abs(value) >= 1 else 0
    decimals = max(0, digits - magnitude) if abs(value) >= 1 else digits
    return '{:,.{}f}'.format(value, decimals)


def summary(values, digits=3):
    """'median (min–max)' of a list of numbers."""
    values = [v for v in values if v is not None]
    if not values:
        return 'n/a'
    if len(values) == 1:
        return number(values[0], digits)
    return '%s (%s–%s)' % (number(statistics.median(values), digits), number(min(values), digits),
                           number(max(values), digits))


def median(values):
    values = [v for v in values if v is not None]
    return statistics.median(values) if values else None


def select(results, **match):
    return [r for r in results if all(r.get(k) == v for k, v in match.items())]


def values(results, key, **match):
    return [r[key] for r in select(results, **match) if key in r]


def per_round(results, key, combine, left, right, **match):
    """combine(left's value, right's value) for every round in which both were measured."""
    lefts = {r['round']: r[key] for r in select(results, program=left, **match) if key in r}
    rights = {r['round']: r[key] for r in select(results, program=right, **match) if key in r}
    return [combine(lefts[i], rights[i]) for i in sorted(lefts) if i in rights and rights[i]]


def ratio(a, b):
    return a / b


def difference(a, b):
    return a - b


def table(header, rows):
    lines = ['| ' + ' | '.join(header) + ' |', '|' + '---|' * len(header)]
    lines += ['| ' + ' | '.join(str(cell) for cell in row) + ' |' for row in rows]
    return '\n'.join(lines) + '\n'


def git(context, *arguments):
    done = subprocess.run(['git', '-C', str(context.repository)] + list(arguments),
                          capture_output=True, text=True)
    return done.stdout.strip() if done.returncode == 0 else ''


def machine(context):
    cpu = 'unknown CPU'
    with open('/proc/cpuinfo') as info:
        for line in info:
            if line.startswith('model name'):
                cpu = line.split(':', 1)[1].strip()
                break
    with open('/proc/meminfo') as info:
        memory_kib = int(info.readline().split()[1])
    compiler = subprocess.run(['c++', '--version'], capture_output=True, text=True).stdout
    python = subprocess.run([context.python, '--version'], capture_output=True, text=True).stdout
    commit = git(context, 'rev-parse', '--short=12', 'HEAD') or 'unknown'
    dirty = git(context, 'status', '--porcelain', '--untracked-files=no')
    return {
        'date': datetime.datetime.now(datetime.timezone.utc).strftime('%Y-%m-%d %H:%M UTC'),
        'commit': commit + (' (with uncommitted changes in the working tree)' if dirty else ''),
        'subject': git(context, 'log', '-1', '--format=%s'),
        'cpu': cpu,
        'cores': os.cpu_count(),
        'kernel': platform.system() + ' ' + platform.release(),
        'memory': '%.1f GiB' % (memory_kib / 1024 / 1024),
        'compiler': compiler.splitlines()[0] if compiler else 'unknown',
        'python': python.strip(),
    }


def relay_section(results, regime):
    rows = []
    for size, name in SIZE_NAMES.items():
        for program in PROGRAMS:
            match = dict(figure='relay', program=program, size=size, regime=regime)
            frames = values(results, 'frames', **match)
            logged = values(results, 'log_lines', **match)
            lost = [f - l for l, f in zip(logged, frames) if l != f]
            log_text = ('no log' if program == 'floor' else 'no line per frame' if program == 'plain'
                        else 'n/a' if not logged else
                        'all' if not lost else 'lost %d lines in %d runs' % (sum(lost), len(lost)))
            rows.append([name, program, summary(values(results, 'frames_per_s', **match)),
                         summary(values(results, 'mb_per_s', **match)),
                         summary(values(results, 'cpu_us_per_frame', **match)), log_text])
    text = table(['body', 'program', 'frames/s', 'MB/s', 'CPU µs per frame', 'log lines kept'],
                 rows)
    rows = []
    for size, name in SIZE_NAMES.items():
        match = dict(figure='relay', size=size, regime=regime)
        rows.append([name] + [summary(per_round(results, key, ratio, 'host', other, **match), 2)
                              for other in BASELINES
                              for key in ('frames_per_s', 'cpu_us_per_frame')])
    text += '\nRatios, round by round (host ÷ baseline, %s):\n\n' % regime
    text += table(['body'] + ['%s ÷ %s' % (what, other) for other in BASELINES
                              for what in ('throughput', 'CPU/frame')], rows)
    return text


def commands_section(results):
    rows = []
    for command in ('closeTab', 'websiteList'):
        for regime in REGIMES + ('burst',):
            for program in PROGRAMS:
                match = dict(figure='commands', program=program, command=command, regime=regime)
                if not select(results, **match):
                    continue
                rows.append([command, regime, program,
                             summary(values(results, 'commands_per_s', **match)),
                             summary(values(results, 'cpu_us_per_command', **match))] +
                            ([summary(per_round(results, key, ratio, 'host', program,
                                                figure='commands', command=command,
                                                regime=regime), 2)
                              for key in ('commands_per_s', 'cpu_us_per_command')]
                             if program != 'host' else ['', '']))
    text = table(['command', 'regime', 'program', 'commands/s', 'CPU µs per command',
                  'host ÷ this, rate', 'host ÷ this, CPU'], rows)
    rows = []
    for program in PROGRAMS + ('before',):
        runs = select(results, figure='latency', program=program)
        if not runs:
            continue
        pooled = sorted(v for r in runs for v in r.get('latencies_us', []))
        p99 = pooled_p99(results, program)
        rows.append([program, summary([r['p50_us'] for r in runs]),
                     summary([r['p99_us'] for r in runs]), number(p99),
                     number(pooled[-1] if pooled else None), str(len(pooled))])
    text += '\nLatency from the core service\'s write to the frame on standard output, close-tab ' \
            'commands at a steady 1,000 per second (µs; per run, then all runs pooled):\n\n'
    text += table(['program', 'median', 'p99', 'p99, pooled', 'max, pooled', 'commands'], rows)
    return text


def startup_section(results):
    keys = ('start_to_announcement_us', 'notification_to_device_twin_us', 'start_to_device_twin_us')
    rows = []
    for program in ('host', 'bare', 'floor', 'typical', 'plain', 'before'):
        match = dict(figure='startup', program=program)
        if not select(results, **match):
            continue
        rows.append([program] + [summary([v / 1000 for v in values(results, key, **match)])
                                 for key in keys])
    text = table(['program', 'process start → announcement (ms)',
                  'start notification → device-twin request (ms)',
                  'process start → device-twin request (ms)'], rows)
    behind = per_round(results, keys[0], difference, 'host', 'bare', figure='startup')
    share = per_round(results, keys[0], ratio, 'host', 'typical', figure='startup')
    text += '\nRound by round: host − bare bus program, start → announcement: %s ms; ' \
            'host ÷ typical host: %s.\n' % (summary([v / 1000 for v in behind]), summary(share, 2))
    return text


def footprint_section(results):
    rows = []
    for program in PROGRAMS:
        for r in select(results, figure='footprint', program=program):
            rows.append([program,
                         '%s (%s)' % (number(r['rss_start_kib'] / 1024), number(r['private_start_kib'] / 1024)),
                         r['threads_start'],
                         '%s (%s)' % (number(r['rss_relayed_kib'] / 1024), number(r['private_relayed_kib'] / 1024)),
                         r['threads_relayed'],
                         '%s ms, %d wake-ups' % (number(r['idle_cpu_ms']), r['idle_wakeups']),
                         '%s ms, %d wake-ups' % (number(r['outage_cpu_ms']), r['outage_wakeups'])])
    window = next((r['window_s'] for r in results if r.get('figure') == 'footprint'), 0)
    frames = next((r['frames'] for r in results if r.get('figure') == 'footprint'), 0)
    return table(['program', 'RSS after start-up, MiB (private)', 'threads',
                  'RSS after %s frames of 1 KiB, MiB (private)' % '{:,}'.format(frames), 'threads',
                  'CPU idle for %g s' % window, 'CPU during a %g s core-service outage' % window],
                 rows)


def micro_section(micro):
    rows = []
    for entry in micro.get('benchmarks', []):
        if entry.get('run_type') == 'aggregate' and entry.get('aggregate_name') != 'median':
            continue
        name = entry['run_name'] if 'run_name' in entry else entry['name']
        cv = next((e for e in micro['benchmarks'] if e.get('run_name') == name
                   and e.get('aggregate_name') == 'cv'), None)
        rate = entry.get('bytes_per_second')
        rows.append([name, '%s %s' % (number(entry['real_time']), entry['time_unit']),
                     '%.1f %%' % (100 * cv['real_time']) if cv else 'n/a',
                     ('%s MB/s' % number(rate / 1e6)) if rate else ''])
    return table(['benchmark', 'time per call (median)', 'variation (cv)', 'throughput'], rows)


# The paced aims hold the host to the host before the relay was batched (commit 8ddda74, which
# scripts/bench builds as the program "before" and measures in the same rounds): p99 latency
# pooled within a few microseconds of its, start -> announcement within the spread of its rounds.
# Without that program, to its figures in scripts/bench then: p99 pooled, and start ->
# announcement minus the bare bus program's.
BEFORE = {'commit': '8ddda74', 'p99_us': 56.8, 'p99_slack_us': 5.0, 'behind_bare_ms': -0.037,
          'behind_bare_spread_ms': 0.2}


def pooled_p99(results, program):
    pooled = sorted(v for r in select(results, figure='latency', program=program)
                    for v in r.get('latencies_us', []))
    return pooled[int(0.99 * (len(pooled) - 1))] if pooled else None


def aims(results):
    """(aim, what was measured, met) for every aim the figures speak to."""
    found = []

    def within(key, other, **match):
        return median(per_round(results, key, ratio, 'host', other, **match))

    def within_faster(size):
        """host ÷ the faster of the floor and the plain host, round by round."""
        match = dict(figure='relay', regime='streamed', size=size)
        rates = {name: {r['round']: r['frames_per_s'] for r in select(results, program=name, **match)}
                 for name in ('host', 'floor', 'plain')}
        return median([rates['host'][i] / max(rates['floor'][i], rates['plain'][i])
                       for i in rates['host'] if i in rates['floor'] and i in rates['plain']])

    def ratios(key, **match):
        return '%s× the floor, %s× plain' % (number(within(key, 'floor', **match), 2),
                                             number(within(key, 'plain', **match), 2))

    def at_least(value, bound):
        return value is not None and value >= bound

    streamed = dict(figure='relay', regime='streamed')
    small = (64, 1024)
    throughput = {s: within('frames_per_s', 'floor', size=s, **streamed) for s in small}
    found.append(('Streamed relay ≥ 2× the floor\'s frames/s at 64 B and 1 KiB',
                  '; '.join('%s: %s' % (SIZE_NAMES[s], ratios('frames_per_s', size=s, **streamed))
                            for s in small),
                  all(at_least(throughput[s], 2.0) for s in small)))
    large = (65536, 1048576)
    faster = {s: within_faster(s) for s in large}
    found.append(('Streamed relay ≥ the faster of the floor and the plain Python host at 64 KiB '
                  'and 1 MiB',
                  '; '.join('%s: %s (÷ the faster: %s×)' % (
                      SIZE_NAMES[s], ratios('frames_per_s', size=s, **streamed),
                      number(faster[s], 2)) for s in large),
                  all(at_least(faster[s], 1.0) for s in large)))
    cpu = {s: within('cpu_us_per_frame', 'floor', size=s, **streamed) for s in SIZE_NAMES}
    kept = all(r['log_lines'] == r['frames'] for r in select(results, figure='relay', program='host'))
    found.append(('Streamed relay CPU per frame ≤ the floor\'s at every size, every log line kept',
                  '; '.join('%s: %s' % (SIZE_NAMES[s], ratios('cpu_us_per_frame', size=s, **streamed))
                            for s in SIZE_NAMES) + ('; log lines all kept' if kept else '; log lines lost'),
                  kept and all(c is not None and c <= 1.0 for c in cpu.values())))
    burst = dict(figure='commands', command='closeTab', regime='burst')
    found.append(('Streamed command bursts (close-tab, drained in bulk) ≥ 1.0× the floor\'s rate',
                  '%s (CPU per command: %s)' % (ratios('commands_per_s', **burst),
                                                ratios('cpu_us_per_command', **burst)),
                  at_least(within('commands_per_s', 'floor', **burst), 1.0)))
    p99 = pooled_p99(results, 'host')
    floor_p99 = median([r['p99_us'] for r in select(results, figure='latency', program='floor')])
    before_p99 = pooled_p99(results, 'before')
    if before_p99 is not None:
        found.append(('Paced: command latency p99 at 1,000 commands/s no worse than before the '
                      'batching (the host at %s, in the same rounds, plus %g µs)'
                      % (BEFORE['commit'], BEFORE['p99_slack_us']),
                      '%s µs pooled, before: %s µs (per run, host ÷ before: %s; the floor\'s p99: '
                      '%s µs)' % (number(p99), number(before_p99),
                                  summary(per_round(results, 'p99_us', ratio, 'host', 'before',
                                                    figure='latency'), 2), number(floor_p99)),
                      p99 is not None and p99 <= before_p99 + BEFORE['p99_slack_us']))
    else:
        found.append(('Paced: command latency p99 at 1,000 commands/s no worse than before the '
                      'batching (%g µs pooled at %s, plus %g µs)' % (
                          BEFORE['p99_us'], BEFORE['commit'], BEFORE['p99_slack_us']),
                      '%s µs pooled (the floor\'s p99: %s µs)' % (number(p99), number(floor_p99)),
                      p99 is not None and p99 <= BEFORE['p99_us'] + BEFORE['p99_slack_us']))
    foot = {r['program']: r for r in select(results, figure='footprint')}
    if 'host' in foot:
        idle = foot['host']
        found.append(('Paced: no CPU at idle', '%s ms and %d wake-ups in %g s' % (number(idle['idle_cpu_ms']), idle['idle_wakeups'], idle['window_s']),
                      idle['idle_wakeups'] == 0))
    behind_before = median(per_round(results, 'start_to_announcement_us', difference, 'host',
                                     'before', figure='startup'))
    behind = median(per_round(results, 'start_to_announcement_us', difference, 'host', 'bare', figure='startup'))
    if behind_before is not None:
        found.append(('Process start → announcement no later than before the batching (the host '
                      'at %s, in the same rounds, within %s ms)'
                      % (BEFORE['commit'], BEFORE['behind_bare_spread_ms']),
                      '%s ms behind it (%s ms behind the bare bus program)'
                      % (number(behind_before / 1000), number(behind / 1000 if behind is not None else None)),
                      behind_before / 1000 <= BEFORE['behind_bare_spread_ms']))
    else:
        found.append(('Process start → announcement no later, beside the bare bus program, than before '
                      'the batching (%s ms at %s, within the %s ms spread of its rounds)'
                      % (BEFORE['behind_bare_ms'], BEFORE['commit'], BEFORE['behind_bare_spread_ms']),
                      '%s ms behind it' % number(behind / 1000 if behind is not None else None),
                      behind is not None and
                      behind / 1000 <= BEFORE['behind_bare_ms'] + BEFORE['behind_bare_spread_ms']))
    if 'host' in foot:
        rss = max(foot['host']['rss_start_kib'], foot['host']['rss_relayed_kib'])
        private = max(foot['host']['private_start_kib'], foot['host']['private_relayed_kib'])
        found.append(('Resident memory < 4 MiB, private memory < 1 MiB',
                      '%s MiB resident, %s MiB private at most' % (number(rss / 1024), number(private / 1024)),
                      rss < 4096 and private < 1024))
    return found


def write(results, micro, context, bench_dir):
    info = machine(context)
    results_file = bench_dir / 'results.md'
    kept = MARKER + '\n\n(No reading of a profile yet.)\n'
    if results_file.exists():
        text = results_file.read_text()
        if MARKER in text:
            kept = text[text.index(MARKER):]
    relay_plot.write(results, bench_dir / 'relay.svg')
    aim_rows = [[aim, measured, 'met' if met else '**not met**'] for aim, measured, met in aims(results)]
    parts = [
        '# Benchmarks: the host beside the floor and two Python hosts\n',
        'Written by `scripts/bench`%s on %s at commit %s ("%s"), in %.0f s.\n'
        % (' --quick (a smoke test: too few rounds to quote)' if context.quick else '', info['date'],
           info['commit'], info['subject'], context.seconds),
        'Machine: %s, %d cores, %s, %s of memory; load average %.2f before the run, %.2f after. '
        'The machine is shared with other work, so absolute figures drift; ratios within a round are what count. Built as the packages are (RelWithDebInfo: -O2 -g) with %s; typical host on %s.\n'
        % (info['cpu'], info['cores'], info['kernel'], info['memory'], context.load_before[0],
           context.load_after[0], info['compiler'], info['python']),
        'Programs: **host** is `kerrow-native-messaging-host` as shipped, logging as in production '
        '(a log file under a temporary `XDG_STATE_HOME`); **floor** is `bench/baselines/floor_relay.cc`, '
        'the smallest correct relay in C++ (same framing on both sides, the `kerrow.tabList` suffix, '
        'commands turned into the same frames; no log, no JSON library, no bus); **typical** is '
        '`bench/baselines/typical_host.py`, the same relay in plain Python 3 as such hosts are usually '
        'written, logging the same lines with the logging module; **bare** is '
        '`bench/baselines/bare_bus_post.cc`, which only opens the session bus and posts one signal; '
        '**plain** is `bench/baselines/plain_host.py`, the typical host as the smallest hosts are '
        'written: `sys.stdin.buffer`, no log line per frame or command, no decoding of messages.%s\n'
        % (' **before** is the host at commit %s, before the relay was batched, built the same way '
           '(paced figures only).' % BEFORE['commit'] if context.before else ''),
        'Each cell is the median over the rounds with the range (min–max) in brackets. Rounds '
        'interleave the programs (the order rotates each round) and every ratio is taken within '
        'a round, so that the machine\'s drift falls on both sides of it.\n',
        '## Aims\n', table(['aim', 'measured', ''], aim_rows),
        '## Relay, extension → core service\n',
        'Frames written to standard input as fast as the program takes them, each read back at the '
        'core service (length and suffix checked; the first byte for byte). CPU is the program\'s '
        'own (all its threads, from /proc/<pid>/task/*/schedstat) during the run. **Streamed**: '
        'the feeder writes many frames per write (about 256 KiB), so frames wait in the pipe back '
        'to back as in a browser\'s pipe when the extension sends faster than the program reads. '
        '**Paced**: one frame per write.\n',
        '### Streamed\n', relay_section(results, 'streamed'),
        '### Paced\n', relay_section(results, 'paced'),
        '\n![Relay figures](relay.svg)\n',
        '## Commands, core service → extension\n',
        'Commands written to the program\'s socket as fast as it takes them (streamed: many per '
        'write; paced: one per write); every frame on its standard output is checked, one by one. '
        '**Burst**: close-tab commands written as streamed while the browser side drains standard '
        'output as fast as it can, in reads as large as the pipe gives, each compared with the '
        'bytes expected there (the regime a user meets when the core service sends many commands '
        'at once; the plain host takes part, the typical one not). `websiteList` is an allow list '
        'of 1,000 sites (21 KB).\n',
        commands_section(results),
        '## Start-up\n',
        'Process start is the moment before `posix_spawn`; the announcement and the device-twin '
        'request are the moments the driver (on the same private bus, as the core service) '
        'receives them. The floor has no bus: it connects at once.\n',
        startup_section(results),
        '## Footprint\n',
        'All four side by side, each in its own session. Idle: nothing happens for the window. '
        'Outage: the core service closes its connection and removes its socket for the window (the '
        'programs try to reconnect). Wake-ups are context switches summed over threads.\n',
        footprint_section(results),
        '## Micro-benchmarks (Google Benchmark, bench/micro)\n',
        'Three repetitions; the median and the coefficient of variation across them. The log '
        'benchmarks write a real file; ReadFrame reads back-to-back frames from an in-memory file, '
        'system calls included. (Debian\'s libbenchmark warns that it was built as DEBUG: that is '
        'the library itself; the code measured is built as the packages are, -O2.)\n',
        micro_section(micro),
        '## How to run\n',
        '`scripts/bench` (about five minutes on two cores; `--quick` for a smoke test, '
        '`--profile` to add callgrind profiles of the host under `build-bench/profile/`). The '
        'raw results of the last run are in `build-bench/bench/raw.jsonl`.\n',
        kept,
    ]
    results_file.write_text('\n'.join(part.rstrip('\n') + '\n' for part in parts))
