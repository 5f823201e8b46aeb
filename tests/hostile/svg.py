"""Line charts as SVG pictures, with nothing but the standard library."""

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


def begin(title):
    return [f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {HEIGHT}" font-family="sans-serif" '
            'font-size="13">', f'<rect width="{WIDTH}" height="{HEIGHT}" fill="white"/>',
            f'<text x="{WIDTH / 2}" y="26" text-anchor="middle" font-size="16">{escape(title)}</text>']


def end(path, parts):
    with open(path, "w", encoding="utf-8") as file:
        file.write("\n".join([*parts, "</svg>\n"]))


def draw(path, title, x_name, x_values, left, right):
    """Writes a chart of two lines, one with its axis on each side."""
    x_top = max(x_values)

    def x(value):
        return LEFT + value / x_top * (WIDTH - LEFT - RIGHT)

    parts = begin(title)
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
    end(path, parts)


class Line:
    """One of several lines on the same axis."""

    def __init__(self, name, colour, values):
        self.name = name
        self.colour = colour
        self.values = values


def draw_lines(path, title, x_name, x_labels, y_name, lines):
    """Writes a chart of lines on one axis, from 0 on; the labels of the other axis stand at equal distances."""
    top, steps = round_up(max(max(line.values) for line in lines) * 10)
    top /= 10

    def x(number):
        return LEFT + 20 + number / max(1, len(x_labels) - 1) * (WIDTH - LEFT - RIGHT - 40)

    def y(value):
        return HEIGHT - BOTTOM - value / top * (HEIGHT - TOP - BOTTOM)

    parts = begin(title)
    for number, label in enumerate(x_labels):
        parts.append(f'<text x="{x(number):.1f}" y="{HEIGHT - BOTTOM + 20}" text-anchor="middle">{escape(label)}'
                     '</text>')
    parts.append(f'<text x="{WIDTH / 2}" y="{HEIGHT - 14}" text-anchor="middle">{escape(x_name)}</text>')
    for number in range(steps + 1):
        value = top * number / steps
        parts.append(f'<line x1="{LEFT}" y1="{y(value):.1f}" x2="{WIDTH - RIGHT}" y2="{y(value):.1f}" stroke="#ddd"/>')
        parts.append(f'<text x="{LEFT - 8}" y="{y(value) + 4:.1f}" text-anchor="end">{value:,g}</text>')
    parts.append(f'<text transform="translate(20,{HEIGHT / 2}) rotate(-90)" text-anchor="middle">{escape(y_name)}'
                 '</text>')
    for number, line in enumerate(lines):
        places = [(x(at), y(value)) for at, value in enumerate(line.values)]
        points = " ".join(f"{across:.1f},{down:.1f}" for across, down in places)
        parts.append(f'<polyline points="{points}" fill="none" stroke="{line.colour}" stroke-width="1.5"/>')
        parts += [f'<circle cx="{across:.1f}" cy="{down:.1f}" r="3" fill="{line.colour}"/>' for across, down in places]
        down = HEIGHT - BOTTOM - 14 - 18 * (len(lines) - 1 - number)
        parts.append(f'<text x="{LEFT + 12}" y="{down}" fill="{line.colour}">{escape(line.name)}</text>')
    end(path, parts)
