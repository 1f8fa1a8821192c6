#!/usr/bin/env python3
"""Runs every benchmark of bench/ and writes bench/results.md and bench/relay.svg.

The host, the floor (baselines/floor_relay.cc), the typical host (baselines/typical_host.py) and
the plain host (baselines/plain_host.py) are measured by kerrow-bench-driver in the same run,
interleaved: each round measures every program once per figure, in an order that rotates from
round to round, so that a slow spell of the machine touches all of them alike. Ratios are taken
within a round and then summarised. Relay and command bursts are measured in two regimes:
streamed (the feeder writes many frames per write, as a browser's pipe holds them when the
extension sends faster than the program reads) and paced (one frame per write); close-tab
commands also in a burst, written in large writes while the browser side drains standard output
as fast as it can.

Usage: bench/run.py --build BUILD_DIR [--before HOST] [--quick] [--profile]
  --before   the host built from an earlier commit (scripts/bench builds it): the paced figures
             (command latency, start-up) measure it beside the host, round by round
  --quick    fewer rounds and shorter windows (a smoke test, not for the record)
  --profile  also run the host under callgrind (relay and commands) into BUILD_DIR/profile/
Standard library only.
"""
import argparse
import json
import os
import shutil
import subprocess
import sys
import time
from pathlib import Path

sys.dont_write_bytecode = True  # no __pycache__ in the source tree
import report  # noqa: E402  (after the line above)

REPOSITORY = Path(__file__).resolve().parent.parent
PYTHON = '/usr/bin/python3' if os.path.exists('/usr/bin/python3') else sys.executable


class Plan:
    """How much of each figure to measure."""

    def __init__(self, quick):
        self.rounds = 2 if quick else 5
        # Frames per run by body size, for the C++ programs and for the (slower) Python one: each
        # run lasts a few tenths of a second; rates are compared, not totals.
        self.relay_frames = {64: (40000, 10000), 1024: (40000, 10000), 65536: (5000, 1000),
                             1048576: (100, 50)}
        self.command_counts = {'closeTab': 5000, 'websiteList': 500}
        # The close-tab burst (C++ programs, plain Python host): long enough to outlast start-up
        # noise at a million commands per second.
        self.burst_counts = (40000, 10000)
        self.latency_rounds = 1 if quick else 8
        self.latency_count = 600 if quick else 1600
        self.latency_warm_up = 100
        self.startup_rounds = 5 if quick else 15
        self.footprint_frames = 100000
        self.footprint_window_ms = 2000 if quick else 10000
        self.micro_min_time = '0.05' if quick else '0.2'
        self.micro_repetitions = 1 if quick else 3


def programs(build, before):
    bin_dir = build / 'bin'
    found = {
        'host': 'host=host:%s,chrome-extension://kerrow/' % (bin_dir / 'kerrow-native-messaging-host'),
        'floor': 'floor=floor:%s' % (bin_dir / 'kerrow-bench-floor'),
        'typical': 'typical=typical:%s,%s' % (PYTHON, REPOSITORY / 'bench' / 'baselines' / 'typical_host.py'),
        'plain': 'plain=typical:%s,%s' % (PYTHON, REPOSITORY / 'bench' / 'baselines' / 'plain_host.py'),
        'bare': 'bare=bare:%s' % (bin_dir / 'kerrow-bench-bare-bus'),
    }
    if before:
        found['before'] = 'before=host:%s,chrome-extension://kerrow/' % before
    return found


RELAYING = ['host', 'floor', 'typical', 'plain']
REGIMES = ('streamed', 'paced')
# The command burst: the core service writes close-tab commands in large writes and the browser
# side drains standard output in bulk (the driver's burst regime).
BURSTING = ['host', 'floor', 'plain']


def rotated(items, round_index):
    shift = round_index % len(items)
    return items[shift:] + items[:shift]


