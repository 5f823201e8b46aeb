"""A line chart as an SVG picture, with nothing but the standard library."""

from xml.sax.saxutils import escape

WIDTH, HEIGHT = 880, 420
LEFT, RIGHT, TOP, BOTTOM = 80, 80, 50, 60


def round_up(value):
    """A round number that is at least as large, and into how many steps to divide it."""
    step = 1
    while True:
        for factor in (1, 2, 5):
            if step * factor * 5 >= value:
                return step * factor * 5, 5
        step *= 10


class Axis:
    """One line and its axis, from 0 on."""

    def __init__(self, name, colour, values):
        self.name = name
        self.colour = colour
        self.values = values
        self.top, self.steps = round_up(max(values))

    def y(self, value):
        return HEIGHT - BOTTOM - value / self.top * (HEIGHT - TOP - BOTTOM)


def draw(path, title, x_name, x_values, left, right):
    """Writes a chart of two lines, one with its axis on each side."""
    x_top = max(x_values)

    def x(value):
        return LEFT + value / x_top * (WIDTH - LEFT - RIGHT)

    parts = [f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {HEIGHT}" font-family="sans-serif" '
             'font-size="13">', f'<rect width="{WIDTH}" height="{HEIGHT}" fill="white"/>',
             f'<text x="{WIDTH / 2}" y="26" text-anchor="middle" font-size="16">{escape(title)}</text>']
    for number in range(6):
        value = x_top * number / 5
        parts.append(f'<text x="{x(value):.1f}" y="{HEIGHT - BOTTOM + 20}" text-anchor="middle">{value:,.0f}</text>')
    parts.append(f'<text x="{WIDTH / 2}" y="{HEIGHT - 14}" text-anchor="middle">{escape(x_name)}</text>')
    for axis, at, anchor, edge in ((left, LEFT - 8, "end", 20), (right, WIDTH - RIGHT + 8, "start", WIDTH - 14)):
        for number in range(axis.steps + 1):
            value = axis.top * number / axis.steps
            y = axis.y(value)
            parts.append(f'<line x1="{LEFT}" y1="{y:.1f}" x2="{WIDTH - RIGHT}" y2="{y:.1f}" stroke="#ddd"/>')
            parts.append(f'<text x="{at}" y="{y + 4:.1f}" text-anchor="{anchor}" fill="{axis.colour}">{value:,.0f}</text>')
        parts.append(f'<text transform="translate({edge},{HEIGHT / 2}) rotate(-90)" text-anchor="middle" '
                     f'fill="{axis.colour}">{escape(axis.name)}</text>')
        points = " ".join(f"{x(a):.1f},{axis.y(b):.1f}" for a, b in zip(x_values, axis.values))
        parts.append(f'<polyline points="{points}" fill="none" stroke="{axis.colour}" stroke-width="1.5"/>')
    parts.append("</svg>\n")
    with open(path, "w", encoding="utf-8") as file:
        file.write("\n".join(parts))
