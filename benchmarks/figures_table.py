"""Markdown tables, and figures that are taken several times."""
import statistics


def number(value):
    """Three digits that count, all of a larger one."""
    if value is None:
        return "–"
    if value == 0 or abs(value) >= 100:
        return f"{value:.0f}"
    text = f"{value:.3g}"
    return text if "e" not in text else f"{value:.5f}"


def table(head, rows):
    lines = [head, ["---"] + ["---:"] * (len(head) - 1), *rows]
    return "\n".join("| " + " | ".join(line) + " |" for line in lines)


def row(figure, unit, here, reference, of_what=""):
    """`here` and `reference` are lists, of which the medians are told."""
    name = f"{figure}, {unit}" if unit else figure
    middles = statistics.median(here), statistics.median(reference)
    told = number(middles[1])
    return [name, number(middles[0]), f"{told} ({of_what})" if of_what else told, ratio(*middles)]


def ratio(here, reference):
    return f"{here / reference:.2f}" if reference else "–"


def ratio_of_turns(here, reference):
    """The median of the turns' ratios, because the speed of a machine that does other work drifts."""
    return ratio(statistics.median(ours / theirs for ours, theirs in zip(here, reference)), 1)