class Runner:
    def __init__(self, build, raw_file, before=None):
        self.driver = str(build / 'bin' / 'kerrow-bench-driver')
        self.programs = programs(build, before)
        # The paced figures' programs: the host built from an earlier commit too, when given.
        self.paced = ['before'] if before else []
        self.raw = raw_file
        self.results = []

    def measure(self, figure, names, round_index, **options):
        command = [self.driver, figure]
        for name in names:
            command += ['--program', self.programs[name]]
        for key, value in options.items():
            command += ['--' + key.replace('_', '-'), str(value)]
        done = subprocess.run(command, capture_output=True, text=True)
        if done.returncode != 0:
            raise SystemExit('bench: %s failed:\n%s' % (' '.join(command), done.stderr))
        for line in done.stdout.splitlines():
            result = json.loads(line)
            result['round'] = round_index
            self.raw.write(json.dumps(result) + '\n')
            self.results.append(result)

    def relay(self, plan):
        for round_index in range(plan.rounds):
            for size, (frames, python_frames) in plan.relay_frames.items():
                for regime in REGIMES:
                    for name in rotated(RELAYING, round_index):
                        self.measure('relay', [name], round_index, size=size, regime=regime,
                                     frames=python_frames if name in ('typical', 'plain') else frames)
            print('bench: relay round %d of %d done' % (round_index + 1, plan.rounds), flush=True)

    def commands(self, plan):
        for round_index in range(plan.rounds):
            for command, count in plan.command_counts.items():
                for regime in REGIMES:
                    for name in rotated(RELAYING, round_index):
                        self.measure('commands', [name], round_index, command=command, count=count,
                                     sites=1000, regime=regime)
            for name in rotated(BURSTING, round_index):
                self.measure('commands', [name], round_index, command='closeTab', regime='burst',
                             count=plan.burst_counts[1 if name == 'plain' else 0])
        print('bench: command rate done', flush=True)
        for round_index in range(plan.latency_rounds):
            for name in rotated(RELAYING + self.paced, round_index):
                self.measure('latency', [name], round_index, rate=1000, count=plan.latency_count,
                             warm_up=plan.latency_warm_up)
        print('bench: command latency done', flush=True)

    def startup(self, plan):
        for round_index in range(plan.startup_rounds):
            for name in rotated(['host', 'bare', 'floor', 'typical', 'plain'] + self.paced,
                                round_index):
                self.measure('startup', [name], round_index)
        print('bench: start-up done', flush=True)

    def footprint(self, plan):
        self.measure('footprint', RELAYING, 0, frames=plan.footprint_frames,
                     window_ms=plan.footprint_window_ms, timeout_ms=120000)
        print('bench: footprint done', flush=True)


def micro_benchmarks(build, plan, out_file):
    binary = build / 'bin' / 'kerrow-micro-benchmarks'
    subprocess.run([str(binary), '--benchmark_format=console', '--benchmark_out_format=json',
                    '--benchmark_out=%s' % out_file, '--benchmark_min_time=%s' % plan.micro_min_time,
                    '--benchmark_repetitions=%d' % plan.micro_repetitions,
                    '--benchmark_report_aggregates_only=true'], check=True)
    with open(out_file) as micro:
        return json.load(micro)


PERF_EVENTS = ('syscalls:sys_enter_read', 'syscalls:sys_enter_recvfrom', 'syscalls:sys_enter_poll',
               'syscalls:sys_enter_sendmsg', 'syscalls:sys_enter_writev', 'syscalls:sys_enter_write',
               'syscalls:sys_enter_madvise', 'page-faults', 'context-switches', 'task-clock')
# What perf stat counts around: (name, figure, options, frames or commands in it).
COUNTED = (('1024', 'relay', {'size': 1024, 'frames': 40000}, 40000),
           ('1048576', 'relay', {'size': 1048576, 'frames': 100}, 100),
           ('close-tab-burst', 'commands', {'command': 'closeTab', 'count': 40000, 'regime': 'burst'},
            40000))


def count_events(build, runner):
    """System calls, page faults and CPU per relayed frame (and per command of a close-tab burst)
    of the host and the floor, counted by perf stat around the program (where perf may count
    them)."""
    directory = build / 'profile'
    directory.mkdir(exist_ok=True)
    # Per frame or command; perf gives task-clock in milliseconds, shown here in microseconds.
    lines = ['program work count ' + ' '.join(e.split(':')[-1].replace('sys_enter_', '') + '/frame' for e in PERF_EVENTS[:-1])
             + ' cpu-us/frame']
    for name in ('host', 'floor'):
        for work, figure, options, frames in COUNTED:
            out = directory / ('perf-%s-%s.txt' % (name, work))
            wrapper = ['perf', 'stat', '-x', ':', '-o', str(out)]
            for event in PERF_EVENTS:
                wrapper += ['-e', event]
            runner.measure(figure, [name], 0, wrapper=','.join(wrapper + ['--']), **options)
            counts = {}
            for line in out.read_text().splitlines():
                fields = line.split(':')
                if len(fields) > 2 and fields[0].replace('.', '').isdigit():
                    counts[fields[2] if not fields[2].startswith('sys') else fields[2] + ':' + fields[3]] = float(fields[0])
            lines.append('%s %s %d ' % (name, work, frames) + ' '.join(
                '%.2f' % (counts.get(event, 0) * (1000 if event == 'task-clock' else 1) / frames)
                for event in PERF_EVENTS))
    (directory / 'events.txt').write_text('\n'.join(lines) + '\n')
    print('bench: event counts written to %s' % (directory / 'events.txt'), flush=True)


