"""Horizontal bar charts and curves as SVG, on a white background so that they are readable on light and dark pages."""
import math
from statistics import median
from typing import Callable, NamedTuple
from xml.sax.saxutils import escape

# Pixels. Narrow enough that the text can be read on a phone, which scales the chart to the width of its screen.
WIDTH, LEFT, RIGHT = 600, 135, 155  # Left margin: labels; right margin: the value of the longest bar.
TOP, ROW, HEADING, FOOT = 80, 21, 29, 48
FONT, SMALL_FONT, TITLE_FONT = 15, 14, 19
CURVE_LEFT, CURVE_RIGHT, CURVE_HEIGHT = 75, 213, 190  # Right margin: the name and the last value of each curve.
MAX_LINEAR_RATIO = 30  # Values with a larger ratio get a logarithmic scale.


class Bar(NamedTuple):
    label: str
    colour: str
    values: list  # The bar ends at the median; a thin line shows the range.
    text: str
    tail: float | None = None  # End of a lighter bar, which replaces the range.

    def ends(self):
        return self.values if self.tail is None else [self.tail]


class Panel(NamedTuple):
    title: str
    tick_label: Callable  # Formats the value of a tick.
    groups: list  # (Heading, bars).


class Curve(NamedTuple):
    label: str
    colour: str
    points: list  # (x, values), x on a logarithmic scale. The curve connects the medians; thin lines show the ranges.
    text: str  # Formatted median of the last values.


class CurvePanel(NamedTuple):
    title: str
    tick_label: Callable
    x_title: str
    curves: list  # All with the same x.


class Axis:
    """Maps values to pixels from `start` to `end`."""

    def __init__(self, values, start=LEFT, end=WIDTH - RIGHT):
        self._start, self._end = start, end
        positive = [value for value in values if value > 0] or [1]
        self.logarithmic = max(positive) / min(positive) > MAX_LINEAR_RATIO
        self._high = max(positive)
        if self.logarithmic:
            first = math.floor(math.log10(min(positive) / 1.5))  # Keeps the shortest bar visible.
            self._low = 10.0 ** first
            self.ticks = [10.0 ** at for at in range(first, math.floor(math.log10(self._high)) + 1)]
        else:
            decade = 10.0 ** math.floor(math.log10(self._high / 4))
            step = next(size * decade for size in (1, 2, 5, 10) if self._high <= 5 * size * decade)
            self.ticks = [step * at for at in range(int(self._high / step) + 1)]

    def at(self, value):
        if self.logarithmic:
            fraction = math.log(max(value, self._low) / self._low) / math.log(self._high / self._low)
        else:
            fraction = value / self._high
        return round(self._start + fraction * (self._end - self._start), 1)


def text_at(x, y, text, **attributes):
    attribute_text = "".join(f' {name.replace("_", "-")}="{value}"' for name, value in attributes.items())
    return f'<text x="{x}" y="{y}"{attribute_text}>{escape(text)}</text>'


def text_with_halo(x, y, text, **attributes):
    return text_at(x, y, text, paint_order="stroke", stroke="#fff", stroke_width=5, **attributes)


def bar_svg(bar, axis, y):
    def rectangle(value, opacity):
        return (f'<rect x="{LEFT}" y="{y + 2}" width="{axis.at(value) - LEFT:.1f}" height="{ROW - 5}" '
                f'fill="{bar.colour}" opacity="{opacity}"/>')

    middle, low, high = median(bar.values), min(bar.ends()), max(bar.ends())
    yield text_at(LEFT - 8, y + 14, bar.label, text_anchor="end")
    if bar.tail is not None:
        yield rectangle(bar.tail, 0.35)
    yield rectangle(middle, 1)
    if bar.tail is None:
        yield f'<path d="M{axis.at(low)} {y + 10}H{axis.at(high)}" stroke="#111" stroke-width="1.5"/>'
    yield text_with_halo(max(axis.at(middle), axis.at(high)) + 7, y + 14, bar.text)


