"""What the measurements print: tables, and the bounds that must hold."""


class Report:
    """Prints tables as they come and remembers the bounds for the last one."""

    def __init__(self):
        self.bounds = []

    def table(self, title, columns, rows):
        """Prints a table: title, heads and rows of texts or numbers."""
        print_table(title, columns, rows)

    def note(self, text):
        print(text + "\n", flush=True)

    def bound(self, what, value, limit, unit=""):
        """A value that must not be above its limit."""
        self.bounds.append((what, value, limit, unit))

    def failed(self, name, why):
        """A measurement that came to nothing counts as a broken bound."""
        print(f"{name} could not be measured\n{why}", flush=True)
        self.bound(f"failures of {name}", 1, 0)

    def finish(self):
        """Prints the table of bounds. The number of those that are broken."""
        broken = 0
        rows = []
        for what, value, limit, unit in self.bounds:
            kept = value <= limit
            broken += not kept
            rows.append((what, f"{shown(value)} {unit}", f"{shown(limit)} {unit}",
                         "kept" if kept else "BROKEN"))
        print_table("Bounds", ("what", "measured", "at most", ""), rows)
        return broken


def shown(value):
    """A number with as many digits as there is sense in."""
    if isinstance(value, (str, int)):
        return value if isinstance(value, str) else f"{value:,}"
    size = abs(value)
    digits = 3 if 0 < size < 0.1 else 2 if size < 10 else 1 if size < 100 else 0
    text = f"{value:,.{digits}f}"
    return "0.00" if float(text.replace(",", "")) == 0 else text


def print_table(title, columns, rows):
    """Numbers to the right, texts to the left, in a form that a Markdown page can take over."""
    texts = [tuple(shown(cell).strip() for cell in row) for row in rows]
    widths = [max([len(cell) for cell in column] + [3])
              for column in zip(columns, *texts, strict=True)]
    right = [all(not isinstance(row[i], str) for row in rows) for i in range(len(columns))]

    def line(cells):
        padded = [cell.rjust(width) if is_right else cell.ljust(width)
                  for cell, width, is_right in zip(cells, widths, right, strict=True)]
        return "| " + " | ".join(padded) + " |"

    rule = ["-" * (width - 1) + ":" if is_right else "-" * width
            for width, is_right in zip(widths, right, strict=True)]
    print(f"### {title}\n\n" + "\n".join([line(columns), line(rule), *map(line, texts)]) + "\n",
          flush=True)
