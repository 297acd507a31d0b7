"""The curves of a run as one drawing: temperatures above, fan speeds below, on one time axis."""

import html
import math

WIDTH, LEFT, RIGHT = 960, 58, 132
TOP, PANEL, GAP, BOTTOM = 58, 210, 40, 44
LARGEST_GAP = 2.5  # seconds between samples that still make one line
LABEL_HEIGHT = 15
TICKS = 5
CHARACTER = 13  # width of a Chinese character of a mode's name


def nice_step(span, count):
    """The smallest of 1, 2, 5 × 10ⁿ that divides the span into at most `count` steps."""
    rough = max(span, 1e-9) / count
    power = 10 ** math.floor(math.log10(rough))
    return next(power * m for m in (1, 2, 5, 10) if power * m >= rough * 0.999)


def nice_range(values, at_least_from=None):
    low, high = min(values), max(values)
    low = low if at_least_from is None else min(low, at_least_from)
    step = nice_step(max(high - low, 1), TICKS)
    return math.floor(low / step) * step, math.ceil(high / step) * step, step


def ticks(low, high, step):
    return [low + i * step for i in range(round((high - low) / step) + 1)]


class Series:
    def __init__(self, name, colour, points, stepped=False):
        self.name = name
        self.colour = colour  # the number of a style: --c0, --c1 …
        self.points = points  # (seconds, value or None)
        self.stepped = stepped  # a target: holds its value until the next

    def runs(self):
        """The points in runs without a gap."""
        run = []
        for point in self.points:
            gap = run and point[0] - run[-1][0] > LARGEST_GAP
            if run and (gap or point[1] is None):
                yield run
                run = []
            if point[1] is not None:
                run.append(point)
        if run:
            yield run


class Panel:
    def __init__(self, title, unit, series, top, seconds, at_least_from=None):
        self.title, self.unit, self.series, self.top = title, unit, series, top
        self._seconds = seconds
        values = [v for one in series for _, v in one.points if v is not None]
        self.low, self.high, self.step = nice_range(values, at_least_from)

    def y(self, value):
        return self.top + PANEL * (1 - (value - self.low) / (self.high - self.low))

    def draw(self):
        yield (f'<text class="title" x="{LEFT}" y="{self.top - 10}">{self.title}'
               f'<tspan class="unit" dx="6">{self.unit}</tspan></text>')
        for value in ticks(self.low, self.high, self.step):
            y = self.y(value)
            yield (f'<line class="grid" x1="{LEFT}" x2="{WIDTH - RIGHT}" y1="{y:.1f}" '
                   f'y2="{y:.1f}"/>')
            yield (f'<text class="tick" text-anchor="end" x="{LEFT - 8}" y="{y + 4:.1f}">'
                   f'{value:g}</text>')
        for one in self.series:
            for run in one.runs():
                kind = "target" if one.stepped else "curve"
                yield f'<path class="{kind} s{one.colour}" d="{self._path(run, one.stepped)}"/>'
        yield from self._labels()

    def _path(self, run, stepped):
        commands, last = [], None
        for seconds, value in run:
            x, y = f"{across(seconds, self._seconds):.1f}", f"{self.y(value):.1f}"
            if last is None:
                commands.append(f"M{x} {y}")
            elif stepped:
                commands.append(f"H{x}V{y}")
            else:
                commands.append(f"L{x} {y}")
            last = value
        return "".join(commands)

    def _labels(self):
        """Each curve's name and last value at its end, moved apart where they would touch."""
        ends = []
        for one in self.series:
            known = [point for point in one.points if point[1] is not None]
            if known and not one.stepped:
                ends.append([self.y(known[-1][1]), one, known[-1][1]])
        ends.sort(key=lambda end: end[0])
        for above, below in zip(ends, ends[1:]):
            below[0] = max(below[0], above[0] + LABEL_HEIGHT)
        overflow = max(0, ends[-1][0] - (self.top + PANEL)) if ends else 0
        for y, one, value in ends:
            yield (f'<text class="end f{one.colour}" x="{WIDTH - RIGHT + 8}" '
                   f'y="{y - overflow + 4:.1f}">{html.escape(one.name)} · {value:.0f}</text>')


def across(seconds, whole):
    return LEFT + (WIDTH - LEFT - RIGHT) * seconds / whole


