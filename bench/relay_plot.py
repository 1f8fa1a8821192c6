"""bench/relay.svg: the relay figures of the four programs against the body size, in both
regimes (streamed: solid lines; paced: dashed), drawn by hand as SVG (standard library only).
Three panels: frames/s, MB/s and CPU µs per frame, both axes logarithmic; a point is the median
over the rounds, its bar the range (min-max)."""
import math
import statistics

PROGRAMS = (('host', '#1f77b4', 'host'), ('floor', '#2ca02c', 'floor (C++)'),
            ('typical', '#d62728', 'typical host (Python)'),
            ('plain', '#ff7f0e', 'plain host (Python)'))
REGIMES = (('streamed', None), ('paced', '5,3'))
SIZES = ((64, '64 B'), (1024, '1 KiB'), (65536, '64 KiB'), (1048576, '1 MiB'))
PANELS = (('frames_per_s', 'frames per second'), ('mb_per_s', 'MB per second'),
          ('cpu_us_per_frame', 'CPU µs per frame'))
WIDTH, HEIGHT = 330, 300
LEFT, RIGHT, TOP, BOTTOM = 62, 24, 34, 46


def _points(results, key, program, regime=None):
    points = []
    for size, _ in SIZES:
        found = [r[key] for r in results if r.get('figure') == 'relay' and r.get('program') == program
                 and r.get('size') == size and r.get(key) and regime in (None, r.get('regime'))]
        if found:
            points.append((size, statistics.median(found), min(found), max(found)))
    return points


def _panel(results, key, title, x0):
    everything = [v for program, _, _ in PROGRAMS for p in _points(results, key, program) for v in p[1:]]
    if not everything:
        return []
    low = math.floor(math.log10(min(everything)))
    high = math.ceil(math.log10(max(everything)))
    high = high if high > low else low + 1
    plot_w, plot_h = WIDTH - LEFT - RIGHT, HEIGHT - TOP - BOTTOM

    def x(size):
        span = math.log2(SIZES[-1][0]) - math.log2(SIZES[0][0])
        return x0 + LEFT + plot_w * (math.log2(size) - math.log2(SIZES[0][0])) / span

    def y(value):
        return TOP + plot_h * (1 - (math.log10(value) - low) / (high - low))

    out = ['<text x="%g" y="20" font-size="13" text-anchor="middle" font-weight="bold">%s</text>'
           % (x0 + LEFT + plot_w / 2, title),
           '<rect x="%g" y="%g" width="%g" height="%g" fill="none" stroke="#999"/>'
           % (x0 + LEFT, TOP, plot_w, plot_h)]
    for exponent in range(low, high + 1):
        out.append('<line x1="%g" x2="%g" y1="%g" y2="%g" stroke="#ddd"/>'
                   % (x0 + LEFT, x0 + LEFT + plot_w, y(10 ** exponent), y(10 ** exponent)))
        label = '{:,}'.format(10 ** exponent) if exponent >= 0 else '%g' % 10 ** exponent
        out.append('<text x="%g" y="%g" font-size="10" text-anchor="end">%s</text>'
                   % (x0 + LEFT - 4, y(10 ** exponent) + 3, label))
    for size, name in SIZES:
        out.append('<text x="%g" y="%g" font-size="10" text-anchor="middle">%s</text>'
                   % (x(size), TOP + plot_h + 14, name))
    out.append('<text x="%g" y="%g" font-size="10" text-anchor="middle">body size</text>'
               % (x0 + LEFT + plot_w / 2, TOP + plot_h + 28))
    for (program, colour, _), (regime, dashes) in ((p, r) for p in PROGRAMS for r in REGIMES):
        points = _points(results, key, program, regime)
        if not points:
            continue
        out.append('<polyline fill="none" stroke="%s" stroke-width="2"%s points="%s"/>'
                   % (colour, ' stroke-dasharray="%s"' % dashes if dashes else '',
                      ' '.join('%.1f,%.1f' % (x(s), y(m)) for s, m, _, _ in points)))
        for size, middle, least, most in points:
            out.append('<line x1="%.1f" x2="%.1f" y1="%.1f" y2="%.1f" stroke="%s"/>'
                       % (x(size), x(size), y(least), y(most), colour))
            out.append('<circle cx="%.1f" cy="%.1f" r="3" fill="%s"/>' % (x(size), y(middle), colour))
    return out


def write(results, path):
    total_width = WIDTH * len(PANELS)
    out = ['<svg xmlns="http://www.w3.org/2000/svg" width="%d" height="%d" '
           'font-family="sans-serif" viewBox="0 0 %d %d">' % (total_width, HEIGHT + 24, total_width, HEIGHT + 24),
           '<rect width="100%" height="100%" fill="white"/>']
    for index, (key, title) in enumerate(PANELS):
        out += _panel(results, key, title, index * WIDTH)
    legend_x = 20
    for _, colour, label in PROGRAMS:
        out.append('<rect x="%d" y="%d" width="14" height="4" fill="%s"/>' % (legend_x, HEIGHT + 6, colour))
        out.append('<text x="%d" y="%d" font-size="11">%s</text>' % (legend_x + 18, HEIGHT + 12, label))
        legend_x += 30 + 7 * len(label)
    out.append('<text x="%d" y="%d" font-size="10" fill="#555">solid: streamed, dashed: paced; '
               'medians, bars min–max; log scales</text>' % (legend_x + 10, HEIGHT + 12))
    out.append('</svg>')
    path.write_text('\n'.join(out) + '\n')
