"""Shapes and words of a picture, in pixels."""
import html


class Svg:
    def __init__(self):
        self.shapes, self.width, self.height = [], 0, 0

    def reach(self, x, y):
        self.width, self.height = max(self.width, x), max(self.height, y)

    def rect(self, x, y, width, height, colour, opacity=1):
        self.reach(x + width, y + height)
        self.shapes.append(f'<rect x="{x:.1f}" y="{y:.1f}" width="{max(width, 0):.1f}" height="{max(height, 0):.1f}" '
                           f'fill="{colour}" fill-opacity="{opacity}"/>')

    def text(self, x, y, words, size=11, anchor="start", colour="#1d2b3a", weight="normal"):
        wide = 0.56 * size * len(words)
        self.reach(x + {"start": wide, "middle": wide / 2, "end": 0}[anchor], y)
        self.shapes.append(f'<text x="{x:.1f}" y="{y:.1f}" font-size="{size}" text-anchor="{anchor}" fill="{colour}" '
                           f'font-weight="{weight}">{html.escape(words)}</text>')

    def line(self, points, colour, width=1, dash=""):
        path = " ".join(f"{x:.1f},{y:.1f}" for x, y in points)
        dashes = f' stroke-dasharray="{dash}"' if dash else ""
        self.shapes.append(f'<polyline points="{path}" fill="none" stroke="{colour}" stroke-width="{width}"{dashes}/>')

    def area(self, points, colour, opacity=1):
        path = " ".join(f"{x:.1f},{y:.1f}" for x, y in points)
        self.shapes.append(f'<polygon points="{path}" fill="{colour}" fill-opacity="{opacity}"/>')

    def dot(self, x, y, radius, colour):
        self.shapes.append(f'<circle cx="{x:.1f}" cy="{y:.1f}" r="{radius}" fill="{colour}"/>')

    def write(self, path):
        with open(path, "w") as file:
            file.write(f'<svg xmlns="http://www.w3.org/2000/svg" width="{self.width + 20:.0f}" '
                       f'height="{self.height + 20:.0f}" font-family="sans-serif">\n'
                       '<rect width="100%" height="100%" fill="white"/>\n' + "\n".join(self.shapes) + "\n</svg>\n")