def bands(spans, seconds, bottom):
    """The modes: a tint each, its name above."""
    for number, (start, end, word, title) in enumerate(spans):
        left, right = across(start, seconds), across(end, seconds)
        kind = "system" if word == "automatic" else f"held{number % 2}"
        yield (f'<rect class="band {kind}" x="{left:.1f}" y="{TOP - 32}" '
               f'width="{right - left:.1f}" height="{bottom - TOP + 32}"/>')
        yield (f'<line class="change" x1="{left:.1f}" x2="{left:.1f}" y1="{TOP - 32}" '
               f'y2="{bottom}"/>')
        room = int((right - left - 8) / CHARACTER)
        shown = title if len(title) <= room else title[:max(room - 1, 0)] + "…"
        if room >= 2:
            yield (f'<text class="mode" text-anchor="middle" x="{(left + right) / 2:.1f}" '
                   f'y="{TOP - 38}">{html.escape(shown)}</text>')


def markers(events, seconds, bottom):
    """What was done besides: a numbered mark on the time axis."""
    for number, (t, text) in enumerate(events, 1):
        x = across(t, seconds)
        yield f'<line class="event" x1="{x:.1f}" x2="{x:.1f}" y1="{TOP}" y2="{bottom}"/>'
        yield (f'<g><title>{html.escape(text)}</title><circle class="mark" cx="{x:.1f}" '
               f'cy="{bottom}" r="8"/><text class="number" text-anchor="middle" x="{x:.1f}" '
               f'y="{bottom + 4}">{number}</text></g>')


def time_axis(seconds, bottom):
    for t in ticks(0, seconds, nice_step(seconds, 10)):
        if t <= seconds:
            yield (f'<text class="tick" text-anchor="middle" x="{across(t, seconds):.1f}" '
                   f'y="{bottom + 24}">{t:g}</text>')
    yield (f'<text class="unit" text-anchor="end" x="{WIDTH - RIGHT}" '
           f'y="{bottom + 40}">时间（秒）</text>')


def readings(samples, seconds, bottom):
    """A tooltip for every second."""
    width = (WIDTH - LEFT - RIGHT) / max(seconds, 1)
    for t, line in samples:
        parts = [f"{t:.0f} 秒"]
        if "cpuTemperature" in line:
            parts.append(f"处理器 {line['cpuTemperature']:.1f} °C")
        parts += [f"风扇 {fan['id'] + 1} {fan['rpm']:.0f} RPM"
                  for fan in line["fans"] if "rpm" in fan]
        yield (f'<rect class="second" x="{across(t, seconds) - width / 2:.1f}" y="{TOP}" '
               f'width="{width:.1f}" height="{bottom - TOP}">'
               f'<title>{"，".join(parts)}</title></rect>')


def series_of(recording):
    """The temperatures and the speeds; a fan's target has the colour of its fan."""
    heat = [Series("处理器", 0, recording.temperatures("cpuTemperature")),
            Series("图形处理器", 1, recording.temperatures("gpuTemperature"))]
    speeds = []
    for number, fan in enumerate(recording.fan_ids()):
        colour = 2 + number % 4
        speeds.append(Series(f"风扇 {fan + 1} 目标", colour, recording.targets(fan), stepped=True))
        speeds.append(Series(f"风扇 {fan + 1}", colour, recording.speeds(fan)))
    has_values = [[one for one in both if any(v is not None for _, v in one.points)]
                  for both in (heat, speeds)]
    return has_values[0], has_values[1]


def plot(recording):
    """The drawing, empty without any reading, and its series for a legend."""
    heat, speeds = series_of(recording)
    seconds = recording.seconds
    panels = [Panel("温度", "°C", heat, TOP, seconds)] if heat else []
    if speeds:
        top = TOP + len(panels) * (PANEL + GAP)
        panels.append(Panel("风扇转速", "RPM", speeds, top, seconds, at_least_from=0))
    if not panels:
        return "", [], []
    bottom = panels[-1].top + PANEL
    parts = [*bands(recording.mode_spans(), seconds, bottom)]
    for panel in panels:
        parts += panel.draw()
    parts += [*time_axis(seconds, bottom), *readings(recording.samples, seconds, bottom),
              *markers(recording.events, seconds, bottom)]
    return (f'<svg viewBox="0 0 {WIDTH} {bottom + BOTTOM}" role="img" '
            f'aria-label="温度与风扇转速随时间变化的曲线">{"".join(parts)}</svg>'), heat, speeds
