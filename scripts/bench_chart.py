"""Horizontal bar charts as SVG, on a white ground so that they read in a light and in a dark page."""
import math
from statistics import median
from typing import Callable, NamedTuple
from xml.sax.saxutils import escape

WIDTH, LEFT, RIGHT = 860, 150, 150  # Left: the columns' labels; right: the figure behind the longest.
TOP, ROW, HEADING, FOOT = 78, 19, 27, 46
STEEP = 30  # Magnitudes further apart than this get a logarithmic scale.


class Column(NamedTuple):
    label: str
    colour: str
    values: list  # Drawn to the median, with the spread as a thin line.
    text: str
    tail: float | None = None  # Drawn lighter up to this, instead of the spread.

    def ends(self):
        return self.values if self.tail is None else [self.tail]


class Panel(NamedTuple):
    title: str
    text_of: Callable  # A tick's text.
    groups: list  # (Heading, columns).


class Axis:
    def __init__(self, values):
        positive = [value for value in values if value > 0] or [1]
        self.logarithmic = max(positive) / min(positive) > STEEP
        self._high = max(positive)
        if self.logarithmic:
            first = math.floor(math.log10(min(positive) / 1.5))  # So that the shortest bar is seen.
            self._low = 10.0 ** first
            self.ticks = [10.0 ** at for at in range(first, math.floor(math.log10(self._high)) + 1)]
        else:
            decade = 10.0 ** math.floor(math.log10(self._high / 4))
            step = next(size * decade for size in (1, 2, 5, 10) if self._high <= 5 * size * decade)
            self.ticks = [step * at for at in range(int(self._high / step) + 1)]

    def x(self, value):
        if self.logarithmic:
            share = math.log(max(value, self._low) / self._low) / math.log(self._high / self._low)
        else:
            share = value / self._high
        return round(LEFT + share * (WIDTH - LEFT - RIGHT), 1)


def text_at(x, y, text, **attributes):
    more = "".join(f' {name.replace("_", "-")}="{value}"' for name, value in attributes.items())
    return f'<text x="{x}" y="{y}"{more}>{escape(text)}</text>'


def over_lines(x, y, text, **attributes):
    return text_at(x, y, text, paint_order="stroke", stroke="#fff", stroke_width=5, **attributes)


def column_svg(column, axis, y):
    def bar(value, opacity):
        return (f'<rect x="{LEFT}" y="{y + 2}" width="{axis.x(value) - LEFT:.1f}" height="{ROW - 5}" fill="{column.colour}" '
                f'opacity="{opacity}"/>')

    middle, least, most = median(column.values), min(column.ends()), max(column.ends())
    yield text_at(LEFT - 8, y + 13, column.label, text_anchor="end")
    if column.tail is not None:
        yield bar(column.tail, 0.35)
    yield bar(middle, 1)
    if column.tail is None:
        yield f'<path d="M{axis.x(least)} {y + 9}H{axis.x(most)}" stroke="#111" stroke-width="1.5"/>'
    yield over_lines(max(axis.x(middle), axis.x(most)) + 7, y + 13, column.text)


def panel_svg(panel, top):
    """Its elements, and where it ends."""
    columns = [column for _, group in panel.groups for column in group]
    axis = Axis([value for column in columns for value in (median(column.values), *column.ends())])
    bottom = top + 22 + HEADING * len(panel.groups) + ROW * len(columns)
    scale = ", logarithmic scale: each line is ten times the one before" if axis.logarithmic else ""
    out = [text_at(20, top + 6, panel.title + scale, fill="#444")]
    for tick in axis.ticks:
        out.append(f'<path d="M{axis.x(tick)} {top + 18}V{bottom + 4}" stroke="#ddd"/>')
        out.append(text_at(axis.x(tick), bottom + 19, panel.text_of(tick), fill="#444", text_anchor="middle", font_size=12))
    y = top + 14
    for heading, group in panel.groups:
        y += HEADING
        out.append(over_lines(20, y - 5, heading, font_weight="bold"))
        for column in group:
            out += column_svg(column, axis, y)
            y += ROW
    return out, bottom + FOOT


def chart(title, subtitle, panels):
    body, y = [], TOP
    for panel in panels:
        elements, y = panel_svg(panel, y)
        body += elements
    height = y - 14
    head = [f'<svg xmlns="http://www.w3.org/2000/svg" width="{WIDTH}" height="{height}" viewBox="0 0 {WIDTH} {height}" '
            'role="img" font-family="Helvetica, Arial, \'DejaVu Sans\', sans-serif" font-size="13" fill="#111">',
            f"<title>{escape(title)}</title>", '<rect width="100%" height="100%" fill="#fff"/>',
            text_at(20, 30, title, font_size=18, font_weight="bold"), text_at(20, 50, subtitle, fill="#444")]
    return "\n".join([*head, *body, "</svg>\n"])
