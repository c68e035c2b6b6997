"""The command as a shell would run it, and what it leaves."""

import json

import nibabel
import numpy as np

from ctessel import cli


def run(*words):
    """The exit code."""
    try:
        return cli.main([str(word) for word in words])
    except SystemExit as end:
        return end.code


def recon(scan, output, *options):
    """The image that the command makes of a scan."""
    assert run("recon", scan, "-o", output, *options) == 0
    return nibabel.load(output)


def pixels(path):
    return np.asarray(nibabel.load(path).dataobj)


def sidecar(path):
    """What stands beside an image."""
    return json.loads(path.with_name(path.name.split(".")[0] + ".json").read_text())


def refused(capsys, words, *command, code=cli.DEFECT):
    """The one line, with these words, in which the command ends."""
    assert run(*command) == code
    line = capsys.readouterr().err
    assert words in line and line.count("\n") == 1, line
    return line
