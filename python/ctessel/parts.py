"""Parts of a scan along slices, echoes or repetitions, and the whole of their images."""

from dataclasses import replace

import numpy as np

from . import maps
from .plan import geometry_warnings, geometry_words
from .scan import AXES


def select(plan, axis, first, last):
    """The plan of a part of a scan; its images have the bits of the whole.

    There is one exception: the geometry of a part along slices is corrected only within their planes.

    The plan needs the samples of the part, and the calibration lines of the whole scan.

    Parameters
    ----------
    plan : Plan
        Of the whole scan.
    axis : {"slice", "echo", "repetition"}
    first, last : int
        Indices from 0, both included.

    Returns
    -------
    Plan
    """
    if axis not in AXES[4:]:
        raise ValueError(f"axis: expected one of {', '.join(AXES[4:])}, got {axis!r}")
    at = AXES[4:].index(axis)
    count = len(plan.kept[at])
    if not 0 <= first <= last < count:
        raise ValueError(f"range: {axis} {first} to {last} is outside 0 to {count - 1}")
    kept = list(plan.kept)
    kept[at] = kept[at][first : last + 1]
    part = replace(plan, kept=tuple(kept), selection=(axis, first, last))
    if part.stack == plan.stack:
        return part
    words, own = geometry_words(plan), geometry_words(part)
    others = tuple(text for text in plan.warnings if text not in geometry_warnings(plan))
    return replace(
        part,
        steps=tuple(own if step == words else step for step in plan.steps),
        warnings=(*others, *geometry_warnings(part)),
    )


def merge(results, gaps=False):
    """Joins the results of parts of a scan.

    Parameters
    ----------
    results : sequence of Result
        Made with plans of `select`; in any order, without overlaps.
    gaps : bool, optional
        Echoes or repetitions between the parts may be missing; "skipped" of the parameters lists
        them.

    Returns
    -------
    Result
    """
    results = sorted(results, key=lambda result: result.selection[1])
    axis = results[0].selection[0]
    following, missing = results[0].selection[1], []
    for result in results:
        between = range(following, result.selection[1])
        allowed = gaps and axis != "slice" and result.selection[1] > following
        due = axis, result.selection[1] if allowed else following
        if result.selection[:2] != due:
            raise ValueError(
                f"parts: expected {axis} {following}, got {' '.join(map(str, result.selection))}; "
                "each index must be there once"
            )
        missing += between
        following = result.selection[2] + 1
    image = np.concatenate([result.image for result in results], AXES.index(axis) - 1)
    merged = replace(results[0], image=image, selection=(axis, results[0].selection[1], following - 1))
    if missing:
        merged.parameters = merged.parameters | {"skipped": [(axis, number) for number in missing]}
    odd = [entry for result in results for entry in result.parameters.get("inconsistent", [])]
    if odd:
        merged.parameters = merged.parameters | {"inconsistent": odd}
    for name in {"prediction", "residual", "condition", "response", "map_sets", "unexplained"} & set(merged.parameters):
        if axis == "slice":  # one a slice
            figures = [figure for result in results for figure in result.parameters[name]]
            merged.parameters = merged.parameters | {name: figures}
    if axis == "slice" and merged.maps is not None:
        merged.maps = maps.together([result.maps for result in results])
    return merged
