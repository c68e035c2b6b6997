"""A call of every kernel that takes samples, for the tests that hold for all of them."""

from conftest import random_complex

import ctessel
from ctessel import homodyne

DATA = random_complex((48, 40, 6, 8))
SENS = random_complex((48, 40, 6, 8), 1)

CALLS = {
    "fftshift": (ctessel.fftshift, {"data": DATA, "axes": (0, 1, 2, 3)}),
    "ifftshift": (ctessel.ifftshift, {"data": DATA}),
    "zero_pad": (ctessel.zero_pad, {"data": DATA, "shape": (64, 48, 9)}),
    "ringing_filter": (ctessel.ringing_filter, {"data": DATA, "strength": 0.7}),
    "sos": (ctessel.sos, {"data": DATA}),
    "pcsos": (ctessel.pcsos, {"data": DATA}),
    "sense_recon": (ctessel.sense_recon, {"folded": DATA[:, ::2], "sens": SENS}),
    "filter": (homodyne.filter, {"data": DATA, "kx": (-8, 23), "ky": (-6, 19)}),
    "multiply": (homodyne.multiply, {"data": DATA, "low": SENS}),
}
