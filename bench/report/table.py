"""Ratios round by round, and the one table that they make."""

from statistics import median


def values(case, target, contenders):
    """The ratio of the port to its floor in each round, or the port's figure itself."""
    port = contenders["port"]
    if not target.of_floor or case.floor is None:
        return [figures[target.figure] for figures in port if figures]
    return [
        target.weight * mine[target.figure] / (floor[target.figure] + target.plus)
        for mine, floor in zip(port, contenders["floor"])
        if mine and floor and floor[target.figure] + target.plus
    ]


def rows(cases, results):
    """One a case, scheduling and figure."""
    for case in cases:
        for scheduling in case.schedulings:
            contenders = results.get((case.key, scheduling))
            if contenders is None:
                continue
            for target in case.targets:
                found = values(case, target, contenders)
                if not found:
                    yield {"case": case.key, "figure": target.title, "scheduling": scheduling, "failed": True}
                    continue
                yield {
                    "case": case.key,
                    "figure": target.title,
                    "scheduling": scheduling,
                    "median": median(found),
                    "least": min(found),
                    "most": max(found),
                    "bound": target.bound(scheduling),
                    "is_upper": target.at_most is not None,
                    "met": target.is_met(median(found), scheduling),
                    "port": median(f[target.figure] for f in contenders["port"] if f),
                    "floor": median(f[target.figure] for f in contenders["floor"] if f) if case.floor else None,
                }


def target_text(row):
    if row.get("bound") is None:
        return ""
    return f"{'<=' if row['is_upper'] else '>='} {row['bound']:g}"


def verdict(row):
    if row.get("failed"):
        return "FAILED"
    return {None: "", True: "met", False: "MISSED"}[row["met"]]


def number(value):
    if value is None:
        return ""
    return f"{value:.0f}" if abs(value) >= 1000 else f"{value:.3g}"


COLUMNS = ("what", "figure", "sched", "ratio", "least", "most", "target", "verdict", "port", "floor")


def cells(row):
    head = [row["case"], row["figure"], row["scheduling"]]
    if row.get("failed"):
        return head + [""] * 4 + ["FAILED", "", ""]
    return head + [
        f"{row['median']:.2f}",
        f"{row['least']:.2f}",
        f"{row['most']:.2f}",
        target_text(row),
        verdict(row),
        number(row["port"]),
        number(row["floor"]),
    ]


def text(all_rows):
    lines = [COLUMNS, *(cells(row) for row in all_rows)]
    widths = [max(len(line[place]) for line in lines) for place in range(len(COLUMNS))]
    return "\n".join(
        "  ".join(cell.ljust(width) if place < 3 else cell.rjust(width) for place, (cell, width) in enumerate(zip(line, widths)))
        for line in lines
    )
