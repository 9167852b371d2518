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
    """`here` and `reference` are lists of the same turns; the ratio is the median of the turns' ratios, because the
    speed of a machine that does other work drifts."""
    name = f"{figure}, {unit}" if unit else figure
    told = number(statistics.median(reference))
    return [name, number(statistics.median(here)), f"{told} ({of_what})" if of_what else told,
            ratio(here, reference)]


def ratio(here, reference):
    ratios = [ours / theirs for ours, theirs in zip(here, reference) if theirs]
    return f"{statistics.median(ratios):.2f}" if ratios else "–"
