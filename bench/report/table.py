"""Ratios round by round, and the one table that they make."""

from statistics import median


def values(case, target, contenders):
    """The ratio of the port to its floor in each round, or the port's figure itself."""
    port = contenders["port"]
    if not target.of_floor or case.floor is None:
        return [figures[target.figure] for figures in port if figures]
    return [
        mine[target.figure] / (floor[target.figure] + target.plus)
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


def aligned(lines):
    """Words to the left, numbers to the right."""
    widths = [max(map(len, column)) for column in zip(*lines)]

    def padded(line):
        for place, (cell, width) in enumerate(zip(line, widths)):
            yield cell.ljust(width) if place < 3 or not cell[-1:].isdigit() else cell.rjust(width)

    return "\n".join("  ".join(padded(line)).rstrip() for line in lines)


def text(all_rows):
    return aligned([COLUMNS, *(cells(row) for row in all_rows)])


def key(row):
    return row["case"], row["figure"], row["scheduling"]


def change(old, new):
    """What a comparison of two runs says: only where the ratios of all rounds lie apart."""
    if new["least"] > old["most"]:
        better = not new["is_upper"]
    elif new["most"] < old["least"]:
        better = new["is_upper"]
    else:
        return ""
    return "gain" if better else "loss"


def comparison(old_rows, new_rows):
    """Ratios of an earlier run beside those of this one; never the figures themselves."""
    before = {key(row): row for row in old_rows if not row.get("failed")}
    lines = [("what", "figure", "sched", "before", "now", "change", "")]
    for row in new_rows:
        old = before.get(key(row))
        if old is None or row.get("failed"):
            continue
        percent = f"{100 * (row['median'] / old['median'] - 1):+.0f} %" if old["median"] else ""
        lines.append((*key(row), f"{old['median']:.2f}", f"{row['median']:.2f}", percent, change(old, row)))
    return aligned(lines)


def markdown(all_rows):
    """The table of the document: one line a figure, both schedulings side by side."""
    merged = {}
    for row in all_rows:
        merged.setdefault((row["case"], row["figure"]), {})[row["scheduling"]] = row
    lines = ["| What | Figure | Target | RR | nort |", "|---|---|---|---|---|"]
    for (case, figure), found in merged.items():
        cells_of = {scheduling: reached(row) for scheduling, row in found.items()}
        bounds = dict.fromkeys(target_text(row) for row in found.values())
        target = " / ".join(bound for bound in bounds if bound).replace("<=", "≤").replace(">=", "≥")
        lines.append(f"| {case} | {figure} | {target} | {cells_of.get('RR', '')} | {cells_of.get('nort', '')} |")
    return "\n".join(lines)


def reached(row):
    if row.get("failed"):
        return "failed"
    reach = f"{row['median']:.2f} ({row['least']:.2f} to {row['most']:.2f})"
    return f"**missed** {reach}" if row["met"] is False else reach


def peers(cases, results):
    """What each case costs over its contenders: medians of the figures, for the eye."""
    lines = [("what", "sched", "contender", "figures")]
    for case in cases:
        for scheduling in case.schedulings:
            contenders = results.get((case.key, scheduling))
            if contenders is None or not case.peers:
                continue
            for name, found in contenders.items():
                good = [figures for figures in found if figures]
                figures = {figure: median(each[figure] for each in good) for figure in (good[0] if good else {})}
                told = "  ".join(f"{figure} {number(value)}" for figure, value in figures.items())
                lines.append((case.key, scheduling, name, told))
    return aligned(lines) if len(lines) > 1 else ""


SPEEDS = (9600, 115200, 921600, 4_000_000)
BITS_A_BYTE = 10  # on a line with 8 data bits, no parity, 1 stop bit


def line_costs(results, case_key, bytes_a_message):
    """What messages back to back cost on a line of that speed, as a table of the document; empty when not measured.

    Both ends sleep between two messages, which is the dearest way: a message wakes every thread on its way.
    """
    lines = ["| Line, bit/s | Messages a second | One processor, sending and receiving all of them |", "|---|---|---|"]
    found = results.get((case_key, "nort"), {}).get("port", [])
    costs_ns = [figures["cpu_ns"] for figures in found if figures]
    if not costs_ns:
        return ""
    for speed in SPEEDS:
        rate = speed / BITS_A_BYTE / bytes_a_message
        lines.append(f"| {speed} | {rate:.0f} | {100 * rate * median(costs_ns) * 1e-9:.2g} % |")
    return "\n".join(lines)