def panel_svg(panel, top):
    """Returns the SVG elements and the y coordinate of the end."""
    bars = [bar for _, group in panel.groups for bar in group]
    axis = Axis([value for bar in bars for value in (median(bar.values), *bar.ends())])
    bottom = top + 22 + HEADING * len(panel.groups) + ROW * len(bars)
    scale = " (logarithmic scale)" if axis.logarithmic else ""
    out = [text_at(20, top + 6, panel.title + scale, fill="#444")]
    for tick in axis.ticks:
        out.append(f'<path d="M{axis.at(tick)} {top + 18}V{bottom + 4}" stroke="#ddd"/>')
        out.append(text_at(axis.at(tick), bottom + 19, panel.tick_label(tick), fill="#444", text_anchor="middle",
                           font_size=SMALL_FONT))
    y = top + 14
    for heading, group in panel.groups:
        y += HEADING
        out.append(text_with_halo(20, y - 5, heading, font_weight="bold"))
        for bar in group:
            out += bar_svg(bar, axis, y)
            y += ROW
    return out, bottom + FOOT


def curve_svg(curve, x_of, y_axis, label_y):
    path = "L".join(f"{x_of(x)} {y_axis.at(median(values))}" for x, values in curve.points)
    yield f'<path d="M{path}" stroke="{curve.colour}" stroke-width="2.5" fill="none"/>'
    for x, values in curve.points:
        yield (f'<path d="M{x_of(x)} {y_axis.at(min(values))}V{y_axis.at(max(values))}" stroke="{curve.colour}" '
               f'stroke-width="1.5"/>')
        yield f'<circle cx="{x_of(x)}" cy="{y_axis.at(median(values))}" r="4" fill="{curve.colour}"/>'
    yield text_at(WIDTH - CURVE_RIGHT + 14, label_y, f"{curve.label}: {curve.text}", fill=curve.colour)


def label_positions(wanted, bottom):
    """Returns y coordinates near the wanted ones, at least a line of text apart; none is below `bottom`."""
    positions = [0] * len(wanted)
    next_free = bottom
    for i in sorted(range(len(wanted)), key=wanted.__getitem__, reverse=True):
        positions[i] = min(wanted[i] + 5, next_free)
        next_free = positions[i] - FONT - 3
    return positions


def curve_panel_svg(panel, top):
    """Returns the SVG elements and the y coordinate of the end."""
    bottom, right = top + 20 + CURVE_HEIGHT, WIDTH - CURVE_RIGHT
    values = [value for curve in panel.curves for _, point in curve.points for value in point]
    y_axis = Axis(values, bottom, top + 28)
    xs = [x for x, _ in panel.curves[0].points]
    x_of = {x: round(CURVE_LEFT + 20 + math.log(x / xs[0]) / math.log(xs[-1] / xs[0]) * (right - CURVE_LEFT - 20), 1)
            for x in xs}
    scale = " (logarithmic scale)" if y_axis.logarithmic else ""
    out = [text_at(20, top + 6, panel.title + scale, fill="#444"),
           text_at((CURVE_LEFT + right) / 2, bottom + 38, panel.x_title, fill="#444", text_anchor="middle")]
    small = {"fill": "#444", "font_size": SMALL_FONT}
    for tick in y_axis.ticks:
        out.append(f'<path d="M{CURVE_LEFT} {y_axis.at(tick)}H{right}" stroke="#ddd"/>')
        out.append(text_at(CURVE_LEFT - 7, y_axis.at(tick) + 5, panel.tick_label(tick), text_anchor="end", **small))
    out += [text_at(at, bottom + 19, f"{x:,}", text_anchor="middle", **small) for x, at in x_of.items()]
    ends = [y_axis.at(median(curve.points[-1][1])) for curve in panel.curves]
    for curve, label_y in zip(panel.curves, label_positions(ends, bottom)):
        out += curve_svg(curve, x_of.__getitem__, y_axis, label_y)
    return out, bottom + FOOT + 22


def chart(title, subtitle, panels):
    body, y = [], TOP
    for panel in panels:
        elements, y = (panel_svg if isinstance(panel, Panel) else curve_panel_svg)(panel, y)
        body += elements
    height = y - 14
    family = "Helvetica, Arial, 'DejaVu Sans', sans-serif"
    head = [f'<svg xmlns="http://www.w3.org/2000/svg" width="{WIDTH}" height="{height}" viewBox="0 0 {WIDTH} {height}" '
            f'role="img" font-family="{family}" font-size="{FONT}" fill="#111">',
            f"<title>{escape(title)}</title>",
            '<rect width="100%" height="100%" fill="#fff"/>',
            text_at(20, 30, title, font_size=TITLE_FONT, font_weight="bold"),
            text_at(20, 50, subtitle, font_size=SMALL_FONT, fill="#444")]
    return "\n".join([*head, *body, "</svg>\n"])
