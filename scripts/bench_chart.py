"""Horizontal bar charts as SVG, with a white background so that they are readable in light and dark pages."""
import math
from statistics import median
from typing import Callable, NamedTuple
from xml.sax.saxutils import escape

# Pixels. Narrow enough that the text can be read on a phone, which scales the chart to the width of its screen.
WIDTH, LEFT, RIGHT = 600, 135, 145  # Left margin: labels; right margin: the value of the longest bar.
TOP, ROW, HEADING, FOOT = 80, 21, 29, 48
FONT, SMALL_FONT, TITLE_FONT = 15, 14, 19
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


class Axis:
    def __init__(self, values):
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

    def x(self, value):
        if self.logarithmic:
            fraction = math.log(max(value, self._low) / self._low) / math.log(self._high / self._low)
        else:
            fraction = value / self._high
        return round(LEFT + fraction * (WIDTH - LEFT - RIGHT), 1)


def text_at(x, y, text, **attributes):
    attribute_text = "".join(f' {name.replace("_", "-")}="{value}"' for name, value in attributes.items())
    return f'<text x="{x}" y="{y}"{attribute_text}>{escape(text)}</text>'


def text_with_halo(x, y, text, **attributes):
    return text_at(x, y, text, paint_order="stroke", stroke="#fff", stroke_width=5, **attributes)


def bar_svg(bar, axis, y):
    def rectangle(value, opacity):
        return (f'<rect x="{LEFT}" y="{y + 2}" width="{axis.x(value) - LEFT:.1f}" height="{ROW - 5}" '
                f'fill="{bar.colour}" opacity="{opacity}"/>')

    middle, low, high = median(bar.values), min(bar.ends()), max(bar.ends())
    yield text_at(LEFT - 8, y + 14, bar.label, text_anchor="end")
    if bar.tail is not None:
        yield rectangle(bar.tail, 0.35)
    yield rectangle(middle, 1)
    if bar.tail is None:
        yield f'<path d="M{axis.x(low)} {y + 10}H{axis.x(high)}" stroke="#111" stroke-width="1.5"/>'
    yield text_with_halo(max(axis.x(middle), axis.x(high)) + 7, y + 14, bar.text)


def panel_svg(panel, top):
    """Returns the SVG elements and the y coordinate of the end."""
    bars = [bar for _, group in panel.groups for bar in group]
    axis = Axis([value for bar in bars for value in (median(bar.values), *bar.ends())])
    bottom = top + 22 + HEADING * len(panel.groups) + ROW * len(bars)
    scale = " (logarithmic scale)" if axis.logarithmic else ""
    out = [text_at(20, top + 6, panel.title + scale, fill="#444")]
    for tick in axis.ticks:
        out.append(f'<path d="M{axis.x(tick)} {top + 18}V{bottom + 4}" stroke="#ddd"/>')
        out.append(text_at(axis.x(tick), bottom + 19, panel.tick_label(tick), fill="#444", text_anchor="middle",
                           font_size=SMALL_FONT))
    y = top + 14
    for heading, group in panel.groups:
        y += HEADING
        out.append(text_with_halo(20, y - 5, heading, font_weight="bold"))
        for bar in group:
            out += bar_svg(bar, axis, y)
            y += ROW
    return out, bottom + FOOT


def chart(title, subtitle, panels):
    body, y = [], TOP
    for panel in panels:
        elements, y = panel_svg(panel, y)
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
