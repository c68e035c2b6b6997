"""What a reconstruction does and why, as sentences with citations."""

from . import __version__
from .sampling import shifted_axis

_WORKS = {
    "k-space": "D. B. Twieg. The k-trajectory formulation of the NMR imaging process with applications in analysis and "
    "synthesis of imaging methods. Medical Physics 10(5):610-621, 1983.",
    "array": "P. B. Roemer, W. A. Edelstein, C. E. Hayes, S. P. Souza, O. M. Mueller. The NMR phased array. Magnetic "
    "Resonance in Medicine 16(2):192-225, 1990.",
    "sense": "K. P. Pruessmann, M. Weiger, M. B. Scheidegger, P. Boesiger. SENSE: sensitivity encoding for fast MRI. "
    "Magnetic Resonance in Medicine 42(5):952-962, 1999.",
    "caipirinha": "F. A. Breuer, M. Blaimer, M. F. Mueller, et al. Controlled aliasing in volumetric parallel imaging "
    "(2D CAIPIRINHA). Magnetic Resonance in Medicine 55(3):549-556, 2006.",
    "espirit": "M. Uecker, P. Lai, M. J. Murphy, et al. ESPIRiT - an eigenvalue approach to autocalibrating parallel "
    "MRI: where SENSE meets GRAPPA. Magnetic Resonance in Medicine 71(3):990-1001, 2014.",
    "pocs": "E. M. Haacke, E. D. Lindskog, W. Lin. A fast, iterative, partial-Fourier technique capable of local phase "
    "recovery. Journal of Magnetic Resonance 92(1):126-145, 1991.",
    "homodyne": "D. C. Noll, D. G. Nishimura, A. Macovski. Homodyne detection in magnetic resonance imaging. IEEE "
    "Transactions on Medical Imaging 10(2):154-163, 1991.",
    "window": "F. J. Harris. On the use of windows for harmonic analysis with the discrete Fourier transform. "
    "Proceedings of the IEEE 66(1):51-83, 1978.",
    "geometry": "A. Janke, H. Zhao, G. J. Cowin, G. J. Galloway, D. M. Doddrell. Use of spherical harmonic deconvolution "
    "methods to compensate for nonlinear gradient effects on MRI images. Magnetic Resonance in Medicine 52(1):115-122, "
    "2004.",
}  # fmt: skip

#: Why a step of a plan is taken, by its first words.
_WHY = {
    "noise covariance": "coils with more noise, or with correlated noise, get a smaller weight",
    "noise scan not used": "it was switched off, or there is only one coil",
    "remove readout oversampling": "the readout was sampled beyond the field of view",
    "sensitivity maps": "the sensitivities separate aliases",
    "SENSE": "lines were left out between measured ones, so the image is folded",
    "ringing filter": "it was asked for",
    "zero filling": "the image has more voxels than were measured; zero filling interpolates",
    "partial Fourier": "lines on one side of k = 0 were not measured",
    "homodyne": "lines on one side of k = 0 were not measured, and homodyne was chosen",
    "POCS": "lines on one side of k = 0 were not measured",
    "combine coils": "each coil sees a part of the object",
    "geometry correction": "gradients are not linear far from the isocentre",
    "image": "as the header says, unless an option changes it",
}


def reason(step):
    """A step of a plan with the reason for it."""
    why = next((why for words, why in _WHY.items() if step.startswith(words)), None)
    return f"{step} ({why})" if why else step


def text(plan, warnings=()):
    """Sentences for a paper, and the works that they cite in the order of their numbers."""
    cited = []

    def number(*names):
        cited.extend(name for name in names if name not in cited)
        return "[" + ", ".join(str(cited.index(name) + 1) for name in names) + "]"

    sentences = [
        f"Images were reconstructed from Cartesian k-space {number('k-space')} of {plan.shape[3]} "
        f"coil{'s' * (plan.shape[3] > 1)}{_of_all(plan)} with cTessel {__version__}.",
        *_sentences(plan, number),
        f"The matrix is {' x '.join(map(str, plan.matrix))}, the field of view "
        f"{' x '.join(f'{n:g}' for n in plan.field)} mm.",
    ]
    return " ".join(sentences), [_WORKS[name] for name in cited]


def _of_all(plan):
    return f" of {plan.choice.count}" if plan.choice else ""


def _sentences(plan, number):
    options, unfolding = plan.options, next((p for p in plan.patterns if p.unfolds), None)
    if plan.covariance is not None and plan.shape[3] > 1:
        yield f"Coils were weighted by the inverse of their noise covariance, which a noise scan gave {number('array')}."
    if unfolding:
        factors = " x ".join(f"{float(lattice.reduction):g}" for lattice in unfolding.lattices if lattice.reduction > 1)
        lines = " x ".join(map(str, plan.calibration.lines))
        if plan.in_slabs:
            maps = f"sensitivities relative to the root sum of squares of {lines} calibration lines"
        else:
            maps = f"sensitivities of {lines} calibration lines by ESPIRiT {number('espirit')}"
        if shifted_axis(unfolding.lattices) is not None:
            factors += f" with a shifted sampling pattern {number('caipirinha')}"
        yield f"Undersampling by a factor of {factors} was unfolded with SENSE {number('sense')}, {maps}."
        if options.regularisation:
            yield f"The unfolding was regularised with strength {options.regularisation:g} by the calibration image."
    elif plan.shape[3] > 1:
        how = "weighted by their sensitivities" if plan.patterns[0].weighted else "by the root sum of squares"
        yield f"Coil images were combined {how} {number('array')}."
    yield from _partial(plan, number)
    if options.ringing > 0:
        yield f"A window of strength {options.ringing:g} reduced Gibbs ringing {number('window')}."
    if options.coefficients is not None:
        yield f"Distortions by non-linear gradients were corrected from their spherical harmonics {number('geometry')}."


def _partial(plan, number):
    pattern = plan.patterns[0]
    if not any(pattern.partial):
        return
    axes = " and ".join(name for name, lines in zip(("readout", "phase", "partition"), pattern.partial) if lines)
    way = plan.options.partial if any(pattern.ranges) else "zero"
    if way == "zero":
        what = "filled with zeros"
    elif way == "homodyne":
        what = f"handled by homodyne detection {number('homodyne')}"
    else:
        what = f"predicted by projection onto convex sets {number('pocs')}"
        what += " where this predicts hidden measured lines, otherwise filled with zeros" * (way == "auto")
    yield f"Lines that the partial Fourier acquisition lacks along {axes} were {what}."