def memory_maps(build, runner):
    """Where the resident pages of the host and the floor lie, by mapping, after start-up and after
    10,000 relayed frames (from /proc/<pid>/smaps)."""
    directory = build / 'profile'
    runner.measure('footprint', ['host', 'floor'], 0, frames=10000, window_ms=0,
                   memory_maps=directory)
    lines = []
    for smaps in sorted(directory.glob('*.smaps')):
        resident, private, name = {}, {}, None
        for line in smaps.read_text().splitlines():
            fields = line.split()
            if '-' in fields[0] and len(fields) >= 5 and not fields[0].endswith(':'):
                name = os.path.basename(fields[5]) if len(fields) > 5 else '[anonymous]'
            elif fields[0] == 'Rss:':
                resident[name] = resident.get(name, 0) + int(fields[1])
            elif fields[0] in ('Private_Clean:', 'Private_Dirty:'):
                private[name] = private.get(name, 0) + int(fields[1])
        lines.append('%s: %d KiB resident, %d KiB private' % (
            smaps.stem, sum(resident.values()), sum(private.values())))
        for name, kib in sorted(resident.items(), key=lambda item: -item[1]):
            if kib:
                lines.append('  %6d KiB (private %5d)  %s' % (kib, private.get(name, 0), name))
    (directory / 'memory.txt').write_text('\n'.join(lines) + '\n')
    print('bench: resident pages by mapping written to %s' % (directory / 'memory.txt'), flush=True)


def profile(build, runner):
    """The host under callgrind: 20,000 relayed 1 KiB frames, a burst of 20,000 close-tab
    commands and 300 allow lists of 1,000 sites, each with its summary (callgrind_annotate
    --inclusive=yes)."""
    directory = build / 'profile'
    directory.mkdir(exist_ok=True)
    for name, figure, options in (
            ('relay', 'relay', {'size': 1024, 'frames': 20000}),
            ('close-tab', 'commands', {'command': 'closeTab', 'count': 20000, 'regime': 'burst'}),
            ('website-list', 'commands', {'command': 'websiteList', 'count': 300, 'sites': 1000})):
        out = directory / ('host-%s.callgrind' % name)
        wrapper = 'valgrind,--tool=callgrind,--callgrind-out-file=%s' % out
        runner.measure(figure, ['host'], 0, wrapper=wrapper, timeout_ms=600000, **options)
        with open(directory / ('host-%s.txt' % name), 'w') as summary:
            subprocess.run(['callgrind_annotate', '--inclusive=yes', str(out)], stdout=summary,
                           check=True)
        print('bench: profile of the %s written to %s' % (name, directory), flush=True)
    memory_maps(build, runner)
    if shutil.which('perf') and subprocess.run(['perf', 'stat', '-e', 'syscalls:sys_enter_read', 'true'],
                                               capture_output=True).returncode == 0:
        count_events(build, runner)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument('--build', required=True, type=Path)
    parser.add_argument('--before', type=Path)
    parser.add_argument('--quick', action='store_true')
    parser.add_argument('--profile', action='store_true')
    arguments = parser.parse_args()
    build = arguments.build.resolve()
    plan = Plan(arguments.quick)
    bench_out = build / 'bench'
    bench_out.mkdir(exist_ok=True)

    load_before = os.getloadavg()
    started = time.time()
    with open(bench_out / 'raw.jsonl', 'w') as raw:
        runner = Runner(build, raw, arguments.before.resolve() if arguments.before else None)
        runner.relay(plan)
        runner.commands(plan)
        runner.startup(plan)
        runner.footprint(plan)
        micro = micro_benchmarks(build, plan, bench_out / 'micro.json')
    if arguments.profile:
        # Runs under a profiler are slow by design: they stay out of the figures.
        with open(bench_out / 'profile.jsonl', 'w') as raw:
            profile(build, Runner(build, raw))
    context = report.Context(
        repository=REPOSITORY, build=build, python=PYTHON, quick=arguments.quick,
        load_before=load_before, load_after=os.getloadavg(), seconds=time.time() - started,
        before=arguments.before)
    report.write(runner.results, micro, context, REPOSITORY / 'bench')
    print('bench: wrote bench/results.md and bench/relay.svg (%.0f s)' % context.seconds)


if __name__ == '__main__':
    main()
