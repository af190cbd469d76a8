"""Growth curves as SVG: both axes logarithmic, the port beside its floor."""

import math
from statistics import median

WIDTH, HEIGHT = 420, 260
LEFT, RIGHT, TOP, BOTTOM = 64, 12, 30, 44
COLOURS = {"port": "#c0392b", "floor": "#7f8c8d"}


def points_of(curve, results):
    """Contender to (size, cost) of the sizes that were measured."""
    found = {"port": [], "floor": []}
    for size, port, floor, units in curve.points:
        contenders = results.get((curve.case(size, port, floor).key, "nort"), {})
        for name, points in found.items():
            figures = [each[curve.figure] for each in contenders.get(name, []) if each]
            if figures:
                points.append((size, median(figures) / units))
    return found


class Axis:
    """Places values between two ends, by their logarithms."""

    def __init__(self, values, start, end):
        self.low = math.floor(math.log10(min(values)) + 1e-9)
        self.high = max(self.low + 1, math.ceil(math.log10(max(values)) - 1e-9))
        self.start, self.end = start, end

    def place(self, value):
        share = (math.log10(value) - self.low) / (self.high - self.low)
        return round(self.start + share * (self.end - self.start), 1)

    def ticks(self):
        return [10.0**power for power in range(self.low, self.high + 1)]


def label(value):
    return f"{value:g}" if value < 1e5 else f"1e{round(math.log10(value))}"


def grid(x, y):
    for tick in x.ticks():
        at = x.place(tick)
        yield f'<path d="M{at} {TOP}V{HEIGHT - BOTTOM}" stroke="#ddd"/>'
        yield f'<text x="{at}" y="{HEIGHT - BOTTOM + 16}" text-anchor="middle">{label(tick)}</text>'
    for tick in y.ticks():
        at = y.place(tick)
        yield f'<path d="M{LEFT} {at}H{WIDTH - RIGHT}" stroke="#ddd"/>'
        yield f'<text x="{LEFT - 6}" y="{at + 4}" text-anchor="end">{label(tick)}</text>'


def titles(curve):
    middle = (LEFT + WIDTH - RIGHT) / 2
    yield f'<text x="{middle}" y="{HEIGHT - 8}" text-anchor="middle">{curve.x_title}</text>'
    yield f'<text x="{LEFT}" y="18" font-weight="bold">{curve.title}: {curve.y_title}</text>'
    for place, (name, colour) in enumerate(COLOURS.items()):
        yield f'<text x="{WIDTH - RIGHT - 40 + 40 * (place - 0.4)}" y="18" fill="{colour}">{name}</text>'


def series(points, colour, x, y):
    placed = [(x.place(size), y.place(cost)) for size, cost in points]
    corners = " ".join(f"{a},{b}" for a, b in placed)
    yield f'<polyline points="{corners}" fill="none" stroke="{colour}" stroke-width="2"/>'
    for a, b in placed:
        yield f'<circle cx="{a}" cy="{b}" r="2.5" fill="{colour}"/>'


def svg(curve, results):
    """The plot, or nothing when the curve was not measured."""
    found = points_of(curve, results)
    every = [point for points in found.values() for point in points]
    if not every:
        return None
    x = Axis([size for size, _ in every], LEFT, WIDTH - RIGHT)
    y = Axis([cost for _, cost in every], HEIGHT - BOTTOM, TOP)
    parts = [*grid(x, y), *titles(curve)]
    for name, points in found.items():
        parts += series(points, COLOURS[name], x, y)
    size = f'viewBox="0 0 {WIDTH} {HEIGHT}"'
    head = f'<svg xmlns="http://www.w3.org/2000/svg" {size} font-family="sans-serif" font-size="11">'
    return "\n".join([head, '<rect width="100%" height="100%" fill="#fff"/>', *parts, "</svg>", ""])
