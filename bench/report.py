"""What is printed of a run: a table for each row, and one for the README."""

from rows import UNITS_OF_CPU, is_ours, is_stock


def shown(number):
    """Three digits that count."""
    return f"{number:.0f}" if abs(number) >= 100 else f"{number:.1f}" if abs(number) >= 10 else f"{number:.2f}"


def shown_throughput(row, sample):
    if row.by_bytes:
        return f"{sample.throughput / 1e9:.2f} GB/s"
    return f"{sample.throughput / 1000:.1f}k/s"


def print_row(key, row, result, failures, findings):
    """All servers of a row, and what falls short."""
    unit, scale = UNITS_OF_CPU[row.by_bytes]
    notes = list(next(iter(result.values())).notes) if result else []
    has_throughput = any(sample.throughput for sample in result.values())
    titles = ["MB/s" if row.by_bytes else "requests/s", unit] if has_throughput else []
    widths = [max(len(title) + 2, 12) for title in [*titles, "memory MiB", *notes]]
    print(f"\n{key}: {row.name}")
    print(" " * 24 + "".join(title.rjust(width) for title, width in zip([*titles, "memory MiB", *notes], widths)))
    for name, sample in result.items():
        numbers = [f"{sample.memory / 1024:.1f}" if sample.memory else "–"]
        numbers += [shown(sample.notes[note]) if note in sample.notes else "–" for note in notes]
        if has_throughput:
            throughput = sample.throughput / 1e6 if row.by_bytes else sample.throughput
            numbers = [f"{throughput:.0f}", f"{sample.cpu * scale:.3f}" if sample.cpu else "–", *numbers]
        print(f"  {name:22}" + "".join(number.rjust(width) for number, width in zip(numbers, widths)))
    for name, reason in failures.items():
        print(f"  {name:22}  failed: {reason}")
    for finding in findings:
        print(f"  {'  ' if finding.met else '! '}{finding}")


def markdown(measured, heading):
    """The tables of the README. `measured`: (row, result, failures, findings) of each row, in order."""
    lines = [heading, ""]
    against = [entry for entry in measured if entry[0].aims]
    if against:
        lines += [
            "| Work | nbdd | best stock server | speed (aim) | CPU (aim) | MiB (least stock) | without io_uring |",
            "|---|---|---|---|---|---|---|",
            *(against_stock(*entry) for entry in against),
            "",
        ]
    others = [line for entry in measured for line in other_aims(*entry)]
    if others:
        lines += ["| Aim | nbdd | aimed at | best stock server |", "|---|---|---|---|", *others, ""]
    failed = [
        f"- {row.name}: {name} failed: {reason}"
        for row, _, failures, _ in measured
        for name, reason in failures.items()
    ]
    return "\n".join(lines + ([*failed, ""] if failed else []))


def against_stock(row, result, _, findings):
    stock = {name: sample for name, sample in result.items() if is_stock(name)}
    ours = result.get("nbdd")
    if ours is None or not stock:
        return f"| {row.name} | {shown_throughput(row, ours) if ours else 'failed'} | – | – | – | – | – |"
    best = max(stock, key=lambda name: stock[name].throughput)
    cheapest = min(stock, key=lambda name: stock[name].cpu)
    least = min(sample.memory for sample in stock.values())
    cells = [
        row.name,
        shown_throughput(row, ours),
        f"{best}, {shown_throughput(row, stock[best])}",
        ratio("nbdd", "speed", findings, ours.throughput / stock[best].throughput),
        ratio("nbdd", "CPU", findings, ours.cpu / stock[cheapest].cpu),
        f"{ours.memory / 1024:.1f} ({least / 1024:.1f})",
        "–",
    ]
    if (threads := result.get("nbdd, threads")) is not None:
        speed = ratio("nbdd, threads", "speed", findings, threads.throughput / stock[best].throughput, aim=False)
        cpu = ratio("nbdd, threads", "CPU", findings, threads.cpu / stock[cheapest].cpu, aim=False)
        cells[-1] = f"{speed}, CPU {cpu}"
    return f"| {' | '.join(cells)} |"


def ratio(server, what, findings, value, aim=True):
    """A ratio, its aim, and in bold with an exclamation mark if it falls short."""
    finding = next((one for one in findings if one.server == server and one.what == what), None)
    text = f"{value:.2f}"
    if finding is None:
        return text
    if aim:
        text += f" ({finding.aim:g})"
    return text if finding.met else f"**{text} !**"


def other_aims(row, result, _, findings):
    """What is not aimed at in proportion to the best stock server; ours with io_uring."""
    for finding in findings:
        if finding.server != "nbdd" or (row.aims and finding.what in ("speed", "CPU")):
            continue
        # Each stock server in our place: what it reaches of the same aim.
        theirs = {
            name: same
            for name in result
            if is_stock(name)
            for same in row.findings(with_reference(result, name))
            if same.what == finding.what
        }
        ours = value_of(finding) if finding.met else f"**{value_of(finding)} !**"
        cells = [f"{row.name}: {finding.what}", ours]
        cells += [f"{'at least' if finding.at_least else 'at most'} {finding.aim:g}", "–"]
        if theirs:
            best = (max if finding.at_least else min)(theirs, key=lambda name: theirs[name].value)
            cells[-1] = f"{best}: {value_of(theirs[best])}"
        yield f"| {' | '.join(cells)} |"


def value_of(finding):
    return shown(finding.value) + (f" ({finding.detail})" if finding.detail else "")


def with_reference(result, name):
    """The same result with a stock server in our place, to ask what it reaches of our aims."""
    return {"nbdd": result[name]} | {other: sample for other, sample in result.items() if not is_ours(other)}


def summary(measured):
    """How many rows meet all their aims, and what falls short."""
    short = {
        row.name: [str(finding) for finding in findings if not finding.met]
        + [f"{name} failed: {reason}" for name, reason in failures.items() if is_ours(name)]
        for row, _, failures, findings in measured
    }
    short = {name: reasons for name, reasons in short.items() if reasons}
    lines = [f"{len(measured) - len(short)} of {len(measured)} rows meet their aims."]
    return "\n".join(lines + [f"  {name}: {'; '.join(reasons)}" for name, reasons in short.items()])
